// A directory of a test's own, removed with its record.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace tools {

class temporary_dir {
  public:
    temporary_dir() {
        const char* const base = std::getenv("TMPDIR");
        std::string name =
            std::filesystem::path(base != nullptr ? base : "/tmp") / "qnm-tools-test.XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            perror(name.c_str());
            std::abort();
        }
        path_ = name;
    }
    ~temporary_dir() {
        std::error_code ignored;  // nobody is left to be told
        std::filesystem::remove_all(path_, ignored);
    }
    temporary_dir(const temporary_dir&) = delete;
    temporary_dir& operator=(const temporary_dir&) = delete;
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

}  // namespace tools
