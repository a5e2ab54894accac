#include "Commands.h"
#include "LogFileAccess.h"
#include "Replay.h"
#include "Terminal.h"
#include "TimeArguments.h"

#include <fmt/format.h>

#include <cstdio>

namespace Mvlog {

int runPlay(const PlayOptions& options) {
    auto file = openExistingLogFile(options.file);
    ReplaySettings settings;
    settings.speed = options.speed;
    settings.loop = options.loop;
    settings.sourceTypes = options.sourceTypes;
    settings.maxDelayMs = options.maxDelayMs;
    settings.fromFrame = options.fromFrame;
    if (options.start) {
        settings.fromTimestamp = parseTime("--start", *options.start, *file);
    }
    if (options.end) {
        settings.toTimestamp = parseTime("--end", *options.end, *file);
        if (settings.fromTimestamp && *settings.fromTimestamp > *settings.toTimestamp) {
            throw ToolError("refused: the time range is reversed (--start is after --end)");
        }
    }
    settings.order = options.idOrder ? Marivane::Logging::Playback::FrameOrder::Id
                                     : Marivane::Logging::Playback::FrameOrder::Time;
    settings.pacing = options.carryPacing ? Marivane::Logging::Playback::Pacing::CarryMilliseconds
                                          : Marivane::Logging::Playback::Pacing::Exact;
    settings.style = isTerminal(stdout) ? StatusStyle::Live : StatusStyle::EveryFrame;
    settings.interactive = isTerminal(stdin) && isTerminal(stdout);

    fmt::print("Playing {} at {}x{}; {}\n", options.file, options.speed, options.loop ? ", looping" : "",
               settings.interactive ? "space pauses, arrow keys step, q or Ctrl-C stops" : "Ctrl-C stops");
    std::fflush(stdout);
    const ReplayReport report = replayLogFile(std::move(file), settings, stdout);
    if (report.frameCount == 0) {
        fmt::print("Nothing to play: the file has no entries.\n");
        return 0;
    }
    fmt::print("{}\n", replayReportText(report, options.speed));
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
