#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"
#include "Terminal.h"
#include "TimeArguments.h"

#include <core/Filesystem.h>

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <memory>
#include <regex>
#include <system_error>
#include <vector>

namespace Mvlog {

using Marivane::Logging::CopyOptions;
using Marivane::Logging::CopyReport;
using Marivane::Logging::LogFileInterface;
using Marivane::Logging::SqliteLogFile;

namespace {

// The library refuses without saying why; these checks name the reason
// before it is asked, so that a refusal is never a bare "failed".
void explainRangeRefusal(const LogFileInterface& file, int32_t from, int32_t to) {
    if (to < from) {
        throw ToolError(fmt::format("refused: the range is reversed (--from {} is after --to {})", from, to));
    }
    const int32_t first = file.getFirstEntryId();
    const int32_t last = file.getLastEntryId();
    // One read of the index serves both bounds.
    const std::vector<int32_t> ids = file.getEntryIndex(Marivane::Logging::EntryIndexFilter{});
    for (const int32_t bound : {from, to}) {
        if (!std::binary_search(ids.begin(), ids.end(), bound)) {
            throw ToolError(
                first == -1 ? fmt::format("refused: entry {} does not exist (the file has no entries)", bound)
                            : fmt::format("refused: entry {} does not exist (the file holds ids {} to {})",
                                          bound, first, last));
        }
    }
}

void explainOutputRefusal(const std::string& output) {
    if (output.empty()) {
        return;
    }
    if (somethingExistsAt(output)) {
        throw ToolError(fmt::format("refused: {} already exists (derived files never overwrite)", output));
    }
    const std::filesystem::path parent = std::filesystem::path(output).parent_path();
    if (!parent.empty() && !std::filesystem::is_directory(parent)) {
        throw ToolError(fmt::format("refused: the directory {} does not exist", parent.string()));
    }
}

// Without -o: "<name>_exported<ext>" beside the source, made unique.
std::string outputFor(const std::string& output, const std::string& source) {
    if (!output.empty()) {
        return output;
    }
    namespace Filesystem = Marivane::Filesystem;
    return Filesystem::makeUniqueFilePath(Filesystem::appendTextToFilename(source, "_exported")).string();
}

CopyOptions copyOptions(const LogFileInterface& file, const std::optional<int>& level) {
    CopyOptions options;
    options.applicationName = kToolName;
    options.applicationVersion = kToolVersion;
    options.compressionLevel = static_cast<int8_t>(level ? *level : storedCompressionLevel(file));
    return options;
}

// Runs a derivation with a progress line on a terminal. The library writes
// under a temporary name and renames only a complete file, so a failure
// leaves nothing under the requested name.
CopyReport deriveReporting(const char* what, const std::string& output, CopyOptions options,
                           const std::function<CopyReport(const CopyOptions&)>& derive) {
    StatusLine status(stderr, isTerminal(stderr));
    if (status.isLive()) {
        options.progress = [&](uint64_t written, uint64_t total) {
            status.update(fmt::format("{}: {} of at most {} entries", what, written, total));
        };
    }
    try {
        CopyReport report = derive(options);
        status.finish();
        return report;
    } catch (const std::exception& error) {
        status.finish();
        throw ToolError(fmt::format("{} failed: {} (nothing was written to {})", what, error.what(), output));
    }
}

// ---- slice: a selection that matches nothing ----------------------------

// The selection as the command line gave it, for messages.
std::string selectionText(const SliceOptions& options) {
    std::vector<std::string> parts;
    if (options.from) {
        parts.push_back(fmt::format("--from {} --to {}", *options.from, *options.to));
    }
    if (options.start) {
        parts.push_back("--start " + *options.start);
    }
    if (options.end) {
        parts.push_back("--end " + *options.end);
    }
    for (const int32_t type : options.types) {
        parts.push_back(fmt::format("--type {}", type));
    }
    for (const int source : options.sources) {
        parts.push_back(fmt::format("--source {}", source));
    }
    for (const MV_LogDataSourceType type : options.sourceTypes) {
        parts.push_back("--source-type " + dataSourceTypeName(type));
    }
    return fmt::format("{}", fmt::join(parts, " "));
}

// Whether the copy would take at least one entry. A read that fails is left
// to the copy, which reports it.
bool selectsAnEntry(const SqliteLogFile& file, const CopyOptions& copy) {
    bool found = false;
    const Marivane::Logging::EntryRange range{copy.firstEntryId, copy.lastEntryId, copy.startTimestamp,
                                              copy.endTimestamp};
    const bool read =
        file.visitEntrySummaries(range, copy.filter, [&](const Marivane::Logging::EntrySummary&) {
            found = true;
            return false;
        });
    return found || !read;
}

std::string emptySelectionMessage(const SqliteLogFile& file, const SliceOptions& options) {
    const std::optional<Marivane::Logging::TimeRange> span = file.getTimeRange();
    const std::string extent =
        span ? fmt::format("its entries span {} to {}", isoTimestamp(span->first), isoTimestamp(span->last))
             : std::string("the file has no entries");
    return fmt::format(
        "refused: no entry of {} matches {} ({}); nothing was written (--allow-empty writes a file without "
        "entries)",
        options.file, selectionText(options), extent);
}

// ---- merge: the report -----------------------------------------------------

// Inputs named twice, also through another spelling or a link: their entries
// go into the output twice, which is allowed but rarely meant.
std::vector<std::string> repeatedInputWarnings(const std::vector<std::string>& files) {
    std::vector<std::string> warnings;
    for (std::size_t later = 1; later < files.size(); ++later) {
        for (std::size_t earlier = 0; earlier < later; ++earlier) {
            std::error_code error;
            if (std::filesystem::equivalent(files[earlier], files[later], error) && !error) {
                warnings.push_back(
                    files[earlier] == files[later]
                        ? fmt::format("{} is given twice: its entries are in the output twice", files[later])
                        : fmt::format("{} and {} are the same file: its entries are in the output twice",
                                      files[earlier], files[later]));
                break;
            }
        }
    }
    return warnings;
}

// The library's notes, one sentence each, as fields: the sentences are the
// library's own, so a test pins them.
nlohmann::ordered_json noteFields(const std::vector<std::string>& notes) {
    static const std::regex renumbered(
        R"re(Data source (-?\d+) \("(.*)"\) of '(.*)' became data source (-?\d+): its id was taken by an earlier input\.)re");
    static const std::regex resource(
        R"re(Resource "(.*)" of '(.*)' has the name of an earlier input's resource and was not copied\.)re");
    static const std::regex metadata(
        R"re(Metadata "(.*)" of '(.*)' differs from an earlier input's and was not copied\.)re");
    nlohmann::ordered_json fields;
    fields["renumberedSources"] = nlohmann::ordered_json::array();
    fields["skippedResources"] = nlohmann::ordered_json::array();
    fields["skippedMetadata"] = nlohmann::ordered_json::array();
    for (const std::string& note : notes) {
        std::smatch match;
        if (std::regex_match(note, match, renumbered)) {
            fields["renumberedSources"].push_back({{"input", match[3].str()},
                                                   {"name", match[2].str()},
                                                   {"from", std::stoi(match[1].str())},
                                                   {"to", std::stoi(match[4].str())}});
        } else if (std::regex_match(note, match, resource)) {
            fields["skippedResources"].push_back({{"input", match[2].str()}, {"name", match[1].str()}});
        } else if (std::regex_match(note, match, metadata)) {
            fields["skippedMetadata"].push_back({{"input", match[2].str()}, {"key", match[1].str()}});
        }
    }
    return fields;
}

std::string countOf(uint64_t count, const char* one, const char* many) {
    return fmt::format("{} {}", count, count == 1 ? one : many);
}

void printMergeReport(const MergeOptions& options, const CopyReport& report,
                      const std::vector<std::string>& warnings) {
    if (options.json) {
        nlohmann::ordered_json document;
        document["output"] = options.output;
        document["inputs"] = options.files;
        document["entries"] = report.entries;
        document["dataSources"] = report.dataSources;
        document["resources"] = report.resources;
        document["bookmarks"] = report.bookmarks;
        document["payloadsCopiedAsStored"] = report.payloadsCopiedAsStored;
        const nlohmann::ordered_json fields = noteFields(report.notes);
        for (const auto& [key, value] : fields.items()) {
            document[key] = value;
        }
        document["notes"] = report.notes;
        document["warnings"] = warnings;
        fmt::print("{}\n", dumpJson(document, 2));
        return;
    }
    // The path alone on stdout, as scripts read it; the report beside it.
    fmt::print("{}\n", options.output);
    std::fflush(stdout);
    fmt::print(stderr, "merged {} into {}: {}, {}, {}, {}\n", countOf(options.files.size(), "file", "files"),
               options.output, countOf(report.entries, "entry", "entries"),
               countOf(report.dataSources, "data source", "data sources"),
               countOf(report.resources, "resource", "resources"),
               countOf(report.bookmarks, "bookmark", "bookmarks"));
    for (const std::string& note : report.notes) {
        fmt::print(stderr, "note: {}\n", printable(note));
    }
}
}  // namespace

int runSlice(const SliceOptions& options) {
    auto file = openExistingLogFile(options.file);
    explainOutputRefusal(options.output);
    if (!options.from && !options.to && !options.start && !options.end) {
        throw UsageError("slice needs --from and --to, or --start and/or --end");
    }
    CopyOptions copy = copyOptions(*file, options.level);
    if (options.from || options.to) {
        explainRangeRefusal(*file, *options.from, *options.to);
        copy.firstEntryId = *options.from;
        copy.lastEntryId = *options.to;
    }
    if (options.start) {
        copy.startTimestamp = parseTime("--start", *options.start, *file);
    }
    if (options.end) {
        copy.endTimestamp = parseTime("--end", *options.end, *file);
    }
    if (copy.endTimestamp < copy.startTimestamp) {
        throw ToolError("refused: the time range is reversed (--start is after --end)");
    }
    copy.filter.dataTypes = options.types;
    for (const int source : options.sources) {
        copy.filter.dataSources.push_back(static_cast<int8_t>(source));
    }
    copy.filter.dataSourceTypes = options.sourceTypes;
    if (!options.allowEmpty && !selectsAnEntry(*file, copy)) {
        throw ToolError(emptySelectionMessage(*file, options));
    }
    const std::string output = outputFor(options.output, options.file);
    deriveReporting("slicing", output, copy, [&](const CopyOptions& chosen) {
        return Marivane::Logging::Algorithms::copy(options.file, output, chosen);
    });
    fmt::print("{}\n", output);
    return 0;
}

int runClone(const CloneOptions& options) {
    auto file = openExistingLogFile(options.file);
    explainOutputRefusal(options.output);
    const CopyOptions copy = copyOptions(*file, options.level);
    const std::string output = outputFor(options.output, options.file);
    deriveReporting("cloning", output, copy, [&](const CopyOptions& chosen) {
        return Marivane::Logging::Algorithms::copy(options.file, output, chosen);
    });
    fmt::print("{}\n", output);
    return 0;
}

int runMerge(const MergeOptions& options) {
    std::vector<std::filesystem::path> inputs;
    for (const std::string& input : options.files) {
        requireExistingFile(input);
        inputs.emplace_back(input);
    }
    explainOutputRefusal(options.output);
    auto first = openExistingLogFile(options.files.front());
    const CopyOptions copy = copyOptions(*first, options.level);
    const std::vector<std::string> warnings = repeatedInputWarnings(options.files);
    for (const std::string& warning : warnings) {
        fmt::print(stderr, "mvlog: warning: {}\n", warning);
    }
    const CopyReport report =
        deriveReporting("merging", options.output, copy, [&](const CopyOptions& chosen) {
            return Marivane::Logging::Algorithms::merge(inputs, options.output, chosen);
        });
    printMergeReport(options, report, warnings);
    return 0;
}

}  // namespace Mvlog
