// Selective reads: what the file's tables buy over decoding a whole
// recording. Files of ten interleaved sources at level -1 are read for one
// source (visitEntries with a data-source filter) and for a one-second window
// (EntryRange::between, with and without the time index), each against a full
// decode of the same file by the raw baseline's view scan. One iteration is
// one whole task, so that items per second are tasks per second and the
// summary's ratio is the full decode's time over the selective read's.

#include "BenchSupport.h"
#include "Benchmarks.h"
#include "RawLogFile.h"

#include <logging/Logging.h>

#include <benchmark/benchmark.h>

#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

namespace Marivane::Bench {

namespace {

using Logging::SqliteLogFile;

// The sources take turns, one entry each per 10 ms tick, 1 ms apart: source
// s (0 to 9) of tick t has id 10 t + s + 1 and timestamp
// kFirstTimestamp + 10 t + s. Every source is a 100 Hz source.
constexpr int kSources = 10;
// The source that the one-source read selects (ids start at 1).
constexpr int8_t kSelectedSource = 4;
// Windows are spread over the file, one per iteration in turn.
constexpr int kWindowPositions = 20;
constexpr int64_t kWindowMs = 1000;
constexpr std::size_t kEntriesPerWindow = kSources * kWindowMs / kEntryPeriodMs;

std::size_t entriesPerSource(std::size_t size) {
    return size <= 1024 ? 20'000 : 2'000;
}

std::size_t fileEntries(std::size_t size) {
    return entriesPerSource(size) * kSources;
}

void buildInterleavedFile(const std::string& path, int level, std::size_t size) {
    SqliteLogFile file(path, "UTC", "marivane_bench", "1", static_cast<int8_t>(level), kFirstTimestamp);
    for (int source = 0; source < kSources; ++source) {
        Logging::DataSource dataSource;
        dataSource.name = "source " + std::to_string(source + 1);
        if (!file.addDataSource(dataSource) || dataSource.id != source + 1) {
            throw std::runtime_error("cannot add a data source to " + path + ": " + file.getLastError());
        }
    }
    Logging::DataEntry entry;
    entry.type = kEntryType;
    entry.data = payload(size);
    SqliteLogFile::WriteBatch batch = file.beginBatch();
    for (std::size_t tick = 0; tick < entriesPerSource(size); ++tick) {
        for (int source = 0; source < kSources; ++source) {
            entry.dataSourceId = static_cast<int8_t>(source + 1);
            entry.timestamp = kFirstTimestamp + static_cast<int64_t>(tick) * kEntryPeriodMs + source;
            if (!file.logData(entry)) {
                throw std::runtime_error("cannot write " + path + ": " + file.getLastError());
            }
        }
    }
    if (!batch.commit()) {
        throw std::runtime_error("cannot commit " + path + ": " + file.getLastError());
    }
}

// Built on first use and kept for the rest of the run; the indexed file is a
// copy of the plain one with the time index added.
const std::string& interleavedFile(bool indexed, int level, std::size_t size) {
    static std::map<std::tuple<bool, int, std::size_t>, std::string> files;
    std::string& path = files[{indexed, level, size}];
    if (path.empty()) {
        std::string stem = indexed ? "interleaved-indexed-" : "interleaved-";
        stem += levelLabel(level);
        stem += '-';
        stem += sizeLabel(size);
        const std::string candidate = freshPath(stem);
        if (indexed) {
            std::filesystem::copy_file(interleavedFile(false, level, size), candidate);
            SqliteLogFile file{std::filesystem::path(candidate)};
            if (!file.createTimeIndex()) {
                throw std::runtime_error("the time index could not be built: " + file.getLastError());
            }
        } else {
            buildInterleavedFile(candidate, level, size);
        }
        path = candidate;
    }
    return path;
}

// A checksum of what a visitor saw, so that nothing is optimised away.
uint64_t touch(const std::byte* data, std::size_t size) {
    return size == 0 ? 0 : static_cast<uint64_t>(data[0]) + static_cast<uint64_t>(data[size - 1]) + size;
}

// One task per iteration: items per second are tasks per second.
void setTasks(benchmark::State& state, std::size_t entriesPerTask) {
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
    state.counters["entries"] = static_cast<double>(entriesPerTask);
}

// The baseline: every entry of all ten sources read and expanded.
void rawFullDecode(benchmark::State& state, bool indexed, int level, std::size_t size) {
    const std::string& path = interleavedFile(indexed, level, size);
    const std::size_t entries = fileEntries(size);
    Raw::Connection connection = Raw::openLogFile(path);
    Raw::ViewScan scan(connection, level);
    for (auto _ : state) {
        uint64_t sum = 0;
        const std::size_t seen =
            scan.run([&](const Raw::RawView& view) { sum += touch(view.data, view.size); });
        if (seen != entries) {
            state.SkipWithError("raw view scan came short");
            break;
        }
        benchmark::DoNotOptimize(sum);
    }
    setTasks(state, entries);
}

void libraryOneSource(benchmark::State& state, int level, std::size_t size) {
    const std::string& path = interleavedFile(false, level, size);
    const std::size_t expected = entriesPerSource(size);
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    Logging::EntryIndexFilter oneSource;
    oneSource.dataSources = {kSelectedSource};
    for (auto _ : state) {
        uint64_t sum = 0;
        std::size_t seen = 0;
        bool onlyThatSource = true;
        const bool completed =
            file.visitEntries(Logging::EntryRange::all(), oneSource, [&](const Logging::EntryView& view) {
                sum += touch(view.data, view.size);
                onlyThatSource = onlyThatSource && view.dataSourceId == kSelectedSource && view.size == size;
                ++seen;
                return true;
            });
        if (!completed || seen != expected || !onlyThatSource) {
            state.SkipWithError("the one-source read did not see exactly its source");
            break;
        }
        benchmark::DoNotOptimize(sum);
    }
    setTasks(state, expected);
}

void libraryWindow(benchmark::State& state, bool indexed, int level, std::size_t size) {
    const std::string& path = interleavedFile(indexed, level, size);
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    if (file.hasTimeIndex() != indexed) {
        state.SkipWithError(indexed ? "the file has no time index" : "the file has a time index");
        return;
    }
    // Window k starts at tick (2k + 1) n / 2K - 50 of the file's n ticks, so
    // the windows lie evenly over the file and each holds 100 whole ticks.
    const auto ticks = static_cast<int64_t>(entriesPerSource(size));
    const int64_t ticksPerWindow = kWindowMs / kEntryPeriodMs;
    int position = 0;
    for (auto _ : state) {
        const int64_t firstTick = ticks * (2 * position + 1) / (2 * kWindowPositions) - ticksPerWindow / 2;
        position = (position + 1) % kWindowPositions;
        const int64_t start = kFirstTimestamp + firstTick * kEntryPeriodMs;
        uint64_t sum = 0;
        std::size_t seen = 0;
        const bool completed =
            file.visitEntries(Logging::EntryRange::between(start, start + kWindowMs - 1),
                              Logging::EntryIndexFilter(), [&](const Logging::EntryView& view) {
                                  sum += touch(view.data, view.size);
                                  ++seen;
                                  return true;
                              });
        if (!completed || seen != kEntriesPerWindow) {
            state.SkipWithError("a one-second window did not hold its entries");
            break;
        }
        benchmark::DoNotOptimize(sum);
    }
    setTasks(state, kEntriesPerWindow);
}

}  // namespace

void registerSelectiveReadBenchmarks(int round) {
    constexpr int level = -1;
    // A full decode takes a good part of a second: milliseconds read better.
    auto settings = [](benchmark::internal::Benchmark* benchmark) {
        throughputSettings(benchmark);
        benchmark->Unit(benchmark::kMillisecond);
    };
    for (std::size_t size : {std::size_t{1024}, std::size_t{16 * 1024}}) {
        registerRound({Member{selectiveName("fullDecode", "raw", level, size),
                              [=](benchmark::State& state) { rawFullDecode(state, false, level, size); }},
                       Member{selectiveName("oneSource", "library", level, size),
                              [=](benchmark::State& state) { libraryOneSource(state, level, size); }},
                       Member{selectiveName("window", "library", level, size),
                              [=](benchmark::State& state) { libraryWindow(state, false, level, size); }}},
                      round, settings);
        registerRound({Member{selectiveName("fullDecodeIndexed", "raw", level, size),
                              [=](benchmark::State& state) { rawFullDecode(state, true, level, size); }},
                       Member{selectiveName("windowIndexed", "library", level, size),
                              [=](benchmark::State& state) { libraryWindow(state, true, level, size); }}},
                      round, settings);
    }
}

}  // namespace Marivane::Bench
