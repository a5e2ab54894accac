#pragma once

namespace Marivane::Logging::Playback {

// The order in which a player plays its frames (see PlayerOptions).
enum class FrameOrder {
    // Ascending entry id: the order in which the entries were written.
    Id = 0,
    // Ascending timestamp, entries with equal timestamps by ascending id:
    // the order in which they were recorded, however they were written
    // (several capture threads, a merge, sensors whose clocks lag).
    Time = 1,
};

}  // namespace Marivane::Logging::Playback
