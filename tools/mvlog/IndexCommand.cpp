#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"
#include "ProgressBar.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>

namespace Mvlog {

// Builds the time index in place: the one command besides bookmarks that
// writes to the file it is given, and only when asked.
int runIndex(const IndexOptions& options) {
    const auto file = openExistingLogFile(options.file, Access::ReadWrite);
    nlohmann::ordered_json document;
    document["file"] = options.file;
    if (file->hasTimeIndex()) {
        if (options.json) {
            document["built"] = false;
            document["hasTimeIndex"] = true;
            fmt::print("{}\n", dumpJson(document, 2));
        } else {
            fmt::print("{} already has a time index\n", options.file);
        }
        return 0;
    }
    const int32_t entries = file->getEntryCount();
    if (!options.json) {
        fmt::print("Building the time index of {} ({} entries)...\n", options.file, entries);
        std::fflush(stdout);
    }
    const auto started = std::chrono::steady_clock::now();
    ProgressBar bar("indexing", "entries", progressMode(options.progress));
    if (!file->createTimeIndex([&bar](uint64_t indexed, uint64_t total) { bar.update(indexed, total); })) {
        bar.erase();
        throw ToolError(
            fmt::format("{}: cannot build the time index: {}", options.file, file->getLastError()));
    }
    bar.finish();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    if (options.json) {
        document["built"] = true;
        document["hasTimeIndex"] = true;
        document["entries"] = entries;
        document["seconds"] = seconds;
        fmt::print("{}\n", dumpJson(document, 2));
    } else {
        fmt::print(
            "Built the time index in {:.1f} s: time windows and --start/--end no longer scan the file\n",
            seconds);
    }
    return 0;
}

}  // namespace Mvlog
