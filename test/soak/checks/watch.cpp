// watch.cpp - reads /proc.

#include "checks/watch.h"

#include <malloc.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string_view>

namespace soak {

namespace {

size_t entries(const char* directory) {
    const std::filesystem::directory_iterator all(directory);
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

size_t median(std::span<const size_t> part) {
    std::vector<size_t> sorted(part.begin(), part.end());
    const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
    std::nth_element(sorted.begin(), middle, sorted.end());
    return *middle;
}

size_t status_kib(std::string_view name) {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        size_t kib = 0;
        if (word == name && status >> kib) return kib;
    }
    return 0;
}

std::string rise(std::span<const size_t> earlier, std::span<const size_t> later, size_t allowance) {
    const size_t before = median(earlier);
    const size_t after = median(later);
    if (after <= before + allowance) return "";
    return "from " + std::to_string(before) + " to " + std::to_string(after) + " KiB, more than " +
           std::to_string(allowance) + " KiB";
}

}  // namespace

size_t descriptors() {
    return entries("/proc/self/fd") - 1;  // less the one that reads the directory
}

size_t threads() {
    return entries("/proc/self/task");
}

size_t resident() {
    return status_kib("VmRSS:");
}

size_t held() {
    malloc_trim(0);
    return status_kib("RssAnon:");
}

size_t in_use() {
    const struct mallinfo2 all = mallinfo2();
    return (all.uordblks + all.hblkhd) / 1024;
}

std::string growth(const std::vector<size_t>& samples, size_t allowance) {
    const size_t third = samples.size() / 3;
    if (third < 3) return "";
    const std::span all(samples);
    return rise(all.last(2 * third).first(third), all.last(third), allowance);
}

std::string growth_from_start(const std::vector<size_t>& samples, size_t allowance) {
    const size_t third = samples.size() / 3;
    if (third < 3) return "";
    const std::span all(samples);
    return rise(all.first(samples.size() / 8), all.last(third), allowance);
}

}  // namespace soak
