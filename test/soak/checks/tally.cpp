// tally.cpp - counting from many threads.

#include "checks/tally.h"

#include <cstdio>
#include <utility>

namespace soak {

namespace {

constexpr uint64_t k_printed = 20;

constexpr const char* k_code_names[] = {"SUCCESS", "EINVAL", "ERANGE",    "ENOENT", "ENOLINK",
                                        "ENOMEM",  "EPROTO", "ETIMEDOUT", "EBUSY",  "ENOSYS"};
static_assert(std::size(k_code_names) == QNM_API_CODE_MAX);

}  // namespace

tally::tally(std::span<const char* const> names) {
    for (const char* const name : names)
        by_name_[name] = {};
}

void tally::count(const char* name, qnm_api_code_t ret, codes documented,
                  std::chrono::nanoseconds lasted) {
    if (ret < 0 || ret >= QNM_API_CODE_MAX || (documented >> ret & 1) == 0) {
        fail(std::string(name) + " returned " + std::to_string(ret));
    } else {
        results_[ret]++;
    }
    const std::lock_guard lock(mutex_);
    if (lasted > slowest_.lasted) slowest_ = {name, lasted};
    if ((documented >> QNM_API_ENOSYS & 1) != 0) return;
    call_count& counted = by_name_[name];
    counted.made++;
    if (ret == QNM_API_SUCCESS) counted.succeeded++;
}

void tally::require_successes(uint64_t tried) {
    const std::lock_guard lock(mutex_);
    for (const auto& [name, counted] : by_name_) {
        if (counted.succeeded > 0 || counted.made < tried) continue;
        fail(std::string(name) + " never succeeded in " + std::to_string(counted.made) + " calls");
    }
}

void tally::fail(const std::string& what) {
    if (failures_++ < k_printed) fprintf(stderr, "FAILED: %s\n", what.c_str());
}

uint64_t tally::calls() const {
    uint64_t sum = 0;
    for (const auto& it : results_)
        sum += it;
    return sum;
}

std::string tally::errors() const {
    std::string text;
    for (int code = QNM_API_SUCCESS + 1; code < QNM_API_CODE_MAX; code++) {
        if (results_[code] == 0) continue;
        text += std::string(text.empty() ? "" : " ") + k_code_names[code] + ' ' +
                std::to_string(results_[code]);
    }
    return text.empty() ? "none" : text;
}

slow_call tally::take_slowest() {
    const std::lock_guard lock(mutex_);
    return std::exchange(slowest_, {});
}

}  // namespace soak
