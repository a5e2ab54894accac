#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"
#include "Terminal.h"

#include <core/Filesystem.h>

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <memory>
#include <vector>

namespace Mvlog {

using Marivane::Logging::CopyOptions;
using Marivane::Logging::LogFileInterface;

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

// "+12.5": seconds after the file's first entry.
std::optional<int64_t> parseRelativeTime(const std::string& text, const LogFileInterface& file) {
    if (text.empty() || text[0] != '+') {
        return std::nullopt;
    }
    std::size_t used = 0;
    double seconds = 0;
    try {
        seconds = std::stod(text.substr(1), &used);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    if (used + 1 != text.size() || !std::isfinite(seconds)) {
        return std::nullopt;
    }
    const std::optional<Marivane::Logging::DataEntry> first = file.readEntry(file.getFirstEntryId());
    if (!first) {
        throw ToolError("refused: a time relative to the first entry needs a file with entries");
    }
    return first->timestamp + std::llround(seconds * 1000.0);
}

// "2026-11-21T11:58:05.5Z", "2026-11-21T12:58:05+01:00" or without a zone (UTC).
std::optional<int64_t> parseIsoTime(const std::string& text) {
    std::tm parts{};
    int consumed = 0;
    if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &parts.tm_year, &parts.tm_mon, &parts.tm_mday,
                    &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &consumed) != 6) {
        return std::nullopt;
    }
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    int64_t milliseconds = 0;
    std::size_t at = static_cast<std::size_t>(consumed);
    if (at < text.size() && text[at] == '.') {
        int64_t scale = 100;
        for (++at; at < text.size() && std::isdigit(static_cast<unsigned char>(text[at])); ++at, scale /= 10) {
            milliseconds += (text[at] - '0') * scale;
        }
    }
    int64_t offsetMinutes = 0;
    if (at < text.size() && text[at] == 'Z') {
        ++at;
    } else if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
        int hours = 0;
        int minutes = 0;
        if (std::sscanf(text.c_str() + at + 1, "%2d:%2d", &hours, &minutes) != 2) {
            return std::nullopt;
        }
        offsetMinutes = (text[at] == '-' ? -1 : 1) * (hours * 60 + minutes);
        at += 6;
    }
    if (at != text.size()) {
        return std::nullopt;
    }
    return (static_cast<int64_t>(timegm(&parts)) - offsetMinutes * 60) * 1000 + milliseconds;
}

int64_t parseTime(const std::string& option, const std::string& text, const LogFileInterface& file) {
    if (std::optional<int64_t> relative = parseRelativeTime(text, file)) {
        return *relative;
    }
    if (std::optional<int64_t> absolute = parseIsoTime(text)) {
        return *absolute;
    }
    throw UsageError(fmt::format("{} {}: not a time (use ISO 8601 such as 2026-11-21T11:58:05.5Z, or seconds "
                                 "after the first entry such as +12.5)",
                                 option, text));
}

// Runs a derivation with a progress line on a terminal. The library writes
// under a temporary name and renames only a complete file, so a failure
// leaves nothing under the requested name.
int deriveReporting(const char* what, const std::string& output, CopyOptions options,
                    const std::function<void(const CopyOptions&)>& derive) {
    StatusLine status(stderr, isTerminal(stderr));
    if (status.isLive()) {
        options.progress = [&](uint64_t written, uint64_t total) {
            status.update(fmt::format("{}: {} of at most {} entries", what, written, total));
        };
    }
    try {
        derive(options);
    } catch (const std::exception& error) {
        status.finish();
        throw ToolError(fmt::format("{} failed: {} (nothing was written to {})", what, error.what(), output));
    }
    status.finish();
    fmt::print("{}\n", output);
    return 0;
}

}  // namespace

int runSlice(const SliceOptions& options) {
    const auto file = openExistingLogFile(options.file);
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
    const std::string output = outputFor(options.output, options.file);
    return deriveReporting("slicing", output, copy, [&](const CopyOptions& chosen) {
        Marivane::Logging::Algorithms::copy(options.file, output, chosen);
    });
}

int runClone(const CloneOptions& options) {
    const auto file = openExistingLogFile(options.file);
    explainOutputRefusal(options.output);
    const std::string output = outputFor(options.output, options.file);
    return deriveReporting("cloning", output, copyOptions(*file, options.level), [&](const CopyOptions& chosen) {
        Marivane::Logging::Algorithms::copy(options.file, output, chosen);
    });
}

int runMerge(const MergeOptions& options) {
    std::vector<std::filesystem::path> inputs;
    for (const std::string& input : options.files) {
        requireExistingFile(input);
        inputs.emplace_back(input);
    }
    explainOutputRefusal(options.output);
    const auto first = openExistingLogFile(options.files.front());
    return deriveReporting("merging", options.output, copyOptions(*first, options.level),
                           [&](const CopyOptions& chosen) {
                               Marivane::Logging::Algorithms::merge(inputs, options.output, chosen);
                           });
}

}  // namespace Mvlog
