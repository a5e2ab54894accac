#pragma once

#include <logging/DataEntry.h>
#include <logging/DataSource.h>
#include <logging/LogFileInterface.h>
#include <logging/LoggingExport.h>
#include <logging/MV_LogDataSourceType.h>
#include <logging/PlayerBookmark.h>

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

class LogFilePlayerPrivate;

// Replays a log file's entries at their recorded pace on a worker thread.
//
// Frames are the ids of the entries whose data source has one of the chosen
// types (every entry when no data source matches). The worker reads one entry
// per frame, waits for its timestamp gap to the previous entry divided by the
// speed multiplier (less the previous cycle's lateness), or for
// maxFrameDelayMs when the gap reaches it, and calls the callback on the worker
// thread. The first play() after construction starts at frame 1; seek(0, ...)
// or looping reaches frame 0.
//
// Ownership: the player owns the log file for its whole life. Moving
// transfers everything; a moved-from player must be neither used nor
// destroyed. Stop a player before assigning over it.
//
// Threads: play, stop, seek, getTotalPlayTime and the bookmark operations are
// called from one controlling thread. The setters may be called while playing.
// Bookmark edits reach the file while the worker reads from it.
class MV_LOGGING_EXPORT LogFilePlayer {
public:
    LogFilePlayer(std::unique_ptr<LogFileInterface> logFile, const std::vector<MV_LogDataSourceType>& dataSourceTypes,
                  const FrameCallback& frameCallback, bool loop, int32_t maxFrameDelayMs);
    // Stops playback (joining the worker) and closes the file.
    ~LogFilePlayer();
    LogFilePlayer(LogFilePlayer&& other) noexcept;
    LogFilePlayer& operator=(LogFilePlayer&& other) noexcept;
    LogFilePlayer(const LogFilePlayer&) = delete;
    LogFilePlayer& operator=(const LogFilePlayer&) = delete;

    // Starts the worker unless already playing.
    void play();
    // Stops and joins the worker; a frame being waited for is not delivered.
    void stop();
    // Positions on `frame` and delivers it once on the calling thread, to
    // `callback` or, when that is empty, to the constructor's callback. A
    // running playback is stopped first and resumes after the sought frame.
    void seek(int32_t frame, FrameCallback callback);
    // Timestamp of the last frame minus that of the first, in milliseconds.
    // Needs at least one frame.
    int32_t getTotalPlayTime();
    std::size_t getFrameCount() const;
    const std::vector<DataSource>& getDataSources() const;
    // Rebuilt wholesale by every bookmark edit: references into it are then
    // invalid.
    const std::vector<PlayerBookmark>& getBookmarks() const;
    // The player keeps ownership.
    LogFileInterface* getUnderlyingLogFile() const;
    void setLoopPlayback(bool loop);
    void setPlaybackSpeedMultiplier(float multiplier);

    // Bookmark edits forward to the file (addressing entry ids, not frames) and
    // rebuild the bookmark list.
    void addBookmark(int32_t entryId, const std::string& title, const std::string& comments);
    void updateBookmark(int32_t entryId, const std::string& title, const std::string& comments);
    void removeBookmark(int32_t entryId);

private:
    std::unique_ptr<LogFilePlayerPrivate> d;
};

}  // namespace Marivane::Logging::Playback
