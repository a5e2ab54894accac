#pragma once

#include <logging/Logging.h>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Mvlog {

// What one data source contributed. Sizes are payload bytes as the
// application logged them: the class interface hands out expanded payloads
// only, never their stored (compressed) size.
struct SourceSummary {
    Marivane::Logging::DataSource source;
    std::vector<Marivane::Logging::DataSourceProperty> properties;
    int64_t entryCount = 0;
    uint64_t payloadBytes = 0;
    std::optional<int64_t> firstTimestamp;
    std::optional<int64_t> lastTimestamp;
};

struct ResourceSummary {
    std::string name;
    uint64_t size = 0;
};

// Every fact `mvlog info` reports, gathered once so that the text and the
// JSON forms say the same.
struct FileSummary {
    std::filesystem::path path;
    uint64_t sizeOnDisk = 0;
    std::optional<int64_t> formatVersion;
    std::optional<int64_t> compressionLevel;
    // "fast" or "safe"; absent for files that are not SQLite log files.
    std::optional<std::string> durability;
    std::optional<int64_t> createdDateTime;
    std::optional<std::string> timeZone;
    std::optional<std::string> applicationName;
    std::optional<std::string> applicationVersion;
    std::optional<std::string> oldApplicationName;
    std::optional<std::string> oldApplicationVersion;
    std::vector<LogMetadataEntry> metadata;

    int32_t entryCount = 0;
    int32_t firstEntryId = -1;
    int32_t lastEntryId = -1;
    std::optional<int64_t> firstTimestamp;
    std::optional<int64_t> lastTimestamp;
    uint64_t payloadBytes = 0;

    std::vector<SourceSummary> sources;
    std::map<int32_t, int64_t> entryTypes;
    std::vector<ResourceSummary> resources;
    std::optional<std::string> resourceError;
    std::vector<Marivane::Logging::Bookmark> bookmarks;
    std::optional<std::string> bookmarkError;
    std::vector<Marivane::Logging::DamagedEntry> damagedEntries;
    int64_t entriesMissingFromIndex = 0;

    // Unsigned: the span between any two timestamps fits.
    std::optional<uint64_t> durationMs() const;
};

// Reads everything, payloads included (a chunk at a time). Damaged payloads
// and unreadable resources or bookmarks are recorded, not thrown.
FileSummary summarizeLogFile(const Marivane::Logging::SqliteLogFile& file);

std::string summaryText(const FileSummary& summary);
nlohmann::ordered_json summaryJson(const FileSummary& summary);

}  // namespace Mvlog
