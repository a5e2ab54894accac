#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace Marivane::Bench {

// What the summary needs of one benchmark: the median over its repetitions
// when it has several, its single run otherwise.
struct Figure {
    double itemsPerSecond = 0;
    double bytesPerSecond = 0;
    std::map<std::string, double> counters;
    std::string error;
};

// Prints like the console reporter and keeps each benchmark's figure by the
// name it was registered under.
class CollectingReporter : public benchmark::ConsoleReporter {
public:
    explicit CollectingReporter(OutputOptions options) : ConsoleReporter(options) {}

    void ReportRuns(const std::vector<Run>& runs) override;
    const std::map<std::string, Figure>& figures() const { return figures_; }

private:
    std::map<std::string, Figure> figures_;
    std::map<std::string, bool> fromMedian_;
};

// The library figures beside their baselines with ratios and targets, then the
// page-size table. Figures missing from the run (filtered out) show as n/a.
void printSummary(const std::map<std::string, Figure>& figures, std::ostream& out);

}  // namespace Marivane::Bench
