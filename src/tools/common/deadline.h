// Deadlines in seconds, and the timeout that poll() needs to wait for one.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace tools {

// On the steady clock. Without seconds there is no deadline.
inline std::chrono::steady_clock::time_point deadline_after(double seconds) {
    using clock = std::chrono::steady_clock;
    if (seconds == 0) return clock::time_point::max();
    return clock::now() +
           std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(seconds));
}

// The timeout for poll(): at most a minute, so whoever waits longer calls it again.
inline int milliseconds_until(std::chrono::steady_clock::time_point deadline) {
    using clock = std::chrono::steady_clock;
    if (deadline == clock::time_point::max()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock::now());
    return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 60'000));
}

}  // namespace tools
