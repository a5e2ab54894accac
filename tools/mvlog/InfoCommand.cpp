#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"
#include "SummaryReport.h"

#include <fmt/format.h>

#include <cstdint>
#include <limits>

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

// Whole entries per second over the source's span, or nothing when the span
// is empty.
std::optional<double> meanRateHz(const SourceSummary& source) {
    if (!source.firstTimestamp || source.entryCount < 2 || *source.firstTimestamp == *source.lastTimestamp) {
        return std::nullopt;
    }
    return static_cast<double>(source.entryCount - 1) * 1000.0 /
           static_cast<double>(spanMilliseconds(*source.firstTimestamp, *source.lastTimestamp));
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
                                      printable(summary.timeZone.value_or("(missing)")))
                        : "(missing)");
    line("Application", fmt::format("{} {}", printable(summary.applicationName.value_or("(missing)")),
                                    printable(summary.applicationVersion.value_or("(missing)"))));
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

// "\nTitle (count)\n", a line for each element (`line` may break it in
// more), and why the list may be short when a read failed.
template <typename Range, typename Line>
void appendSection(std::string& text, const char* title, const Range& range, const Line& line,
                   const std::optional<std::string>& error = std::nullopt) {
    text += fmt::format("\n{} ({})\n", title, range.size());
    for (const auto& element : range) {
        text += fmt::format("  {}\n", line(element));
    }
    if (error) {
        text += fmt::format("  cannot be read: {}\n", *error);
    }
}

std::string sourceLines(const SourceSummary& source) {
    const std::optional<double> rate = meanRateHz(source);
    std::string lines = fmt::format("[{}] {} \"{}\": {} entries, {} payload, {}", source.source.id,
                                    dataSourceTypeName(source.source.type), printable(source.source.name),
                                    source.entryCount, humanSize(source.payloadBytes),
                                    rate ? fmt::format("{:.2f} Hz mean rate", *rate) : "no mean rate");
    for (const DataSourceProperty& property : source.properties) {
        lines += fmt::format("\n      {} = {} ({})", printable(property.propertyName),
                             propertyValueText(property.value), propertyTypeName(property.value));
    }
    return lines;
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

// A common type by its name, any other by its number.
ordered_json sourceTypeJson(MV_LogDataSourceType type) {
    const char* name = Marivane::Logging::commonDataSourceTypeName(type);
    return name != nullptr ? ordered_json(name) : ordered_json(static_cast<int32_t>(type));
}

ordered_json sourceJson(const SourceSummary& source) {
    const auto propertyJson = [](const DataSourceProperty& property) {
        return ordered_json{{"name", property.propertyName},
                            {"value", valueJson(property.value)},
                            {"valueType", propertyTypeName(property.value)}};
    };
    return {{"id", source.source.id},
            {"type", sourceTypeJson(source.source.type)},
            {"typeValue", static_cast<int32_t>(source.source.type)},
            {"name", source.source.name},
            {"properties", jsonArray(source.properties, propertyJson)},
            {"entryCount", source.entryCount},
            {"payloadBytes", source.payloadBytes},
            {"firstTimestamp", optionalJson(source.firstTimestamp)},
            {"lastTimestamp", optionalJson(source.lastTimestamp)},
            {"meanRateHz", optionalJson(meanRateHz(source))}};
}

// Entry records carry 32-bit ids: the file's ids, counts and ranges as the
// library reads them narrow such an id onto another one, so no summary of
// them would be true.
void refuseIdsBeyondRecords(const FileSummary& summary) {
    for (const Marivane::Logging::DamagedEntry& damaged : summary.damagedEntries) {
        if (damaged.entryId < std::numeric_limits<int32_t>::min() ||
            damaged.entryId > std::numeric_limits<int32_t>::max()) {
            throw ToolError(fmt::format(
                "{}: the file holds entry id {}, which no entry record can carry (ids are 32-bit); its ids "
                "and counts cannot be summarized (`mvlog check` lists what is wrong)",
                summary.path.string(), damaged.entryId));
        }
    }
}

}  // namespace

std::string bookmarkText(const Bookmark& bookmark) {
    std::string line = fmt::format("entry {}: \"{}\"", bookmark.entryId, printable(bookmark.title));
    if (!bookmark.comments.empty()) {
        line += fmt::format(" - {}", printable(bookmark.comments));
    }
    if (!bookmark.payload.empty()) {
        line += fmt::format(" [payload {}]", humanSize(bookmark.payload.size()));
    }
    return line;
}

std::string summaryText(const FileSummary& summary) {
    std::string text;
    appendHeader(text, summary);
    appendSection(text, "Metadata", summary.metadata, [](const LogMetadataEntry& entry) {
        return fmt::format("{:<22} {} ({})", printable(entry.key), propertyValueText(entry.value),
                           propertyTypeName(entry.value));
    });
    appendSection(text, "Data sources", summary.sources, sourceLines);
    appendSection(text, "Entry types", summary.entryTypes, [](const auto& type) {
        return fmt::format("type {}: {} entries", type.first, type.second);
    });
    appendSection(
        text, "Resources", summary.resources,
        [](const ResourceSummary& resource) {
            return fmt::format("{}: {}", printable(resource.name), sizeText(resource.size));
        },
        summary.resourceError);
    appendSection(text, "Bookmarks", summary.bookmarks, bookmarkText, summary.bookmarkError);
    appendDamage(text, summary);
    return text;
}

ordered_json summaryJson(const FileSummary& summary) {
    ordered_json metadata = ordered_json::object();
    for (const LogMetadataEntry& entry : summary.metadata) {
        metadata[entry.key] = valueJson(entry.value);
    }
    const auto entryTypeJson = [](const auto& type) {
        return ordered_json{{"type", type.first}, {"count", type.second}};
    };
    const auto resourceJson = [](const ResourceSummary& resource) {
        return ordered_json{{"name", resource.name}, {"size", resource.size}};
    };
    const auto bookmarkJson = [](const Bookmark& bookmark) {
        return ordered_json{{"entryId", bookmark.entryId},
                            {"title", bookmark.title},
                            {"comments", bookmark.comments},
                            {"payloadSize", bookmark.payload.size()}};
    };
    const auto damagedJson = [](const DamagedEntry& entry) {
        return ordered_json{{"entryId", entry.entryId}, {"reason", entry.reason}};
    };
    return {{"path", summary.path.string()},
            {"sizeOnDisk", summary.sizeOnDisk},
            {"formatVersion", optionalJson(summary.formatVersion)},
            {"compressionLevel", optionalJson(summary.compressionLevel)},
            {"durability", summary.durability == Durability::Safe ? "safe" : "fast"},
            {"created",
             {{"timestamp", optionalJson(summary.createdDateTime)},
              {"iso8601", summary.createdDateTime ? ordered_json(isoTimestamp(*summary.createdDateTime))
                                                  : ordered_json(nullptr)},
              {"timeZone", optionalJson(summary.timeZone)}}},
            {"applicationName", optionalJson(summary.applicationName)},
            {"applicationVersion", optionalJson(summary.applicationVersion)},
            {"oldApplicationName", optionalJson(summary.oldApplicationName)},
            {"oldApplicationVersion", optionalJson(summary.oldApplicationVersion)},
            {"metadata", std::move(metadata)},
            {"entries",
             {{"count", summary.entryCount},
              {"firstId", summary.firstEntryId},
              {"lastId", summary.lastEntryId},
              {"firstTimestamp", optionalJson(summary.firstTimestamp)},
              {"lastTimestamp", optionalJson(summary.lastTimestamp)},
              {"durationMs", optionalJson(summary.durationMs())},
              {"payloadBytes", summary.payloadBytes}}},
            {"dataSources", jsonArray(summary.sources, sourceJson)},
            {"entryTypes", jsonArray(summary.entryTypes, entryTypeJson)},
            {"resources", jsonArray(summary.resources, resourceJson)},
            {"resourceError", optionalJson(summary.resourceError)},
            {"bookmarks", jsonArray(summary.bookmarks, bookmarkJson)},
            {"bookmarkError", optionalJson(summary.bookmarkError)},
            {"damagedEntries", jsonArray(summary.damagedEntries, damagedJson)},
            {"entriesMissingFromIndex", summary.entriesMissingFromIndex}};
}

int runInfo(const InfoOptions& options) {
    const auto file = openExistingLogFile(options.file);
    const FileSummary summary = summarizeLogFile(*file);
    requireCompleteReads(*file);
    refuseIdsBeyondRecords(summary);
    if (options.json) {
        fmt::print("{}\n", dumpJson(summaryJson(summary), 2));
    } else {
        fmt::print("{}", summaryText(summary));
    }
    return 0;
}

}  // namespace Mvlog
