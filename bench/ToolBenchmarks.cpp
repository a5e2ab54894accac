// mvlog on a file of many small entries: the wall time, CPU time and peak
// resident memory of `info`, `check` and `cat` (into a file) on 2,000,000
// entries of 64 B at level -1. Each command runs as a process of its own, as
// a user runs it; its peak memory is what wait4 reports for it. Also the
// runner of every mvlog figure (runChild).

#include "BenchSupport.h"
#include "Benchmarks.h"

#include <logging/Logging.h>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace Marivane::Bench {

// Only a build with the tool (MARIVANE_BUILD_TOOLS, as `make bench` does)
// knows where mvlog is; without it these figures are not measured.
#ifdef MARIVANE_BENCH_MVLOG
namespace {

constexpr const char* kMvlog = MARIVANE_BENCH_MVLOG;
constexpr int kToolRuns = 3;
constexpr std::size_t kEntriesPerBatch = 65536;
constexpr std::size_t kEntrySize = 64;
constexpr std::size_t kWalkBytes = 1 << 20;

// The 64 B payloads of a file: noise, which the codec stores as it is (a
// frame of one raw block), or 64 B pieces of one long random walk, which
// differ as a sensor's readings do (most stored as they are, the rest
// entropy-coded, which costs the codec some 2 us a frame to expand).
ByteBuffer noiseOf(std::size_t size, std::size_t seed) {
    std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
    ByteBuffer bytes(size);
    for (std::byte& value : bytes) {
        value = static_cast<std::byte>(random() & 0xff);
    }
    return bytes;
}

// Written once per run through the library, in write batches.
const std::string& smallEntriesFile(const std::string& payloads) {
    static std::map<std::string, std::string> paths;
    std::string& path = paths[payloads];
    if (path.empty()) {
        const std::string candidate = freshPath("tool-2M-" + payloads);
        Logging::SqliteLogFile file(candidate, "UTC", "marivane_bench", "1", -1, kFirstTimestamp);
        Logging::DataSource source;
        source.name = "bench";
        if (!file.addDataSource(source)) {
            throw std::runtime_error("cannot add the data source: " + file.getLastError());
        }
        Logging::DataEntry entry;
        entry.dataSourceId = source.id;
        entry.type = kEntryType;
        const ByteBuffer walk = payloads == "walk" ? payload(kWalkBytes) : noiseOf(kWalkBytes, kWalkBytes);
        for (std::size_t written = 0; written < kToolFileEntries;) {
            Logging::SqliteLogFile::WriteBatch batch = file.beginBatch();
            for (std::size_t i = 0; i < kEntriesPerBatch && written < kToolFileEntries; ++i, ++written) {
                const auto offset = static_cast<std::ptrdiff_t>(written * kEntrySize % kWalkBytes);
                entry.data.assign(walk.begin() + offset, walk.begin() + offset + kEntrySize);
                entry.timestamp = kFirstTimestamp + static_cast<int64_t>(written) * kEntryPeriodMs;
                if (!file.logData(entry)) {
                    throw std::runtime_error("cannot write " + candidate + ": " + file.getLastError());
                }
            }
            if (!batch.commit()) {
                throw std::runtime_error("cannot commit to " + candidate + ": " + file.getLastError());
            }
        }
        path = candidate;
    }
    return path;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// kToolRuns runs of one command: the median times, the highest peak.
void toolCommand(benchmark::State& state, const std::string& command, const std::string& payloads) {
    const std::string& file = smallEntriesFile(payloads);
    const std::string output = freshPath("tool-output");
    for (auto _ : state) {
        std::vector<double> wall;
        std::vector<double> cpu;
        double peak = 0;
        for (int run = 0; run < kToolRuns; ++run) {
            const ChildRun measured = runChild(kMvlog, {command, file}, output);
            wall.push_back(measured.wallSeconds);
            cpu.push_back(measured.cpuSeconds);
            peak = std::max(peak, measured.peakMiB);
        }
        state.counters["wall_s"] = median(wall);
        state.counters["cpu_s"] = median(cpu);
        state.counters["peak_rss_mib"] = peak;
    }
    removeLogFile(output);
}

}  // namespace
#endif

namespace {

double seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

}  // namespace

// A child's peak as wait4 reports it is the larger of its own and that of
// the memory it ran in before its exec: a child of this benchmark, forked or
// spawned (posix_spawn shares the parent's memory until the exec), would
// report the benchmark's peak whenever that is the larger. This task is a
// fresh, small process; the program it forks starts from a copy of that.
int runProgramTask(int argc, char** argv) {
    const char* output = argv[3];
    const char* program = argv[4];
    const auto started = std::chrono::steady_clock::now();
    const pid_t child = ::fork();
    if (child < 0) {
        std::perror("fork");
        return 1;
    }
    if (child == 0) {
        const int file = ::open(output, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (file < 0 || ::dup2(file, STDOUT_FILENO) < 0) {
            ::_exit(126);
        }
        ::close(file);
        ::execv(program, argv + 4);
        ::_exit(127);
    }
    int status = 0;
    rusage usage{};
    if (::wait4(child, &status, 0, &usage) != child) {
        std::perror("wait4");
        return 1;
    }
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "%s %s failed\n", program, argc > 5 ? argv[5] : "");
        return 1;
    }
    std::printf("%ld %.6f %.6f\n", usage.ru_maxrss, seconds(usage.ru_utime) + seconds(usage.ru_stime), wall);
    return 0;
}

ChildRun runChild(const std::string& program, const std::vector<std::string>& arguments,
                  const std::string& output) {
    std::vector<std::string> words{output, program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const std::vector<double> numbers = numbersOfTask("run", words);
    if (numbers.size() != 3) {
        throw std::runtime_error(program + " " + arguments.front() + ": no measurement");
    }
    ChildRun run;
    run.peakMiB = numbers[0] / 1024.0;
    run.cpuSeconds = numbers[1];
    run.wallSeconds = numbers[2];
    return run;
}

void registerToolBenchmarks() {
#ifdef MARIVANE_BENCH_MVLOG
    for (const char* payloads : kToolFilePayloads) {
        for (const char* command : kToolCommands) {
            benchmark::RegisterBenchmark(
                toolName(command, payloads).c_str(),
                [command, payloads](benchmark::State& state) { toolCommand(state, command, payloads); })
                ->Iterations(1)
                ->UseRealTime()
                ->Unit(benchmark::kMillisecond);
        }
    }
#endif
}

}  // namespace Marivane::Bench
