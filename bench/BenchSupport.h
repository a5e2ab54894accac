#pragma once

#include <logging/ByteBuffer.h>

#include <benchmark/benchmark.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

namespace Marivane::Bench {

using Logging::ByteBuffer;

// Payloads from a small sensor record to a camera frame tile.
inline constexpr std::array<std::size_t, 4> kPayloadSizes = {64, 1024, 16 * 1024, 256 * 1024};
// 0 stores payloads as they are; -1 is the codec's default level.
inline constexpr std::array<int, 2> kCompressionLevels = {0, -1};

// Timestamps start here and advance 10 ms per entry (a 100 Hz source).
inline constexpr int64_t kFirstTimestamp = 1'700'000'000'000;
inline constexpr int64_t kEntryPeriodMs = 10;
inline constexpr int32_t kEntryType = 7;
// Every file has one data source, and it gets this id.
inline constexpr int8_t kDataSourceId = 1;

// The directory that holds every file of the run: created on first use under
// the system's temporary directory, removed by removeWorkDir().
const std::filesystem::path& workDir();
void removeWorkDir();
// A path in workDir() that no other call returns; nothing exists there yet.
std::string freshPath(const std::string& stem);
// Removes a database file with whatever SQLite may have left beside it.
void removeLogFile(const std::string& path);

// Deterministic payload of `size` bytes: a slow random walk of 16-bit samples,
// which compresses to roughly half, like real sensor data rather than like
// zeros or noise.
const ByteBuffer& payload(std::size_t size);

std::string sizeLabel(std::size_t size);
std::string levelLabel(int level);

// Entries per transaction in the transaction benchmarks: large enough that
// the commit is amortised, small enough that one iteration stays short.
std::size_t entriesPerTransaction(std::size_t size);
// Entries in the files that the read benchmarks read.
std::size_t readFileEntries(std::size_t size);

// Counts one iteration's work as entries and payload bytes (before compression).
void setThroughput(benchmark::State& state, std::size_t entriesPerIteration, std::size_t payloadSize);

}  // namespace Marivane::Bench
