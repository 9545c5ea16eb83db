// report.h - prints the results beside their floors and targets.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <optional>
#include <string>

namespace bench {

// Prints as Google Benchmark does, and keeps the counters.
class collector : public benchmark::ConsoleReporter {
  public:
    collector() : ConsoleReporter(OO_None) {}
    void ReportRuns(const std::vector<Run>& runs) override;

    std::optional<double> find(const std::string& benchmark, const std::string& counter) const;
    bool has_failed() const { return failed_; }

  private:
    std::map<std::string, std::map<std::string, double>> counters_;
    bool failed_ = false;
};

// Prints the table and, if a directory is named, writes it there. Returns false when a benchmark
// failed; a missed target is a result, not a failure.
bool report(const collector& figures, const std::string& directory);

}  // namespace bench
