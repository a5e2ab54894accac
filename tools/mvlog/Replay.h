#pragma once

#include <logging/Logging.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Mvlog {

// How the status of a running replay is shown.
enum class StatusStyle {
    Live,        // one line redrawn in place (a terminal)
    EveryFrame,  // a line per delivered frame (pipes, logs, tests)
    Periodic,    // a line now and then (long replays into a log)
};

struct ReplaySettings {
    double speed = 1.0;
    bool loop = false;
    std::vector<MV_LogDataSourceType> sourceTypes;
    // Unset: no cap in time order, 1000 ms in id order.
    std::optional<int32_t> maxDelayMs;
    int32_t fromFrame = 0;
    // When set, playback starts at the first frame at or after this time
    // instead of fromFrame.
    std::optional<int64_t> fromTimestamp;
    // When set, playback ends after the last frame at or before this time.
    std::optional<int64_t> toTimestamp;
    // Id order keeps the player's original pacing rules (a wait of the
    // maximum delay before the first frame of a wrap, gaps capped before
    // the speed scales them); time order is a player built with options.
    Marivane::Logging::Playback::FrameOrder order = Marivane::Logging::Playback::FrameOrder::Id;
    Marivane::Logging::Playback::Pacing pacing = Marivane::Logging::Playback::Pacing::Exact;
    StatusStyle style = StatusStyle::EveryFrame;
    // Reads keys from a terminal on standard input: space pauses and
    // resumes, the arrow keys step one frame, q quits.
    bool interactive = false;
};

// Difference between when the recorded timing says a frame is due and when
// the callback actually received it.
struct PacingError {
    double meanMs = 0.0;
    double maxMs = 0.0;
    int64_t samples = 0;
};

struct ReplayReport {
    std::size_t frameCount = 0;
    int64_t framesDelivered = 0;
    bool interrupted = false;
    double wallSeconds = 0.0;
    // Timestamp span of the whole frame list, and of what was delivered.
    int64_t recordedSpanMs = 0;
    int64_t playedSpanMs = 0;
    // Entries whose payload could not be read; the player delivered them as
    // empty frames.
    std::size_t damagedEntries = 0;
    PacingError pacing;
};

// Replays `file` through the player until the last frame is delivered
// (without looping), SIGINT/SIGTERM arrives or (interactive) q is pressed, printing status to `stream`.
// Throws ToolError for a frame number outside the file, and for a range
// without frames.
ReplayReport replayLogFile(std::unique_ptr<Marivane::Logging::LogFileInterface> file,
                           const ReplaySettings& settings, std::FILE* stream);

// "Played 366 of 366 frames (6.000 s of recording) in 1.512 s at 4x; pacing
// error mean 0.41 ms, max 2.10 ms".
std::string replayReportText(const ReplayReport& report, double speed);

}  // namespace Mvlog
