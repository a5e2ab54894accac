#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
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

// Registers `rounds` runs of every member: the whole group once, then again.
// A library figure and its baseline thus alternate a few seconds apart, so a
// change in the machine's load (other builds on the two shared cores) hits
// both sides of a ratio alike instead of all the rounds of one side.
void registerRounds(const std::vector<Member>& group, int rounds,
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
std::string playerName();
// mode: "autocommit" or "transaction".
std::string pageSizeName(const std::string& mode, int pageSize, std::size_t size);

// Registration in run order; each library figure is in a group with its
// baseline (see registerRounds).
void registerWriteBenchmarks();
void registerReadBenchmarks();
void registerIndexBenchmarks();
void registerDerivedFileBenchmarks();
void registerPlayerBenchmark();
void registerPageSizeSweep();

// The raw baseline's writers, one entry per statement or entriesPerTransaction
// per transaction; pageSize 0 keeps SQLite's default.
void rawAutocommitWrites(benchmark::State& state, int level, std::size_t size, int pageSize);
void rawTransactionWrites(benchmark::State& state, int level, std::size_t size, int pageSize);

// The page sizes that the sweep tries, in bytes.
inline constexpr int kPageSizes[] = {4096, 8192, 16384, 32768, 65536};

}  // namespace Marivane::Bench
