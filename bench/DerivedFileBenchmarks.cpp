// Slice and clone of a 1 GiB file (4096 entries of 256 KiB, uncompressed),
// against a raw copy that reads and inserts with reused statements in one
// transaction. Each iteration writes a new output and removes it, untimed.

#include "BenchSupport.h"
#include "Benchmarks.h"
#include "RawLogFile.h"

#include <logging/Logging.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

namespace Marivane::Bench {

namespace {

using Logging::SqliteLogFile;

constexpr std::size_t kSourceEntries = kDerivedSourceEntries;
constexpr std::size_t kSourcePayloadSize = kDerivedSourcePayloadSize;
// The slice takes the middle half of the file.
constexpr int32_t kSliceFirst = kSourceEntries / 4 + 1;
constexpr int32_t kSliceLast = 3 * kSourceEntries / 4;

}  // namespace

const std::string& derivedSourceFile() {
    static std::string path;
    if (path.empty()) {
        const std::string candidate = freshPath("source-1GiB");
        Raw::buildLogFile(candidate, 0, kSourcePayloadSize, kSourceEntries);
        // The first gigabyte written after the build costs far more (the kernel
        // finds room for it in the page cache) than the ones after; one
        // unmeasured copy keeps that out of the first round.
        const std::string warmUp = freshPath("warm-up");
        Raw::copyLogFile(candidate, warmUp, 1, static_cast<int32_t>(kSourceEntries));
        removeLogFile(warmUp);
        path = candidate;
    }
    return path;
}

namespace {

const std::string& sourceFile() {
    return derivedSourceFile();
}

std::size_t entriesOf(bool slice) {
    return slice ? static_cast<std::size_t>(kSliceLast - kSliceFirst + 1) : kSourceEntries;
}

void rawCopy(benchmark::State& state, bool slice) {
    const std::string& source = sourceFile();
    for (auto _ : state) {
        const std::string output = freshPath("raw-copy");
        if (slice) {
            Raw::copyLogFile(source, output, kSliceFirst, kSliceLast);
        } else {
            Raw::copyLogFile(source, output, 1, static_cast<int32_t>(kSourceEntries));
        }
        state.PauseTiming();
        removeLogFile(output);
        state.ResumeTiming();
    }
    setThroughput(state, entriesOf(slice), kSourcePayloadSize);
}

void libraryCopy(benchmark::State& state, bool slice) {
    const SqliteLogFile source{std::filesystem::path(sourceFile())};
    for (auto _ : state) {
        const std::string output = freshPath(slice ? "slice" : "clone");
        std::unique_ptr<Logging::LogFileInterface> copy =
            slice ? Logging::Algorithms::slice(source, kSliceFirst, kSliceLast, output, "marivane_bench", "1",
                                               0)
                  : Logging::Algorithms::clone(source, output, "marivane_bench", "1", 0);
        if (!copy || copy->getEntryCount() != static_cast<int32_t>(entriesOf(slice))) {
            state.SkipWithError("the library refused or came short");
            break;
        }
        copy.reset();
        state.PauseTiming();
        removeLogFile(output);
        state.ResumeTiming();
    }
    setThroughput(state, entriesOf(slice), kSourcePayloadSize);
}

// The general derived file: a copy through a data-source-type filter that
// every entry passes, so that the filter costs what it costs.
void libraryFilteredCopy(benchmark::State& state) {
    for (auto _ : state) {
        const std::string output = freshPath("copy");
        Logging::CopyOptions options;
        options.applicationName = "marivane_bench";
        options.filter.dataSourceTypes = {MV_LogDataSourceType_Generic};
        const Logging::CopyReport report = Logging::Algorithms::copy(sourceFile(), output, options);
        if (report.entries != kSourceEntries) {
            state.SkipWithError("the copy came short");
            break;
        }
        state.PauseTiming();
        removeLogFile(output);
        state.ResumeTiming();
    }
    setThroughput(state, kSourceEntries, kSourcePayloadSize);
}

}  // namespace

void registerDerivedFileBenchmarks(int round) {
    auto settings = [](benchmark::internal::Benchmark* benchmark) {
        benchmark->Iterations(1)->Unit(benchmark::kMillisecond);
    };
    for (bool slice : {false, true}) {
        const std::string operation = slice ? "slice" : "clone";
        std::vector<Member> group{
            Member{deriveName(operation, "raw"), [slice](benchmark::State& state) { rawCopy(state, slice); }},
            Member{deriveName(operation, "library"),
                   [slice](benchmark::State& state) { libraryCopy(state, slice); }}};
        if (!slice) {
            group.push_back(Member{deriveName("copy", "library"), libraryFilteredCopy});
        }
        registerRound(group, round, settings);
    }
}

}  // namespace Marivane::Bench
