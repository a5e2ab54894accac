#include <logging/LogFilePlayer.h>

#include "playback/LogFilePlayerPrivate.h"

#include <utility>

namespace Marivane::Logging::Playback {

LogFilePlayer::LogFilePlayer(std::unique_ptr<LogFileInterface> logFile,
                             const std::vector<MV_LogDataSourceType>& dataSourceTypes,
                             const FrameCallback& frameCallback, bool loop, int32_t maxFrameDelayMs)
    : d(std::make_unique<LogFilePlayerPrivate>(std::move(logFile), dataSourceTypes, frameCallback, loop,
                                               maxFrameDelayMs)) {}

LogFilePlayer::LogFilePlayer(std::unique_ptr<LogFileInterface> logFile,
                             const std::vector<MV_LogDataSourceType>& dataSourceTypes,
                             const FrameCallback& frameCallback, const PlayerOptions& options)
    : d(std::make_unique<LogFilePlayerPrivate>(std::move(logFile), dataSourceTypes, frameCallback, options)) {
}

// No guard for a moved-from player (null d): destroying one is outside the
// contract. stop() failing here ends the process.
LogFilePlayer::~LogFilePlayer() {
    stop();
}

LogFilePlayer::LogFilePlayer(LogFilePlayer&& other) noexcept = default;

// The former private part is destroyed without being stopped; callers stop the
// target first (a still joinable worker ends the process).
LogFilePlayer& LogFilePlayer::operator=(LogFilePlayer&& other) noexcept = default;

void LogFilePlayer::play() {
    d->play();
}

void LogFilePlayer::stop() {
    d->stop();
}

void LogFilePlayer::seek(int32_t frame, FrameCallback callback) {
    d->seek(frame, callback);
}

int32_t LogFilePlayer::seekToTime(int64_t timestamp, FrameCallback callback) {
    return d->seekToTime(timestamp, callback);
}

int32_t LogFilePlayer::getTotalPlayTime() {
    return d->getTotalPlayTime();
}

std::size_t LogFilePlayer::getFrameCount() const {
    return d->frames.size();
}

FrameOrder LogFilePlayer::getFrameOrder() const {
    return d->order;
}

const std::vector<DataSource>& LogFilePlayer::getDataSources() const {
    return d->dataSources;
}

const std::vector<PlayerBookmark>& LogFilePlayer::getBookmarks() const {
    return d->bookmarks;
}

LogFileInterface* LogFilePlayer::getUnderlyingLogFile() const {
    return d->logFile.get();
}

void LogFilePlayer::setPacing(Pacing pacing) {
    d->pacing = pacing;
}

Pacing LogFilePlayer::getPacing() const {
    return d->pacing;
}

void LogFilePlayer::setUnreadableFrameHandler(UnreadableFrameCallback handler) {
    d->unreadableFrameHandler = std::move(handler);
}

void LogFilePlayer::setLoopPlayback(bool loop) {
    d->loopPlayback.store(loop);
}

void LogFilePlayer::setPlaybackSpeedMultiplier(float multiplier) {
    d->playbackSpeedMultiplier.store(multiplier);
}

// The edits return nothing: the file's result is not reported, and the list is
// rebuilt whatever it was. An exception from the edit leaves the list as it was.
void LogFilePlayer::addBookmark(int32_t entryId, const std::string& title, const std::string& comments) {
    d->logFile->addBookmark(Bookmark{entryId, title, comments, {}});
    d->updateBookmarkList();
}

void LogFilePlayer::updateBookmark(int32_t entryId, const std::string& title, const std::string& comments) {
    d->logFile->updateBookmark(Bookmark{entryId, title, comments, {}});
    d->updateBookmarkList();
}

void LogFilePlayer::removeBookmark(int32_t entryId) {
    d->logFile->removeBookmark(Bookmark{entryId, {}, {}, {}});
    d->updateBookmarkList();
}

}  // namespace Marivane::Logging::Playback
