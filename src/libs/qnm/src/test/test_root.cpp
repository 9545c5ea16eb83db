// test_root.cpp - the sleep that a stop cuts short.

#include "qnm_root.h"

#include <chrono>
#include <numeric>
#include <vector>

#include "units.h"

namespace {

using testing::Each;

using root = units;

struct sleep_row {
    uint32_t ms;
    unsigned slices;  // of at most 100 ms
};

TEST_F(root, a_long_sleep_is_cut_into_slices) {
    for (const sleep_row& row : {sleep_row{0, 0}, {1, 1}, {100, 1}, {101, 2}, {250, 3}}) {
        std::vector<std::chrono::nanoseconds> slices;
        fail::on_sleep([&](std::chrono::nanoseconds slice) { slices.push_back(slice); });
        _qnm_sleep_while_running(row.ms);
        EXPECT_EQ(slices.size(), row.slices) << row.ms;
        EXPECT_EQ(std::accumulate(slices.begin(), slices.end(), std::chrono::nanoseconds(0)),
                  std::chrono::milliseconds(row.ms));
        EXPECT_THAT(slices, Each(testing::Le(std::chrono::milliseconds(100))));
    }
}

TEST_F(root, a_stop_ends_a_sleep_with_the_slice_under_way) {
    unsigned slices = 0;
    fail::on_sleep([&](std::chrono::nanoseconds) {
        if (++slices == 2) qnm_fini_manager();
    });
    _qnm_sleep_while_running(3'600'000);
    EXPECT_EQ(slices, 2U);
    _qnm_sleep_while_running(100);
    EXPECT_EQ(slices, 2U) << "none at all after a stop";
}

}  // namespace
