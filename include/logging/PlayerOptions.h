#pragma once

#include <logging/FrameOrder.h>
#include <logging/LoggingExport.h>
#include <logging/PlaybackPacing.h>

#include <chrono>
#include <cstdint>
#include <optional>

namespace Marivane::Logging::Playback {

// How a player built with options plays (see the LogFilePlayer constructor
// that takes them). A plain value: copy it freely.
//
// Such a player differs from one built with a loop flag and a maximum frame
// delay in three ways: its first play() starts at frame 0; a frame that has
// no predecessor in the run (frame 0 from the start, and frame 0 after a
// wrap) is due at once instead of after a gap measured from timestamp 0; and
// there is no cap on the wait unless maxFrameDelay is set.
struct PlayerOptions {
    FrameOrder order = FrameOrder::Id;
    // Exact keeps the recorded pace over any length; CarryMilliseconds
    // spaces frames by whole milliseconds as the other constructor does.
    Pacing pacing = Pacing::Exact;
    bool loop = false;
    // Divides every timestamp gap (see setPlaybackSpeedMultiplier).
    float speed = 1.0F;
    // A cap on the time between two frames. Under Pacing::Exact it bounds
    // the gap after the speed has scaled it, so a speed still shortens every
    // gap (a 1 Hz source at 20x plays at 20x) and only pauses longer than the
    // cap are cut. Under Pacing::CarryMilliseconds a recorded gap at or above
    // the cap waits exactly the cap, whatever the speed. Unset: no cap.
    std::optional<std::chrono::milliseconds> maxFrameDelay;
};

// The ideal time between two frames whose timestamps are `timestampGapMs`
// apart, for a player built with options under Pacing::Exact: the gap
// divided by `speed`, then at most `maxFrameDelay` when one is given; never
// negative, and bounded for a speed of 0 or below. A caller measures a
// playback's pacing error against it.
MV_LOGGING_EXPORT std::chrono::nanoseconds scaledFrameGap(
    int64_t timestampGapMs, float speed, std::optional<std::chrono::milliseconds> maxFrameDelay) noexcept;

}  // namespace Marivane::Logging::Playback
