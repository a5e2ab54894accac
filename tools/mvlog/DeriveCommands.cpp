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
    return deriveReporting("cloning", output, copyOptions(*file, options.level),
                           [&](const CopyOptions& chosen) {
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
