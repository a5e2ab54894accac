#include <logging/LogFilePlayer.h>

#include "PlaybackTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

using namespace Marivane::Testing;
using namespace std::chrono_literals;

namespace {

constexpr int64_t kRecordingStart = 1700000000000;

TEST(PlayerSeek, StoppedPlayerDeliversSoughtFrameToConstructorCallbackOnCallingThread) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {0, 10, 20, 30, 40, 50, 350, 360}),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 10000);
    player.seek(5, FrameCallback());
    ASSERT_EQ(recorder.count(), 1u);
    const FrameRecorder::Delivery sought = recorder.deliveries()[0];
    EXPECT_EQ(sought.frame, 5);
    EXPECT_EQ(sought.entry.entryId, 6);
    EXPECT_EQ(sought.entry.dataSourceId, 1);
    EXPECT_EQ(sought.entry.type, 7);
    EXPECT_EQ(sought.entry.timestamp, 50);
    EXPECT_EQ(sought.entry.data, payloadFor(50));
    EXPECT_EQ(sought.thread, std::this_thread::get_id());

    // Playing goes on with frame 6 after the recorded 300 ms gap from frame 5.
    const auto start = SteadyClock::now();
    player.play();
    ASSERT_TRUE(recorder.waitForCount(3));
    const auto deliveries = recorder.deliveries();
    EXPECT_EQ(recorder.frames(), (std::vector<int32_t>{5, 6, 7}));
    EXPECT_EQ(deliveries[1].entry.entryId, 7);
    const int64_t waited = millisecondsBetween(start, deliveries[1].at);
    EXPECT_GE(waited, 250);
    EXPECT_LE(waited, 1500);
}

TEST(PlayerSeek, SeekToFrameZeroThenPlayDeliversFrameOneAfterItsGap) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {kRecordingStart, kRecordingStart + 100}),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 5000);
    player.seek(0, FrameCallback());
    const auto start = SteadyClock::now();
    player.play();
    ASSERT_TRUE(recorder.waitForCount(2));
    EXPECT_EQ(recorder.frames(), (std::vector<int32_t>{0, 1}));
    EXPECT_EQ(recorder.deliveries()[0].entry.timestamp, kRecordingStart);
    // 100 ms, not the 5 s of a first frame measured from timestamp 0.
    EXPECT_LE(millisecondsBetween(start, recorder.deliveries()[1].at), 1500);
}

TEST(PlayerSeek, GivenCallbackIsPreferredToTheConstructorCallback) {
    TempDir dir;
    FrameRecorder constructorRecorder;
    FrameRecorder seekRecorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {0, 10, 20}),
                         {MV_LogDataSourceType_Camera}, constructorRecorder.callback(), false, 1000);
    player.seek(2, seekRecorder.callback());
    EXPECT_EQ(constructorRecorder.count(), 0u);
    ASSERT_EQ(seekRecorder.count(), 1u);
    EXPECT_EQ(seekRecorder.deliveries()[0].frame, 2);
    EXPECT_EQ(seekRecorder.deliveries()[0].entry.entryId, 3);
}

TEST(PlayerSeek, WithoutAnyCallbackThrowsBadFunctionCall) {
    TempDir dir;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {0, 10, 20}),
                         {MV_LogDataSourceType_Camera}, FrameCallback(), false, 1000);
    EXPECT_THROW(player.seek(1, FrameCallback()), std::bad_function_call);
}

TEST(PlayerSeek, PastTheEndWithoutLoopingRedeliversTheCurrentEntryWithoutItsData) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {0, 10, 20}),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 1000);
    player.seek(1, FrameCallback());
    player.seek(100, FrameCallback());
    const auto deliveries = recorder.deliveries();
    ASSERT_EQ(deliveries.size(), 2u);
    EXPECT_EQ(deliveries[0].entry.data, payloadFor(10));
    EXPECT_EQ(deliveries[1].frame, 100);
    EXPECT_EQ(deliveries[1].entry.entryId, 2);
    EXPECT_EQ(deliveries[1].entry.timestamp, 10);
    EXPECT_EQ(deliveries[1].entry.type, 7);
    EXPECT_TRUE(deliveries[1].entry.data.empty());
}

TEST(PlayerSeek, PastTheEndWithLoopingWrapsToFrameZero) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {5, 10, 20}),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), true, 1000);
    player.seek(100, FrameCallback());
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.deliveries()[0].frame, 100);
    EXPECT_EQ(recorder.deliveries()[0].entry.entryId, 1);
    EXPECT_EQ(recorder.deliveries()[0].entry.data, payloadFor(5));
}

TEST(PlayerSeek, PastTheEndBeforeAnythingWasReadDeliversAnEmptyEntry) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {5, 10, 20}),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 1000);
    player.seek(3, FrameCallback());
    ASSERT_EQ(recorder.count(), 1u);
    const DataEntry entry = recorder.deliveries()[0].entry;
    EXPECT_EQ(recorder.deliveries()[0].frame, 3);
    EXPECT_EQ(entry.entryId, 0);
    EXPECT_EQ(entry.dataSourceId, -1);
    EXPECT_EQ(entry.timestamp, 0);
    EXPECT_TRUE(entry.data.empty());
}

TEST(PlayerSeek, NegativeFrameReadsNothing) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {5, 10, 20}),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), true, 1000);
    player.seek(2, FrameCallback());
    player.seek(-7, FrameCallback());
    player.seek(INT32_MIN, FrameCallback());
    const auto deliveries = recorder.deliveries();
    ASSERT_EQ(deliveries.size(), 3u);
    EXPECT_EQ(deliveries[1].frame, -7);
    EXPECT_EQ(deliveries[1].entry.entryId, 3);
    EXPECT_TRUE(deliveries[1].entry.data.empty());
    EXPECT_EQ(deliveries[2].frame, INT32_MIN);
    EXPECT_EQ(deliveries[2].entry.entryId, 3);
}

TEST(PlayerSeek, UnreadableEntryIsDeliveredAsPlaceholder) {
    auto file = std::make_unique<FakeLogFile>();
    file->index = {4, 8};
    file->entries[4] = makeEntry(4, 2, 9, 500);
    FrameRecorder recorder;
    LogFilePlayer player(std::move(file), {}, recorder.callback(), false, 1000);
    player.seek(0, FrameCallback());
    player.seek(1, FrameCallback());
    const auto deliveries = recorder.deliveries();
    ASSERT_EQ(deliveries.size(), 2u);
    EXPECT_EQ(deliveries[1].frame, 1);
    EXPECT_EQ(deliveries[1].entry.entryId, 8);
    EXPECT_EQ(deliveries[1].entry.dataSourceId, -1);
    EXPECT_EQ(deliveries[1].entry.type, 0);
    EXPECT_TRUE(deliveries[1].entry.data.empty());
    EXPECT_EQ(deliveries[1].entry.timestamp, 500);
}

TEST(PlayerSeek, WhilePlayingDeliversOnCallingThreadAndResumesAfterTheSoughtFrame) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {0, 10000, 20000, 30000, 30050, 30100}),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 60000);
    player.play();
    std::this_thread::sleep_for(50ms);
    player.seek(3, FrameCallback());
    ASSERT_EQ(recorder.count(), 1u);
    ASSERT_TRUE(recorder.waitForCount(3));
    std::this_thread::sleep_for(100ms);
    const auto deliveries = recorder.deliveries();
    // Frame 1, waited for when seeking, is never delivered.
    EXPECT_EQ(recorder.frames(), (std::vector<int32_t>{3, 4, 5}));
    EXPECT_EQ(deliveries[0].thread, std::this_thread::get_id());
    EXPECT_EQ(deliveries[0].entry.entryId, 4);
    EXPECT_NE(deliveries[1].thread, std::this_thread::get_id());
    EXPECT_EQ(deliveries[1].entry.entryId, 5);
    EXPECT_EQ(deliveries[2].entry.entryId, 6);
    EXPECT_LE(millisecondsBetween(deliveries[0].at, deliveries[2].at), 1500);
}

// ---- total play time -------------------------------------------------------------

TEST(PlayerTotalPlayTime, IsTheSpanOfThePlayedFrames) {
    TempDir dir;
    LogFileBuilder builder(dir.file("a.mvlog"));
    const int8_t camera = builder.addSource(MV_LogDataSourceType_Camera, "camera");
    const int8_t lidar = builder.addSource(MV_LogDataSourceType_Lidar, "lidar");
    builder.addEntry(lidar, 50);
    builder.addEntry(camera, 100);
    builder.addEntry(camera, 250);
    builder.addEntry(camera, 900);
    builder.addEntry(lidar, 2000);
    LogFilePlayer player(builder.take(), {MV_LogDataSourceType_Camera}, FrameCallback(), false, 1000);
    EXPECT_EQ(player.getTotalPlayTime(), 800);
}

TEST(PlayerTotalPlayTime, OneFrameGivesZeroAndLeavesAStoppedPlayerStopped) {
    TempDir dir;
    FrameRecorder recorder;
    // Looping, so that a player left playing would deliver frame 0 every 50 ms.
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {kRecordingStart}),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), true, 50);
    EXPECT_EQ(player.getTotalPlayTime(), 0);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(recorder.count(), 0u);
}

TEST(PlayerTotalPlayTime, IsTruncatedTo32Bits) {
    TempDir dir;
    LogFilePlayer wrapped(makeSingleSourceFile(dir.file("a.mvlog"), {0, (int64_t{1} << 32) + 5}),
                          {MV_LogDataSourceType_Camera}, FrameCallback(), false, 1000);
    EXPECT_EQ(wrapped.getTotalPlayTime(), 5);
    LogFilePlayer negative(makeSingleSourceFile(dir.file("b.mvlog"), {0, 3000000000}),
                           {MV_LogDataSourceType_Camera}, FrameCallback(), false, 1000);
    EXPECT_EQ(negative.getTotalPlayTime(), -1294967296);
}

TEST(PlayerTotalPlayTime, LeavesAStoppedPlayerStoppedAtItsPosition) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {0, 10, 20, 30}),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 1000);
    EXPECT_EQ(player.getTotalPlayTime(), 30);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(recorder.count(), 0u);
    player.play();
    ASSERT_TRUE(recorder.waitForCount(3));
    EXPECT_EQ(recorder.frames(), (std::vector<int32_t>{1, 2, 3}));
}

TEST(PlayerTotalPlayTime, OneFrameWhilePlayingKeepsPlaying) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {kRecordingStart}),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), true, 50);
    player.play();
    ASSERT_TRUE(recorder.waitForCount(1));
    EXPECT_EQ(player.getTotalPlayTime(), 0);
    const std::size_t before = recorder.count();
    EXPECT_TRUE(recorder.waitForCount(before + 2));
    player.stop();
    for (int32_t frame : recorder.frames()) {
        EXPECT_EQ(frame, 0);
    }
}

TEST(PlayerTotalPlayTime, WhilePlayingResumesAfterTheFrameThatWasWaitedFor) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("a.mvlog"), {0, 10000, 10050, 10100}),
                         {MV_LogDataSourceType_Camera}, recorder.callback(), false, 60000);
    player.play();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(player.getTotalPlayTime(), 10100);
    ASSERT_TRUE(recorder.waitForCount(2));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(recorder.frames(), (std::vector<int32_t>{2, 3}));
    EXPECT_EQ(recorder.deliveries()[0].entry.entryId, 3);
}

}  // namespace
