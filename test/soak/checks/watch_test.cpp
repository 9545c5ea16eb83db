// watch_test.cpp - what counts as growth.

#include "checks/watch.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <thread>

namespace soak {
namespace {

constexpr size_t k_allowance = 1024;

std::vector<size_t> noise(size_t base, size_t count) {
    std::mt19937 random(1);
    std::vector<size_t> samples;
    for (size_t n = 0; n < count; n++)
        samples.push_back(base + random() % k_allowance);
    return samples;
}

TEST(growth, noise_is_none) {
    EXPECT_EQ(growth(noise(20000, 600), k_allowance), "");
}

TEST(growth, of_the_first_third_does_not_count) {
    std::vector<size_t> samples = noise(20000, 600);
    for (size_t n = 0; n < 200; n++)
        samples[n] = 50 * n;
    EXPECT_EQ(growth(samples, k_allowance), "");
}

TEST(growth, peaks_are_none) {
    std::vector<size_t> samples = noise(20000, 600);
    for (size_t n = 400; n < 600; n += 3)
        samples[n] += 100000;
    EXPECT_EQ(growth(samples, k_allowance), "");
}

TEST(growth, a_slow_leak_is_seen) {
    std::vector<size_t> samples = noise(20000, 600);
    for (size_t n = 0; n < samples.size(); n++)
        samples[n] += 10 * n;
    EXPECT_NE(growth(samples, k_allowance), "");
}

// Memory that is lost early, but not after the middle third has begun.
TEST(growth, of_the_first_third_counts_from_the_start) {
    std::vector<size_t> samples = noise(20000, 600);
    for (size_t n = 200; n < 600; n++)
        samples[n] += 3 * k_allowance;
    EXPECT_EQ(growth(samples, k_allowance), "");
    EXPECT_NE(growth_from_start(samples, k_allowance), "");
    EXPECT_EQ(growth_from_start(noise(20000, 600), k_allowance), "");
}

TEST(growth, needs_nine_samples) {
    EXPECT_EQ(growth({1, 2, 3, 4, 5, 6, 7, 80000}, 1), "");
    EXPECT_NE(growth({1, 2, 3, 4, 5, 6, 7, 80000, 90000}, 1), "");
    EXPECT_EQ(growth_from_start({1, 2, 3, 4, 5, 6, 7, 80000}, 1), "");
    EXPECT_NE(growth_from_start({1, 2, 3, 4, 5, 6, 7, 80000, 90000}, 1), "");
}

TEST(figures, show_what_this_process_has) {
    const size_t before = descriptors();
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen("/dev/null", "r"), fclose);
    EXPECT_EQ(descriptors(), before + 1);
    EXPECT_GE(threads(), 1U);
    const size_t memory = held();
    const size_t all = resident();
    EXPECT_GE(all, memory);
    constexpr size_t k_mib = 64;
    const std::vector<char> filled(k_mib << 20, 1);
    EXPECT_GE(held(), memory + (k_mib << 10) / 2);
    EXPECT_GE(resident(), all + (k_mib << 10) / 2);
}

// In one large piece, and in many small ones. The sanitizers have allocators of their own, for
// which malloc's figures are zero.
TEST(figures, show_what_is_in_use) {
    if (in_use() == 0) GTEST_SKIP() << "another allocator is in use";
    constexpr size_t k_pieces = 1000;
    constexpr size_t k_words = 2048 / sizeof(size_t);
    const size_t before = in_use();
    {
        const std::vector<char> large(size_t{4} << 20);
        EXPECT_NEAR(in_use(), before + 4096, 100);
        const std::vector<std::vector<size_t>> small(k_pieces, std::vector<size_t>(k_words));
        EXPECT_NEAR(in_use(), before + 4096 + 2 * k_pieces, 200);
    }
    EXPECT_NEAR(in_use(), before, 100);
}

}  // namespace
}  // namespace soak
