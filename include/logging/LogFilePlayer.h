#pragma once

#include <logging/DataEntry.h>
#include <logging/DataSource.h>
#include <logging/LogFileInterface.h>
#include <logging/LoggingExport.h>
#include <logging/MV_LogDataSourceType.h>
#include <logging/PlaybackPacing.h>
#include <logging/PlayerBookmark.h>
#include <logging/PlayerOptions.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Marivane::Logging::Playback {

// Receives each played frame: its number (index into the frame list) and the
// entry, whose data bytes are moved in.
using FrameCallback = std::function<void(int32_t frame, Marivane::Logging::DataEntry entry)>;

// Receives a frame that the player could not read (see
// LogFilePlayer::setUnreadableFrameHandler): its number, its entry id and
// the reason (the text of what the file threw).
using UnreadableFrameCallback =
    std::function<void(int32_t frame, int32_t entryId, const std::string& reason)>;

class LogFilePlayerPrivate;

// Replays a log file's entries at their recorded pace on a worker thread.
//
// Frames are the ids of the entries whose data source has one of the chosen
// types, ascending (every entry of the file when no data source matches, an
// empty type list included); a player built with PlayerOptions may play the
// same entries in time order instead. The worker reads one entry per frame, waits for
// its timestamp gap to the previous entry divided by the speed multiplier
// (less the previous cycle's lateness, so a long run keeps the recorded pace),
// or for exactly maxFrameDelayMs when the gap reaches it, and calls the
// callback on the worker thread. The first play() after construction starts
// at frame 1, measuring its gap from timestamp 0 (so a real recording waits
// maxFrameDelayMs first); seek(0, ...) or looping reaches frame 0. A wrap
// measures from timestamp 0 again.
//
// A frame whose entry the file cannot read (it should not happen: the frames
// come from the file's own index) is delivered as a placeholder: entryId is
// the frame's entry id, dataSourceId -1, type 0, no data, and the timestamp of
// the previous entry, so it adds no wait.
//
// Ownership: the player owns the log file for its whole life. Moving
// transfers everything; a moved-from player must be neither used nor
// destroyed. Stop a player before assigning over it: assignment does not stop
// the former state, and a worker thread still joinable then ends the process.
//
// Threads: play, stop, seek, getTotalPlayTime and the bookmark operations are
// called from one controlling thread, never from the callback (stop would
// join the calling thread). The setters may be called while playing, from any
// thread. Bookmark edits reach the file while the worker reads from it, so the
// file must tolerate that (SqliteLogFile does).
class MV_LOGGING_EXPORT LogFilePlayer {
public:
    // Throws what the file throws, and std::invalid_argument for a null file.
    LogFilePlayer(std::unique_ptr<LogFileInterface> logFile,
                  const std::vector<MV_LogDataSourceType>& dataSourceTypes,
                  const FrameCallback& frameCallback, bool loop, int32_t maxFrameDelayMs);
    // A player as PlayerOptions describes it: frames in id or time order,
    // the first play() starting at frame 0, and the speed scaling every gap
    // (see PlayerOptions). In time order the frames are the same entries,
    // sorted by timestamp and then id: seekToTime finds the earliest frame at
    // or after a time, a bookmark maps to its entry's frame (or, for an entry
    // that is not played, to the next frame in time), and getTotalPlayTime is
    // the span from the earliest to the latest frame. Building a time-ordered
    // list reads the timestamps of the chosen entries once, without their
    // payloads when the file is a SqliteLogFile. Throws like the constructor
    // above, and std::runtime_error naming the file when its timestamps
    // cannot be read.
    LogFilePlayer(std::unique_ptr<LogFileInterface> logFile,
                  const std::vector<MV_LogDataSourceType>& dataSourceTypes,
                  const FrameCallback& frameCallback, const PlayerOptions& options);
    // Stops playback (joining the worker) and closes the file.
    ~LogFilePlayer();
    LogFilePlayer(LogFilePlayer&& other) noexcept;
    LogFilePlayer& operator=(LogFilePlayer&& other) noexcept;
    LogFilePlayer(const LogFilePlayer&) = delete;
    LogFilePlayer& operator=(const LogFilePlayer&) = delete;

    // Starts the worker unless already playing; it goes on after the frame
    // most recently read. An empty frame callback ends the process at the
    // first delivery. At the end of the frames without looping the worker
    // ends by itself; play() then delivers nothing more until a seek (or until
    // looping is switched on).
    void play();
    // Stops and joins the worker; a frame being waited for is not delivered
    // (and is skipped by the next play()).
    void stop();
    // Positions on `frame` and delivers it once on the calling thread, under
    // the number `frame`, to `callback` or, when that is empty, to the
    // constructor's callback (std::bad_function_call when both are empty). A
    // running playback is stopped first and resumes after the sought frame.
    // Past the end (or before frame 0) nothing is read and the entry held last
    // is delivered again, without its data bytes, which were handed out
    // already; when looping, past the end wraps to frame 0.
    void seek(int32_t frame, FrameCallback callback);
    // Seeks (as seek does) to the first frame whose timestamp is at or after
    // `timestamp` (milliseconds since the Unix epoch), found by bisection
    // over the frames. In id order a file whose timestamps are not ascending
    // gets one such frame, not necessarily the earliest; in time order it is
    // the earliest.
    // Answers the frame number; past the last frame's timestamp it is the
    // frame count, delivered like any seek past the end.
    int32_t seekToTime(int64_t timestamp, FrameCallback callback);
    // Timestamp of the last frame minus that of the first, in milliseconds,
    // truncated to 32 bits; 0 without frames. A running playback is stopped for
    // the reads and resumed.
    int32_t getTotalPlayTime();
    // Number of frames (an unsigned size; frame numbers are signed 32-bit).
    std::size_t getFrameCount() const;
    // FrameOrder::Id unless the player was built with options asking for time.
    FrameOrder getFrameOrder() const;
    // The file's data sources of the chosen types, in the file's order.
    const std::vector<DataSource>& getDataSources() const;
    // The file's bookmarks in the file's order, each with the first frame whose
    // entry id is not below its own (the last frame when there is none, -1
    // without frames), and always without payload. In time order, the first
    // frame not before the bookmark's entry in time (timestamp, then id), the
    // last frame when there is none or the entry is unknown. Rebuilt
    // wholesale by every bookmark edit: references into it are then invalid.
    const std::vector<PlayerBookmark>& getBookmarks() const;
    // The player keeps ownership.
    LogFileInterface* getUnderlyingLogFile() const;
    // Takes effect at the next end of the frame list.
    void setLoopPlayback(bool loop);
    // Takes effect at the next frame's wait. Gaps are divided by it, so it
    // should be positive (0 holds the next frame with a positive gap until
    // stop()).
    void setPlaybackSpeedMultiplier(float multiplier);

    // Chooses how frames are spaced (see Pacing); CarryMilliseconds until
    // told otherwise. Call it while the player is stopped.
    void setPacing(Pacing pacing);
    Pacing getPacing() const;

    // Opt-in tolerance of damaged files. Without a handler (the default), an
    // exception from the file while reading a frame (a damaged payload, for
    // example) leaves the worker thread and ends the process. With one, such
    // a frame becomes the placeholder described above, playback goes on, and
    // `handler` is told about it on the thread that read the frame (the
    // worker, or seek's caller) before the placeholder is delivered. An empty
    // handler restores the default. Call it while the player is stopped.
    void setUnreadableFrameHandler(UnreadableFrameCallback handler);

    // Bookmark edits forward to the file (addressing entry ids, not frames,
    // with an empty payload) and then rebuild the bookmark list, whatever the
    // file answered. They do not stop playback.
    void addBookmark(int32_t entryId, const std::string& title, const std::string& comments);
    void updateBookmark(int32_t entryId, const std::string& title, const std::string& comments);
    void removeBookmark(int32_t entryId);

private:
    std::unique_ptr<LogFilePlayerPrivate> d;
};

}  // namespace Marivane::Logging::Playback
