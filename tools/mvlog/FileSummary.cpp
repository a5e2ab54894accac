#include "FileSummary.h"

#include "Format.h"
#include "LogFileAccess.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <unordered_map>

namespace Mvlog {

using Marivane::Logging::Bookmark;
using Marivane::Logging::DamagedEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::DataSourceProperty;
using Marivane::Logging::EntryScan;
using Marivane::Logging::EntrySelection;
using Marivane::Logging::LogFileInterface;
using Marivane::Logging::PropertyValue;
using Marivane::Logging::ScannedEntry;
using Marivane::Logging::SqliteLogFile;
using nlohmann::ordered_json;

namespace {

void readFixedMetadata(const LogFileInterface& file, FileSummary& summary) {
    summary.formatVersion = integerMetadata(file, "logVersion");
    summary.compressionLevel = integerMetadata(file, "compressionLevel");
    summary.createdDateTime = integerMetadata(file, "createdDateTime");
    summary.timeZone = textMetadata(file, "currentTimeZone");
    summary.applicationName = textMetadata(file, "applicationName");
    summary.applicationVersion = textMetadata(file, "applicationVersion");
    summary.oldApplicationName = textMetadata(file, "oldApplicationName");
    summary.oldApplicationVersion = textMetadata(file, "oldApplicationVersion");
    summary.metadata = file.getAllMetadata();
}

void readSources(const LogFileInterface& file, FileSummary& summary) {
    const std::vector<DataSourceProperty> properties = file.getAllDataSourceProperties();
    for (const DataSource& source : file.getDataSources()) {
        SourceSummary sourceSummary;
        sourceSummary.source = source;
        std::copy_if(properties.begin(), properties.end(), std::back_inserter(sourceSummary.properties),
                     [&](const DataSourceProperty& property) { return property.dataSourceId == source.id; });
        summary.sources.push_back(std::move(sourceSummary));
    }
}

void noteTimestamp(std::optional<int64_t>& first, std::optional<int64_t>& last, int64_t timestamp) {
    first = first ? std::min(*first, timestamp) : timestamp;
    last = last ? std::max(*last, timestamp) : timestamp;
}

// What the entries contribute to a summary.
struct EntryTally {
    explicit EntryTally(FileSummary& summary) : summary_(summary) {
        for (SourceSummary& source : summary_.sources) {
            byId_[source.source.id] = &source;
        }
    }

    void add(const ScannedEntry& entry) {
        // Sizes come from expanding in pieces: nothing holds a payload.
        const std::size_t size = entry.forEachPiece([](const std::byte*, std::size_t) { return true; });
        summary_.payloadBytes += size;
        noteTimestamp(summary_.firstTimestamp, summary_.lastTimestamp, entry.timestamp);
        // Entries of one type usually come in long runs: the last type's
        // count is at hand.
        if (lastTypeCount_ == nullptr || lastType_ != entry.type) {
            lastType_ = entry.type;
            lastTypeCount_ = &summary_.entryTypes[entry.type];
        }
        ++*lastTypeCount_;
        if (auto found = byId_.find(entry.dataSourceId); found != byId_.end()) {
            SourceSummary& source = *found->second;
            ++source.entryCount;
            source.payloadBytes += size;
            noteTimestamp(source.firstTimestamp, source.lastTimestamp, entry.timestamp);
        }
    }
    void addDamaged(const DamagedEntry& damaged) { summary_.damagedEntries.push_back(damaged); }

private:
    FileSummary& summary_;
    std::unordered_map<int8_t, SourceSummary*> byId_;
    int32_t lastType_ = 0;
    int64_t* lastTypeCount_ = nullptr;
};

void scanEntries(const SqliteLogFile& file, FileSummary& summary) {
    // A file in good order is read once; anything else (damage, a writer
    // adding entries, entries of missing data sources) goes through the
    // listed scan, which names it, from a clean start.
    {
        FileSummary unlisted = summary;
        EntryTally tally(unlisted);
        if (EntryScan::runWholeFileUnlisted(
                file, summary.entryCount, [&](const ScannedEntry& entry) { tally.add(entry); },
                [&](const DamagedEntry& damaged) { tally.addDamaged(damaged); })) {
            summary = std::move(unlisted);
            return;
        }
    }
    EntryTally tally(summary);
    EntryScan scanner(file, EntrySelection{});
    scanner.run([&](const ScannedEntry& entry) { tally.add(entry); },
                [&](const DamagedEntry& damaged) { tally.addDamaged(damaged); });
    // The scan covers the whole file: what it did not meet is hidden.
    if (summary.entryCount >= 0) {
        summary.entriesMissingFromIndex =
            std::max<int64_t>(0, summary.entryCount - static_cast<int64_t>(scanner.metCount()));
    }
}

void readResources(const LogFileInterface& file, FileSummary& summary) {
    try {
        for (const LogResourceEntry& resource : file.getAllResources()) {
            summary.resources.push_back({resource.name, resource.data.size()});
        }
    } catch (const std::exception& error) {
        summary.resourceError = error.what();
    }
}

void readBookmarks(const LogFileInterface& file, FileSummary& summary) {
    try {
        summary.bookmarks = file.getBookmarks();
    } catch (const std::exception& error) {
        summary.bookmarkError = error.what();
    }
}

std::string compressionLevelText(int64_t level) {
    if (level == -1) {
        return "-1 (codec default)";
    }
    if (level == 0) {
        return "0 (payloads stored uncompressed)";
    }
    return std::to_string(level);
}

std::string sizeText(uint64_t bytes) {
    return fmt::format("{} ({} bytes)", humanSize(bytes), bytes);
}

std::string orUnknown(const std::optional<std::string>& text) {
    return text ? *text : "(missing)";
}

std::string rateText(const SourceSummary& source) {
    if (!source.firstTimestamp) {
        return "no mean rate";
    }
    const std::optional<double> rate =
        meanRateHz(source.entryCount, spanMilliseconds(*source.firstTimestamp, *source.lastTimestamp));
    return rate ? fmt::format("{:.2f} Hz mean rate", *rate) : "no mean rate";
}

void appendHeader(std::string& text, const FileSummary& summary) {
    auto line = [&](const char* label, const std::string& value) {
        text += fmt::format("{:<19}{}\n", label, value);
    };
    line("File", printable(summary.path.string()));
    line("Size on disk", sizeText(summary.sizeOnDisk));
    line("Format version", summary.formatVersion ? std::to_string(*summary.formatVersion) : "(missing)");
    line("Compression level",
         summary.compressionLevel ? compressionLevelText(*summary.compressionLevel) : "(missing)");
    if (summary.durability) {
        line("Durability", *summary.durability == "safe" ? "safe (write-ahead log; readable while recorded)"
                                                         : "fast (no flushes, journal in memory)");
    }
    line("Created", summary.createdDateTime
                        ? fmt::format("{} (stored time zone \"{}\")", isoTimestamp(*summary.createdDateTime),
                                      printable(orUnknown(summary.timeZone)))
                        : "(missing)");
    line("Application", fmt::format("{} {}", printable(orUnknown(summary.applicationName)),
                                    printable(orUnknown(summary.applicationVersion))));
    // Derived files record only what changed: a name, a version, or both.
    if (summary.oldApplicationName || summary.oldApplicationVersion) {
        line("Earlier producer",
             fmt::format("{} {}", printable(summary.oldApplicationName.value_or("(same name)")),
                         summary.oldApplicationVersion ? printable(*summary.oldApplicationVersion)
                                                       : "(same version)"));
    }
    line("Entries", summary.entryCount == 0 ? "0"
                                            : fmt::format("{} (ids {} to {})", summary.entryCount,
                                                          summary.firstEntryId, summary.lastEntryId));
    if (summary.firstTimestamp) {
        line("Time span", fmt::format("{} to {}", isoTimestamp(*summary.firstTimestamp),
                                      isoTimestamp(*summary.lastTimestamp)));
        line("Duration", humanSpan(*summary.durationMs()));
    }
    line("Payload bytes", sizeText(summary.payloadBytes) + ", as logged (before compression)");
}

void appendMetadata(std::string& text, const FileSummary& summary) {
    text += fmt::format("\nMetadata ({})\n", summary.metadata.size());
    for (const LogMetadataEntry& entry : summary.metadata) {
        text += fmt::format("  {:<22} {} ({})\n", printable(entry.key), propertyValueText(entry.value),
                            propertyTypeName(entry.value));
    }
}

void appendSources(std::string& text, const FileSummary& summary) {
    text += fmt::format("\nData sources ({})\n", summary.sources.size());
    for (const SourceSummary& source : summary.sources) {
        text += fmt::format("  [{}] {} \"{}\": {} entries, {} payload, {}\n", source.source.id,
                            dataSourceTypeName(source.source.type), printable(source.source.name),
                            source.entryCount, humanSize(source.payloadBytes), rateText(source));
        for (const DataSourceProperty& property : source.properties) {
            text += fmt::format("      {} = {} ({})\n", printable(property.propertyName),
                                propertyValueText(property.value), propertyTypeName(property.value));
        }
    }
}

void appendEntryTypes(std::string& text, const FileSummary& summary) {
    text += fmt::format("\nEntry types ({})\n", summary.entryTypes.size());
    for (const auto& [type, count] : summary.entryTypes) {
        text += fmt::format("  type {}: {} entries\n", type, count);
    }
}

void appendResources(std::string& text, const FileSummary& summary) {
    text += fmt::format("\nResources ({})\n", summary.resources.size());
    for (const ResourceSummary& resource : summary.resources) {
        text += fmt::format("  {}: {}\n", printable(resource.name), sizeText(resource.size));
    }
    if (summary.resourceError) {
        text += fmt::format("  cannot be read: {}\n", *summary.resourceError);
    }
}

void appendBookmarks(std::string& text, const FileSummary& summary) {
    text += fmt::format("\nBookmarks ({})\n", summary.bookmarks.size());
    for (const Bookmark& bookmark : summary.bookmarks) {
        text += fmt::format("  entry {}: \"{}\"", bookmark.entryId, printable(bookmark.title));
        if (!bookmark.comments.empty()) {
            text += fmt::format(" - {}", printable(bookmark.comments));
        }
        if (!bookmark.payload.empty()) {
            text += fmt::format(" [payload {}]", humanSize(bookmark.payload.size()));
        }
        text += '\n';
    }
    if (summary.bookmarkError) {
        text += fmt::format("  cannot be read: {}\n", *summary.bookmarkError);
    }
}

void appendDamage(std::string& text, const FileSummary& summary) {
    if (summary.damagedEntries.empty() && summary.entriesMissingFromIndex == 0) {
        return;
    }
    text +=
        fmt::format("\nDamaged entries ({}; run `mvlog check` for a full report)\n",
                    static_cast<int64_t>(summary.damagedEntries.size()) + summary.entriesMissingFromIndex);
    for (const DamagedEntry& damaged : summary.damagedEntries) {
        text += fmt::format("  {}\n", describe(damaged));
    }
    if (summary.entriesMissingFromIndex != 0) {
        text += fmt::format(
            "  {} entries are missing from the entry index (behind a damaged page); the counts above "
            "leave them out\n",
            summary.entriesMissingFromIndex);
    }
}

ordered_json valueJson(const PropertyValue& value) {
    return std::visit([](const auto& alternative) { return ordered_json(alternative); }, value);
}

template <typename T>
ordered_json optionalJson(const std::optional<T>& value) {
    return value ? ordered_json(*value) : ordered_json(nullptr);
}

ordered_json typeJson(MV_LogDataSourceType type) {
    const std::string name = dataSourceTypeName(type);
    return name == std::to_string(static_cast<int32_t>(type)) ? ordered_json(static_cast<int32_t>(type))
                                                              : ordered_json(name);
}

ordered_json sourceJson(const SourceSummary& source) {
    ordered_json properties = ordered_json::array();
    for (const DataSourceProperty& property : source.properties) {
        properties.push_back({{"name", property.propertyName},
                              {"value", valueJson(property.value)},
                              {"valueType", propertyTypeName(property.value)}});
    }
    const std::optional<double> rate =
        source.firstTimestamp
            ? meanRateHz(source.entryCount, spanMilliseconds(*source.firstTimestamp, *source.lastTimestamp))
            : std::nullopt;
    return {{"id", source.source.id},
            {"type", typeJson(source.source.type)},
            {"typeValue", static_cast<int32_t>(source.source.type)},
            {"name", source.source.name},
            {"properties", std::move(properties)},
            {"entryCount", source.entryCount},
            {"payloadBytes", source.payloadBytes},
            {"firstTimestamp", optionalJson(source.firstTimestamp)},
            {"lastTimestamp", optionalJson(source.lastTimestamp)},
            {"meanRateHz", optionalJson(rate)}};
}

ordered_json createdJson(const FileSummary& summary) {
    return {{"timestamp", optionalJson(summary.createdDateTime)},
            {"iso8601", summary.createdDateTime ? ordered_json(isoTimestamp(*summary.createdDateTime))
                                                : ordered_json(nullptr)},
            {"timeZone", optionalJson(summary.timeZone)}};
}

ordered_json entriesJson(const FileSummary& summary) {
    return {{"count", summary.entryCount},
            {"firstId", summary.firstEntryId},
            {"lastId", summary.lastEntryId},
            {"firstTimestamp", optionalJson(summary.firstTimestamp)},
            {"lastTimestamp", optionalJson(summary.lastTimestamp)},
            {"durationMs", optionalJson(summary.durationMs())},
            {"payloadBytes", summary.payloadBytes}};
}

}  // namespace

std::optional<uint64_t> FileSummary::durationMs() const {
    if (!firstTimestamp || !lastTimestamp) {
        return std::nullopt;
    }
    return spanMilliseconds(*firstTimestamp, *lastTimestamp);
}

FileSummary summarizeLogFile(const SqliteLogFile& file) {
    FileSummary summary;
    summary.path = file.getFilePath();
    summary.sizeOnDisk = fileSizeOnDisk(summary.path);
    readFixedMetadata(file, summary);
    if (const auto* sqliteFile = dynamic_cast<const Marivane::Logging::SqliteLogFile*>(&file)) {
        summary.durability =
            sqliteFile->getDurability() == Marivane::Logging::Durability::Safe ? "safe" : "fast";
    }
    summary.entryCount = file.getEntryCount();
    summary.firstEntryId = file.getFirstEntryId();
    summary.lastEntryId = file.getLastEntryId();
    readSources(file, summary);
    scanEntries(file, summary);
    readResources(file, summary);
    readBookmarks(file, summary);
    return summary;
}

std::string summaryText(const FileSummary& summary) {
    std::string text;
    appendHeader(text, summary);
    appendMetadata(text, summary);
    appendSources(text, summary);
    appendEntryTypes(text, summary);
    appendResources(text, summary);
    appendBookmarks(text, summary);
    appendDamage(text, summary);
    return text;
}

ordered_json summaryJson(const FileSummary& summary) {
    ordered_json metadata = ordered_json::object();
    for (const LogMetadataEntry& entry : summary.metadata) {
        metadata[entry.key] = valueJson(entry.value);
    }
    ordered_json sources = ordered_json::array();
    for (const SourceSummary& source : summary.sources) {
        sources.push_back(sourceJson(source));
    }
    ordered_json types = ordered_json::array();
    for (const auto& [type, count] : summary.entryTypes) {
        types.push_back({{"type", type}, {"count", count}});
    }
    ordered_json resources = ordered_json::array();
    for (const ResourceSummary& resource : summary.resources) {
        resources.push_back({{"name", resource.name}, {"size", resource.size}});
    }
    ordered_json bookmarks = ordered_json::array();
    for (const Bookmark& bookmark : summary.bookmarks) {
        bookmarks.push_back({{"entryId", bookmark.entryId},
                             {"title", bookmark.title},
                             {"comments", bookmark.comments},
                             {"payloadSize", bookmark.payload.size()}});
    }
    ordered_json damaged = ordered_json::array();
    for (const DamagedEntry& entry : summary.damagedEntries) {
        damaged.push_back({{"entryId", entry.entryId}, {"reason", entry.reason}});
    }
    return {{"path", summary.path.string()},
            {"sizeOnDisk", summary.sizeOnDisk},
            {"formatVersion", optionalJson(summary.formatVersion)},
            {"compressionLevel", optionalJson(summary.compressionLevel)},
            {"durability", optionalJson(summary.durability)},
            {"created", createdJson(summary)},
            {"applicationName", optionalJson(summary.applicationName)},
            {"applicationVersion", optionalJson(summary.applicationVersion)},
            {"oldApplicationName", optionalJson(summary.oldApplicationName)},
            {"oldApplicationVersion", optionalJson(summary.oldApplicationVersion)},
            {"metadata", std::move(metadata)},
            {"entries", entriesJson(summary)},
            {"dataSources", std::move(sources)},
            {"entryTypes", std::move(types)},
            {"resources", std::move(resources)},
            {"resourceError", optionalJson(summary.resourceError)},
            {"bookmarks", std::move(bookmarks)},
            {"bookmarkError", optionalJson(summary.bookmarkError)},
            {"damagedEntries", std::move(damaged)},
            {"entriesMissingFromIndex", summary.entriesMissingFromIndex}};
}

}  // namespace Mvlog
