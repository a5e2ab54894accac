#include "SummaryReport.h"

#include "Format.h"
#include "LogFileAccess.h"

#include <fmt/format.h>

namespace Mvlog {

using Marivane::Logging::Bookmark;
using Marivane::Logging::DamagedEntry;
using Marivane::Logging::DataSourceProperty;
using Marivane::Logging::Durability;
using Marivane::Logging::FileSummary;
using Marivane::Logging::PropertyValue;
using Marivane::Logging::ResourceSummary;
using Marivane::Logging::SourceSummary;
using nlohmann::ordered_json;

namespace {

std::string compressionLevelText(int64_t level) {
    if (level == Marivane::Logging::kFastestCompressionLevel) {
        return "-1 (codec default)";
    }
    if (level == Marivane::Logging::kUncompressedLevel) {
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
    line("Durability", summary.durability == Durability::Safe
                           ? "safe (write-ahead log; readable while recorded)"
                           : "fast (no flushes, journal in memory)");
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
            {"durability", summary.durability == Durability::Safe ? "safe" : "fast"},
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
