#pragma once

#include <logging/DataEntry.h>
#include <logging/DataSource.h>
#include <logging/EntryIndexFilter.h>
#include <logging/LogFileInterface.h>
#include <logging/LogFilePlayer.h>
#include <logging/MV_LogDataSourceType.h>
#include <logging/PlayerBookmark.h>
#include <logging/PlayerOptions.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

namespace Marivane::Logging {
class SqliteLogFile;
}

namespace Marivane::Logging::Playback {

// Milliseconds to wait before delivering an entry whose timestamp lies `delta`
// milliseconds after the previous one. Gaps below `maxFrameDelay` are scaled
// by the speed and shortened by `carry`, the lateness of the previous cycle, so
// that a long run keeps the recorded pace. Gaps at or above the cap wait the
// bare cap: a pause in the recording (or the jump from timestamp 0 after a
// wrap) is shown as one fixed delay whatever the speed. The result may be
// negative, meaning "deliver at once".
int64_t computeFrameWait(int64_t delta, int32_t maxFrameDelay, float speedMultiplier, int64_t carry);

// As computeFrameWait for a player built with options: the cap, when there is
// one, still waits bare for gaps at or above it, and without one every gap
// is scaled by the speed.
int64_t computeCappedFrameWait(int64_t delta, std::optional<std::chrono::milliseconds> maxFrameDelay,
                               float speedMultiplier, int64_t carry);

// State of a LogFilePlayer and the worker loop that plays it.
//
// Threads: `mutex` guards only `playing` and the worker's timed wait. The
// worker owns currentFrame, currentEntry, lastTimestamp and the reads from the
// file while `playing` is true; the caller-side operations that touch them
// (seek, getTotalPlayTime) stop the worker first. The bookmark list belongs to
// the caller's thread; the worker never touches it. The worker runs on this
// object itself, never through the public player, so its address must stay
// fixed while it plays: the object is neither copied nor moved.
class LogFilePlayerPrivate {
public:
    using Clock = std::chrono::steady_clock;

    LogFilePlayerPrivate(std::unique_ptr<LogFileInterface> file,
                         const std::vector<MV_LogDataSourceType>& dataSourceTypes,
                         const FrameCallback& callback, bool loop, int32_t maxFrameDelayMs);
    LogFilePlayerPrivate(std::unique_ptr<LogFileInterface> file,
                         const std::vector<MV_LogDataSourceType>& dataSourceTypes,
                         const FrameCallback& callback, const PlayerOptions& options);
    // Does not stop the worker: the owner stops it first. Destroying a player
    // whose worker thread is still joinable ends the process.
    ~LogFilePlayerPrivate() = default;

    LogFilePlayerPrivate(const LogFilePlayerPrivate&) = delete;
    LogFilePlayerPrivate& operator=(const LogFilePlayerPrivate&) = delete;

    void play();
    void stop();
    void seek(int32_t frame, const FrameCallback& callback);
    int32_t seekToTime(int64_t timestamp, const FrameCallback& callback);
    int32_t getTotalPlayTime();

    // Advances to the next frame and reads its entry into currentEntry.
    // False, with nothing read, past the last frame when not looping (and for
    // an empty frame list or a negative position); when looping, wraps to frame
    // 0 and resets lastTimestamp. Must not run beside the worker.
    bool readNextFrame();

    // Rebuilds `bookmarks` from the file, each mapped to the first frame whose
    // entry id is not below the bookmark's (the last frame when none is); in
    // time order, the first frame not before the bookmark's entry in time.
    void updateBookmarkList();

    bool isPlaying();
    int32_t frameCount() const { return static_cast<int32_t>(frames.size()); }

    std::unique_ptr<LogFileInterface> logFile;
    std::vector<DataSource> dataSources;
    std::vector<PlayerBookmark> bookmarks;
    std::vector<int32_t> frames;
    FrameCallback frameCallback;
    Pacing pacing = Pacing::CarryMilliseconds;
    // Empty: an unreadable frame's exception ends the worker (and the process).
    UnreadableFrameCallback unreadableFrameHandler;
    std::atomic<bool> loopPlayback;
    int32_t maxFrameDelay;
    std::atomic<float> playbackSpeedMultiplier{1.0F};
    // Starts at 0, not -1: reading advances first, so the first play() after
    // construction delivers frame 1. Frame 0 is reached by seek or a wrap.
    int32_t currentFrame = 0;
    std::thread playbackThread;
    std::mutex mutex;
    std::condition_variable condition;
    std::unique_ptr<DataEntry> currentEntry;
    int64_t lastTimestamp = 0;
    bool playing = false;

    // Set by the constructor that takes options; fixed afterwards.
    FrameOrder order = FrameOrder::Id;
    bool builtWithOptions = false;
    std::optional<std::chrono::milliseconds> delayCap;
    // The file as a SqliteLogFile when it is one: timestamps without payloads.
    const SqliteLogFile* sqliteFile = nullptr;
    // Players built with options only: whether lastTimestamp belongs to a
    // frame played before the current one in this run. Frame 0 from the
    // start and after a wrap has none and is due at once.
    bool hasPrevious = false;
    // The current entry stands for a frame that could not be read.
    bool currentIsPlaceholder = false;

    // The worker thread's body; started by play() only.
    void runPlayback();

private:
    void finishPlayback();
    // Waits until `waitMs` has passed or playback is stopped; `lock` holds
    // `mutex`.
    void waitForFrameDue(std::unique_lock<std::mutex>& lock, int64_t waitMs);
    void waitUntil(std::unique_lock<std::mutex>& lock, Clock::time_point deadline);
    // The worker's loop under Pacing::Exact.
    void runExactPlayback();
    // Reads the entry of the current frame; one that cannot be read becomes
    // the placeholder below.
    void readCurrentFrame();
    DataEntry placeholderForCurrentFrame() const;
    // A copy of currentEntry whose data bytes are moved out of it: memory
    // holds one payload, never two.
    DataEntry takeCurrentEntry();
    void deliverSought(int32_t frame, const FrameCallback& callback);
    int64_t timestampOfFrame(int32_t frame);
    // A frame's timestamp without reading its payload when the file can tell
    // it (a SqliteLogFile); otherwise through timestampOfFrame.
    int64_t timestampOnlyOfFrame(int32_t frame);
    // The frames of `filter` sorted by (timestamp, id).
    std::vector<int32_t> framesInTimeOrder(const EntryIndexFilter& filter) const;
    // (timestamp, id) of an entry, read without touching the playing state
    // (bookmark edits run beside the worker); absent when unknown.
    std::optional<std::pair<int64_t, int32_t>> timeKeyOfEntry(int32_t entryId) const;
    int32_t frameOfEntryInTime(int32_t entryId) const;
    // The gap from the previous frame to the current one, and the step to it.
    int64_t gapToCurrentFrame() const;
    void advancePrevious();
};

}  // namespace Marivane::Logging::Playback
