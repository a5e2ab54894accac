#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// Every benchmark is registered by name so that the summary can pair a library
// figure with its baseline; the names are built here and nowhere else.
namespace Marivane::Bench {

// Minimum measuring time of a throughput benchmark, in seconds. Short on
// purpose: the whole run must stay within minutes on two shared cores, and
// each figure is the median of a few rounds instead.
inline constexpr double kMinTime = 0.2;
inline constexpr int kRounds = 3;

// One benchmark of a group that is measured round by round.
struct Member {
    std::string name;
    std::function<void(benchmark::State&)> function;
};

// The name of one round's run; the summary strips the suffix again and takes
// the median over the rounds.
std::string roundName(const std::string& name, int round);
// The name without its round suffix, or the name itself when it has none.
std::string withoutRound(const std::string& name);

// Registers one round of a group: every member once, in order, so a library
// figure runs right after its baseline. Rounds are registered one after the
// other over the whole program (round 1 of everything, then round 2, ...), so
// the rounds of one figure lie minutes apart and a burst of load from other
// builds on the two shared cores spoils one round, which the median drops,
// while the pair within a round shares whatever load there is.
void registerRound(const std::vector<Member>& group, int round,
                   const std::function<void(benchmark::internal::Benchmark*)>& configure);
// The settings of the throughput benchmarks: kMinTime, and rates per second
// of the benchmark thread's CPU time (user and system). Every measured
// operation runs on that thread and writes only to the page cache, so the CPU
// time is the work done; the wall clock on two cores shared with other builds
// mostly measures the neighbours (it is still shown in the "Time" column).
void throughputSettings(benchmark::internal::Benchmark* benchmark);

// mode: "autocommit" or "transaction"; writer: "raw", "logData", "capi", "batch".
std::string writeName(const std::string& mode, const std::string& writer, int level, std::size_t size);
// kind: "byId" or "scan"; reader: "raw" or "library".
std::string readName(const std::string& kind, const std::string& reader, int level, std::size_t size);
// reader: "raw" or "library".
std::string indexName(const std::string& reader);
// operation: "clone" or "slice"; writer: "raw" or "library".
std::string deriveName(const std::string& operation, const std::string& writer);
// pacing: "pacing" (the described default) or "exact".
std::string playerName(const std::string& pacing = "pacing");
// what: "stream" or "copy": the peak memory of that work on the 1 GiB file.
std::string memoryName(const std::string& what);
// what: "build" (making the file) or "stream": that work on the 5 GiB file
// (largeLogFile).
std::string largeFileName(const std::string& what);
std::string mergeName();
std::string windowName();
// writer: "recorder", "batch" (logData in write batches) or "autocommit".
std::string recorderName(const std::string& writer, int level, std::size_t size);
std::string recorderLatencyName(std::size_t size);
std::string recorderOverloadName();
std::string liveLagName();
// command: one of kToolCommands, run by mvlog on the file of small entries
// whose payloads are one of kToolFilePayloads.
std::string toolName(const std::string& command, const std::string& payloads);
// kind: "fullDecode", "fullDecodeIndexed", "oneSource", "window" or
// "windowIndexed"; reader: "raw" or "library". Ten interleaved sources.
std::string selectiveName(const std::string& kind, const std::string& reader, int level, std::size_t size);
// mode: "autocommit" or "transaction".
std::string pageSizeName(const std::string& mode, int pageSize, std::size_t size);

// Registration of one round of each section, in run order; each library
// figure is in a group with its baseline (see registerRound).
void registerWriteBenchmarks(int round);
void registerReadBenchmarks(int round);
void registerIndexBenchmarks(int round);
// One source of ten and one-second windows against a full decode.
void registerSelectiveReadBenchmarks(int round);
// Each round copies a gigabyte twice over; two rounds are enough.
inline constexpr int kDerivedRounds = 2;
void registerDerivedFileBenchmarks(int round);
void registerPageSizeSweep(int round);
// One run, no rounds: its figures are distributions over 300 frames already.
void registerPlayerBenchmark();
// One run each: peak memory, the merge, the time windows.
void registerScaleBenchmarks();
// The recorder against logData, round by round; and its one-run probes
// (record() latency, overload, memory).
void registerRecorderBenchmarks(int round);
void registerRecorderProbes();
// The queue budget of the recorder's memory figure.
inline constexpr std::size_t kRecorderMemoryBudget = 64u << 20;
void recordForPeakMemory(const std::string& path);
// Runs this program again for one task of runPeakMemoryTask and returns the
// numbers it prints (the first is a peak resident memory in KiB).
std::vector<double> numbersOfTask(const std::string& task, const std::vector<std::string>& arguments);
// The same, for a task that prints only its own peak: that peak in MiB.
double peakMemoryOf(const std::string& task, const std::vector<std::string>& arguments);
// The peak resident memory of this process since it started (VmHWM), in KiB.
long ownPeakKiB();
// Entries firstId to lastId of `source`, copied once per run into a file of
// their own (the inputs of the merges).
const std::string& partOf(const std::string& source, int32_t firstId, int32_t lastId);

// The 5 GiB file of the large-file figures: 20,480 entries of 256 KiB at
// level 0, built once per run. A whole-file visitEntries and mvlog's
// commands each run once on it, or on the 1 GiB file, as a process of their
// own, for their peak memory.
inline constexpr std::size_t kLargeFileEntries = 20480;
inline constexpr std::size_t kLargeFilePayloadSize = 256 * 1024;
const std::string& largeLogFile();
// The commands that read a file, in run order: on the 5 GiB file.
inline constexpr const char* kLargeFileReadCommands[] = {"cat", "info", "check"};
// The commands that write one, in run order: on the 1 GiB file (slice takes
// the middle half, merge the two halves of the merge figure), since each
// writes what it reads and three such copies of 5 GiB take two minutes.
inline constexpr const char* kLargeFileWriteCommands[] = {"slice", "clone", "merge"};
// The figure of one of these commands.
std::string largeToolName(const std::string& command);
void registerLargeFileBenchmarks();

// The 1 GiB file of the derived-file figures: 4096 entries of 256 KiB, level 0.
inline constexpr std::size_t kDerivedSourceEntries = 4096;
inline constexpr std::size_t kDerivedSourcePayloadSize = 256 * 1024;
const std::string& derivedSourceFile();

// With this first argument the program runs one task instead of the
// benchmarks and prints its peak resident memory in KiB (runPeakMemoryTask).
inline constexpr const char* kPeakMemoryFlag = "--peak-memory-of";
int runPeakMemoryTask(int argc, char** argv);
// The task "run": argv[3] is a file for the program's standard output,
// argv[4] the program, the rest its arguments. Starts it from this small
// process, waits for it and prints its peak resident memory in KiB, its CPU
// time and its wall time in seconds.
int runProgramTask(int argc, char** argv);
// What runProgramTask measured of one program.
struct ChildRun {
    double wallSeconds = 0;
    double cpuSeconds = 0;
    double peakMiB = 0;
};
// Runs `program` with `arguments`, its standard output into `output`, through
// runProgramTask; throws unless it exits with 0.
ChildRun runChild(const std::string& program, const std::vector<std::string>& arguments,
                  const std::string& output);

// mvlog's commands that read a whole file, each run as a process of its own
// on a file of kToolFileEntries entries of 64 B at level -1: wall time, CPU
// time and peak memory (one run, no rounds: each figure is a median of three
// runs already). Two files: payloads of noise, which the codec stores as they
// are, and pieces of a random walk, of which the codec entropy-codes some.
inline constexpr std::size_t kToolFileEntries = 2'000'000;
inline constexpr const char* kToolCommands[] = {"info", "check", "cat"};
inline constexpr const char* kToolFilePayloads[] = {"noise", "walk"};
void registerToolBenchmarks();

// The raw baseline's writers, one entry per statement or entriesPerTransaction
// per transaction; pageSize 0 keeps SQLite's default.
void rawAutocommitWrites(benchmark::State& state, int level, std::size_t size, int pageSize);
void rawTransactionWrites(benchmark::State& state, int level, std::size_t size, int pageSize);

// The page sizes that the sweep tries, in bytes.
inline constexpr int kPageSizes[] = {4096, 8192, 16384, 32768, 65536};

}  // namespace Marivane::Bench
