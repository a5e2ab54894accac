#pragma once

#include <logging/Bookmark.h>
#include <logging/DamagedEntry.h>
#include <logging/Durability.h>
#include <logging/LogMetadataEntry.h>
#include <logging/LoggingExport.h>
#include <logging/ResourceSummary.h>
#include <logging/SourceSummary.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Marivane::Logging {

class SqliteLogFile;

// Every fact about a log file that a description of it needs: its fixed
// metadata, its entries counted by source and by type with their id and time
// ranges and logged sizes, its resources and bookmarks, and what could not be
// read. Gathered once, so that every interface that describes a file (mvlog
// info, Python) says the same.
//
// A plain value that owns everything it holds: copy it freely, from any
// thread.
struct MV_LOGGING_EXPORT FileSummary {
    std::filesystem::path path;
    // 0 when the size cannot be read.
    uint64_t sizeOnDisk = 0;
    Durability durability = Durability::Fast;

    // Fixed metadata: absent when missing or of another type than it should.
    std::optional<int64_t> formatVersion;
    std::optional<int64_t> compressionLevel;
    std::optional<int64_t> createdDateTime;
    std::optional<std::string> timeZone;
    std::optional<std::string> applicationName;
    std::optional<std::string> applicationVersion;
    std::optional<std::string> oldApplicationName;
    std::optional<std::string> oldApplicationVersion;
    std::vector<LogMetadataEntry> metadata;

    // From the entry index: what the file says it holds.
    int32_t entryCount = 0;
    int32_t firstEntryId = -1;
    int32_t lastEntryId = -1;
    // From the entries read: what could be read of it.
    std::optional<int64_t> firstTimestamp;
    std::optional<int64_t> lastTimestamp;
    uint64_t payloadBytes = 0;

    std::vector<SourceSummary> sources;
    std::map<int32_t, int64_t> entryTypes;
    std::vector<ResourceSummary> resources;
    std::optional<std::string> resourceError;
    std::vector<Bookmark> bookmarks;
    std::optional<std::string> bookmarkError;
    std::vector<DamagedEntry> damagedEntries;
    // Entries the index counts but no read reached (behind a damaged page).
    int64_t entriesMissingFromIndex = 0;

    // Unsigned: the span between any two timestamps fits.
    std::optional<uint64_t> durationMs() const;
};

// Reads the whole file, payloads included, a piece at a time (memory does not
// grow with payload sizes). Damaged entries and unreadable resources or
// bookmarks are recorded in the summary, not thrown; a failure to read the
// file at all throws as the file's reads do. The file is only read, on the
// calling thread, with the same one-thread-at-a-time rule as its reads.
MV_LOGGING_EXPORT FileSummary summarizeLogFile(const SqliteLogFile& file);

}  // namespace Marivane::Logging
