// The recorder against logData: throughput from opening a file to closing it
// (wall time: the recorder's work runs on its own threads), the cost of
// record() on the capture thread, an overload under drop-newest, and the
// peak memory against the queue budget.

#include "BenchSupport.h"
#include "Benchmarks.h"

#include <logging/Logging.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Marivane::Bench {

namespace {

using Clock = std::chrono::steady_clock;
using Logging::DataSource;
using Logging::Recorder;
using Logging::RecorderOptions;
using Logging::SqliteLogFile;

// Entries per run: a few tens of MiB, or a few hundred thousand small ones.
std::size_t entriesPerRun(std::size_t size) {
    return std::clamp<std::size_t>((48u << 20) / size, 128, 200'000);
}

RecorderOptions recorderOptions(int level, Logging::Durability durability = Logging::Durability::Fast) {
    RecorderOptions options;
    options.durability = durability;
    // Every core compresses: on two cores the default (the cores minus one for
    // the writer) leaves one, which cannot beat logData compressing on the
    // caller's thread. MARIVANE_BENCH_COMPRESSION_THREADS chooses another count.
    options.compressionThreads = static_cast<int32_t>(std::max(1u, std::thread::hardware_concurrency()));
    if (const char* threads = std::getenv("MARIVANE_BENCH_COMPRESSION_THREADS")) {
        options.compressionThreads = std::atoi(threads);
    }
    options.compressionLevel = static_cast<int8_t>(level);
    options.applicationName = "marivane_bench";
    return options;
}

void addSource(Recorder& recorder) {
    DataSource source;
    source.name = "bench";
    if (!recorder.addDataSource(source) || source.id != kDataSourceId) {
        throw std::runtime_error("cannot add the data source to the recorder");
    }
}

void recorderThroughput(benchmark::State& state, int level, std::size_t size,
                        Logging::Durability durability = Logging::Durability::Fast,
                        bool timeIndexOnClose = true) {
    const std::size_t entries = entriesPerRun(size);
    const ByteBuffer& data = payload(size);
    RecorderOptions options = recorderOptions(level, durability);
    options.buildTimeIndexOnClose = timeIndexOnClose;
    for (auto _ : state) {
        const std::string path = freshPath("recorder");
        {
            Recorder recorder(path, options);
            addSource(recorder);
            for (std::size_t i = 0; i < entries; ++i) {
                recorder.record(kDataSourceId, kEntryType, kFirstTimestamp + static_cast<int64_t>(i),
                                data.data(), data.size());
            }
            if (!recorder.close() || recorder.stats().written != entries) {
                state.SkipWithError("the recorder lost entries");
                break;
            }
        }
        state.PauseTiming();
        removeLogFile(path);
        state.ResumeTiming();
    }
    setThroughput(state, entries, size);
}

// logData from open to close, in write batches (batched) or one entry per
// call (autocommit, fewer entries: it is slow).
void logDataThroughput(benchmark::State& state, int level, std::size_t size, bool batched) {
    const std::size_t entries =
        batched ? entriesPerRun(size) : std::min<std::size_t>(entriesPerRun(size), 20'000);
    Logging::DataEntry entry;
    entry.dataSourceId = kDataSourceId;
    entry.type = kEntryType;
    entry.data = payload(size);
    for (auto _ : state) {
        const std::string path = freshPath("logdata");
        {
            SqliteLogFile file(path, "UTC", "marivane_bench", "1", static_cast<int8_t>(level),
                               kFirstTimestamp);
            DataSource source;
            source.name = "bench";
            file.addDataSource(source);
            std::optional<SqliteLogFile::WriteBatch> batch;
            const std::size_t perBatch = entriesPerTransaction(size);
            for (std::size_t i = 0; i < entries; ++i) {
                if (batched && !batch) {
                    batch.emplace(file.beginBatch());
                }
                entry.timestamp = kFirstTimestamp + static_cast<int64_t>(i);
                file.logData(entry);
                if (batch && (i + 1) % perBatch == 0) {
                    batch->commit();
                    batch.reset();
                }
            }
        }
        state.PauseTiming();
        removeLogFile(path);
        state.ResumeTiming();
    }
    setThroughput(state, entries, size);
}

double percentileOf(std::vector<double>& values, double fraction) {
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1));
    return values[index];
}

// The time each record() call takes on the capture thread while the writer
// and the compressors are busy with the calls before it.
void recordLatency(benchmark::State& state, int level, std::size_t size) {
    const std::size_t entries = std::min<std::size_t>(entriesPerRun(size), 50'000);
    const ByteBuffer& data = payload(size);
    std::vector<double> micros(entries);
    for (auto _ : state) {
        const std::string path = freshPath("latency");
        {
            Recorder recorder(path, recorderOptions(level));
            addSource(recorder);
            for (std::size_t i = 0; i < entries; ++i) {
                const auto started = Clock::now();
                recorder.record(kDataSourceId, kEntryType, kFirstTimestamp + static_cast<int64_t>(i),
                                data.data(), data.size());
                micros[i] = std::chrono::duration<double, std::micro>(Clock::now() - started).count();
            }
            recorder.close();
        }
        removeLogFile(path);
    }
    state.counters["median_us"] = percentileOf(micros, 0.5);
    state.counters["p99_us"] = percentileOf(micros, 0.99);
    state.counters["max_us"] = percentileOf(micros, 1.0);
}

// Producers far faster than the disk can take: a small queue, drop-newest.
// Every call is accounted for, and the file holds exactly the written entries,
// in acceptance order.
void overload(benchmark::State& state) {
    constexpr std::size_t kCalls = 40'000;
    constexpr std::size_t kSize = 16 * 1024;
    std::vector<double> micros(kCalls);
    for (auto _ : state) {
        const std::string path = freshPath("overload");
        RecorderOptions options = recorderOptions(-1);
        options.queueBytes = 1u << 20;
        options.overflowPolicy = Logging::OverflowPolicy::DropNewest;
        Logging::RecorderStats stats;
        ByteBuffer data = payload(kSize);
        {
            Recorder recorder(path, options);
            addSource(recorder);
            for (std::size_t i = 0; i < kCalls; ++i) {
                std::memcpy(data.data(), &i, sizeof i);
                const auto started = Clock::now();
                recorder.record(kDataSourceId, kEntryType, static_cast<int64_t>(i), data.data(), data.size());
                micros[i] = std::chrono::duration<double, std::micro>(Clock::now() - started).count();
            }
            recorder.close();
            stats = recorder.stats();
        }
        bool inOrder = true;
        std::size_t stored = 0;
        std::size_t previous = 0;
        const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
        file.visitEntries(Logging::EntryRange::all(), Logging::EntryIndexFilter(),
                          [&](const Logging::EntryView& view) {
                              std::size_t sequence = 0;
                              std::memcpy(&sequence, view.data, sizeof sequence);
                              inOrder = inOrder && (stored == 0 || sequence > previous) &&
                                        view.timestamp == static_cast<int64_t>(sequence);
                              previous = sequence;
                              ++stored;
                              return true;
                          });
        state.counters["calls"] = static_cast<double>(kCalls);
        state.counters["accepted"] = static_cast<double>(stats.accepted);
        state.counters["dropped"] = static_cast<double>(stats.dropped);
        state.counters["accounted"] = stats.accepted + stats.dropped == kCalls ? 1 : 0;
        state.counters["file_matches"] =
            stored == stats.written && stats.written == stats.accepted && inOrder ? 1 : 0;
        removeLogFile(path);
    }
    state.counters["median_us"] = percentileOf(micros, 0.5);
    state.counters["p99_us"] = percentileOf(micros, 0.99);
    state.counters["max_us"] = percentileOf(micros, 1.0);
}

// A recording in safe mode read while it runs: the time from record() to a
// second connection, polling every millisecond, seeing the entry.
void liveReadLag(benchmark::State& state) {
    constexpr int kEntries = 1000;
    std::vector<double> lagMs;
    for (auto _ : state) {
        const std::string path = freshPath("live");
        RecorderOptions options = recorderOptions(-1, Logging::Durability::Safe);
        options.maxCommitDelay = std::chrono::milliseconds(10);
        Recorder recorder(path, options);
        addSource(recorder);
        // Reads until it has seen every entry: the flush below commits the last.
        std::thread reader([&] {
            const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
            int32_t next = 1;
            while (next <= kEntries) {
                file.visitEntries(Logging::EntryRange{next, -1}, Logging::EntryIndexFilter(),
                                  [&](const Logging::EntryView& view) {
                                      int64_t recordedAt = 0;
                                      std::memcpy(&recordedAt, view.data, sizeof recordedAt);
                                      const int64_t now = Clock::now().time_since_epoch().count();
                                      lagMs.push_back(static_cast<double>(now - recordedAt) / 1e6);
                                      next = view.entryId + 1;
                                      return true;
                                  });
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        ByteBuffer data(64);
        for (int i = 0; i < kEntries; ++i) {
            const int64_t now = Clock::now().time_since_epoch().count();
            std::memcpy(data.data(), &now, sizeof now);
            recorder.record(kDataSourceId, kEntryType, i, data.data(), data.size());
            std::this_thread::sleep_for(std::chrono::microseconds(1000));
        }
        recorder.flush();
        reader.join();
        recorder.close();
        removeLogFile(path);
    }
    if (!lagMs.empty()) {
        state.counters["median_lag_ms"] = percentileOf(lagMs, 0.5);
        state.counters["p99_lag_ms"] = percentileOf(lagMs, 0.99);
        state.counters["seen"] = static_cast<double>(lagMs.size());
    }
}

void recorderMemory(benchmark::State& state) {
    for (auto _ : state) {
        const std::string path = freshPath("recorder-memory");
        state.counters["peak_rss_mib"] = peakMemoryOf("record", {path});
        state.counters["queue_budget_mib"] = static_cast<double>(kRecorderMemoryBudget >> 20);
        removeLogFile(path);
    }
}

// One capture thread standing for three sources, one entry per millisecond
// each, the second and third lagging the first by 20 and 40 ms: ids follow
// time only with a reorder window.
int64_t laggingTimestamp(std::size_t i) {
    const auto step = static_cast<int64_t>(i / 3);
    const auto lag = static_cast<int64_t>(i % 3) * 20;
    return kFirstTimestamp + step - lag;
}

// Open to close, like recorderThroughput, with a reorder window of
// `windowMs` (0: none) and with or without the time index built on close;
// close_ms is the close alone, after a flush (mostly the index).
void recorderTimeOrder(benchmark::State& state, int level, std::size_t size, int64_t windowMs,
                       bool buildIndex) {
    const std::size_t entries = entriesPerRun(size);
    const ByteBuffer& data = payload(size);
    std::vector<double> closeMs;
    uint64_t late = 0;
    for (auto _ : state) {
        const std::string path = freshPath("recorder-order");
        {
            RecorderOptions options = recorderOptions(level, Logging::Durability::Balanced);
            options.reorderWindow = std::chrono::milliseconds(windowMs);
            options.buildTimeIndexOnClose = buildIndex;
            Recorder recorder(path, options);
            addSource(recorder);
            for (std::size_t i = 0; i < entries; ++i) {
                recorder.record(kDataSourceId, kEntryType, laggingTimestamp(i), data.data(), data.size());
            }
            recorder.flush();
            const auto closing = Clock::now();
            const bool closed = recorder.close();
            closeMs.push_back(std::chrono::duration<double, std::milli>(Clock::now() - closing).count());
            if (!closed || recorder.stats().written != entries) {
                state.SkipWithError("the recorder lost entries");
                break;
            }
            late = recorder.stats().late;
        }
        state.PauseTiming();
        removeLogFile(path);
        state.ResumeTiming();
    }
    setThroughput(state, entries, size);
    if (!closeMs.empty()) {
        state.counters["close_ms"] = percentileOf(closeMs, 0.5);
    }
    state.counters["late"] = static_cast<double>(late);
}

void wallClock(benchmark::internal::Benchmark* benchmark) {
    benchmark->MinTime(kMinTime)->UseRealTime()->Unit(benchmark::kMillisecond);
}

void oneShot(benchmark::internal::Benchmark* benchmark) {
    benchmark->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
}

}  // namespace

// Records 64 MiB-budgeted 16 KiB entries as fast as a producer can, then
// reports the process's peak memory (see runPeakMemoryTask).
void recordForPeakMemory(const std::string& path) {
    RecorderOptions options = recorderOptions(-1);
    options.queueBytes = kRecorderMemoryBudget;
    Recorder recorder(path, options);
    addSource(recorder);
    const ByteBuffer& data = payload(16 * 1024);
    for (int i = 0; i < 20'000; ++i) {
        recorder.record(kDataSourceId, kEntryType, i, data.data(), data.size());
    }
    recorder.close();
}

void registerRecorderBenchmarks(int round) {
    for (int level : {-1, 1}) {
        for (std::size_t size : {std::size_t{16 * 1024}, std::size_t{256 * 1024}}) {
            registerRound(
                {Member{recorderName("batch", level, size),
                        [=](benchmark::State& state) { logDataThroughput(state, level, size, true); }},
                 Member{recorderName("recorder", level, size),
                        [=](benchmark::State& state) { recorderThroughput(state, level, size); }},
                 Member{recorderName("recorderSafe", level, size),
                        [=](benchmark::State& state) {
                            recorderThroughput(state, level, size, Logging::Durability::Safe);
                        }},
                 Member{recorderName("recorderBalanced", level, size),
                        [=](benchmark::State& state) {
                            recorderThroughput(state, level, size, Logging::Durability::Balanced);
                        }}},
                round, wallClock);
        }
    }
    // The recorder's default against the fast mode it replaced, on large
    // uncompressed frames: the case where a kill used to damage files.
    for (std::size_t size : {std::size_t{1024}, std::size_t{64 * 1024}}) {
        registerRound({Member{recorderName("recorderFast", 0, size),
                              [=](benchmark::State& state) { recorderThroughput(state, 0, size); }},
                       Member{recorderName("recorderBalanced", 0, size),
                              [=](benchmark::State& state) {
                                  recorderThroughput(state, 0, size, Logging::Durability::Balanced);
                              }}},
                      round, wallClock);
    }
    for (std::size_t size : {std::size_t{64}, std::size_t{1024}}) {
        registerRound({Member{recorderName("autocommit", 0, size),
                              [=](benchmark::State& state) { logDataThroughput(state, 0, size, false); }},
                       Member{recorderName("batch", 0, size),
                              [=](benchmark::State& state) { logDataThroughput(state, 0, size, true); }},
                       Member{recorderName("recorder", 0, size),
                              [=](benchmark::State& state) { recorderThroughput(state, 0, size); }},
                       // The same file as the batch writes: no time index.
                       Member{recorderName("recorderNoIndex", 0, size),
                              [=](benchmark::State& state) {
                                  recorderThroughput(state, 0, size, Logging::Durability::Fast, false);
                              }}},
                      round, wallClock);
    }
    // What time order costs: a 100 ms reorder window against none (neither
    // builds the index), and closing with the time index against without
    // (no window), on sources that lag each other by up to 40 ms.
    for (const auto& [level, size] : {std::pair{0, std::size_t{64}}, std::pair{0, std::size_t{1024}},
                                      std::pair{-1, std::size_t{16 * 1024}}}) {
        registerRound(
            {Member{recorderName("noWindow", level, size),
                    [=](benchmark::State& state) { recorderTimeOrder(state, level, size, 0, false); }},
             Member{recorderName("window100", level, size),
                    [=](benchmark::State& state) { recorderTimeOrder(state, level, size, 100, false); }}},
            round, wallClock);
        registerRound(
            {Member{recorderName("closePlain", level, size),
                    [=](benchmark::State& state) { recorderTimeOrder(state, level, size, 0, false); }},
             Member{recorderName("closeIndexed", level, size),
                    [=](benchmark::State& state) { recorderTimeOrder(state, level, size, 0, true); }}},
            round, wallClock);
    }
}

void registerRecorderProbes() {
    for (std::size_t size : {std::size_t{64}, std::size_t{16 * 1024}}) {
        benchmark::RegisterBenchmark(recorderLatencyName(size).c_str(), [size](benchmark::State& state) {
            recordLatency(state, -1, size);
        })->Apply(oneShot);
    }
    benchmark::RegisterBenchmark(recorderOverloadName().c_str(), overload)->Apply(oneShot);
    benchmark::RegisterBenchmark(memoryName("recorder").c_str(), recorderMemory)->Apply(oneShot);
    benchmark::RegisterBenchmark(liveLagName().c_str(), liveReadLag)->Apply(oneShot);
}

}  // namespace Marivane::Bench
