#include "Arguments.h"
#include "Commands.h"
#include "Format.h"
#include "KeyboardInput.h"
#include "LogFileAccess.h"
#include "Replay.h"
#include "Terminal.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace Mvlog {

using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::LogFileInterface;
using Marivane::Logging::Playback::FrameOrder;
using Marivane::Logging::Playback::LogFilePlayer;
using Marivane::Logging::Playback::Pacing;
using Marivane::Logging::Playback::PlayerOptions;
using Clock = std::chrono::steady_clock;

namespace {

// Entry ids whose payload could not be read; written by the player's worker
// thread through its unreadable-frame handler, read by whoever reports.
class DamageLog {
public:
    void record(int32_t entryId) {
        std::lock_guard lock(mutex_);
        entryIds_.insert(entryId);
    }
    bool contains(int32_t entryId) const {
        std::lock_guard lock(mutex_);
        return entryIds_.count(entryId) != 0;
    }
    std::size_t size() const {
        std::lock_guard lock(mutex_);
        return entryIds_.size();
    }

private:
    mutable std::mutex mutex_;
    std::set<int32_t> entryIds_;
};

// The cap a player in id order has always had unless told otherwise.
constexpr int32_t kIdOrderMaxDelayMs = 1000;

constexpr auto kPollPeriod = std::chrono::milliseconds(50);
constexpr auto kLiveRedrawPeriod = std::chrono::milliseconds(100);
constexpr auto kPeriodicLinePeriod = std::chrono::milliseconds(500);
constexpr auto kRateWindow = std::chrono::seconds(1);

// What the callback keeps of a frame: the payload itself is dropped at once.
struct DeliveredFrame {
    int32_t frame = 0;
    int32_t entryId = 0;
    int64_t timestamp = 0;
    int8_t dataSourceId = -1;
    int32_t type = 0;
    std::size_t size = 0;
    Clock::time_point deliveredAt;
    bool damaged = false;
};

// Handed from the callback (worker thread, or the caller's thread during
// seek) to the loop that prints.
class DeliveryQueue {
public:
    DeliveryQueue(int32_t lastFrame, bool loop, std::shared_ptr<const DamageLog> damage)
        : lastFrame_(lastFrame), loop_(loop), damage_(std::move(damage)) {}

    void push(int32_t frame, const DataEntry& entry) {
        // A frame after an --end is played only in the moment before stop().
        if (frame > lastFrame_ && !loop_) {
            return;
        }
        DeliveredFrame delivered{frame,      entry.entryId,     entry.timestamp, entry.dataSourceId,
                                 entry.type, entry.data.size(), Clock::now()};
        delivered.damaged = damage_->contains(entry.entryId);
        {
            std::lock_guard lock(mutex_);
            pending_.push_back(delivered);
            if (frame == lastFrame_ && !loop_ && !paused_) {
                finished_ = true;
            }
        }
        wake_.notify_one();
    }

    // While paused, frames the user steps to never end the replay, not even
    // the last one: it ends when playback resumes there.
    void setPaused(bool paused) {
        std::lock_guard lock(mutex_);
        paused_ = paused;
    }

    void finish() {
        std::lock_guard lock(mutex_);
        finished_ = true;
    }

    // Waits a little for news; returns what arrived and whether the last
    // frame was among it.
    std::vector<DeliveredFrame> take(bool& finished) {
        std::unique_lock lock(mutex_);
        wake_.wait_for(lock, kPollPeriod, [this] { return !pending_.empty() || finished_; });
        std::vector<DeliveredFrame> taken;
        taken.swap(pending_);
        finished = finished_;
        return taken;
    }

private:
    const int32_t lastFrame_;
    const bool loop_;
    const std::shared_ptr<const DamageLog> damage_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<DeliveredFrame> pending_;
    bool finished_ = false;
    bool paused_ = false;
};

// The ideal schedule: each frame due idealFrameGap after the previous one
// (also after a wrap, where the gap counts from 0), cumulative from the first
// delivery. Under the default pacing the player rounds each wait to whole
// milliseconds and compensates only whole milliseconds of lateness, so its
// drift shows here; exact pacing follows this schedule. A player built with
// options (any time-ordered replay) plays a frame without a predecessor at
// once and caps the gap only after scaling it, when a cap is set at all.
class PacingTracker {
public:
    PacingTracker(double speed, const ReplaySettings& settings)
        : speed_(speed),
          withOptions_(settings.order == FrameOrder::Time),
          carry_(settings.pacing == Pacing::CarryMilliseconds),
          maxDelayMs_(settings.maxDelayMs) {}

    void observe(const DeliveredFrame& frame) {
        if (!started_) {
            started_ = true;
            scheduled_ = frame.deliveredAt;
        } else {
            const bool wrapped = frame.frame <= previousFrame_;
            if (wrapped) {
                previousTimestamp_ = 0;
            }
            if (!(wrapped && withOptions_)) {
                scheduled_ += std::chrono::duration_cast<Clock::duration>(waitBefore(frame.timestamp));
            }
            const double errorMs =
                std::abs(std::chrono::duration<double, std::milli>(frame.deliveredAt - scheduled_).count());
            totalMs_ += errorMs;
            error_.maxMs = std::max(error_.maxMs, errorMs);
            ++error_.samples;
        }
        previousFrame_ = frame.frame;
        previousTimestamp_ = frame.timestamp;
    }

    // After a pause or a step the schedule starts again at the next frame.
    void restart() { started_ = false; }

    PacingError error() const {
        PacingError result = error_;
        result.meanMs = error_.samples == 0 ? 0.0 : totalMs_ / static_cast<double>(error_.samples);
        return result;
    }

private:
    std::chrono::nanoseconds waitBefore(int64_t timestamp) const {
        const int64_t gap = timestamp - previousTimestamp_;
        const auto speed = static_cast<float>(speed_);
        if (!withOptions_) {
            return Marivane::Logging::Playback::idealFrameGap(gap, maxDelayMs_.value_or(kIdOrderMaxDelayMs),
                                                              speed);
        }
        if (carry_ && maxDelayMs_) {
            return Marivane::Logging::Playback::idealFrameGap(gap, *maxDelayMs_, speed);
        }
        std::optional<std::chrono::milliseconds> cap;
        if (maxDelayMs_) {
            cap = std::chrono::milliseconds(*maxDelayMs_);
        }
        return Marivane::Logging::Playback::scaledFrameGap(gap, speed, cap);
    }

    double speed_;
    bool withOptions_;
    bool carry_;
    std::optional<int32_t> maxDelayMs_;
    bool started_ = false;
    Clock::time_point scheduled_;
    int32_t previousFrame_ = 0;
    int64_t previousTimestamp_ = 0;
    double totalMs_ = 0.0;
    PacingError error_;
};

// Frames per second and achieved speed over the last second of deliveries.
class RateWindow {
public:
    void observe(const DeliveredFrame& frame) {
        samples_.push_back({frame.deliveredAt, frame.timestamp});
        while (samples_.size() > 2 && frame.deliveredAt - samples_.front().first > kRateWindow) {
            samples_.pop_front();
        }
    }

    std::string text() const {
        if (samples_.size() < 2) {
            return "-- fps";
        }
        const double seconds =
            std::chrono::duration<double>(samples_.back().first - samples_.front().first).count();
        if (seconds <= 0.0) {
            return "-- fps";
        }
        const double fps = static_cast<double>(samples_.size() - 1) / seconds;
        const double recorded =
            static_cast<double>(samples_.back().second - samples_.front().second) / 1000.0;
        return fmt::format("{:.1f} fps, {:.2f}x", fps, recorded / seconds);
    }

private:
    std::deque<std::pair<Clock::time_point, int64_t>> samples_;
};

class StatusPrinter {
public:
    StatusPrinter(std::FILE* stream, StatusStyle style, std::map<int8_t, std::string> sourceNames,
                  std::size_t frameCount)
        : line_(stream, style == StatusStyle::Live),
          style_(style),
          sourceNames_(std::move(sourceNames)),
          lastFrame_(frameCount == 0 ? 0 : frameCount - 1) {}

    void observe(const DeliveredFrame& frame) {
        rate_.observe(frame);
        latest_ = frame;
        hasLatest_ = true;
        if (style_ == StatusStyle::EveryFrame || paused_) {
            draw();
        }
    }

    // Live and periodic styles draw the latest frame at their own pace;
    // `force` draws whatever is pending (at the end).
    void refresh(bool force) {
        if (!hasLatest_) {
            return;
        }
        const auto period = style_ == StatusStyle::Live ? kLiveRedrawPeriod : kPeriodicLinePeriod;
        const auto now = Clock::now();
        if (force || now - lastDrawn_ >= period) {
            draw();
        }
    }

    void finish() { line_.finish(); }

    // Shows (or stops showing) that the replay waits for a key, redrawing the
    // latest frame's line at once.
    void setPaused(bool paused) {
        paused_ = paused;
        if (!hasLatest_ && hasDrawn_) {
            // Nothing newer waits to be drawn: the line shown is drawn again.
            latest_ = lastShown_;
            hasLatest_ = true;
        }
        refresh(true);
    }

private:
    std::string describe(const DeliveredFrame& frame) const {
        const std::string state = paused_ ? "  [paused: space resumes, arrow keys step]" : "";
        if (frame.damaged) {
            return fmt::format("frame {}/{}  entry {}  damaged payload, delivered empty{}", frame.frame,
                               lastFrame_, frame.entryId, state);
        }
        const auto name = sourceNames_.find(frame.dataSourceId);
        return fmt::format("frame {}/{}  entry {}  {}  {} ({})  type {}  {}  {}{}", frame.frame, lastFrame_,
                           frame.entryId, isoTimestamp(frame.timestamp),
                           name == sourceNames_.end() ? "?" : name->second, frame.dataSourceId, frame.type,
                           humanSize(frame.size), paused_ ? "paused" : rate_.text(), state);
    }

    void draw() {
        line_.update(describe(latest_));
        lastDrawn_ = Clock::now();
        lastShown_ = latest_;
        hasDrawn_ = true;
        hasLatest_ = false;
    }

    StatusLine line_;
    StatusStyle style_;
    std::map<int8_t, std::string> sourceNames_;
    std::size_t lastFrame_;
    RateWindow rate_;
    DeliveredFrame latest_;
    bool hasLatest_ = false;
    DeliveredFrame lastShown_;
    bool hasDrawn_ = false;
    bool paused_ = false;
    Clock::time_point lastDrawn_;
};

LogFilePlayer makePlayer(std::unique_ptr<LogFileInterface> file, const ReplaySettings& settings,
                         const Marivane::Logging::Playback::FrameCallback& callback) {
    // Returned as prvalues: a moved-from player must not be destroyed.
    if (settings.order == FrameOrder::Id) {
        return LogFilePlayer(std::move(file), settings.sourceTypes, callback, settings.loop,
                             settings.maxDelayMs.value_or(kIdOrderMaxDelayMs));
    }
    PlayerOptions options;
    options.order = FrameOrder::Time;
    options.pacing = settings.pacing;
    options.loop = settings.loop;
    options.speed = static_cast<float>(settings.speed);
    if (settings.maxDelayMs) {
        options.maxFrameDelay = std::chrono::milliseconds(*settings.maxDelayMs);
    }
    return LogFilePlayer(std::move(file), settings.sourceTypes, callback, options);
}

// What the keys do to a running replay: space pauses and resumes, the arrow
// keys pause and step one frame back or forward (within the frames the replay
// plays), q ends it as Ctrl-C does.
class ReplayControls {
public:
    ReplayControls(LogFilePlayer& player, DeliveryQueue& queue, PacingTracker& pacing, StatusPrinter& printer,
                   int32_t lastFrame, bool loop)
        : player_(player),
          queue_(queue),
          pacing_(pacing),
          printer_(printer),
          lastFrame_(lastFrame),
          loop_(loop) {}

    void observe(const DeliveredFrame& frame) { current_ = frame.frame; }

    // Answers false when the user asked to quit.
    bool apply(Key key) {
        if (key == Key::Space) {
            paused_ ? resume() : pause();
        } else if (key == Key::Left || key == Key::Right) {
            step(key == Key::Left ? -1 : +1);
        }
        return key != Key::Quit;
    }

private:
    void pause() {
        player_.stop();
        paused_ = true;
        queue_.setPaused(true);
        printer_.setPaused(true);
    }

    void resume() {
        paused_ = false;
        queue_.setPaused(false);
        printer_.setPaused(false);
        pacing_.restart();
        if (current_ >= lastFrame_ && !loop_) {
            queue_.finish();
            return;
        }
        player_.play();
    }

    void step(int32_t by) {
        if (!paused_) {
            pause();
        }
        // Keys typed together step from one another, before the frames they
        // deliver are taken from the queue.
        current_ = std::clamp(current_ + by, 0, lastFrame_);
        pacing_.restart();
        // Delivered here and now through the replay's own callback.
        player_.seek(current_, {});
    }

    LogFilePlayer& player_;
    DeliveryQueue& queue_;
    PacingTracker& pacing_;
    StatusPrinter& printer_;
    const int32_t lastFrame_;
    const bool loop_;
    int32_t current_ = 0;
    bool paused_ = false;
};

}  // namespace

ReplayReport replayLogFile(std::unique_ptr<LogFileInterface> file, const ReplaySettings& settings,
                           std::FILE* stream) {
    std::map<int8_t, std::string> names;
    for (const DataSource& source : file->getDataSources()) {
        names[source.id] = printable(source.name);
    }
    ReplayReport report;
    auto damage = std::make_shared<DamageLog>();

    // The queue must outlive the player, whose worker calls into it.
    std::unique_ptr<DeliveryQueue> queue;
    LogFilePlayer player = makePlayer(
        std::move(file), settings, [&queue](int32_t frame, DataEntry entry) { queue->push(frame, entry); });
    // A damaged payload becomes an empty frame, logged for the report.
    player.setUnreadableFrameHandler(
        [damage](int32_t, int32_t entryId, const std::string&) { damage->record(entryId); });
    if (settings.order == FrameOrder::Id) {
        player.setPacing(settings.pacing);
    }
    report.frameCount = player.getFrameCount();
    if (report.frameCount == 0) {
        return report;
    }
    if (settings.fromFrame < 0 || static_cast<std::size_t>(settings.fromFrame) >= report.frameCount) {
        throw ToolError(fmt::format("frame {} does not exist (the replay has frames 0 to {})",
                                    settings.fromFrame, static_cast<int64_t>(report.frameCount) - 1));
    }
    auto lastFrame = static_cast<int32_t>(report.frameCount - 1);
    if (settings.toTimestamp) {
        // The frame count at or before the end, found by the player's own
        // bisection; the frame it delivers is dropped.
        lastFrame = player.seekToTime(*settings.toTimestamp + 1, [](int32_t, const DataEntry&) {}) - 1;
        const int32_t firstFrame =
            settings.fromTimestamp
                ? player.seekToTime(*settings.fromTimestamp, [](int32_t, const DataEntry&) {})
                : settings.fromFrame;
        if (lastFrame < firstFrame) {
            throw ToolError("no frame to play: the first frame at or after the start is after --end");
        }
    }
    queue = std::make_unique<DeliveryQueue>(lastFrame, settings.loop, damage);
    report.recordedSpanMs = player.getTotalPlayTime();
    player.setPlaybackSpeedMultiplier(static_cast<float>(settings.speed));

    StatusPrinter printer(stream, settings.style, std::move(names), report.frameCount);
    PacingTracker pacing(settings.speed, settings);
    InterruptGuard interrupts;
    const auto start = Clock::now();
    // seek delivers the first frame here and now; play() goes on after it.
    if (settings.fromTimestamp) {
        player.seekToTime(*settings.fromTimestamp, {});
    } else {
        player.seek(settings.fromFrame, {});
    }
    player.play();
    std::optional<int64_t> firstTimestamp;
    auto observe = [&](const DeliveredFrame& frame) {
        pacing.observe(frame);
        printer.observe(frame);
        ++report.framesDelivered;
        firstTimestamp = firstTimestamp.value_or(frame.timestamp);
        report.playedSpanMs = frame.timestamp - *firstTimestamp;
    };
    std::optional<KeyboardInput> keyboard;
    if (settings.interactive) {
        keyboard.emplace();
    }
    ReplayControls controls(player, *queue, pacing, printer, lastFrame, settings.loop);
    bool finished = false;
    bool quit = false;
    while (!finished && !quit && !interruptRequested()) {
        for (const DeliveredFrame& frame : queue->take(finished)) {
            observe(frame);
            controls.observe(frame);
        }
        if (keyboard) {
            for (const Key key : keyboard->poll()) {
                quit = quit || !controls.apply(key);
            }
        }
        printer.refresh(finished);
    }
    player.stop();
    report.wallSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    report.interrupted = !finished;
    // Anything delivered between the last look and stop() still counts.
    bool ignored = false;
    for (const DeliveredFrame& frame : queue->take(ignored)) {
        observe(frame);
    }
    printer.refresh(true);
    printer.finish();
    report.pacing = pacing.error();
    report.damagedEntries = damage->size();
    return report;
}

std::string replayReportText(const ReplayReport& report, double speed) {
    return fmt::format(
        "Played {} of {} frames ({} of recording) in {} at {}x; pacing error mean {:.2f} ms, max "
        "{:.2f} ms{}",
        report.framesDelivered, report.frameCount, humanDuration(report.playedSpanMs),
        humanDuration(std::llround(report.wallSeconds * 1000.0)), speed, report.pacing.meanMs,
        report.pacing.maxMs, report.interrupted ? " (interrupted)" : "");
}

int runPlay(const PlayOptions& options) {
    auto file = openExistingLogFile(options.file);
    ReplaySettings settings = options.replay;
    const TimeWindow window = parseTimeWindow(options.start, options.end, *file);
    if (options.start) {
        settings.fromTimestamp = window.start;
    }
    if (options.end) {
        settings.toTimestamp = window.end;
    }
    settings.style = isTerminal(stdout) ? StatusStyle::Live : StatusStyle::EveryFrame;
    settings.interactive = isTerminal(stdin) && isTerminal(stdout);

    fmt::print("Playing {} at {}x{}; {}\n", options.file, settings.speed, settings.loop ? ", looping" : "",
               settings.interactive ? "space pauses, arrow keys step, q or Ctrl-C stops" : "Ctrl-C stops");
    std::fflush(stdout);
    const ReplayReport report = replayLogFile(std::move(file), settings, stdout);
    if (report.frameCount == 0) {
        fmt::print("Nothing to play: the file has no entries.\n");
        return 0;
    }
    fmt::print("{}\n", replayReportText(report, settings.speed));
    if (report.damagedEntries == 1) {
        throw ToolError(
            "1 entry has a damaged payload and was played as an empty frame; run `mvlog check` for details");
    }
    if (report.damagedEntries > 1) {
        throw ToolError(
            fmt::format("{} entries have damaged payloads and were played as empty frames; run `mvlog "
                        "check` for details",
                        report.damagedEntries));
    }
    return 0;
}

}  // namespace Mvlog
