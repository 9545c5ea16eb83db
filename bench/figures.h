// figures.h - from samples to figures.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bench {

// What a run is asked to do.
struct options {
    size_t reads = 1'000'000;
    bool quick = false;
    std::string results;

    // A number for the full run and one for the quick one.
    template <typename Number>
    Number either(Number full, Number short_one) const {
        return quick ? short_one : full;
    }
};

using stopwatch = std::chrono::steady_clock;

inline double seconds_since(stopwatch::time_point start) {
    return std::chrono::duration<double>(stopwatch::now() - start).count();
}

// Processor time of the whole process, and of this thread.
double cpu_seconds();
double thread_cpu_seconds();

// Durations of single steps, and of all together.
struct samples {
    std::vector<uint32_t> ns;
    double seconds = 0;
    double cpu = 0;  // seconds of processor time, of the far end as well
};

// The duration, in nanoseconds, that this share of the samples does not exceed.
double quantile(const std::vector<uint32_t>& sorted, double share);

// Writes p50, p99, p99.9, max, the number per second and the processor time of each as counters,
// their names after the prefix.
void publish(benchmark::State& state, const std::string& prefix, samples& all);

// Asks once; returns whether the right answer came.
using ask = std::function<bool(size_t asker)>;

// This many threads ask one register after the other, `count` times in all. Returns false when an
// answer was wrong or missing.
bool time_asks(size_t askers, size_t count, const ask& once, samples& into);

// The benchmarks, one file each.
void register_reads(const options& wanted);
void register_intake(const options& wanted);
void register_table(const options& wanted);
void register_events(const options& wanted);
void register_eeprom(const options& wanted);

}  // namespace bench
