// tally.h - what all threads of the host count together: calls, their results, the slowest one, and
// what went wrong.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <mutex>
#include <span>
#include <string>
#include <string_view>

#include "qnm.h"

namespace soak {

// A set of result codes.
using codes = unsigned;

constexpr codes any_of(std::initializer_list<qnm_api_code_t> members) {
    codes set = 0;
    for (const qnm_api_code_t code : members)
        set |= 1U << code;
    return set;
}

struct slow_call {
    const char* name = "none";
    std::chrono::nanoseconds lasted{0};
};

// The calls of one function during which one manager ran all the time.
struct call_count {
    uint64_t made = 0;
    uint64_t succeeded = 0;
};

class tally {
  public:
    explicit tally(std::span<const char* const> names);

    // Counts a call that has returned. A code that is not documented for it is a failure. A caller
    // that knows that a manager ran all the time leaves ENOSYS out of the documented codes.
    void count(const char* name, qnm_api_code_t ret, codes documented,
               std::chrono::nanoseconds lasted);

    // Fails for each function that has never succeeded, though it was called `tried` times.
    void require_successes(uint64_t tried);

    // Reports that something is wrong. The first reports are printed at once.
    void fail(const std::string& what);

    uint64_t failures() const { return failures_; }
    uint64_t calls() const;
    std::string errors() const;  // how often each code but success came
    slow_call take_slowest();    // since this was last asked

  private:
    std::array<std::atomic<uint64_t>, QNM_API_CODE_MAX> results_{};
    std::atomic<uint64_t> failures_ = 0;
    std::mutex mutex_;  // guards everything below
    slow_call slowest_;
    std::map<std::string_view, call_count> by_name_;
};

}  // namespace soak
