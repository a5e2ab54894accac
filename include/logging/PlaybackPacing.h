#pragma once

#include <logging/LoggingExport.h>

#include <chrono>
#include <cstdint>

namespace Marivane::Logging::Playback {

// How a player spaces its frames.
enum class Pacing {
    // The default: each wait is the timestamp gap divided by the speed,
    // rounded to whole milliseconds, less the previous cycle's lateness in
    // whole milliseconds. The fractions are lost every frame, so at high
    // frame rates playback drifts behind the recording.
    CarryMilliseconds,
    // Frames are due on an absolute timeline: the time playback started plus
    // the sum of the ideal gaps (idealFrameGap) since then, so neither
    // rounding nor the callback's own time accumulates. The timeline starts
    // again at every play() (after a seek, for instance); a speed change
    // applies from the next gap on, and a wrap to frame 0 counts its gap from
    // timestamp 0 like the default pacing.
    Exact,
};

// The ideal time between two frames whose timestamps are `timestampGapMs`
// apart: the gap divided by `speed`, or exactly `maxFrameDelayMs` when the gap
// reaches it; never negative (a frame recorded before its predecessor is due
// at once), and bounded for a speed of 0 or below. The player's exact pacing
// schedules with it, and a caller can measure a playback's pacing error
// against it.
MV_LOGGING_EXPORT std::chrono::nanoseconds idealFrameGap(int64_t timestampGapMs, int32_t maxFrameDelayMs,
                                                         float speed) noexcept;

}  // namespace Marivane::Logging::Playback
