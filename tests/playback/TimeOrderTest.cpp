// Players built with options: frames in time order (timestamp, then id),
// the first play() at frame 0, and a speed that scales every gap.

#include "PlaybackTestSupport.h"
#include "playback/LogFilePlayerPrivate.h"
#include "support/TempDir.h"

#include <logging/EntryRange.h>
#include <logging/EntrySummary.h>
#include <logging/LogFilePlayer.h>
#include <logging/PlayerOptions.h>
#include <logging/Recorder.h>

#include <sqlite3.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace Marivane::Logging;
using namespace Marivane::Logging::Playback;
using namespace Marivane::Testing;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr int64_t kStart = 1'700'000'000'000;

PlayerOptions timeOrder(float speed = 1.0F) {
    PlayerOptions options;
    options.order = FrameOrder::Time;
    options.speed = speed;
    return options;
}

std::vector<int32_t> deliveredIds(FrameRecorder& recorder) {
    std::vector<int32_t> ids;
    for (const auto& delivery : recorder.deliveries()) {
        ids.push_back(delivery.entry.entryId);
    }
    return ids;
}

std::vector<int32_t> framesOf(std::size_t count) {
    std::vector<int32_t> frames;
    for (std::size_t i = 0; i < count; ++i) {
        frames.push_back(static_cast<int32_t>(i));
    }
    return frames;
}

// Ids 1 to 6 at timestamps 30, 10, 30, 10, 20, 10 (plus kStart): in time
// order the ids are 2, 4, 6 (all at 10), 5 (20), 1, 3 (both at 30).
std::unique_ptr<LogFileInterface> makeEqualTimestampFile(const std::string& path) {
    return makeSingleSourceFile(
        path, {kStart + 30, kStart + 10, kStart + 30, kStart + 10, kStart + 20, kStart + 10});
}

TEST(ScaledFrameGap, ScalesEveryGapAndCapsTheScaledGapOnlyWhenAsked) {
    EXPECT_EQ(scaledFrameGap(1000, 20.0F, std::nullopt), milliseconds(50));
    // The cap of the other constructor's default no longer turns a long gap
    // into a wait at 1x.
    EXPECT_EQ(scaledFrameGap(1000, 20.0F, milliseconds(1000)), milliseconds(50));
    EXPECT_EQ(scaledFrameGap(5000, 1.0F, std::nullopt), milliseconds(5000));
    EXPECT_EQ(scaledFrameGap(1000, 20.0F, milliseconds(30)), milliseconds(30));
    EXPECT_EQ(scaledFrameGap(10, 4.0F, std::nullopt), nanoseconds(2'500'000));
    EXPECT_EQ(scaledFrameGap(-40, 1.0F, std::nullopt), nanoseconds(0));
    EXPECT_EQ(scaledFrameGap(10, std::nanf(""), std::nullopt), nanoseconds(0));
    EXPECT_EQ(scaledFrameGap(10, 1.0F, milliseconds(-5)), nanoseconds(0));
    EXPECT_GT(scaledFrameGap(10, 0.0F, std::nullopt), std::chrono::hours(24));
}

TEST(CappedFrameWait, KeepsTheBareCapWhenThereIsOneAndScalesEveryGapOtherwise) {
    EXPECT_EQ(computeCappedFrameWait(100, std::nullopt, 2.0F, 0), 50);
    EXPECT_EQ(computeCappedFrameWait(1000, std::nullopt, 20.0F, 0), 50);
    EXPECT_EQ(computeCappedFrameWait(1000, std::nullopt, 20.0F, 7), 43);
    EXPECT_EQ(computeCappedFrameWait(1000, milliseconds(1000), 20.0F, 7), 1000);
    EXPECT_EQ(computeCappedFrameWait(999, milliseconds(1000), 20.0F, 0), 50);
    EXPECT_EQ(computeCappedFrameWait(int64_t{1} << 35, std::nullopt, 1.0F, 0), int64_t{1} << 35);
}

TEST(TimeOrder, EqualTimestampsPlayByIdAndTheFirstPlayStartsAtFrameZero) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeEqualTimestampFile(dir.file("equal.mvlog")), {MV_LogDataSourceType_Camera},
                         recorder.callback(), timeOrder(4.0F));
    EXPECT_EQ(player.getFrameOrder(), FrameOrder::Time);
    EXPECT_EQ(player.getPacing(), Pacing::Exact);
    ASSERT_EQ(player.getFrameCount(), 6u);
    EXPECT_EQ(player.getTotalPlayTime(), 20);
    player.play();
    ASSERT_TRUE(recorder.waitForCount(6));
    player.stop();
    EXPECT_EQ(recorder.frames(), framesOf(6));
    EXPECT_EQ(deliveredIds(recorder), (std::vector<int32_t>{2, 4, 6, 5, 1, 3}));
    for (const auto& delivery : recorder.deliveries()) {
        EXPECT_EQ(delivery.entry.data, payloadFor(delivery.entry.timestamp));
    }
}

TEST(TimeOrder, IdOrderWithOptionsHasTheFileIndexAsFrames) {
    TempDir dir;
    FrameRecorder recorder;
    PlayerOptions options;
    options.speed = 8.0F;
    LogFilePlayer player(makeEqualTimestampFile(dir.file("ids.mvlog")), {MV_LogDataSourceType_Camera},
                         recorder.callback(), options);
    EXPECT_EQ(player.getFrameOrder(), FrameOrder::Id);
    player.play();
    ASSERT_TRUE(recorder.waitForCount(6));
    player.stop();
    EXPECT_EQ(deliveredIds(recorder), (std::vector<int32_t>{1, 2, 3, 4, 5, 6}));
}

// The file's own timestamps, sorted by (timestamp, id): what a time-ordered
// player must deliver, computed without the player.
std::vector<std::pair<int64_t, int32_t>> sortedKeys(const std::string& path, const EntryIndexFilter& filter) {
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    std::vector<std::pair<int64_t, int32_t>> keys;
    EXPECT_TRUE(file.visitEntrySummaries(EntryRange::all(), filter, [&](const EntrySummary& entry) {
        keys.emplace_back(entry.timestamp, entry.entryId);
        return true;
    }));
    std::sort(keys.begin(), keys.end());
    return keys;
}

// Three capture threads record the same timestamps, each in its own shuffled
// order, through the recorder: ids follow neither time nor any one thread.
TEST(TimeOrder, ShuffledTimestampsFromSeveralRecorderThreadsPlayInTimeOrder) {
    TempDir dir;
    const std::string path = dir.file("threads.mvlog");
    constexpr int kThreads = 3;
    constexpr int kPerThread = 200;
    int8_t lidarId = -1;
    {
        RecorderOptions recorderOptions;
        recorderOptions.maxCommitDelay = milliseconds(5);
        Recorder recorder(path, recorderOptions);
        DataSource camera{-1, MV_LogDataSourceType_Camera, "camera"};
        DataSource lidar{-1, MV_LogDataSourceType_Lidar, "lidar"};
        ASSERT_TRUE(recorder.addDataSource(camera));
        ASSERT_TRUE(recorder.addDataSource(lidar));
        lidarId = lidar.id;
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                std::vector<int64_t> timestamps;
                for (int i = 0; i < kPerThread; ++i) {
                    timestamps.push_back(kStart + 5 * i);
                }
                std::shuffle(timestamps.begin(), timestamps.end(),
                             std::mt19937(static_cast<unsigned>(t + 1)));
                const int8_t source = t == 0 ? lidar.id : camera.id;
                for (const int64_t timestamp : timestamps) {
                    EXPECT_TRUE(recorder.record(source, t, timestamp, payloadFor(timestamp)));
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_TRUE(recorder.close());
    }
    const std::vector<std::pair<int64_t, int32_t>> expected = sortedKeys(path, EntryIndexFilter());
    ASSERT_EQ(expected.size(), std::size_t{kThreads * kPerThread});
    FrameRecorder recorder;
    LogFilePlayer player(std::make_unique<SqliteLogFile>(std::filesystem::path(path)), {},
                         recorder.callback(), timeOrder(1000.0F));
    player.play();
    ASSERT_TRUE(recorder.waitForCount(expected.size()));
    player.stop();
    const auto deliveries = recorder.deliveries();
    ASSERT_EQ(deliveries.size(), expected.size());
    bool idsFollowTime = true;
    for (std::size_t i = 0; i < deliveries.size(); ++i) {
        EXPECT_EQ(deliveries[i].frame, static_cast<int32_t>(i));
        EXPECT_EQ(deliveries[i].entry.timestamp, expected[i].first) << "frame " << i;
        EXPECT_EQ(deliveries[i].entry.entryId, expected[i].second) << "frame " << i;
        EXPECT_EQ(deliveries[i].entry.data, payloadFor(deliveries[i].entry.timestamp));
        idsFollowTime = idsFollowTime && deliveries[i].entry.entryId == static_cast<int32_t>(i) + 1;
    }
    // Otherwise the test shows nothing.
    EXPECT_FALSE(idsFollowTime);

    // One thread's data source alone, in time order too.
    EntryIndexFilter lidarOnly;
    lidarOnly.dataSources.push_back(lidarId);
    const std::vector<std::pair<int64_t, int32_t>> expectedLidar = sortedKeys(path, lidarOnly);
    ASSERT_EQ(expectedLidar.size(), std::size_t{kPerThread});
    FrameRecorder lidarRecorder;
    LogFilePlayer lidarPlayer(std::make_unique<SqliteLogFile>(std::filesystem::path(path)),
                              {MV_LogDataSourceType_Lidar}, lidarRecorder.callback(), timeOrder(1000.0F));
    ASSERT_EQ(lidarPlayer.getFrameCount(), std::size_t{kPerThread});
    lidarPlayer.play();
    ASSERT_TRUE(lidarRecorder.waitForCount(expectedLidar.size()));
    lidarPlayer.stop();
    std::vector<int32_t> expectedIds;
    for (const auto& key : expectedLidar) {
        expectedIds.push_back(key.second);
    }
    EXPECT_EQ(deliveredIds(lidarRecorder), expectedIds);
}

// A file written the way the demo writes it: the 1 Hz source first, then the
// 100 Hz one, so ids and time disagree throughout. 20 s of recording.
std::unique_ptr<LogFileInterface> makeTwoRateFile(const std::string& path) {
    LogFileBuilder builder(path);
    const int8_t slow = builder.addSource(MV_LogDataSourceType_Environment, "mast");
    const int8_t fast = builder.addSource(MV_LogDataSourceType_Navigation, "gnss");
    for (int i = 0; i <= 20; ++i) {
        builder.addEntry(slow, kStart + 1000 * i);
    }
    for (int i = 0; i < 2000; ++i) {
        builder.addEntry(fast, kStart + 10 * i);
    }
    return builder.take();
}

// Plays the whole file once from frame 0; returns the milliseconds from
// play() to the last delivery.
double playTwoRateFile(const std::string& path, Pacing pacing, float speed) {
    FrameRecorder recorder;
    PlayerOptions options = timeOrder(speed);
    options.pacing = pacing;
    LogFilePlayer player(makeTwoRateFile(path), {}, recorder.callback(), options);
    EXPECT_EQ(player.getFrameCount(), 2021u);
    EXPECT_EQ(player.getTotalPlayTime(), 20000);
    const auto started = SteadyClock::now();
    player.play();
    EXPECT_TRUE(recorder.waitForCount(2021, std::chrono::seconds(60)));
    player.stop();
    const auto deliveries = recorder.deliveries();
    if (deliveries.size() != 2021u) {
        return -1.0;
    }
    for (std::size_t i = 1; i < deliveries.size(); ++i) {
        EXPECT_LE(deliveries[i - 1].entry.timestamp, deliveries[i].entry.timestamp);
    }
    return std::chrono::duration<double, std::milli>(deliveries.back().at - started).count();
}

TEST(TimeOrder, TwentyTimesFasterFinishesWithinTenPercentOfTheScaledDuration) {
    TempDir dir;
    // 20 s at 20x: 1 s. A busy machine may spoil one run; three chances.
    double elapsed = 0.0;
    for (int attempt = 0; attempt < 3; ++attempt) {
        elapsed =
            playTwoRateFile(dir.file("rates" + std::to_string(attempt) + ".mvlog"), Pacing::Exact, 20.0F);
        if (elapsed >= 900.0 && elapsed <= 1100.0) {
            break;
        }
    }
    EXPECT_GE(elapsed, 900.0);
    EXPECT_LE(elapsed, 1100.0);
}

// A 1 Hz source alone at 20x: gaps of 1 s play as 50 ms, in both pacings,
// also under a cap of 1 s (it bounds the scaled gap, which stays below it).
double playOneHertzAtTwentyTimes(const std::string& path, Pacing pacing,
                                 std::optional<milliseconds> maxFrameDelay) {
    std::vector<int64_t> timestamps;
    for (int i = 0; i <= 10; ++i) {
        timestamps.push_back(kStart + 1000 * i);
    }
    FrameRecorder recorder;
    PlayerOptions options = timeOrder(20.0F);
    options.pacing = pacing;
    options.maxFrameDelay = maxFrameDelay;
    LogFilePlayer player(makeSingleSourceFile(path, timestamps), {}, recorder.callback(), options);
    const auto started = SteadyClock::now();
    player.play();
    EXPECT_TRUE(recorder.waitForCount(11));
    player.stop();
    return std::chrono::duration<double, std::milli>(recorder.deliveries().back().at - started).count();
}

TEST(TimeOrder, AOneHertzSourceAtTwentyTimesPlaysAtTwentyTimes) {
    TempDir dir;
    // Ideal: 10 gaps of 50 ms. At 1x, or with every gap capped bare at 1 s,
    // it would take 10 s.
    for (const auto& [pacing, cap] : std::vector<std::pair<Pacing, std::optional<milliseconds>>>{
             {Pacing::Exact, std::nullopt},
             {Pacing::Exact, milliseconds(1000)},
             {Pacing::CarryMilliseconds, std::nullopt}}) {
        SCOPED_TRACE(pacing == Pacing::Exact ? (cap ? "exact, capped" : "exact") : "whole milliseconds");
        const double elapsed = playOneHertzAtTwentyTimes(
            dir.file("slow" + std::to_string(static_cast<int>(pacing)) + (cap ? "c" : "") + ".mvlog"), pacing,
            cap);
        EXPECT_GE(elapsed, 480.0);
        EXPECT_LE(elapsed, 1500.0);
    }
}

TEST(TimeOrder, ACapBoundsTheScaledGap) {
    TempDir dir;
    // Gaps of 1 s at 10x are 100 ms; the cap makes them 20 ms.
    FrameRecorder recorder;
    PlayerOptions options = timeOrder(10.0F);
    options.maxFrameDelay = milliseconds(20);
    LogFilePlayer player(
        makeSingleSourceFile(dir.file("capped.mvlog"), {kStart, kStart + 1000, kStart + 2000, kStart + 3000,
                                                        kStart + 4000, kStart + 5000}),
        {}, recorder.callback(), options);
    const auto started = SteadyClock::now();
    player.play();
    ASSERT_TRUE(recorder.waitForCount(6));
    player.stop();
    const double elapsed =
        std::chrono::duration<double, std::milli>(recorder.deliveries().back().at - started).count();
    EXPECT_GE(elapsed, 95.0);
    EXPECT_LT(elapsed, 400.0);
}

// Ids 1 to 8 at these offsets (ms): 50, 10, 70, 30, 20, 60, 40, 0. In time
// order: ids 8 (0), 2 (10), 5 (20), 4 (30), 7 (40), 1 (50), 6 (60), 3 (70).
const std::vector<int64_t> kShuffledOffsets{50, 10, 70, 30, 20, 60, 40, 0};
const std::vector<int32_t> kShuffledTimeOrder{8, 2, 5, 4, 7, 1, 6, 3};

std::vector<int64_t> shuffledTimestamps() {
    std::vector<int64_t> timestamps;
    for (const int64_t offset : kShuffledOffsets) {
        timestamps.push_back(kStart + offset);
    }
    return timestamps;
}

TEST(TimeOrder, SeekToTimeFindsTheEarliestFrameAndPlayGoesOnInTime) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeSingleSourceFile(dir.file("seek.mvlog"), shuffledTimestamps()), {},
                         recorder.callback(), timeOrder(100.0F));
    EXPECT_EQ(player.seekToTime(kStart + 25, {}), 3);
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.deliveries()[0].entry.entryId, 4);
    EXPECT_EQ(recorder.deliveries()[0].frame, 3);
    EXPECT_EQ(player.seekToTime(kStart + 40, {}), 4);
    EXPECT_EQ(recorder.deliveries()[1].entry.entryId, 7);
    EXPECT_EQ(player.seekToTime(kStart - 100, {}), 0);
    EXPECT_EQ(recorder.deliveries()[2].entry.entryId, 8);
    EXPECT_EQ(player.seekToTime(kStart + 60, {}), 6);
    player.play();
    ASSERT_TRUE(recorder.waitForCount(5));
    player.stop();
    const auto deliveries = recorder.deliveries();
    EXPECT_EQ(deliveries[4].frame, 7);
    EXPECT_EQ(deliveries[4].entry.entryId, 3);
    // Past the last frame's time: the frame count, as in id order.
    EXPECT_EQ(player.seekToTime(kStart + 71, {}), 8);
}

TEST(TimeOrder, BookmarksMapToTheirEntrysFrameInTimeOrder) {
    TempDir dir;
    LogFileBuilder builder(dir.file("bookmarks.mvlog"));
    const int8_t camera = builder.addSource(MV_LogDataSourceType_Camera, "camera");
    const int8_t lidar = builder.addSource(MV_LogDataSourceType_Lidar, "lidar");
    // Camera: ids 1 (t 50), 2 (t 10), 3 (t 70), 4 (t 30). Lidar: ids 5 (t 20),
    // 6 (t 60), 7 (t 80). The camera's frames in time order: 2, 4, 1, 3.
    for (const auto& [source, offset] : std::vector<std::pair<int8_t, int64_t>>{
             {camera, 50}, {camera, 10}, {camera, 70}, {camera, 30}, {lidar, 20}, {lidar, 60}, {lidar, 80}}) {
        builder.addEntry(source, kStart + offset);
    }
    builder.addBookmark(1, "one", "played");
    builder.addBookmark(2, "two", "first in time");
    builder.addBookmark(5, "five", "lidar at 20: next camera frame is id 4");
    builder.addBookmark(6, "six", "lidar at 60: next camera frame is id 3");
    builder.addBookmark(7, "seven", "lidar after every camera frame");
    LogFilePlayer player(builder.take(), {MV_LogDataSourceType_Camera}, FrameCallback(), timeOrder());
    const std::vector<PlayerBookmark> bookmarks = player.getBookmarks();
    std::vector<std::pair<int32_t, int32_t>> mapped;
    for (const PlayerBookmark& bookmark : bookmarks) {
        mapped.emplace_back(bookmark.entryId, bookmark.frame);
        EXPECT_TRUE(bookmark.payload.empty());
    }
    std::sort(mapped.begin(), mapped.end());
    EXPECT_EQ(mapped, (std::vector<std::pair<int32_t, int32_t>>{{1, 2}, {2, 0}, {5, 1}, {6, 3}, {7, 3}}));

    player.addBookmark(4, "four", "");
    const auto added = std::find_if(player.getBookmarks().begin(), player.getBookmarks().end(),
                                    [](const PlayerBookmark& bookmark) { return bookmark.entryId == 4; });
    ASSERT_NE(added, player.getBookmarks().end());
    EXPECT_EQ(added->frame, 1);
}

TEST(TimeOrder, LoopingWrapsToTheEarliestFrameAtOnce) {
    TempDir dir;
    FrameRecorder recorder;
    PlayerOptions options = timeOrder(1.0F);
    options.loop = true;
    // 8 frames 10 ms apart in time: 70 ms a round, and the wrap is due at
    // once (the other constructor would wait its whole maximum delay there).
    LogFilePlayer player(makeSingleSourceFile(dir.file("loop.mvlog"), shuffledTimestamps()), {},
                         recorder.callback(), options);
    const auto started = SteadyClock::now();
    player.play();
    ASSERT_TRUE(recorder.waitForCount(20));
    player.stop();
    const auto deliveries = recorder.deliveries();
    for (std::size_t i = 0; i < 20; ++i) {
        EXPECT_EQ(deliveries[i].frame, static_cast<int32_t>(i % 8));
        EXPECT_EQ(deliveries[i].entry.entryId, kShuffledTimeOrder[i % 8]);
    }
    const double elapsed = std::chrono::duration<double, std::milli>(deliveries[19].at - started).count();
    // Ideal: two rounds of 70 ms plus 30 ms.
    EXPECT_GE(elapsed, 160.0);
    EXPECT_LT(elapsed, 1000.0);
}

TEST(TimeOrder, ADamagedPayloadMetInTimeOrderBecomesAReportedPlaceholder) {
    TempDir dir;
    const std::string path = dir.file("damaged.mvlog");
    makeSingleSourceFile(path, shuffledTimestamps()).reset();
    // Entry 4 (t 30) is frame 3 in time order.
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &raw), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(raw, "UPDATE data SET payload = x'0102030405060708' WHERE entryId = 4;", nullptr,
                           nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(raw);

    FrameRecorder recorder;
    std::mutex reportsMutex;
    std::vector<std::pair<int32_t, int32_t>> reports;
    LogFilePlayer player(std::make_unique<SqliteLogFile>(std::filesystem::path(path)), {},
                         recorder.callback(), timeOrder(50.0F));
    player.setUnreadableFrameHandler([&](int32_t frame, int32_t entryId, const std::string& reason) {
        std::lock_guard lock(reportsMutex);
        reports.emplace_back(frame, entryId);
        EXPECT_FALSE(reason.empty());
    });
    ASSERT_EQ(player.getFrameCount(), 8u);
    player.play();
    ASSERT_TRUE(recorder.waitForCount(8));
    player.stop();
    const auto deliveries = recorder.deliveries();
    for (std::size_t i = 0; i < 8; ++i) {
        EXPECT_EQ(deliveries[i].entry.entryId, kShuffledTimeOrder[i]);
    }
    EXPECT_EQ(deliveries[3].entry.dataSourceId, -1);
    EXPECT_TRUE(deliveries[3].entry.data.empty());
    // The placeholder keeps the previous frame's time and adds no wait.
    EXPECT_EQ(deliveries[3].entry.timestamp, kStart + 20);
    EXPECT_EQ(deliveries[4].entry.data, payloadFor(kStart + 40));
    std::lock_guard lock(reportsMutex);
    EXPECT_EQ(reports, (std::vector<std::pair<int32_t, int32_t>>{{3, 4}}));
}

// Another implementation of the interface: timestamps come with the entries.
TEST(TimeOrder, WorksOnAnyLogFileImplementation) {
    auto fake = std::make_unique<FakeLogFile>();
    fake->sources = {DataSource{1, MV_LogDataSourceType_Camera, "camera"}};
    fake->index = {1, 2, 3, 4};
    fake->entries[1] = makeEntry(1, 1, 0, 300);
    fake->entries[2] = makeEntry(2, 1, 0, 100);
    fake->entries[3] = makeEntry(3, 1, 0, 200);
    fake->entries[4] = makeEntry(4, 1, 0, 100);
    // The last one is on an entry the file does not hand out.
    fake->bookmarks = {Bookmark{3, "three", "", {}}, Bookmark{1, "one", "", {}}, Bookmark{9, "nine", "", {}}};
    FrameRecorder recorder;
    LogFilePlayer player(std::move(fake), {MV_LogDataSourceType_Camera}, recorder.callback(),
                         timeOrder(100.0F));
    ASSERT_EQ(player.getBookmarks().size(), 3u);
    EXPECT_EQ(player.getBookmarks()[0].frame, 2);
    EXPECT_EQ(player.getBookmarks()[1].frame, 3);
    EXPECT_EQ(player.getBookmarks()[2].frame, 3);
    player.play();
    ASSERT_TRUE(recorder.waitForCount(4));
    player.stop();
    EXPECT_EQ(deliveredIds(recorder), (std::vector<int32_t>{2, 4, 3, 1}));
}

}  // namespace
