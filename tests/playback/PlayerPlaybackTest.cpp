#include <logging/LogFilePlayer.h>

#include "PlaybackTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

using namespace Marivane::Testing;
using namespace std::chrono_literals;

namespace {

// Timestamps far from 0, like real recordings: the first frame after
// construction or a wrap then waits the maximum frame delay.
constexpr int64_t kRecordingStart = 1700000000000;

std::vector<int64_t> evenlySpaced(int64_t first, int64_t step, int count) {
    std::vector<int64_t> timestamps;
    for (int i = 0; i < count; ++i) {
        timestamps.push_back(first + step * i);
    }
    return timestamps;
}

std::vector<int64_t> intervalsOf(const std::vector<FrameRecorder::Delivery>& deliveries) {
    std::vector<int64_t> intervals;
    for (std::size_t i = 1; i < deliveries.size(); ++i) {
        intervals.push_back(millisecondsBetween(deliveries[i - 1].at, deliveries[i].at));
    }
    return intervals;
}

TEST(PlayerPlayback, FirstPlayDeliversFromFrameOneAndFinishes) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {0, 20, 40}),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 1000);
    player.play();
    ASSERT_TRUE(recorder.waitForCount(2));
    std::this_thread::sleep_for(200ms);
    const auto deliveries = recorder.deliveries();
    ASSERT_EQ(deliveries.size(), 2u);
    EXPECT_EQ(deliveries[0].frame, 1);
    EXPECT_EQ(deliveries[0].entry.entryId, 2);
    EXPECT_EQ(deliveries[0].entry.dataSourceId, 1);
    EXPECT_EQ(deliveries[0].entry.type, 7);
    EXPECT_EQ(deliveries[0].entry.timestamp, 20);
    EXPECT_EQ(deliveries[0].entry.data, payloadFor(20));
    EXPECT_EQ(deliveries[1].frame, 2);
    EXPECT_EQ(deliveries[1].entry.entryId, 3);
    EXPECT_EQ(deliveries[1].entry.data, payloadFor(40));
    EXPECT_NE(deliveries[0].thread, std::this_thread::get_id());

    const auto beforeStop = SteadyClock::now();
    player.stop();
    EXPECT_LT(millisecondsBetween(beforeStop, SteadyClock::now()), 1000);
}

TEST(PlayerPlayback, PlayAfterTheEndDeliversNothing) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {0, 5}), {MV_LogDataSourceType_Camera},
                         recorder.callback(), false, 1000);
    player.play();
    ASSERT_TRUE(recorder.waitForCount(1));
    // Restarting without stopping first joins the finished worker.
    player.play();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(recorder.frames(), (std::vector<int32_t>{1}));
    player.stop();
}

TEST(PlayerPlayback, SecondPlayWhilePlayingStartsNoSecondWorker) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), evenlySpaced(0, 30, 6)),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 1000);
    player.play();
    player.play();
    ASSERT_TRUE(recorder.waitForCount(5));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(recorder.frames(), (std::vector<int32_t>{1, 2, 3, 4, 5}));
}

TEST(PlayerPlayback, StopWithoutPlayingIsHarmless) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {0, 5}), {MV_LogDataSourceType_Camera},
                         recorder.callback(), false, 1000);
    player.stop();
    player.stop();
    EXPECT_EQ(recorder.count(), 0u);
}

TEST(PlayerPlayback, FirstFrameOfARecordingWaitsTheMaximumFrameDelay) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), evenlySpaced(kRecordingStart, 10, 3)),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 300);
    const auto start = SteadyClock::now();
    player.play();
    ASSERT_TRUE(recorder.waitForCount(1));
    const int64_t waited = millisecondsBetween(start, recorder.deliveries()[0].at);
    EXPECT_GE(waited, 280);
    EXPECT_LT(waited, 3000);
}

TEST(PlayerPlayback, GapsAreDividedByTheSpeedMultiplier) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), evenlySpaced(0, 100, 11)),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 1000);
    player.setPlaybackSpeedMultiplier(2.0F);
    const auto start = SteadyClock::now();
    player.play();
    ASSERT_TRUE(recorder.waitForCount(10));
    const auto deliveries = recorder.deliveries();
    // The first wait has no lateness to make up for: exactly 50 ms.
    const int64_t first = millisecondsBetween(start, deliveries[0].at);
    EXPECT_GE(first, 30);
    EXPECT_LE(first, 150);
    std::vector<int64_t> intervals = intervalsOf(deliveries);
    std::sort(intervals.begin(), intervals.end());
    const int64_t median = intervals[intervals.size() / 2];
    EXPECT_GE(median, 30);
    EXPECT_LE(median, 150);
    // Ten gaps of 50 ms: well below the 1000 ms they take at speed 1.
    const int64_t total = millisecondsBetween(start, deliveries.back().at);
    EXPECT_GE(total, 400);
    EXPECT_LE(total, 850);
}

TEST(PlayerPlayback, GapAtTheMaximumWaitsTheMaximumWhateverTheSpeed) {
    TempDir dir;
    for (float speed : {8.0F, 0.25F}) {
        SCOPED_TRACE(speed);
        FrameRecorder recorder;
        LogFilePlayer player(makeSingleSourceFile(dir.file("speed" + std::to_string(speed) + ".mvlog"),
                                                  evenlySpaced(0, 200, 4)),
                             {MV_LogDataSourceType_Camera}, recorder.callback(), false, 200);
        player.setPlaybackSpeedMultiplier(speed);
        player.play();
        ASSERT_TRUE(recorder.waitForCount(3));
        for (int64_t interval : intervalsOf(recorder.deliveries())) {
            // 25 ms at speed 8, 800 ms at speed 0.25 if the speed applied.
            EXPECT_GE(interval, 180);
            EXPECT_LE(interval, 750);
        }
    }
}

TEST(PlayerPlayback, StopDuringALongWaitReturnsPromptlyAndDeliversNothing) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {0, 10000, 20000}),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 60000);
    player.play();
    std::this_thread::sleep_for(100ms);
    const auto beforeStop = SteadyClock::now();
    player.stop();
    EXPECT_LT(millisecondsBetween(beforeStop, SteadyClock::now()), 1000);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(recorder.count(), 0u);
}

TEST(PlayerPlayback, PlayAfterStopGoesOnAfterTheFrameThatWasWaitedFor) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {0, 10000, 10050, 10100}),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 60000);
    player.play();
    std::this_thread::sleep_for(50ms);
    player.stop();
    const auto restart = SteadyClock::now();
    player.play();
    ASSERT_TRUE(recorder.waitForCount(2));
    const auto deliveries = recorder.deliveries();
    EXPECT_EQ(recorder.frames(), (std::vector<int32_t>{2, 3}));
    // Frame 2 waits its gap to frame 1 (50 ms), not the 10 s gap of frame 1.
    EXPECT_LT(millisecondsBetween(restart, deliveries[0].at), 1000);
}

TEST(PlayerPlayback, LoopingWrapsToFrameZeroAfterTheMaximumFrameDelay) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), evenlySpaced(kRecordingStart, 10, 3)),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), true, 300);
    player.play();
    ASSERT_TRUE(recorder.waitForCount(5));
    player.stop();
    const auto deliveries = recorder.deliveries();
    const std::vector<int32_t> frames = recorder.frames();
    EXPECT_EQ(std::vector<int32_t>(frames.begin(), frames.begin() + 5),
              (std::vector<int32_t>{1, 2, 0, 1, 2}));
    EXPECT_EQ(deliveries[2].entry.entryId, 1);
    EXPECT_EQ(deliveries[2].entry.data, payloadFor(kRecordingStart));
    const std::vector<int64_t> intervals = intervalsOf(deliveries);
    // 2 -> 0 waits the maximum (the last timestamp was reset to 0) ...
    EXPECT_GE(intervals[1], 280);
    EXPECT_LE(intervals[1], 2000);
    // ... while 1 -> 2 and 0 -> 1 wait their 10 ms gaps.
    EXPECT_LT(intervals[0], 250);
    EXPECT_LT(intervals[2], 250);
}

TEST(PlayerPlayback, LoopFlagChangedWhilePlayingTakesEffectAtTheEnd) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), evenlySpaced(kRecordingStart, 10, 3)),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 200);
    player.play();
    player.setLoopPlayback(true);
    ASSERT_TRUE(recorder.waitForCount(3));
    EXPECT_EQ(recorder.frames()[2], 0);
    player.setLoopPlayback(false);
    std::this_thread::sleep_for(800ms);
    const std::vector<int32_t> frames = recorder.frames();
    EXPECT_EQ(frames.back(), 2);
    std::this_thread::sleep_for(400ms);
    EXPECT_EQ(recorder.frames().size(), frames.size());
    player.stop();
}

TEST(PlayerPlayback, SpeedChangedWhilePlayingAppliesToLaterFrames) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), evenlySpaced(0, 400, 11)),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 10000);
    const auto start = SteadyClock::now();
    player.play();
    ASSERT_TRUE(recorder.waitForCount(1));
    player.setPlaybackSpeedMultiplier(8.0F);
    ASSERT_TRUE(recorder.waitForCount(10));
    const auto deliveries = recorder.deliveries();
    EXPECT_GE(millisecondsBetween(start, deliveries[0].at), 300);
    // Frame 2's wait may have been computed before the change; from frame 3
    // on every gap is 50 ms instead of 400 ms.
    const std::vector<int64_t> intervals = intervalsOf(deliveries);
    for (std::size_t i = 2; i < intervals.size(); ++i) {
        EXPECT_LE(intervals[i], 300) << "interval before frame " << deliveries[i + 1].frame;
    }
    EXPECT_LE(millisecondsBetween(deliveries[2].at, deliveries.back().at), 1500);
}

TEST(PlayerPlayback, SpeedChangedFromTheCallbackAppliesToTheNextFrame) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer* playerPointer = nullptr;
    recorder.afterDelivery = [&playerPointer](int32_t frame) {
        if (frame == 1) {
            playerPointer->setPlaybackSpeedMultiplier(10.0F);
        }
    };
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {0, 100, 1100, 2100}),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 10000);
    playerPointer = &player;
    const auto start = SteadyClock::now();
    player.play();
    ASSERT_TRUE(recorder.waitForCount(3));
    const auto deliveries = recorder.deliveries();
    EXPECT_GE(millisecondsBetween(start, deliveries[0].at), 80);
    // 1000 ms gaps at speed 1, 100 ms at speed 10.
    for (int64_t interval : intervalsOf(deliveries)) {
        EXPECT_LE(interval, 400);
    }
    EXPECT_GE(millisecondsBetween(start, deliveries.back().at), 250);
}

TEST(PlayerPlayback, SlowCallbackIsMadeUpByShorterWaits) {
    TempDir dir;
    FrameRecorder recorder;
    recorder.afterDelivery = [](int32_t frame) {
        if (frame == 2) {
            std::this_thread::sleep_for(500ms);
        }
    };
    // Frames 1 to 20, 50 ms apart: 1000 ms of recording after frame 0.
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), evenlySpaced(0, 50, 21)),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 1000);
    const auto start = SteadyClock::now();
    player.play();
    ASSERT_TRUE(recorder.waitForCount(20));
    const auto deliveries = recorder.deliveries();
    std::vector<int32_t> expectedFrames;
    for (int32_t frame = 1; frame <= 20; ++frame) {
        expectedFrames.push_back(frame);
    }
    EXPECT_EQ(recorder.frames(), expectedFrames);
    // Without making up for the callback the run would take 1500 ms.
    const int64_t total = millisecondsBetween(start, deliveries.back().at);
    EXPECT_GE(total, 850);
    EXPECT_LE(total, 1300);
    // The frames right after the slow one come at once.
    EXPECT_LT(millisecondsBetween(deliveries[2].at, deliveries[3].at), 100);
}

TEST(PlayerPlayback, CallbacksAlwaysSlowerThanTheGapsPlayEveryFrameInOrder) {
    TempDir dir;
    FrameRecorder recorder;
    recorder.afterDelivery = [](int32_t) { std::this_thread::sleep_for(20ms); };
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), evenlySpaced(0, 5, 11)),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 1000);
    const auto start = SteadyClock::now();
    player.play();
    ASSERT_TRUE(recorder.waitForCount(10));
    EXPECT_EQ(recorder.frames(), (std::vector<int32_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    // The pace is the callback's: no wait is added on top of it.
    EXPECT_LE(millisecondsBetween(start, recorder.deliveries().back().at), 800);
}

TEST(PlayerPlayback, UnreadableEntryIsDeliveredAsPlaceholder) {
    auto file = std::make_unique<FakeLogFile>();
    file->index = {10, 20, 30};
    file->entries[10] = makeEntry(10, 1, 4, 1000);
    file->entries[30] = makeEntry(30, 2, 5, 1040);
    FrameRecorder recorder;
    LogFilePlayer player(std::move(file), {}, recorder.callback(), false, 1000);
    player.seek(0, FrameCallback());
    player.play();
    ASSERT_TRUE(recorder.waitForCount(3));
    const auto deliveries = recorder.deliveries();
    EXPECT_EQ(deliveries[1].frame, 1);
    EXPECT_EQ(deliveries[1].entry.entryId, 20);
    EXPECT_EQ(deliveries[1].entry.dataSourceId, -1);
    EXPECT_EQ(deliveries[1].entry.type, 0);
    EXPECT_TRUE(deliveries[1].entry.data.empty());
    EXPECT_EQ(deliveries[1].entry.timestamp, 1000);
    EXPECT_EQ(deliveries[2].frame, 2);
    EXPECT_EQ(deliveries[2].entry.entryId, 30);
    EXPECT_EQ(deliveries[2].entry.data, payloadFor(1040));
}

TEST(PlayerPlayback, NoFramesWithLoopingPlaysNothing) {
    auto file = std::make_unique<FakeLogFile>();
    FakeLogFile* fake = file.get();
    FrameRecorder recorder;
    LogFilePlayer player(std::move(file), {}, recorder.callback(), true, 10);
    player.play();
    std::this_thread::sleep_for(100ms);
    player.stop();
    EXPECT_EQ(recorder.count(), 0u);
    EXPECT_TRUE(fake->entriesRead.empty());
}

}  // namespace
