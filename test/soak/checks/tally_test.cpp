// tally_test.cpp - which results count as failures.

#include "checks/tally.h"

#include <gtest/gtest.h>

namespace soak {
namespace {

constexpr const char* k_names[] = {"read", "write"};
constexpr codes k_running = any_of({QNM_API_SUCCESS, QNM_API_ETIMEDOUT});
constexpr codes k_any_time = k_running | any_of({QNM_API_ENOSYS});
constexpr std::chrono::nanoseconds k_short{1};

TEST(tally, an_undocumented_code_is_a_failure) {
    tally counted(k_names);
    counted.count("read", QNM_API_ENOSYS, k_any_time, k_short);
    EXPECT_EQ(counted.failures(), 0U);
    counted.count("read", QNM_API_ENOSYS, k_running, k_short);
    EXPECT_EQ(counted.failures(), 1U);
}

TEST(tally, what_never_succeeds_is_a_failure) {
    tally counted(k_names);
    for (int n = 0; n < 10; n++) {
        counted.count("read", QNM_API_ETIMEDOUT, k_running, k_short);
        counted.count("write", QNM_API_ENOSYS, k_any_time, k_short);
    }
    counted.require_successes(11);
    EXPECT_EQ(counted.failures(), 0U);
    counted.require_successes(10);  // the writes were made while nothing ran
    EXPECT_EQ(counted.failures(), 1U);
    counted.count("read", QNM_API_SUCCESS, k_running, k_short);
    counted.require_successes(10);
    EXPECT_EQ(counted.failures(), 1U);
}

TEST(tally, what_was_never_called_is_a_failure_if_nothing_need_be_tried) {
    tally counted(k_names);
    counted.count("read", QNM_API_SUCCESS, k_running, k_short);
    counted.require_successes(0);
    EXPECT_EQ(counted.failures(), 1U);
}

}  // namespace
}  // namespace soak
