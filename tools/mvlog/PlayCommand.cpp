#include "Arguments.h"
#include "Commands.h"
#include "LogFileAccess.h"
#include "Replay.h"
#include "Terminal.h"

#include <fmt/format.h>

#include <cstdio>

namespace Mvlog {

int runPlay(const PlayOptions& options) {
    auto file = openExistingLogFile(options.file);
    ReplaySettings settings = options.replay;
    const TimeWindow window = parseTimeWindow(options.start, options.end, *file);
    if (options.start) {
        settings.fromTimestamp = window.start;
    }
    if (options.end) {
        settings.toTimestamp = window.end;
    }
    settings.style = isTerminal(stdout) ? StatusStyle::Live : StatusStyle::EveryFrame;
    settings.interactive = isTerminal(stdin) && isTerminal(stdout);

    fmt::print("Playing {} at {}x{}; {}\n", options.file, settings.speed, settings.loop ? ", looping" : "",
               settings.interactive ? "space pauses, arrow keys step, q or Ctrl-C stops" : "Ctrl-C stops");
    std::fflush(stdout);
    const ReplayReport report = replayLogFile(std::move(file), settings, stdout);
    if (report.frameCount == 0) {
        fmt::print("Nothing to play: the file has no entries.\n");
        return 0;
    }
    fmt::print("{}\n", replayReportText(report, settings.speed));
    if (report.damagedEntries == 1) {
        throw ToolError(
            "1 entry has a damaged payload and was played as an empty frame; run `mvlog check` for details");
    }
    if (report.damagedEntries > 1) {
        throw ToolError(
            fmt::format("{} entries have damaged payloads and were played as empty frames; run `mvlog "
                        "check` for details",
                        report.damagedEntries));
    }
    return 0;
}

}  // namespace Mvlog
