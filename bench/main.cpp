// main.cpp - qnm-bench: the library compared with the least work that the same machine can do.
//
//   usage: qnm-bench [--quick] [--reads=N] [--results=DIR] [Google Benchmark's own options]
//
// It needs a network namespace of its own; scripts/bench.sh makes one.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "figures.h"
#include "report.h"
#include "rig.h"

namespace {

// The value of "--name=value"; null for another argument.
const char* value_of(const char* argument, const std::string& name) {
    const std::string start = "--" + name + "=";
    return strncmp(argument, start.c_str(), start.size()) == 0 ? argument + start.size() : nullptr;
}

// Takes the options of this program out of the list and leaves Google Benchmark's.
bench::options take_options(std::vector<char*>& arguments) {
    bench::options wanted;
    std::erase_if(arguments, [&](char* argument) {
        const char* const reads = value_of(argument, "reads");
        const char* const results = value_of(argument, "results");
        const bool quick = strcmp(argument, "--quick") == 0;
        if (quick) wanted.quick = true;
        if (quick) wanted.reads = 200'000;
        if (reads != nullptr) wanted.reads = strtoul(reads, nullptr, 10);
        if (results != nullptr) wanted.results = results;
        return reads != nullptr || results != nullptr || quick;
    });
    return wanted;
}

}  // namespace

int main(int argc, char** argv) try {
    std::vector<char*> arguments(argv, argv + argc);
    const bench::options wanted = take_options(arguments);
    std::string out = "--benchmark_out=" + wanted.results + "/results.json";
    std::string format = "--benchmark_out_format=json";
    if (!wanted.results.empty()) {
        arguments.insert(arguments.begin() + 1, {out.data(), format.data()});
    }
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;

    const e2e::cables cables;
    bench::register_reads(wanted);
    bench::register_intake(wanted);
    bench::register_table(wanted);
    bench::register_events(wanted);
    bench::register_eeprom(wanted);
    bench::collector figures;
    benchmark::RunSpecifiedBenchmarks(&figures);
    return bench::report(figures, wanted.results) ? 0 : 1;
} catch (const std::exception& error) {
    std::cerr << "qnm-bench: " << error.what() << '\n';
    return 1;
}
