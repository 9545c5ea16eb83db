// A file name that only the running test uses. A file of that name is removed at the end.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <system_error>

struct temporary_file {
    const std::filesystem::path path =
        std::filesystem::path(testing::TempDir()) /
        ("cardsim-" + std::to_string(getpid()) + "-" +
         testing::UnitTest::GetInstance()->current_test_info()->name());

    temporary_file() = default;
    temporary_file(const temporary_file&) = delete;
    temporary_file& operator=(const temporary_file&) = delete;
    ~temporary_file() {
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
    }
};
