// Entry reads: single entries by id and a scan of the whole file, by the
// library and by the raw baseline, on the very same file; and the entry index
// of a file of a million entries.

#include "BenchSupport.h"
#include "Benchmarks.h"
#include "RawLogFile.h"

#include <logging/Logging.h>

#include <benchmark/benchmark.h>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Marivane::Bench {

namespace {

using Logging::SqliteLogFile;

constexpr std::size_t kIndexFileEntries = 1'000'000;
constexpr std::size_t kIndexPayloadSize = 64;

// Built on first use and kept for the rest of the run: building a file costs
// more than reading it.
const std::string& readFile(int level, std::size_t size) {
    static std::map<std::pair<int, std::size_t>, std::string> files;
    std::string& path = files[{level, size}];
    if (path.empty()) {
        const std::string candidate = freshPath("read-" + levelLabel(level) + "-" + sizeLabel(size));
        Raw::buildLogFile(candidate, level, size, readFileEntries(size));
        path = candidate;
    }
    return path;
}

const std::string& indexFile() {
    static std::string path;
    if (path.empty()) {
        const std::string candidate = freshPath("index-1M");
        Raw::buildLogFile(candidate, 0, kIndexPayloadSize, kIndexFileEntries);
        path = candidate;
    }
    return path;
}

// Visits every entry once, in an order that defeats read-ahead the way a
// user jumping around a recording does (the stride is odd, so it is coprime
// with the power-of-two file sizes).
int32_t scatteredId(int64_t step, std::size_t entries) {
    return static_cast<int32_t>((static_cast<uint64_t>(step) * 7919u) % entries) + 1;
}

void rawReadById(benchmark::State& state, int level, std::size_t size) {
    const std::string& path = readFile(level, size);
    const std::size_t entries = readFileEntries(size);
    Raw::Connection connection = Raw::openLogFile(path);
    Raw::EntryReader reader(connection, level);
    int64_t step = 0;
    for (auto _ : state) {
        std::optional<Logging::DataEntry> entry = reader.read(scatteredId(step++, entries));
        if (!entry || entry->data.size() != size) {
            state.SkipWithError("raw read failed");
            break;
        }
        benchmark::DoNotOptimize(entry);
    }
    setThroughput(state, 1, size);
}

void libraryReadEntry(benchmark::State& state, int level, std::size_t size) {
    const std::string& path = readFile(level, size);
    const std::size_t entries = readFileEntries(size);
    SqliteLogFile file{std::filesystem::path(path)};
    int64_t step = 0;
    for (auto _ : state) {
        std::optional<Logging::DataEntry> entry = file.readEntry(scatteredId(step++, entries));
        if (!entry || entry->data.size() != size) {
            state.SkipWithError("readEntry failed");
            break;
        }
        benchmark::DoNotOptimize(entry);
    }
    setThroughput(state, 1, size);
}

void rawScan(benchmark::State& state, int level, std::size_t size) {
    const std::string& path = readFile(level, size);
    const std::size_t entries = readFileEntries(size);
    Raw::Connection connection = Raw::openLogFile(path);
    Raw::EntryReader reader(connection, level);
    for (auto _ : state) {
        std::vector<Logging::DataEntry> all = reader.readAll();
        if (all.size() != entries) {
            state.SkipWithError("raw scan came short");
            break;
        }
        benchmark::DoNotOptimize(all);
    }
    setThroughput(state, entries, size);
}

void libraryReadEntries(benchmark::State& state, int level, std::size_t size) {
    const std::string& path = readFile(level, size);
    const std::size_t entries = readFileEntries(size);
    SqliteLogFile file{std::filesystem::path(path)};
    const Logging::EntryIndexFilter everything;
    for (auto _ : state) {
        std::vector<Logging::DataEntry> all = file.readEntries(-1, -1, everything, -1);
        if (all.size() != entries) {
            state.SkipWithError("readEntries came short");
            break;
        }
        benchmark::DoNotOptimize(all);
    }
    setThroughput(state, entries, size);
}

// A checksum of what a visitor saw, so that nothing is optimised away.
uint64_t touch(const std::byte* data, std::size_t size) {
    return size == 0 ? 0 : static_cast<uint64_t>(data[0]) + static_cast<uint64_t>(data[size - 1]) + size;
}

void rawStream(benchmark::State& state, int level, std::size_t size) {
    const std::string& path = readFile(level, size);
    const std::size_t entries = readFileEntries(size);
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
    setThroughput(state, entries, size);
}

void libraryStream(benchmark::State& state, int level, std::size_t size) {
    const std::string& path = readFile(level, size);
    const std::size_t entries = readFileEntries(size);
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    const Logging::EntryIndexFilter everything;
    for (auto _ : state) {
        uint64_t sum = 0;
        std::size_t seen = 0;
        const bool completed =
            file.visitEntries(Logging::EntryRange::all(), everything, [&](const Logging::EntryView& view) {
                sum += touch(view.data, view.size);
                ++seen;
                return true;
            });
        if (!completed || seen != entries) {
            state.SkipWithError("visitEntries came short");
            break;
        }
        benchmark::DoNotOptimize(sum);
    }
    setThroughput(state, entries, size);
}

void rawIndex(benchmark::State& state) {
    Raw::Connection connection = Raw::openLogFile(indexFile());
    Raw::EntryReader reader(connection, 0);
    for (auto _ : state) {
        std::vector<int32_t> ids = reader.readIds();
        if (ids.size() != kIndexFileEntries) {
            state.SkipWithError("raw id list came short");
            break;
        }
        benchmark::DoNotOptimize(ids);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(kIndexFileEntries));
}

void libraryIndex(benchmark::State& state) {
    SqliteLogFile file{std::filesystem::path(indexFile())};
    const Logging::EntryIndexFilter everything;
    for (auto _ : state) {
        std::vector<int32_t> ids = file.getEntryIndex(everything);
        if (ids.size() != kIndexFileEntries) {
            state.SkipWithError("getEntryIndex came short");
            break;
        }
        benchmark::DoNotOptimize(ids);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(kIndexFileEntries));
}

}  // namespace

void registerReadBenchmarks(int round) {
    for (int level : kCompressionLevels) {
        for (std::size_t size : kPayloadSizes) {
            auto member = [level, size](const std::string& kind, const std::string& reader,
                                        void (*function)(benchmark::State&, int, std::size_t)) {
                return Member{readName(kind, reader, level, size),
                              [=](benchmark::State& state) { function(state, level, size); }};
            };
            registerRound({member("byId", "raw", rawReadById), member("byId", "library", libraryReadEntry)},
                          round, throughputSettings);
            registerRound({member("scan", "raw", rawScan), member("scan", "library", libraryReadEntries)},
                          round, throughputSettings);
            registerRound({member("stream", "raw", rawStream), member("stream", "library", libraryStream)},
                          round, throughputSettings);
        }
    }
}

void registerIndexBenchmarks(int round) {
    registerRound({Member{indexName("raw"), rawIndex}, Member{indexName("library"), libraryIndex}}, round,
                  [](benchmark::internal::Benchmark* benchmark) {
                      benchmark->MinTime(kMinTime)->Unit(benchmark::kMillisecond);
                  });
}

}  // namespace Marivane::Bench
