#include <logging/LogFilePlayer.h>

#include "PlaybackTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Marivane::Testing;
using Marivane::Logging::Playback::PlayerBookmark;

namespace {

struct ExpectedBookmark {
    int32_t entryId;
    std::string title;
    std::string comments;
    int32_t frame;
};

void expectBookmarks(const std::vector<PlayerBookmark>& actual,
                     const std::vector<ExpectedBookmark>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE("bookmark " + std::to_string(i));
        EXPECT_EQ(actual[i].entryId, expected[i].entryId);
        EXPECT_EQ(actual[i].title, expected[i].title);
        EXPECT_EQ(actual[i].comments, expected[i].comments);
        EXPECT_EQ(actual[i].frame, expected[i].frame);
        EXPECT_TRUE(actual[i].payload.empty());
    }
}

// Entries 1 to 40; the camera logged 2, 5, 9 and 12, the lidar the rest. A
// camera player therefore has the frames [2, 5, 9, 12].
class BookmarkFile {
public:
    explicit BookmarkFile(const std::string& path) : builder_(path) {
        const int8_t camera = builder_.addSource(MV_LogDataSourceType_Camera, "camera");
        const int8_t lidar = builder_.addSource(MV_LogDataSourceType_Lidar, "lidar");
        for (int32_t id = 1; id <= 40; ++id) {
            const bool byCamera = id == 2 || id == 5 || id == 9 || id == 12;
            builder_.addEntry(byCamera ? camera : lidar, 1000 + id);
        }
    }
    LogFileBuilder& builder() { return builder_; }
    LogFilePlayer makeCameraPlayer() {
        return LogFilePlayer(builder_.take(), {MV_LogDataSourceType_Camera}, FrameCallback(), false, 1000);
    }

private:
    LogFileBuilder builder_;
};

std::vector<Bookmark> fileBookmarks(const LogFilePlayer& player) {
    return player.getUnderlyingLogFile()->getBookmarks();
}

TEST(PlayerBookmarks, EachBookmarkGetsTheFirstFrameAtOrAfterItsEntry) {
    TempDir dir;
    BookmarkFile file(dir.file("a.mvlog"));
    file.builder().addBookmark(7, "seven", "between frames", {std::byte{1}});
    file.builder().addBookmark(9, "nine", "on a frame", {std::byte{2}, std::byte{3}});
    file.builder().addBookmark(40, "forty", "after the last frame");
    file.builder().addBookmark(1, "one", "before the first frame");
    LogFilePlayer player = file.makeCameraPlayer();
    ASSERT_EQ(player.getFrameCount(), 4u);
    expectBookmarks(player.getBookmarks(), {{7, "seven", "between frames", 2},
                                            {9, "nine", "on a frame", 2},
                                            {40, "forty", "after the last frame", 3},
                                            {1, "one", "before the first frame", 0}});
}

TEST(PlayerBookmarks, PayloadOfTheFileIsNotCarriedOver) {
    TempDir dir;
    BookmarkFile file(dir.file("a.mvlog"));
    file.builder().addBookmark(5, "with payload", "", {std::byte{0xDE}, std::byte{0xAD}});
    LogFilePlayer player = file.makeCameraPlayer();
    ASSERT_EQ(player.getBookmarks().size(), 1u);
    EXPECT_TRUE(player.getBookmarks()[0].payload.empty());
    // The file keeps it.
    EXPECT_EQ(fileBookmarks(player)[0].payload, (ByteBuffer{std::byte{0xDE}, std::byte{0xAD}}));
}

TEST(PlayerBookmarks, WithoutFramesEveryBookmarkGetsMinusOne) {
    auto file = std::make_unique<FakeLogFile>();
    file->bookmarks = {Bookmark{3, "a", "x", {}}, Bookmark{8, "b", "y", {}}};
    LogFilePlayer player(std::move(file), {}, FrameCallback(), false, 1000);
    expectBookmarks(player.getBookmarks(), {{3, "a", "x", -1}, {8, "b", "y", -1}});
}

TEST(PlayerBookmarks, TwoBookmarksOnOneEntryBothAppearInFileOrder) {
    TempDir dir;
    BookmarkFile file(dir.file("a.mvlog"));
    file.builder().addBookmark(5, "first", "1");
    file.builder().addBookmark(5, "second", "2");
    LogFilePlayer player = file.makeCameraPlayer();
    expectBookmarks(player.getBookmarks(), {{5, "first", "1", 1}, {5, "second", "2", 1}});
}

TEST(PlayerBookmarks, OrderIsTheFilesNotTheFrames) {
    auto file = std::make_unique<FakeLogFile>();
    file->index = {2, 5, 9, 12};
    file->bookmarks = {Bookmark{12, "late", "", {}}, Bookmark{2, "early", "", {}},
                       Bookmark{6, "middle", "", {}}};
    LogFilePlayer player(std::move(file), {}, FrameCallback(), false, 1000);
    expectBookmarks(player.getBookmarks(), {{12, "late", "", 3}, {2, "early", "", 0}, {6, "middle", "", 2}});
}

TEST(PlayerBookmarks, AddBookmarksTheEntryIdNotTheFrame) {
    TempDir dir;
    BookmarkFile file(dir.file("a.mvlog"));
    LogFilePlayer player = file.makeCameraPlayer();
    player.addBookmark(3, "title", "comments");
    const std::vector<Bookmark> stored = fileBookmarks(player);
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0].entryId, 3);
    EXPECT_EQ(stored[0].title, "title");
    EXPECT_EQ(stored[0].comments, "comments");
    EXPECT_TRUE(stored[0].payload.empty());
    // Entry 3 lies between the frames of entries 2 and 5.
    expectBookmarks(player.getBookmarks(), {{3, "title", "comments", 1}});
}

TEST(PlayerBookmarks, UpdateRewritesTheFileBookmarkWithoutPayload) {
    TempDir dir;
    BookmarkFile file(dir.file("a.mvlog"));
    file.builder().addBookmark(9, "old", "old comments", {std::byte{7}});
    file.builder().addBookmark(12, "other", "");
    LogFilePlayer player = file.makeCameraPlayer();
    player.updateBookmark(9, "new", "new comments");
    const std::vector<Bookmark> stored = fileBookmarks(player);
    ASSERT_EQ(stored.size(), 2u);
    EXPECT_EQ(stored[0].title, "new");
    EXPECT_EQ(stored[0].comments, "new comments");
    EXPECT_TRUE(stored[0].payload.empty());
    expectBookmarks(player.getBookmarks(), {{9, "new", "new comments", 2}, {12, "other", "", 3}});
}

TEST(PlayerBookmarks, RemoveDeletesEveryBookmarkOfTheEntry) {
    TempDir dir;
    BookmarkFile file(dir.file("a.mvlog"));
    file.builder().addBookmark(7, "a", "");
    file.builder().addBookmark(20, "b", "");
    file.builder().addBookmark(7, "c", "");
    LogFilePlayer player = file.makeCameraPlayer();
    player.removeBookmark(7);
    EXPECT_EQ(fileBookmarks(player).size(), 1u);
    expectBookmarks(player.getBookmarks(), {{20, "b", "", 3}});
}

TEST(PlayerBookmarks, RemovingAnEntryWithoutBookmarkStillRefreshesTheList) {
    TempDir dir;
    BookmarkFile file(dir.file("a.mvlog"));
    LogFilePlayer player = file.makeCameraPlayer();
    // Added behind the player's back: the list does not know it yet.
    ASSERT_TRUE(player.getUnderlyingLogFile()->addBookmark(Bookmark{11, "direct", "", {}}));
    EXPECT_TRUE(player.getBookmarks().empty());
    player.removeBookmark(30);
    expectBookmarks(player.getBookmarks(), {{11, "direct", "", 3}});
}

TEST(PlayerBookmarks, FailedEditStillRefreshesTheList) {
    TempDir dir;
    BookmarkFile file(dir.file("a.mvlog"));
    LogFilePlayer player = file.makeCameraPlayer();
    ASSERT_TRUE(player.getUnderlyingLogFile()->addBookmark(Bookmark{4, "direct", "", {}}));
    // No entry 1000: the file refuses the bookmark.
    player.addBookmark(1000, "nowhere", "");
    EXPECT_EQ(player.getUnderlyingLogFile()->getLastError(), "Unknown internal error");
    expectBookmarks(player.getBookmarks(), {{4, "direct", "", 1}});
}

TEST(PlayerBookmarks, EditsForwardExactlyTheDocumentedBookmarks) {
    auto file = std::make_unique<FakeLogFile>();
    FakeLogFile* fake = file.get();
    LogFilePlayer player(std::move(file), {}, FrameCallback(), false, 1000);
    player.addBookmark(3, "t", "c");
    player.updateBookmark(4, "u", "d");
    player.removeBookmark(5);
    ASSERT_EQ(fake->addedBookmarks.size(), 1u);
    EXPECT_EQ(fake->addedBookmarks[0].entryId, 3);
    EXPECT_EQ(fake->addedBookmarks[0].title, "t");
    EXPECT_EQ(fake->addedBookmarks[0].comments, "c");
    EXPECT_TRUE(fake->addedBookmarks[0].payload.empty());
    ASSERT_EQ(fake->updatedBookmarks.size(), 1u);
    EXPECT_EQ(fake->updatedBookmarks[0].entryId, 4);
    EXPECT_EQ(fake->updatedBookmarks[0].title, "u");
    EXPECT_EQ(fake->updatedBookmarks[0].comments, "d");
    ASSERT_EQ(fake->removedBookmarks.size(), 1u);
    EXPECT_EQ(fake->removedBookmarks[0].entryId, 5);
    EXPECT_EQ(fake->removedBookmarks[0].title, "");
    EXPECT_EQ(fake->removedBookmarks[0].comments, "");
    EXPECT_TRUE(fake->removedBookmarks[0].payload.empty());
}

TEST(PlayerBookmarks, EditThatThrowsLeavesTheListAsItWas) {
    auto file = std::make_unique<FakeLogFile>();
    FakeLogFile* fake = file.get();
    fake->bookmarks = {Bookmark{1, "kept", "", {}}};
    LogFilePlayer player(std::move(file), {}, FrameCallback(), false, 1000);
    fake->bookmarks.push_back(Bookmark{2, "not yet seen", "", {}});
    fake->throwOnBookmarkEdit = true;
    EXPECT_THROW(player.addBookmark(2, "x", ""), std::runtime_error);
    EXPECT_THROW(player.updateBookmark(2, "x", ""), std::runtime_error);
    EXPECT_THROW(player.removeBookmark(2), std::runtime_error);
    expectBookmarks(player.getBookmarks(), {{1, "kept", "", -1}});
}

TEST(PlayerBookmarks, EditsWhilePlayingReachTheFileBesideTheWorker) {
    TempDir dir;
    LogFileBuilder builder(dir.file("a.mvlog"));
    const int8_t source = builder.addSource(MV_LogDataSourceType_Camera, "camera");
    for (int64_t timestamp = 0; timestamp < 40; ++timestamp) {
        builder.addEntry(source, timestamp);
    }
    FrameRecorder recorder;
    LogFilePlayer player(builder.take(), {MV_LogDataSourceType_Camera}, recorder.callback(), true, 2);
    player.play();
    ASSERT_TRUE(recorder.waitForCount(5));
    const std::size_t deliveredBefore = recorder.count();
    for (int32_t round = 0; round < 40; ++round) {
        const int32_t entryId = round + 1;
        player.addBookmark(entryId, "title " + std::to_string(round), "added");
        player.updateBookmark(entryId, "title " + std::to_string(round), "updated");
        if (round % 2 == 1) {
            player.removeBookmark(entryId);
        }
    }
    EXPECT_TRUE(recorder.waitForCount(deliveredBefore + 5));
    player.stop();

    std::vector<ExpectedBookmark> expected;
    for (int32_t round = 0; round < 40; round += 2) {
        expected.push_back({round + 1, "title " + std::to_string(round), "updated", round});
    }
    expectBookmarks(player.getBookmarks(), expected);
    EXPECT_EQ(fileBookmarks(player).size(), 20u);
    for (const FrameRecorder::Delivery& delivery : recorder.deliveries()) {
        EXPECT_EQ(delivery.entry.entryId, delivery.frame + 1);
        EXPECT_EQ(delivery.entry.data, payloadFor(delivery.frame));
    }
}

}  // namespace
