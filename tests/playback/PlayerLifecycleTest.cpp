#include <logging/LogFilePlayer.h>

#include "PlaybackTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using namespace Marivane::Testing;
using namespace std::chrono_literals;

namespace {

// Two entries 10 s apart: once playing, the worker waits that long for frame 1.
std::unique_ptr<FakeLogFile> makeSlowFake(std::atomic<bool>* destroyed) {
    auto file = std::make_unique<FakeLogFile>();
    file->index = {1, 2};
    file->entries[1] = makeEntry(1, 1, 3, 0);
    file->entries[2] = makeEntry(2, 1, 3, 10000);
    file->bookmarks = {Bookmark{2, "mark", "note", {}}};
    file->destroyed = destroyed;
    return file;
}

TEST(PlayerLifecycle, MoveConstructionTransfersFileFramesBookmarksAndCallback) {
    TempDir dir;
    FrameRecorder recorder;
    LogFileBuilder builder(dir.file("a.mvlog"));
    const int8_t source = builder.addSource(MV_LogDataSourceType_Radar, "radar");
    builder.addEntries(source, {0, 10, 20});
    builder.addBookmark(2, "mark", "note");
    UndestroyedPlayer original(builder.take(), std::vector<MV_LogDataSourceType>{MV_LogDataSourceType_Radar},
                               recorder.callback(), false, 1000);
    LogFileInterface* file = original.get().getUnderlyingLogFile();

    LogFilePlayer moved(original.release());
    EXPECT_EQ(moved.getUnderlyingLogFile(), file);
    EXPECT_EQ(moved.getFrameCount(), 3u);
    ASSERT_EQ(moved.getDataSources().size(), 1u);
    EXPECT_EQ(moved.getDataSources()[0].name, "radar");
    ASSERT_EQ(moved.getBookmarks().size(), 1u);
    EXPECT_EQ(moved.getBookmarks()[0].frame, 1);
    moved.play();
    ASSERT_TRUE(recorder.waitForCount(2));
    EXPECT_EQ(recorder.frames(), (std::vector<int32_t>{1, 2}));
}

TEST(PlayerLifecycle, MoveAssignmentTakesOverAndDestroysTheFormerFile) {
    std::atomic<bool> formerDestroyed{false};
    std::atomic<bool> movedDestroyed{false};
    {
        auto formerFile = makeSlowFake(&formerDestroyed);
        LogFilePlayer target(std::move(formerFile), {}, FrameCallback(), false, 1000);
        auto movedFile = makeSlowFake(&movedDestroyed);
        LogFileInterface* moved = movedFile.get();
        UndestroyedPlayer source(std::move(movedFile), std::vector<MV_LogDataSourceType>{}, FrameCallback(),
                                 false, 1000);
        target = source.release();
        EXPECT_TRUE(formerDestroyed.load());
        EXPECT_FALSE(movedDestroyed.load());
        EXPECT_EQ(target.getUnderlyingLogFile(), moved);
    }
    EXPECT_TRUE(movedDestroyed.load());
}

TEST(PlayerLifecycle, DestructorStopsAPlayingPlayerPromptly) {
    std::atomic<bool> destroyed{false};
    FrameRecorder recorder;
    auto player = std::make_unique<LogFilePlayer>(
        makeSlowFake(&destroyed), std::vector<MV_LogDataSourceType>{}, recorder.callback(), false, 60000);
    player->play();
    std::this_thread::sleep_for(50ms);
    const auto start = SteadyClock::now();
    player.reset();
    EXPECT_LT(millisecondsBetween(start, SteadyClock::now()), 1000);
    EXPECT_TRUE(destroyed.load());
    EXPECT_EQ(recorder.count(), 0u);
}

TEST(PlayerLifecycle, DestructorReapsAWorkerThatFinishedByItself) {
    std::atomic<bool> destroyed{false};
    FrameRecorder recorder;
    {
        auto file = std::make_unique<FakeLogFile>();
        file->index = {1, 2};
        file->entries[1] = makeEntry(1, 1, 3, 0);
        file->entries[2] = makeEntry(2, 1, 3, 5);
        file->destroyed = &destroyed;
        LogFilePlayer player(std::move(file), {}, recorder.callback(), false, 1000);
        player.play();
        ASSERT_TRUE(recorder.waitForCount(1));
        std::this_thread::sleep_for(100ms);
    }
    EXPECT_TRUE(destroyed.load());
    EXPECT_EQ(recorder.frames(), (std::vector<int32_t>{1}));
}

TEST(PlayerLifecycle, GettersReturnReferencesThatLiveWithThePlayer) {
    std::atomic<bool> destroyed{false};
    auto file = makeSlowFake(&destroyed);
    file->sources = {DataSource{1, MV_LogDataSourceType_Text, "notes"}};
    LogFilePlayer player(std::move(file), {MV_LogDataSourceType_Text}, FrameCallback(), false, 1000);
    const std::vector<DataSource>& sources = player.getDataSources();
    const auto& bookmarks = player.getBookmarks();
    EXPECT_EQ(&sources, &player.getDataSources());
    EXPECT_EQ(&bookmarks, &player.getBookmarks());
    ASSERT_EQ(bookmarks.size(), 1u);
    EXPECT_EQ(bookmarks[0].frame, 1);
}

// Runs in the death test's child process.
void assignOverAPlayingPlayer() {
    LogFilePlayer target(
        makeSlowFake(nullptr), {}, [](int32_t, DataEntry) {}, false, 60000);
    UndestroyedPlayer source(makeSlowFake(nullptr), std::vector<MV_LogDataSourceType>{}, FrameCallback(),
                             false, 1000);
    target.play();
    target = source.release();
}

// Runs in the death test's child process.
void playWithoutCallback() {
    auto file = std::make_unique<FakeLogFile>();
    file->index = {1, 2};
    file->entries[1] = makeEntry(1, 1, 3, 0);
    file->entries[2] = makeEntry(2, 1, 3, 1);
    LogFilePlayer player(std::move(file), {}, FrameCallback(), false, 1000);
    player.play();
    std::this_thread::sleep_for(5s);
}

using PlayerLifecycleDeathTest = ::testing::Test;

// Assigning over a playing player destroys state its worker still uses, so
// ThreadSanitizer may report that race before the process terminates; the
// process dies either way.
#if defined(__SANITIZE_THREAD__)
constexpr const char* kJoinableThreadDeath = "terminate called without an active exception|ThreadSanitizer";
#else
constexpr const char* kJoinableThreadDeath = "terminate called without an active exception";
#endif

TEST_F(PlayerLifecycleDeathTest, AssigningOverAPlayingPlayerEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(assignOverAPlayingPlayer(), kJoinableThreadDeath);
}

TEST_F(PlayerLifecycleDeathTest, PlayingWithoutCallbackEndsTheProcessAtTheFirstFrame) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(playWithoutCallback(), "bad_function_call");
}

}  // namespace
