#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"
#include "Terminal.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <vector>

namespace Mvlog {

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

signed char chosenLevel(const LogFileInterface& file, const std::optional<int>& level) {
    return static_cast<signed char>(level ? *level : storedCompressionLevel(file));
}

// Errors while copying propagate from the library with the partial output
// left on disk; the message says where, so it can be inspected or removed.
// (Without -o the library picks the name and keeps it to itself.)
std::string partialOutputNote(const std::string& output) {
    return output.empty() ? "a partial output may remain beside the source"
                          : fmt::format("the partial output {} remains", output);
}

template <typename Derive>
std::unique_ptr<LogFileInterface> deriveReporting(const char* what, const std::string& output,
                                                  Derive derive) {
    try {
        ElapsedTimeIndicator indicator(what);
        return derive();
    } catch (const std::exception& error) {
        throw ToolError(fmt::format("{} failed: {} ({})", what, error.what(), partialOutputNote(output)));
    }
}

int reportDerivedFile(const std::unique_ptr<LogFileInterface>& derived) {
    if (!derived) {
        throw ToolError("refused by the library; nothing was written");
    }
    fmt::print("{}\n", derived->getFilePath().string());
    return 0;
}

}  // namespace

int runSlice(const SliceOptions& options) {
    const auto file = openExistingLogFile(options.file);
    explainOutputRefusal(options.output);
    explainRangeRefusal(*file, options.from, options.to);
    const signed char level = chosenLevel(*file, options.level);
    return reportDerivedFile(deriveReporting("slicing", options.output, [&] {
        return Marivane::Logging::Algorithms::slice(*file, options.from, options.to, options.output,
                                                    kToolName, kToolVersion, level);
    }));
}

int runClone(const CloneOptions& options) {
    const auto file = openExistingLogFile(options.file);
    explainOutputRefusal(options.output);
    const signed char level = chosenLevel(*file, options.level);
    return reportDerivedFile(deriveReporting("cloning", options.output, [&] {
        return Marivane::Logging::Algorithms::clone(*file, options.output, kToolName, kToolVersion, level);
    }));
}

}  // namespace Mvlog
