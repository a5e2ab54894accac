// One run measures the library and, beside it, the raw SQLite/zstd baseline,
// then prints each library figure with its ratio to the baseline of the same
// run. Google Benchmark's flags apply (e.g. --benchmark_filter=write/ to run a
// part); the summary then shows n/a for what was left out.

#include "BenchSupport.h"
#include "Benchmarks.h"
#include "RawLogFile.h"
#include "Summary.h"

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <exception>
#include <iostream>
#include <string>

int main(int argc, char** argv) {
    using namespace Marivane::Bench;
    if (argc > 1 && std::string(argv[1]) == kPeakMemoryFlag) {
        return runPeakMemoryTask(argc, argv);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    for (int round = 1; round <= kRounds; ++round) {
        registerWriteBenchmarks(round);
        registerReadBenchmarks(round);
        registerIndexBenchmarks(round);
        registerSelectiveReadBenchmarks(round);
        if (round <= kDerivedRounds) {
            registerDerivedFileBenchmarks(round);
        }
        registerRecorderBenchmarks(round);
        registerPageSizeSweep(round);
        if (round == 1) {
            registerPlayerBenchmark();
            registerScaleBenchmarks();
            registerRecorderProbes();
            registerToolBenchmarks();
            registerLargeFileBenchmarks();
        }
    }

    int status = 0;
    try {
        std::cout << "Files go to " << workDir().string() << " (removed at the end); the library makes "
                  << Raw::libraryPageSize() << "-byte pages, and so does the baseline\n";
        CollectingReporter reporter(::isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_Color
                                                            : benchmark::ConsoleReporter::OO_None);
        benchmark::RunSpecifiedBenchmarks(&reporter);
        printSummary(reporter.figures(), std::cout);
    } catch (const std::exception& error) {
        std::cerr << "marivane_bench: " << error.what() << "\n";
        status = 1;
    }
    removeWorkDir();
    benchmark::Shutdown();
    return status;
}
