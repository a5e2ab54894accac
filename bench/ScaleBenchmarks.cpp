// Reading at scale: the peak memory of streaming work on a 1 GiB file (each
// measured in a process of its own, so that nothing else this program holds
// counts), a merge of two 512 MiB files, and one-second windows in a file of
// five million entries with and without the time index.

#include "BenchSupport.h"
#include "Benchmarks.h"
#include "RawLogFile.h"

#include <logging/Logging.h>

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace Marivane::Bench {

namespace {

using Logging::SqliteLogFile;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kWindowFileEntries = 5'000'000;
constexpr int kWindowRepeats = 20;

}  // namespace

std::vector<double> numbersOfTask(const std::string& task, const std::vector<std::string>& arguments) {
    std::string command = "/proc/" + std::to_string(::getpid()) + "/exe " + kPeakMemoryFlag + " " + task;
    for (const std::string& argument : arguments) {
        command += " '" + argument + "'";
    }
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        throw std::runtime_error("cannot run " + command);
    }
    std::vector<double> numbers;
    for (double number = 0; std::fscanf(pipe, "%lf", &number) == 1;) {
        numbers.push_back(number);
    }
    if (::pclose(pipe) != 0 || numbers.empty() || numbers.front() < 0) {
        throw std::runtime_error("the task failed: " + command);
    }
    return numbers;
}

double peakMemoryOf(const std::string& task, const std::vector<std::string>& arguments) {
    return numbersOfTask(task, arguments).front() / 1024.0;
}

// Not getrusage's ru_maxrss: a process keeps the high-water mark of the
// memory it ran in before its exec, and a process that popen or posix_spawn
// starts runs in its parent's memory until then, so ru_maxrss would report
// this benchmark's own peak whenever that is the larger. VmHWM belongs to
// the memory the process got at its exec.
long ownPeakKiB() {
    FILE* status = std::fopen("/proc/self/status", "r");
    if (status == nullptr) {
        return -1;
    }
    long kibibytes = -1;
    char line[256];
    while (std::fgets(line, sizeof line, status) != nullptr) {
        if (std::sscanf(line, "VmHWM: %ld kB", &kibibytes) == 1) {
            break;
        }
    }
    std::fclose(status);
    return kibibytes;
}

const std::string& partOf(const std::string& source, int32_t firstId, int32_t lastId) {
    static std::map<std::tuple<std::string, int32_t, int32_t>, std::string> paths;
    std::string& path = paths[{source, firstId, lastId}];
    if (path.empty()) {
        const std::string candidate = freshPath("part-" + std::to_string(firstId));
        Raw::copyLogFile(source, candidate, firstId, lastId);
        path = candidate;
    }
    return path;
}

namespace {

const std::string& mergeInput(int half) {
    const int32_t entries = static_cast<int32_t>(kDerivedSourceEntries / 2);
    return partOf(derivedSourceFile(), 1 + half * entries, (half + 1) * entries);
}

void streamMemory(benchmark::State& state) {
    for (auto _ : state) {
        state.counters["peak_rss_mib"] = peakMemoryOf("stream", {derivedSourceFile()});
    }
}

void copyMemory(benchmark::State& state) {
    for (auto _ : state) {
        const std::string output = freshPath("copy-memory");
        state.counters["peak_rss_mib"] = peakMemoryOf("copy", {derivedSourceFile(), output});
        removeLogFile(output);
    }
}

void libraryMerge(benchmark::State& state) {
    const std::vector<std::filesystem::path> inputs{mergeInput(0), mergeInput(1)};
    for (auto _ : state) {
        const std::string output = freshPath("merge");
        Logging::CopyOptions options;
        options.applicationName = "marivane_bench";
        const Logging::CopyReport report = Logging::Algorithms::merge(inputs, output, options);
        if (report.entries != kDerivedSourceEntries) {
            state.SkipWithError("the merge came short");
            break;
        }
        state.PauseTiming();
        removeLogFile(output);
        state.ResumeTiming();
    }
    setThroughput(state, kDerivedSourceEntries, kDerivedSourcePayloadSize);
    const std::string output = freshPath("merge-memory");
    state.counters["peak_rss_mib"] = peakMemoryOf("merge", {mergeInput(0), mergeInput(1), output});
    removeLogFile(output);
}

// The mean time of one-second windows spread over the file, in ms.
double meanWindowMs(const SqliteLogFile& file, Logging::EntryOrder order = Logging::EntryOrder::Id) {
    const int64_t span = static_cast<int64_t>(kWindowFileEntries) * kEntryPeriodMs;
    const auto started = Clock::now();
    std::size_t seen = 0;
    for (int i = 0; i < kWindowRepeats; ++i) {
        const int64_t start = kFirstTimestamp + span * (2 * i + 1) / (2 * kWindowRepeats);
        Logging::VisitOptions options;
        options.order = order;
        file.visitEntries(
            Logging::EntryRange::between(start, start + 999), Logging::EntryIndexFilter(),
            [&](const Logging::EntryView&) {
                ++seen;
                return true;
            },
            options);
    }
    const double elapsed = std::chrono::duration<double, std::milli>(Clock::now() - started).count();
    if (seen != static_cast<std::size_t>(kWindowRepeats) * 100) {
        throw std::runtime_error("a time window came short");
    }
    return elapsed / kWindowRepeats;
}

void timeWindows(benchmark::State& state) {
    const std::string path = freshPath("window-5M");
    Raw::buildLogFile(path, 0, 64, kWindowFileEntries);
    for (auto _ : state) {
        {
            const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
            state.counters["scan_window_ms"] = meanWindowMs(file);
        }
        const auto started = Clock::now();
        {
            SqliteLogFile file{std::filesystem::path(path)};
            if (!file.createTimeIndex()) {
                state.SkipWithError("the time index could not be built");
                break;
            }
        }
        state.counters["index_build_s"] = std::chrono::duration<double>(Clock::now() - started).count();
        const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
        state.counters["indexed_window_ms"] = meanWindowMs(file);
        state.counters["indexed_time_window_ms"] = meanWindowMs(file, Logging::EntryOrder::Time);
    }
    removeLogFile(path);
}

void oneShot(benchmark::internal::Benchmark* benchmark) {
    benchmark->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
}

}  // namespace

int runPeakMemoryTask(int argc, char** argv) {
    const std::string task = argc > 2 ? argv[2] : "";
    try {
        if (task == "stream" && argc == 4) {
            const SqliteLogFile file = SqliteLogFile::openReadOnly(argv[3]);
            std::size_t entries = 0;
            file.visitEntries(Logging::EntryRange::all(), Logging::EntryIndexFilter(),
                              [&](const Logging::EntryView&) { return ++entries > 0; });
        } else if (task == "copy" && argc == 5) {
            Logging::CopyOptions options;
            options.filter.dataSourceTypes = {MV_LogDataSourceType_Generic};
            Logging::Algorithms::copy(argv[3], argv[4], options);
        } else if (task == "record" && argc == 4) {
            recordForPeakMemory(argv[3]);
        } else if (task == "merge" && argc == 6) {
            Logging::Algorithms::merge({argv[3], argv[4]}, argv[5], Logging::CopyOptions());
        } else if (task == "run" && argc >= 5) {
            return runProgramTask(argc, argv);
        } else {
            std::fprintf(stderr, "unknown task\n");
            return 2;
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    std::printf("%ld\n", ownPeakKiB());
    return 0;
}

void registerScaleBenchmarks() {
    benchmark::RegisterBenchmark(memoryName("stream").c_str(), streamMemory)->Apply(oneShot);
    benchmark::RegisterBenchmark(memoryName("copy").c_str(), copyMemory)->Apply(oneShot);
    benchmark::RegisterBenchmark(mergeName().c_str(), libraryMerge)->Apply(oneShot);
    benchmark::RegisterBenchmark(windowName().c_str(), timeWindows)->Apply(oneShot);
}

}  // namespace Marivane::Bench
