#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <string>

// Every benchmark is registered by name so that the summary can pair a library
// figure with its baseline; the names are built here and nowhere else.
namespace Marivane::Bench {

// Minimum measuring time of a throughput benchmark, in seconds. Short on
// purpose: the whole run must stay within minutes on two shared cores, and
// each figure is the median of a few repetitions instead.
inline constexpr double kMinTime = 0.2;
inline constexpr int kRepetitions = 3;

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

// Registration in run order. Library figures are registered right beside
// their baselines, so that a change in the machine's load during the run
// touches both sides of a ratio alike.
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
