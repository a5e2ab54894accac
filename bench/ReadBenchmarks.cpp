// Entry reads: single entries by id and a scan of the whole file, by the
// library and by the raw baseline, on the very same file; the entry index
// of a file of a million entries; and streaming reads in time order against
// the same read in id order, with and without the time index, on files whose
// ids follow time and on a shuffled one.

#include "BenchSupport.h"
#include "Benchmarks.h"
#include "RawLogFile.h"

#include <logging/Logging.h>

#include <benchmark/benchmark.h>

#include <ctime>
#include <filesystem>
#include <limits>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace Marivane::Bench {

namespace {

using Logging::SqliteLogFile;

constexpr std::size_t kIndexFileEntries = 1'000'000;
constexpr std::size_t kIndexPayloadSize = 64;

const std::string& readFile(int level, std::size_t size) {
    return Raw::builtLogFile("read-" + levelLabel(level) + "-" + sizeLabel(size), level, size,
                             readFileEntries(size));
}

const std::string& indexFile() {
    return Raw::builtLogFile("index-1M", 0, kIndexPayloadSize, kIndexFileEntries);
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

// `threads` as VisitOptions::decompressionThreads: 1 expands on this
// thread, 0 on one thread per core.
void libraryStreamWith(benchmark::State& state, int level, std::size_t size, int threads) {
    const std::string& path = readFile(level, size);
    const std::size_t entries = readFileEntries(size);
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    const Logging::EntryIndexFilter everything;
    Logging::VisitOptions options;
    options.decompressionThreads = threads;
    // Process CPU time per row over the whole loop (all threads of the read).
    const std::clock_t cpuStart = std::clock();
    for (auto _ : state) {
        uint64_t sum = 0;
        std::size_t seen = 0;
        const bool completed = file.visitEntries(
            Logging::EntryRange::all(), everything,
            [&](const Logging::EntryView& view) {
                sum += touch(view.data, view.size);
                ++seen;
                return true;
            },
            options);
        if (!completed || seen != entries) {
            state.SkipWithError("visitEntries came short");
            break;
        }
        benchmark::DoNotOptimize(sum);
    }
    const double rows = static_cast<double>(state.iterations()) * static_cast<double>(entries);
    if (rows > 0) {
        state.counters["cpu_us_per_row"] =
            static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC * 1e6 / rows;
    }
    setThroughput(state, entries, size);
}

void libraryStream(benchmark::State& state, int level, std::size_t size) {
    libraryStreamWith(state, level, size, 1);
}

void libraryStreamThreads(benchmark::State& state, int level, std::size_t size) {
    libraryStreamWith(state, level, size, 0);
}

// A checksum of a row without payload, so that nothing is optimised away.
uint64_t touchSummary(int32_t entryId, int64_t timestamp, int32_t type, int64_t storedSize) {
    return static_cast<uint64_t>(entryId) + static_cast<uint64_t>(timestamp) + static_cast<uint64_t>(type) +
           static_cast<uint64_t>(storedSize);
}

// Every entry's id, time, type, source and stored size, no payload: a raw
// statement of those columns against visitEntrySummaries, same file.
void rawSummaries(benchmark::State& state, int level, std::size_t size) {
    const std::size_t entries = readFileEntries(size);
    Raw::Connection connection = Raw::openLogFile(readFile(level, size));
    Raw::SummaryScan scan(connection);
    for (auto _ : state) {
        uint64_t sum = 0;
        const std::size_t seen = scan.run([&](const Raw::RawSummary& row) {
            sum += touchSummary(row.entryId, row.timestamp, row.type, row.storedSize);
        });
        if (seen != entries) {
            state.SkipWithError("raw summary scan came short");
            break;
        }
        benchmark::DoNotOptimize(sum);
    }
    setThroughput(state, entries, size);
}

void librarySummaries(benchmark::State& state, int level, std::size_t size) {
    const std::size_t entries = readFileEntries(size);
    const SqliteLogFile file = SqliteLogFile::openReadOnly(readFile(level, size));
    const Logging::EntryIndexFilter everything;
    for (auto _ : state) {
        uint64_t sum = 0;
        std::size_t seen = 0;
        const bool completed = file.visitEntrySummaries(
            Logging::EntryRange::all(), everything, [&](const Logging::EntrySummary& row) {
                sum += touchSummary(row.entryId, row.timestamp, row.type, row.storedSize);
                ++seen;
                return true;
            });
        if (!completed || seen != entries) {
            state.SkipWithError("visitEntrySummaries came short");
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

// ---- time order -------------------------------------------------------------

// Copies of a read file: with the time index, and with the timestamps
// permuted (entry i gets the timestamp of entry (i * 7919) mod n, a
// permutation since n is a power of two), without the index or with it.
enum class OrderFile { Ordered, OrderedIndexed, Shuffled, ShuffledIndexed };

const char* orderFileLabel(OrderFile kind) {
    switch (kind) {
        case OrderFile::Ordered:
            return "ordered";
        case OrderFile::OrderedIndexed:
            return "orderedIndexed";
        case OrderFile::Shuffled:
            return "shuffled";
        case OrderFile::ShuffledIndexed:
            break;
    }
    return "shuffledIndexed";
}

const std::string& orderFile(OrderFile kind, int level, std::size_t size) {
    if (kind == OrderFile::Ordered) {
        return readFile(level, size);
    }
    static std::map<std::tuple<OrderFile, int, std::size_t>, std::string> files;
    std::string& path = files[{kind, level, size}];
    if (path.empty()) {
        const std::string candidate = freshPath(std::string("order-") + orderFileLabel(kind) + "-" +
                                                levelLabel(level) + "-" + sizeLabel(size));
        std::filesystem::copy_file(readFile(level, size), candidate);
        if (kind == OrderFile::Shuffled || kind == OrderFile::ShuffledIndexed) {
            const std::string entries = std::to_string(readFileEntries(size));
            Raw::Connection connection = Raw::openLogFile(candidate);
            connection.exec("UPDATE data SET timestamp = " + std::to_string(kFirstTimestamp) +
                            " + ((entryId - 1) * 7919 % " + entries + ") * " +
                            std::to_string(kEntryPeriodMs) + ";");
        }
        if (kind == OrderFile::OrderedIndexed || kind == OrderFile::ShuffledIndexed) {
            SqliteLogFile file{std::filesystem::path(candidate)};
            if (!file.createTimeIndex()) {
                throw std::runtime_error("the time index could not be built: " + file.getLastError());
            }
        }
        path = candidate;
    }
    return path;
}

void libraryStreamInOrder(benchmark::State& state, OrderFile kind, Logging::EntryOrder order, int level,
                          std::size_t size) {
    const std::string& path = orderFile(kind, level, size);
    const std::size_t entries = readFileEntries(size);
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    const Logging::EntryIndexFilter everything;
    Logging::VisitOptions options;
    options.order = order;
    for (auto _ : state) {
        uint64_t sum = 0;
        std::size_t seen = 0;
        int64_t previous = std::numeric_limits<int64_t>::min();
        bool inOrder = true;
        const bool completed = file.visitEntries(
            Logging::EntryRange::all(), everything,
            [&](const Logging::EntryView& view) {
                sum += touch(view.data, view.size);
                inOrder = inOrder && view.timestamp >= previous;
                previous = view.timestamp;
                ++seen;
                return true;
            },
            options);
        if (!completed || seen != entries) {
            state.SkipWithError("visitEntries came short");
            break;
        }
        if (order == Logging::EntryOrder::Time && !inOrder) {
            state.SkipWithError("visitEntries was not in time order");
            break;
        }
        benchmark::DoNotOptimize(sum);
    }
    setThroughput(state, entries, size);
}

// One round of every pair: the same file read in id order, then in time order.
void registerOrderBenchmarks(int round) {
    for (int level : kCompressionLevels) {
        for (std::size_t size : kPayloadSizes) {
            auto member = [level, size](OrderFile kind, Logging::EntryOrder order) {
                return Member{
                    readName(orderFileLabel(kind), order == Logging::EntryOrder::Time ? "byTime" : "byId",
                             level, size),
                    [=](benchmark::State& state) { libraryStreamInOrder(state, kind, order, level, size); }};
            };
            for (OrderFile kind : {OrderFile::OrderedIndexed, OrderFile::Ordered, OrderFile::Shuffled,
                                   OrderFile::ShuffledIndexed}) {
                registerRound(
                    {member(kind, Logging::EntryOrder::Id), member(kind, Logging::EntryOrder::Time)}, round,
                    throughputSettings);
            }
        }
    }
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
            // Wall-clock time: the threaded read's work is spread over threads
            // that the caller's processor time does not count.
            registerRound({member("stream", "raw", rawStream), member("stream", "library", libraryStream),
                           member("stream", "threads", libraryStreamThreads)},
                          round, [](benchmark::internal::Benchmark* benchmark) {
                              throughputSettings(benchmark);
                              benchmark->UseRealTime();
                          });
        }
    }
    // Reads without payloads: 64 B entries at level 0, CPU time.
    registerRound({Member{readName("summaries", "raw", 0, 64),
                          [](benchmark::State& state) { rawSummaries(state, 0, 64); }},
                   Member{readName("summaries", "library", 0, 64),
                          [](benchmark::State& state) { librarySummaries(state, 0, 64); }}},
                  round, throughputSettings);
    registerOrderBenchmarks(round);
}

void registerIndexBenchmarks(int round) {
    registerRound({Member{indexName("raw"), rawIndex}, Member{indexName("library"), libraryIndex}}, round,
                  [](benchmark::internal::Benchmark* benchmark) {
                      benchmark->MinTime(kMinTime)->Unit(benchmark::kMillisecond);
                  });
}

}  // namespace Marivane::Bench
