#pragma once

#include <logging/RecorderStats.h>

#include <cstdint>
#include <filesystem>

namespace Mvlog {

// What recording the synthetic survey produced.
struct SurveyRecording {
    int64_t entries = 0;
    uint64_t payloadBytes = 0;
    double wallSeconds = 0.0;
    int64_t startTimestamp = 0;
    // The first and last timestamp of a middle stretch (seconds 6 to 12), for
    // the demo's slice.
    int64_t middleStartTimestamp = 0;
    int64_t middleEndTimestamp = 0;
    // What the recorder did.
    Marivane::Logging::RecorderStats recorder;
};

// Records a synthetic survey into a new file at `path` (which must not exist):
// a camera (64 KiB greyscale frames at 10 Hz), a satellite navigation receiver
// (48-byte fixes at 50 Hz plus a status line each second) and a weather mast
// (a JSON reading at 1 Hz) over `durationMs` of synthetic time starting at
// `startTimestamp`, written as fast as possible through the recorder from one
// capture thread per sensor; with properties, metadata, a PGM thumbnail, a
// calibration resource and bookmarks.
SurveyRecording recordSyntheticSurvey(const std::filesystem::path& path, int64_t startTimestamp,
                                      int64_t durationMs);

}  // namespace Mvlog
