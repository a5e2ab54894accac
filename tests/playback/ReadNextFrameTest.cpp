#include "playback/LogFilePlayerPrivate.h"

#include "PlaybackTestSupport.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using namespace Marivane::Testing;
using Marivane::Logging::Playback::LogFilePlayerPrivate;

namespace {

// Frames [10, 20, 30] with entries for all three.
std::unique_ptr<FakeLogFile> makeThreeFrameFake() {
    auto file = std::make_unique<FakeLogFile>();
    file->index = {10, 20, 30};
    file->entries[10] = makeEntry(10, 1, 4, 1000);
    file->entries[20] = makeEntry(20, 1, 4, 1100);
    file->entries[30] = makeEntry(30, 2, 5, 1250);
    return file;
}

LogFilePlayerPrivate makePrivate(std::unique_ptr<FakeLogFile> file, bool loop) {
    return LogFilePlayerPrivate(std::move(file), {}, FrameCallback(), loop, 500);
}

void expectEntry(const DataEntry& actual, const DataEntry& expected) {
    EXPECT_EQ(actual.entryId, expected.entryId);
    EXPECT_EQ(actual.dataSourceId, expected.dataSourceId);
    EXPECT_EQ(actual.type, expected.type);
    EXPECT_EQ(actual.data, expected.data);
    EXPECT_EQ(actual.timestamp, expected.timestamp);
}

TEST(ReadNextFrame, StartsInTheDocumentedState) {
    LogFilePlayerPrivate player(makeThreeFrameFake(), {}, FrameCallback(), true, 750);
    EXPECT_EQ(player.currentFrame, 0);
    EXPECT_EQ(player.lastTimestamp, 0);
    EXPECT_EQ(player.currentEntry, nullptr);
    EXPECT_FALSE(player.playing);
    EXPECT_FALSE(player.playbackThread.joinable());
    EXPECT_FLOAT_EQ(player.playbackSpeedMultiplier.load(), 1.0F);
    EXPECT_TRUE(player.loopPlayback.load());
    EXPECT_EQ(player.maxFrameDelay, 750);
    EXPECT_EQ(player.frames, (std::vector<int32_t>{10, 20, 30}));
}

TEST(ReadNextFrame, FirstReadIsFrameOne) {
    auto file = makeThreeFrameFake();
    FakeLogFile* fake = file.get();
    auto player = makePrivate(std::move(file), false);
    ASSERT_TRUE(player.readNextFrame());
    EXPECT_EQ(player.currentFrame, 1);
    ASSERT_NE(player.currentEntry, nullptr);
    expectEntry(*player.currentEntry, makeEntry(20, 1, 4, 1100));
    EXPECT_EQ(fake->entriesRead, (std::vector<int32_t>{20}));
}

TEST(ReadNextFrame, PastTheEndWithoutLoopingReadsNothing) {
    auto file = makeThreeFrameFake();
    FakeLogFile* fake = file.get();
    auto player = makePrivate(std::move(file), false);
    player.lastTimestamp = 1111;
    ASSERT_TRUE(player.readNextFrame());
    ASSERT_TRUE(player.readNextFrame());
    const DataEntry* last = player.currentEntry.get();
    EXPECT_FALSE(player.readNextFrame());
    EXPECT_EQ(player.currentFrame, 3);
    EXPECT_EQ(player.currentEntry.get(), last);
    expectEntry(*player.currentEntry, makeEntry(30, 2, 5, 1250));
    EXPECT_EQ(player.lastTimestamp, 1111);
    EXPECT_EQ(fake->entriesRead, (std::vector<int32_t>{20, 30}));
    // Stays past the end.
    EXPECT_FALSE(player.readNextFrame());
    EXPECT_EQ(player.currentFrame, 4);
}

TEST(ReadNextFrame, LoopingWrapsToFrameZeroAndResetsLastTimestamp) {
    auto player = makePrivate(makeThreeFrameFake(), true);
    player.currentFrame = 2;
    player.lastTimestamp = 1250;
    ASSERT_TRUE(player.readNextFrame());
    EXPECT_EQ(player.currentFrame, 0);
    EXPECT_EQ(player.lastTimestamp, 0);
    expectEntry(*player.currentEntry, makeEntry(10, 1, 4, 1000));
}

TEST(ReadNextFrame, LoopFlagIsReadAtTheEnd) {
    auto player = makePrivate(makeThreeFrameFake(), false);
    player.currentFrame = 2;
    player.loopPlayback.store(true);
    ASSERT_TRUE(player.readNextFrame());
    EXPECT_EQ(player.currentFrame, 0);
}

TEST(ReadNextFrame, MissingEntryBecomesPlaceholderWithoutExtraWait) {
    auto file = makeThreeFrameFake();
    file->entries.erase(20);
    auto player = makePrivate(std::move(file), false);
    player.lastTimestamp = 1000;
    ASSERT_TRUE(player.readNextFrame());
    ASSERT_NE(player.currentEntry, nullptr);
    EXPECT_EQ(player.currentEntry->entryId, 20);
    EXPECT_EQ(player.currentEntry->dataSourceId, -1);
    EXPECT_EQ(player.currentEntry->type, 0);
    EXPECT_TRUE(player.currentEntry->data.empty());
    EXPECT_EQ(player.currentEntry->timestamp, 1000);
}

TEST(ReadNextFrame, EmptyFrameListNeverReadsEvenWhenLooping) {
    auto file = std::make_unique<FakeLogFile>();
    FakeLogFile* fake = file.get();
    auto player = makePrivate(std::move(file), true);
    EXPECT_FALSE(player.readNextFrame());
    EXPECT_FALSE(player.readNextFrame());
    EXPECT_EQ(player.currentEntry, nullptr);
    EXPECT_TRUE(fake->entriesRead.empty());
}

TEST(ReadNextFrame, NegativePositionReadsNothing) {
    auto file = makeThreeFrameFake();
    FakeLogFile* fake = file.get();
    auto player = makePrivate(std::move(file), true);
    player.currentFrame = -5;
    EXPECT_FALSE(player.readNextFrame());
    EXPECT_EQ(player.currentFrame, -4);
    EXPECT_TRUE(fake->entriesRead.empty());
    player.currentFrame = -1;
    EXPECT_TRUE(player.readNextFrame());
    EXPECT_EQ(player.currentFrame, 0);
    EXPECT_EQ(fake->entriesRead, (std::vector<int32_t>{10}));
}

TEST(ReadNextFrame, LargestPositionDoesNotOverflow) {
    auto player = makePrivate(makeThreeFrameFake(), false);
    player.currentFrame = INT32_MAX;
    EXPECT_FALSE(player.readNextFrame());
    EXPECT_EQ(player.currentFrame, INT32_MAX);
}

}  // namespace
