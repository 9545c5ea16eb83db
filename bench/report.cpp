// report.cpp - one table for all benchmarks: every figure beside its floor and its target.

#include "report.h"

#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

namespace bench {

namespace {

enum class demand { none, most_ratio, least_ratio, most, least };

struct row {
    const char* title;
    const char* benchmark;
    const char* value;
    const char* floor_benchmark;  // null: no floor
    const char* floor;
    const char* unit;
    demand kind;
    double limit;
};

constexpr demand k_none = demand::none;
constexpr char k_plain[] = "read/plain_floors";

constexpr row k_rows[] = {
    {"Read, level error, p50", "read/error", "p50_us", "read/error", "floor_p50_us", "µs",
     demand::most_ratio, 1.25},
    {"Read, level error, p99", "read/error", "p99_us", "read/error", "floor_p99_us", "µs", k_none,
     0},
    {"Read, level error, p99.9", "read/error", "p999_us", "read/error", "floor_p999_us", "µs",
     k_none, 0},
    {"Read, level error, max", "read/error", "max_us", "read/error", "floor_max_us", "µs",
     demand::most, 20000},
    {"Read, level error, p50, beside pcap in one thread", "read/error", "p50_us", k_plain,
     "pcap_p50_us", "µs", k_none, 0},
    {"Read, level error, p50, beside a packet socket", "read/error", "p50_us", k_plain,
     "socket_p50_us", "µs", k_none, 0},
    {"Read, default level, p50", "read/default", "p50_us", "read/default", "floor_p50_us", "µs",
     demand::most_ratio, 1.5},
    {"Read, default level, p99", "read/default", "p99_us", "read/default", "floor_p99_us", "µs",
     k_none, 0},
    {"Read, default level, p99.9", "read/default", "p999_us", "read/default", "floor_p999_us", "µs",
     k_none, 0},
    {"Read, default level, max", "read/default", "max_us", "read/default", "floor_max_us", "µs",
     demand::most, 20000},
    {"Read, level error, processor time of both ends", "read/error", "cpu_us", "read/error",
     "floor_cpu_us", "µs", k_none, 0},
    {"Read, default level, processor time of both ends", "read/default", "cpu_us", "read/default",
     "floor_cpu_us", "µs", k_none, 0},
    {"Read, level error, all on one core, p50", "read/error/one_core", "p50_us",
     "read/error/one_core", "floor_p50_us", "µs", k_none, 0},
    {"Read, default level, all on one core, p50", "read/default/one_core", "p50_us",
     "read/default/one_core", "floor_p50_us", "µs", k_none, 0},
    {"Read, 16 askers, 64 cards, processor time of both ends", "read/error/16x64", "cpu_us",
     "read/error/16x64", "floor_cpu_us", "µs", k_none, 0},
    {"Reads, 1 asker, 1 card", "read/error", "per_second", "read/error", "floor_per_second", "1/s",
     k_none, 0},
    {"Reads, 1 asker, 64 cards", "read/error/1x64", "per_second", "read/error/1x64",
     "floor_per_second", "1/s", k_none, 0},
    {"Reads, 4 askers, 1 card", "read/error/4x1", "per_second", "read/error/4x1",
     "floor_per_second", "1/s", k_none, 0},
    {"Reads, 4 askers, 64 cards", "read/error/4x64", "per_second", "read/error/4x64",
     "floor_per_second", "1/s", k_none, 0},
    {"Reads, 16 askers, 1 card", "read/error/16x1", "per_second", "read/error/16x1",
     "floor_per_second", "1/s", demand::least_ratio, 0.7},
    {"Reads, 16 askers, 64 cards", "read/error/16x64", "per_second", "read/error/16x64",
     "floor_per_second", "1/s", demand::least_ratio, 0.7},
    {"Reads, 16 askers, 64 cards, default level", "read/default/16x64", "per_second",
     "read/default/16x64", "floor_per_second", "1/s", k_none, 0},
    {"Intake, 272 B, 100 known cards", "intake/272B", "cards_100", "intake/272B", "one_per_poll",
     "1/s", demand::least_ratio, 0.6},
    {"Intake, 272 B, 100,000 known cards", "intake/272B", "cards_100000", "intake/272B",
     "one_per_poll", "1/s", demand::least_ratio, 0.6},
    {"Intake, 496 B, 100 known cards", "intake/496B", "cards_100", "intake/496B", "one_per_poll",
     "1/s", demand::least_ratio, 0.6},
    {"Intake, 496 B, 100,000 known cards", "intake/496B", "cards_100000", "intake/496B",
     "one_per_poll", "1/s", demand::least_ratio, 0.6},
    {"Intake, 496 B, 100 cards, beside pcap until empty", "intake/496B", "cards_100", "intake/496B",
     "until_empty", "1/s", k_none, 0},
    {"Intake, 496 B, 100 cards, beside a packet socket", "intake/496B", "cards_100", "intake/496B",
     "socket", "1/s", k_none, 0},
    {"Intake, 272 B, 100 known cards, processor time a frame", "intake/272B", "cards_100_cpu_ns",
     "intake/272B", "one_per_poll_cpu_ns", "ns", k_none, 0},
    {"Intake, 272 B, 100,000 known cards, processor time a frame", "intake/272B",
     "cards_100000_cpu_ns", "intake/272B", "one_per_poll_cpu_ns", "ns", k_none, 0},
    {"Largest burst without loss, reader held up, 496 B", "intake/burst", "held_up", "intake/burst",
     "floor_held_up", "frames", demand::least, 15000},
    {"Largest burst without loss, 496 B", "intake/burst", "reading", "intake/burst",
     "floor_reading", "frames", k_none, 0},
    {"Learning 100,000 cards", "table/100000", "learnt_per_second", "table/100000",
     "floor_per_second", "1/s", demand::least_ratio, 0.35},
    {"qnm_get_qnsvids, 100,000 cards", "table/100000", "get_ids_ms", nullptr, nullptr, "ms", k_none,
     0},
    {"Keepalive pass, 100,000 connected cards, processor time", "table/100000", "keepalive_ms",
     nullptr, nullptr, "ms", demand::most, 20},
    {"Memory per card beyond its record", "table/100000", "bytes_beyond_record", nullptr, nullptr,
     "B", demand::most, 192},
    {"Event, frame to callback, p50", "event", "p50_us", "event", "floor_p50_us", "µs", k_none, 0},
    {"Event, frame to callback, p99", "event", "p99_us", "event", "floor_p99_us", "µs",
     demand::most, 1000},
    {"Event, frame to callback, max", "event", "max_us", "event", "floor_max_us", "µs", k_none, 0},
    {"EEPROM dump beside the waits it has to make", "eeprom", "dump_ms", "eeprom", "waits_ms", "ms",
     k_none, 0},
    {"EEPROM dump beside as many waits, slept", "eeprom", "dump_ms", "eeprom", "slept_ms", "ms",
     k_none, 0},
};

std::string number(double value) {
    char text[32];
    snprintf(text, sizeof text, value >= 1000 ? "%.0f" : "%.4g", value);
    return text;
}

// A row of the table, figured out.
struct line {
    std::string value;
    std::string floor;
    std::string ratio;
    std::string target;
    std::string met;
};

// A ratio of 0 means that there is none: the floor is missing, and no target is met.
bool is_met(const row& of, double value, double ratio) {
    switch (of.kind) {
        case demand::most_ratio:
            return ratio > 0 && ratio <= of.limit;
        case demand::least_ratio:
            return ratio >= of.limit;
        case demand::most:
            return value <= of.limit;
        case demand::least:
            return value >= of.limit;
        case demand::none:
            break;
    }
    return true;
}

std::string target_text(const row& of) {
    switch (of.kind) {
        case demand::most_ratio:
            return "≤ " + number(of.limit) + " × floor";
        case demand::least_ratio:
            return "≥ " + number(of.limit) + " × floor";
        case demand::most:
            return "≤ " + number(of.limit) + " " + of.unit;
        case demand::least:
            return "≥ " + number(of.limit) + " " + of.unit;
        case demand::none:
            break;
    }
    return "";
}

// 0 when there is none, or it was not run.
double floor_of(const row& of, const collector& figures) {
    if (of.floor_benchmark == nullptr) return 0;
    return figures.find(of.floor_benchmark, of.floor).value_or(0);
}

// Nothing for a row whose benchmark was not run.
std::optional<line> line_of(const row& of, const collector& figures) {
    const auto value = figures.find(of.benchmark, of.value);
    if (!value) return std::nullopt;
    const double floor = floor_of(of, figures);
    const double ratio = floor > 0 ? *value / floor : 0;
    line out;
    out.value = number(*value) + " " + of.unit;
    if (floor > 0) out.floor = number(floor) + " " + of.unit;
    if (floor > 0) out.ratio = number(ratio);
    out.target = target_text(of);
    if (of.kind != demand::none) out.met = is_met(of, *value, ratio) ? "yes" : "NO";
    return out;
}

std::string table(const collector& figures) {
    std::ostringstream text;
    text << "| Figure | libqnm | floor | ratio | target | met |\n|---|--:|--:|--:|---|---|\n";
    for (const row& it : k_rows) {
        const auto found = line_of(it, figures);
        if (!found) continue;
        text << "| " << it.title << " | " << found->value << " | " << found->floor << " | "
             << found->ratio << " | " << found->target << " | " << found->met << " |\n";
    }
    return text.str();
}

}  // namespace

void collector::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& run : runs) {
        failed_ = failed_ || run.error_occurred;
        for (const auto& [name, counter] : run.counters)
            counters_[run.run_name.function_name][name] = counter.value;
    }
    ConsoleReporter::ReportRuns(runs);
}

std::optional<double> collector::find(const std::string& benchmark,
                                      const std::string& counter) const {
    const auto run = counters_.find(benchmark);
    if (run == counters_.end()) return std::nullopt;
    const auto found = run->second.find(counter);
    if (found == run->second.end()) return std::nullopt;
    return found->second;
}

bool report(const collector& figures, const std::string& directory) {
    const std::string text = table(figures);
    std::cout << '\n' << text;
    if (!directory.empty()) std::ofstream(directory + "/table.md") << text;
    return !figures.has_failed();
}

}  // namespace bench
