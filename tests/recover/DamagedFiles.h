#pragma once

#include <logging/ByteBuffer.h>
#include <logging/Durability.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace RecoverTest {

using Marivane::Logging::ByteBuffer;

// A healthy log file as written, with every payload kept for comparison.
struct OriginalFile {
    std::filesystem::path path;
    int8_t level = 0;
    // Entry id -> payload as the application wrote it.
    std::map<int32_t, ByteBuffer> payloads;
    // Entry id -> payload as the file stores it (a frame in a compressed file).
    std::map<int32_t, ByteBuffer> stored;
    // Entry id -> every page its stored bytes live on (leaf and overflow).
    std::map<int32_t, std::vector<uint32_t>> pagesOf;
    uint32_t pageSize = 0;
    uint32_t pageCount = 0;
};

// Writes a log file of `entries` entries at `level` from three data sources
// (with properties), small payloads and large ones that spill into overflow
// pages, compressible and random; metadata, two resources and bookmarks.
// Records where each entry's bytes lie, as the page scanner finds them.
// With `entryChecksums` the file keeps a checksum of every entry.
OriginalFile writeOriginal(const std::filesystem::path& path, int8_t level, int entries, std::mt19937& random,
                           bool entryChecksums = false);

// The damage done to a copy: the pages it touched (a cut file counts every
// page it no longer holds whole) and the entries whose stored bytes it
// changed without touching anything else on their pages.
struct Damage {
    std::string kind;
    std::set<uint32_t> pages;
    std::set<int32_t> entries;
};

// The kinds of damage the corpus applies, by index.
inline constexpr int kDamageKinds = 10;
// One more kind, beyond those: a byte changed inside the stored payload of a
// few entries, every page still well formed. Only a checksum can tell.
inline constexpr int kGarbledInsidePayloads = kDamageKinds;

// Copies `original` to `copy` and damages the copy by kind `kind`.
Damage damageCopy(const OriginalFile& original, const std::filesystem::path& copy, int kind,
                  std::mt19937& random);

// Payloads of a log file by entry id, expanded.
std::map<int32_t, ByteBuffer> readPayloads(const std::filesystem::path& path);

ByteBuffer randomBytes(std::size_t size, std::mt19937& random);

}  // namespace RecoverTest
