// figures.cpp - timing and counting.

#include "figures.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <ctime>
#include <latch>
#include <thread>

namespace bench {

namespace {

double seconds_of(clockid_t clock) {
    constexpr double k_ns_per_second = 1e9;
    timespec time = {};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / k_ns_per_second;
}

}  // namespace

double cpu_seconds() {
    return seconds_of(CLOCK_PROCESS_CPUTIME_ID);
}

double thread_cpu_seconds() {
    return seconds_of(CLOCK_THREAD_CPUTIME_ID);
}

double quantile(const std::vector<uint32_t>& sorted, double share) {
    const double rank = std::ceil(share * static_cast<double>(sorted.size()));
    return sorted[static_cast<size_t>(std::max(rank, 1.0)) - 1];
}

void publish(benchmark::State& state, const std::string& prefix, samples& all) {
    constexpr double k_ns_per_us = 1000;
    constexpr double k_us_per_second = 1e6;
    if (all.ns.empty()) return;
    std::sort(all.ns.begin(), all.ns.end());
    state.counters[prefix + "p50_us"] = quantile(all.ns, 0.5) / k_ns_per_us;
    state.counters[prefix + "p99_us"] = quantile(all.ns, 0.99) / k_ns_per_us;
    state.counters[prefix + "p999_us"] = quantile(all.ns, 0.999) / k_ns_per_us;
    state.counters[prefix + "max_us"] = all.ns.back() / k_ns_per_us;
    const auto count = static_cast<double>(all.ns.size());
    state.counters[prefix + "per_second"] = count / all.seconds;
    state.counters[prefix + "cpu_us"] = all.cpu / count * k_us_per_second;
}

namespace {

bool ask_repeatedly(size_t asker, size_t count, const ask& once, std::vector<uint32_t>& ns) {
    ns.reserve(count);
    for (size_t n = 0; n < count; n++) {
        const auto start = stopwatch::now();
        if (!once(asker)) return false;
        const std::chrono::nanoseconds took = stopwatch::now() - start;
        ns.push_back(static_cast<uint32_t>(std::min<int64_t>(took.count(), UINT32_MAX)));
    }
    return true;
}

}  // namespace

bool time_asks(size_t askers, size_t count, const ask& once, samples& into) {
    std::vector<std::vector<uint32_t>> ns(askers);
    std::vector<std::thread> threads;
    std::atomic<bool> good = true;
    std::latch ready(static_cast<ptrdiff_t>(askers) + 1);
    for (size_t i = 0; i < askers; i++) {
        threads.emplace_back([&, i] {
            ready.arrive_and_wait();
            if (!ask_repeatedly(i, count / askers, once, ns[i])) good = false;
        });
    }
    ready.arrive_and_wait();
    const auto start = stopwatch::now();
    const double cpu_before = cpu_seconds();
    for (std::thread& thread : threads)
        thread.join();
    into.seconds += seconds_since(start);
    into.cpu += cpu_seconds() - cpu_before;
    for (const auto& of_asker : ns)
        into.ns.insert(into.ns.end(), of_asker.begin(), of_asker.end());
    return good;
}

}  // namespace bench
