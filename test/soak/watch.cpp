// watch.cpp - reads /proc.

#include "watch.h"

#include <malloc.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>

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

}  // namespace

size_t descriptors() {
    return entries("/proc/self/fd") - 1;  // less the one that reads the directory
}

size_t threads() {
    return entries("/proc/self/task");
}

size_t resident() {
    malloc_trim(0);
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        size_t kib = 0;
        if (word == "RssAnon:" && status >> kib) return kib;
    }
    return 0;
}

std::string growth(const std::vector<size_t>& samples, size_t allowance) {
    const size_t third = samples.size() / 3;
    if (third < 3) return "";
    const std::span all(samples);
    const size_t before = median(all.last(2 * third).first(third));
    const size_t after = median(all.last(third));
    if (after <= before + allowance) return "";
    return "from " + std::to_string(before) + " to " + std::to_string(after) + " KiB, more than " +
           std::to_string(allowance) + " KiB";
}

}  // namespace soak
