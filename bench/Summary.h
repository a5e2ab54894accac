#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace Marivane::Bench {

// What the summary needs of one run of a benchmark.
struct Figure {
    double itemsPerSecond = 0;
    double bytesPerSecond = 0;
    std::map<std::string, double> counters;
    std::string error;
};

// Prints like the console reporter and keeps the figures of each benchmark's
// rounds, in round order, by the name it was registered under less the round.
class CollectingReporter : public benchmark::ConsoleReporter {
public:
    explicit CollectingReporter(OutputOptions options) : ConsoleReporter(options) {}

    void ReportRuns(const std::vector<Run>& runs) override;
    const std::map<std::string, std::vector<Figure>>& figures() const { return figures_; }

private:
    std::map<std::string, std::vector<Figure>> figures_;
};

// The library figures beside their baselines with ratios and targets, then the
// page-size table. Figures missing from the run (filtered out) show as n/a.
void printSummary(const std::map<std::string, std::vector<Figure>>& figures, std::ostream& out);

}  // namespace Marivane::Bench
