#include "playback/LogFilePlayerPrivate.h"

#include <logging/SqliteLogFile.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <utility>

namespace Marivane::Logging::Playback {

namespace {

// Waits are clamped to about 35 years: long enough to mean "until stopped",
// short enough that a deadline on the steady clock cannot overflow. Only a
// speed of 0 (or a nonsensical one) gets anywhere near it.
constexpr int64_t kLongestWaitMs = int64_t{1} << 40;
constexpr float kLongestWaitMsFloat = static_cast<float>(kLongestWaitMs);

int64_t millisecondsSince(LogFilePlayerPrivate::Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(LogFilePlayerPrivate::Clock::now() - start)
        .count();
}

// Timestamps come from the file as they were logged, so a gap between two
// arbitrary values must not overflow.
int64_t timestampGap(int64_t later, int64_t earlier) {
    int64_t gap = 0;
    if (__builtin_sub_overflow(later, earlier, &gap)) {
        return later < earlier ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
    }
    return gap;
}

// The worker's entry point. A callable of internal linkage keeps the thread
// state's vtable and type information out of the library's exported symbols
// (a member-function pointer would export them as weak symbols).
struct PlaybackWorker {
    LogFilePlayerPrivate* player;
    void operator()() const { player->runPlayback(); }
};

std::vector<DataSource> selectDataSources(const LogFileInterface& file,
                                          const std::vector<MV_LogDataSourceType>& types) {
    std::vector<DataSource> sources = file.getDataSources();
    std::erase_if(sources, [&types](const DataSource& source) {
        return std::find(types.begin(), types.end(), source.type) == types.end();
    });
    return sources;
}

// Only the data-source list is filled: when no data source was selected the
// filter is empty and therefore admits every entry of the file.
EntryIndexFilter filterForDataSources(const std::vector<DataSource>& sources) {
    EntryIndexFilter filter;
    filter.dataSources.reserve(sources.size());
    for (const DataSource& source : sources) {
        filter.dataSources.push_back(source.id);
    }
    return filter;
}

std::unique_ptr<LogFileInterface> requireLogFile(std::unique_ptr<LogFileInterface> file) {
    if (!file) {
        throw std::invalid_argument("LogFilePlayer needs a log file");
    }
    return file;
}

// The lower bound, not an exact match: a bookmark on an entry that is not
// played shows at the next played frame, and one after the last played entry
// at the last frame.
int32_t frameOfEntry(const std::vector<int32_t>& frames, int32_t entryId) {
    if (frames.empty()) {
        return -1;
    }
    const auto found = std::lower_bound(frames.begin(), frames.end(), entryId);
    if (found == frames.end()) {
        return static_cast<int32_t>(frames.size()) - 1;
    }
    return static_cast<int32_t>(found - frames.begin());
}

}  // namespace

namespace {

int64_t scaledWaitMs(int64_t delta, float speedMultiplier) {
    float scaled = static_cast<float>(delta) / speedMultiplier;
    if (std::isnan(scaled)) {
        scaled = 0.0F;
    }
    scaled = std::clamp(scaled, -kLongestWaitMsFloat, kLongestWaitMsFloat);
    return std::llroundf(scaled);
}

}  // namespace

int64_t computeFrameWait(int64_t delta, int32_t maxFrameDelay, float speedMultiplier, int64_t carry) {
    if (delta >= maxFrameDelay) {
        return maxFrameDelay;
    }
    return scaledWaitMs(delta, speedMultiplier) - carry;
}

int64_t computeCappedFrameWait(int64_t delta, std::optional<std::chrono::milliseconds> maxFrameDelay,
                               float speedMultiplier, int64_t carry) {
    if (maxFrameDelay) {
        const int64_t cap = std::clamp<int64_t>(maxFrameDelay->count(), 0, kLongestWaitMs);
        if (delta >= cap) {
            return cap;
        }
    }
    return scaledWaitMs(delta, speedMultiplier) - carry;
}

std::chrono::nanoseconds scaledFrameGap(int64_t timestampGapMs, float speed,
                                        std::optional<std::chrono::milliseconds> maxFrameDelay) noexcept {
    double scaledMs = static_cast<double>(timestampGapMs) / static_cast<double>(speed);
    if (std::isnan(scaledMs) || scaledMs < 0.0) {
        scaledMs = 0.0;
    }
    scaledMs = std::min(scaledMs, static_cast<double>(kLongestWaitMs));
    if (maxFrameDelay) {
        scaledMs = std::min(scaledMs, static_cast<double>(std::max<int64_t>(maxFrameDelay->count(), 0)));
    }
    return std::chrono::nanoseconds(std::llround(scaledMs * 1e6));
}

std::chrono::nanoseconds idealFrameGap(int64_t timestampGapMs, int32_t maxFrameDelayMs,
                                       float speed) noexcept {
    if (timestampGapMs >= maxFrameDelayMs) {
        return std::chrono::milliseconds(std::max(maxFrameDelayMs, 0));
    }
    double scaledMs = static_cast<double>(timestampGapMs) / static_cast<double>(speed);
    if (std::isnan(scaledMs) || scaledMs < 0.0) {
        scaledMs = 0.0;
    }
    scaledMs = std::min(scaledMs, static_cast<double>(kLongestWaitMs));
    return std::chrono::nanoseconds(std::llround(scaledMs * 1e6));
}

LogFilePlayerPrivate::LogFilePlayerPrivate(std::unique_ptr<LogFileInterface> file,
                                           const std::vector<MV_LogDataSourceType>& dataSourceTypes,
                                           const FrameCallback& callback, bool loop, int32_t maxFrameDelayMs)
    : logFile(requireLogFile(std::move(file))),
      dataSources(selectDataSources(*logFile, dataSourceTypes)),
      frames(logFile->getEntryIndex(filterForDataSources(dataSources))),
      frameCallback(callback),
      loopPlayback(loop),
      maxFrameDelay(maxFrameDelayMs),
      sqliteFile(std::as_const(*logFile).sqliteLogFile()) {
    updateBookmarkList();
}

LogFilePlayerPrivate::LogFilePlayerPrivate(std::unique_ptr<LogFileInterface> file,
                                           const std::vector<MV_LogDataSourceType>& dataSourceTypes,
                                           const FrameCallback& callback, const PlayerOptions& options)
    : logFile(requireLogFile(std::move(file))),
      dataSources(selectDataSources(*logFile, dataSourceTypes)),
      frameCallback(callback),
      pacing(options.pacing),
      loopPlayback(options.loop),
      maxFrameDelay(std::numeric_limits<int32_t>::max()),
      playbackSpeedMultiplier(options.speed),
      // Reading advances first: the first play() delivers frame 0.
      currentFrame(-1),
      order(options.order),
      builtWithOptions(true),
      delayCap(options.maxFrameDelay),
      sqliteFile(std::as_const(*logFile).sqliteLogFile()) {
    const EntryIndexFilter filter = filterForDataSources(dataSources);
    frames = order == FrameOrder::Time ? framesInTimeOrder(filter) : logFile->getEntryIndex(filter);
    updateBookmarkList();
}

std::vector<int32_t> LogFilePlayerPrivate::framesInTimeOrder(const EntryIndexFilter& filter) const {
    std::vector<std::pair<int64_t, int32_t>> keyed;
    if (sqliteFile != nullptr) {
        const bool read =
            sqliteFile->visitEntrySummaries(EntryRange::all(), filter, [&keyed](const EntrySummary& entry) {
                keyed.emplace_back(entry.timestamp, entry.entryId);
                return true;
            });
        if (!read) {
            throw std::runtime_error("Cannot order the frames of '" + sqliteFile->getFilePath().string() +
                                     "' by time: " + sqliteFile->getLastFailure());
        }
    } else {
        // Another implementation tells timestamps only with the entries.
        const std::vector<int32_t> ids = logFile->getEntryIndex(filter);
        keyed.reserve(ids.size());
        int64_t previous = std::numeric_limits<int64_t>::min();
        for (const int32_t id : ids) {
            // An entry the file does not hand out stays beside the one before it.
            if (const std::optional<DataEntry> entry = logFile->readEntry(id)) {
                previous = entry->timestamp;
            }
            keyed.emplace_back(previous, id);
        }
    }
    // A file written in time order costs no sort.
    if (!std::is_sorted(keyed.begin(), keyed.end())) {
        std::sort(keyed.begin(), keyed.end());
    }
    std::vector<int32_t> ordered;
    ordered.reserve(keyed.size());
    for (const auto& [timestamp, id] : keyed) {
        ordered.push_back(id);
    }
    return ordered;
}

bool LogFilePlayerPrivate::isPlaying() {
    std::lock_guard lock(mutex);
    return playing;
}

void LogFilePlayerPrivate::play() {
    {
        std::lock_guard lock(mutex);
        if (playing) {
            return;
        }
        playing = true;
    }
    // A worker that reached the end of the frames by itself is still joinable.
    if (playbackThread.joinable()) {
        playbackThread.join();
    }
    try {
        playbackThread = std::thread(PlaybackWorker{this});
    } catch (...) {
        std::lock_guard lock(mutex);
        playing = false;
        throw;
    }
}

void LogFilePlayerPrivate::stop() {
    std::unique_lock lock(mutex);
    if (!playing) {
        // Reaps a worker that ended by itself; it no longer takes the lock.
        if (playbackThread.joinable()) {
            playbackThread.join();
        }
        return;
    }
    playing = false;
    lock.unlock();
    condition.notify_one();
    playbackThread.join();
}

void LogFilePlayerPrivate::seek(int32_t frame, const FrameCallback& callback) {
    const bool wasPlaying = isPlaying();
    if (wasPlaying) {
        stop();
    }
    currentFrame = frame == std::numeric_limits<int32_t>::min() ? frame : frame - 1;
    // Past the end without looping nothing is read, and the entry already held
    // is delivered again under the requested number.
    readNextFrame();
    // A later play() then waits the true gap from this frame to the next.
    if (currentEntry) {
        lastTimestamp = currentEntry->timestamp;
        hasPrevious = !(currentIsPlaceholder && !hasPrevious);
    }
    deliverSought(frame, callback);
    if (wasPlaying) {
        play();
    }
}

int32_t LogFilePlayerPrivate::seekToTime(int64_t timestamp, const FrameCallback& callback) {
    const bool wasPlaying = isPlaying();
    if (wasPlaying) {
        stop();
    }
    int32_t low = 0;
    int32_t high = frameCount();
    while (low < high) {
        const int32_t middle = low + (high - low) / 2;
        if (timestampOnlyOfFrame(middle) < timestamp) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    seek(low, callback);
    if (wasPlaying) {
        play();
    }
    return low;
}

void LogFilePlayerPrivate::deliverSought(int32_t frame, const FrameCallback& callback) {
    const FrameCallback& target = callback ? callback : frameCallback;
    // Before anything was read there is no entry to show; an empty one stands
    // in for it.
    DataEntry entry = currentEntry ? takeCurrentEntry() : DataEntry{};
    // An empty target throws std::bad_function_call, as documented.
    target(frame, std::move(entry));
}

int32_t LogFilePlayerPrivate::getTotalPlayTime() {
    if (frames.empty()) {
        return 0;
    }
    const bool wasPlaying = isPlaying();
    if (wasPlaying) {
        stop();
    }
    const int32_t savedFrame = currentFrame;
    const int64_t first = timestampOfFrame(0);
    const int64_t last = timestampOfFrame(frameCount() - 1);
    currentFrame = savedFrame;
    if (wasPlaying) {
        play();
    }
    // Modular arithmetic: the span is truncated to 32 bits without overflow.
    return static_cast<int32_t>(static_cast<uint64_t>(last) - static_cast<uint64_t>(first));
}

int64_t LogFilePlayerPrivate::timestampOfFrame(int32_t frame) {
    currentFrame = frame - 1;
    readNextFrame();
    return currentEntry->timestamp;
}

int64_t LogFilePlayerPrivate::timestampOnlyOfFrame(int32_t frame) {
    if (sqliteFile != nullptr) {
        if (const std::optional<int64_t> timestamp =
                sqliteFile->getEntryTimestamp(frames[static_cast<std::size_t>(frame)])) {
            return *timestamp;
        }
    }
    return timestampOfFrame(frame);
}

std::optional<std::pair<int64_t, int32_t>> LogFilePlayerPrivate::timeKeyOfEntry(int32_t entryId) const {
    if (sqliteFile != nullptr) {
        if (const std::optional<int64_t> timestamp = sqliteFile->getEntryTimestamp(entryId)) {
            return std::pair{*timestamp, entryId};
        }
        return std::nullopt;
    }
    if (const std::optional<DataEntry> entry = logFile->readEntry(entryId)) {
        return std::pair{entry->timestamp, entryId};
    }
    return std::nullopt;
}

// The lower bound of the bookmark's entry among the frames ordered by
// (timestamp, id): its own frame when it is played, the next one in time
// otherwise, the last frame past the end or when the entry is unknown (a
// SqliteLogFile hands out bookmarks of its own entries only).
int32_t LogFilePlayerPrivate::frameOfEntryInTime(int32_t entryId) const {
    if (frames.empty()) {
        return -1;
    }
    const std::optional<std::pair<int64_t, int32_t>> key = timeKeyOfEntry(entryId);
    const int32_t last = frameCount() - 1;
    if (!key) {
        return last;
    }
    int32_t low = 0;
    int32_t high = frameCount();
    while (low < high) {
        const int32_t middle = low + (high - low) / 2;
        const int32_t id = frames[static_cast<std::size_t>(middle)];
        const std::optional<std::pair<int64_t, int32_t>> probe = timeKeyOfEntry(id);
        // A frame the file cannot tell about is taken as its own id at the
        // earliest time: the search still ends.
        if (probe.value_or(std::pair{std::numeric_limits<int64_t>::min(), id}) < *key) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return std::min(low, last);
}

bool LogFilePlayerPrivate::readNextFrame() {
    if (currentFrame < std::numeric_limits<int32_t>::max()) {
        ++currentFrame;
    }
    if (currentFrame >= frameCount()) {
        if (!loopPlayback.load() || frames.empty()) {
            return false;
        }
        currentFrame = 0;
        lastTimestamp = 0;
        hasPrevious = false;
    }
    if (currentFrame < 0) {
        return false;
    }
    readCurrentFrame();
    return true;
}

void LogFilePlayerPrivate::readCurrentFrame() {
    const int32_t entryId = frames[static_cast<std::size_t>(currentFrame)];
    std::optional<DataEntry> entry;
    if (!unreadableFrameHandler) {
        entry = logFile->readEntry(entryId);
    } else {
        try {
            entry = logFile->readEntry(entryId);
        } catch (const std::exception& error) {
            unreadableFrameHandler(currentFrame, entryId, error.what());
        }
    }
    currentIsPlaceholder = !entry;
    currentEntry = std::make_unique<DataEntry>(entry ? std::move(*entry) : placeholderForCurrentFrame());
}

int64_t LogFilePlayerPrivate::gapToCurrentFrame() const {
    if (builtWithOptions && !hasPrevious) {
        return 0;
    }
    return timestampGap(currentEntry->timestamp, lastTimestamp);
}

// A placeholder without a predecessor carries no time of its own (its
// timestamp is lastTimestamp's), so the next frame is due at once too.
void LogFilePlayerPrivate::advancePrevious() {
    if (!(currentIsPlaceholder && !hasPrevious)) {
        hasPrevious = true;
    }
    lastTimestamp = currentEntry->timestamp;
}

// The frame list comes from the file's own index, so every id should be
// readable. If one is not (the file changed underneath, or a read failed),
// playback goes on with an empty entry that keeps the frame's id and adds no
// wait of its own.
DataEntry LogFilePlayerPrivate::placeholderForCurrentFrame() const {
    DataEntry placeholder;
    placeholder.entryId = frames[static_cast<std::size_t>(currentFrame)];
    placeholder.dataSourceId = -1;
    placeholder.type = 0;
    placeholder.timestamp = lastTimestamp;
    return placeholder;
}

DataEntry LogFilePlayerPrivate::takeCurrentEntry() {
    DataEntry entry;
    entry.entryId = currentEntry->entryId;
    entry.dataSourceId = currentEntry->dataSourceId;
    entry.type = currentEntry->type;
    entry.timestamp = currentEntry->timestamp;
    entry.data = std::move(currentEntry->data);
    currentEntry->data.clear();
    return entry;
}

void LogFilePlayerPrivate::runPlayback() {
    if (pacing == Pacing::Exact) {
        runExactPlayback();
        return;
    }
    // Lateness of the previous cycle (reading, oversleeping, the callback's own
    // time), taken off the next wait so that the run keeps the recorded pace.
    int64_t carry = 0;
    while (true) {
        const Clock::time_point cycleStart = Clock::now();
        if (!readNextFrame()) {
            finishPlayback();
            return;
        }
        const int64_t wait =
            builtWithOptions
                ? computeCappedFrameWait(gapToCurrentFrame(), delayCap, playbackSpeedMultiplier.load(), carry)
                : computeFrameWait(gapToCurrentFrame(), maxFrameDelay, playbackSpeedMultiplier.load(), carry);
        advancePrevious();
        const int64_t readTime = millisecondsSince(cycleStart);
        const Clock::time_point waitStart = Clock::now();
        int64_t overshoot = 0;
        Clock::time_point callbackStart;
        {
            std::unique_lock lock(mutex);
            waitForFrameDue(lock, wait);
            overshoot = millisecondsSince(waitStart) - wait + readTime;
            callbackStart = Clock::now();
            if (!playing) {
                // Stopped while waiting: the frame read is not delivered.
                return;
            }
        }
        // Called without the lock, so that the callback may call the setters and
        // stop() is never held up by it. An empty callback throws here.
        frameCallback(currentFrame, takeCurrentEntry());
        carry = overshoot + millisecondsSince(callbackStart);
    }
}

void LogFilePlayerPrivate::runExactPlayback() {
    Clock::time_point due = Clock::now();
    while (true) {
        if (!readNextFrame()) {
            finishPlayback();
            return;
        }
        const float speed = playbackSpeedMultiplier.load();
        due += std::chrono::duration_cast<Clock::duration>(
            builtWithOptions ? scaledFrameGap(gapToCurrentFrame(), speed, delayCap)
                             : idealFrameGap(gapToCurrentFrame(), maxFrameDelay, speed));
        advancePrevious();
        {
            std::unique_lock lock(mutex);
            waitUntil(lock, due);
            if (!playing) {
                return;
            }
        }
        frameCallback(currentFrame, takeCurrentEntry());
    }
}

void LogFilePlayerPrivate::finishPlayback() {
    std::lock_guard lock(mutex);
    playing = false;
}

void LogFilePlayerPrivate::waitForFrameDue(std::unique_lock<std::mutex>& lock, int64_t waitMs) {
    waitUntil(lock,
              Clock::now() + std::chrono::milliseconds(std::clamp(waitMs, -kLongestWaitMs, kLongestWaitMs)));
}

void LogFilePlayerPrivate::waitUntil(std::unique_lock<std::mutex>& lock, Clock::time_point deadline) {
    // Woken early only by stop() (or spuriously): re-test `playing` each time.
    while (playing) {
        condition.wait_until(lock, deadline);
        if (deadline <= Clock::now()) {
            break;
        }
    }
}

void LogFilePlayerPrivate::updateBookmarkList() {
    std::vector<Bookmark> fileBookmarks = logFile->getBookmarks();
    bookmarks.clear();
    bookmarks.reserve(fileBookmarks.size());
    // Kept in the file's order; the payload is deliberately left behind.
    for (Bookmark& fileBookmark : fileBookmarks) {
        PlayerBookmark& bookmark = bookmarks.emplace_back(fileBookmark.entryId, std::move(fileBookmark.title),
                                                          std::move(fileBookmark.comments));
        bookmark.frame = order == FrameOrder::Time ? frameOfEntryInTime(fileBookmark.entryId)
                                                   : frameOfEntry(frames, fileBookmark.entryId);
    }
}

}  // namespace Marivane::Logging::Playback
