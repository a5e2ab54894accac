#include <logging/SqliteLogFile.h>

#include <core/Compression.h>

#include "StoreTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

using namespace Marivane::Logging;
using Marivane::Testing::bytesOf;
using Marivane::Testing::createLogFile;
using Marivane::Testing::makeEntry;
using Marivane::Testing::patternBytes;
using Marivane::Testing::RawDatabase;
using Marivane::Testing::TempDir;
namespace fs = std::filesystem;

namespace {

using Rows = std::vector<std::vector<std::string>>;

// A file with one data source and `entries` entries (ids 1..entries).
SqliteLogFile fileWithEntries(const std::string& path, int8_t level, int entries) {
    SqliteLogFile file = createLogFile(path, level);
    DataSource source{-1, MV_LogDataSourceType_Camera, "cam"};
    EXPECT_TRUE(file.addDataSource(source));
    for (int i = 1; i <= entries; ++i) {
        EXPECT_TRUE(file.logData(makeEntry(source.id, 0, i, bytesOf("entry " + std::to_string(i)))));
    }
    return file;
}

void setLogVersion(const std::string& path, int version) {
    RawDatabase raw(path);
    raw.exec("UPDATE metadata SET value = " + std::to_string(version) + " WHERE key = 'logVersion';");
}

void expectBookmark(const Bookmark& actual, const Bookmark& expected) {
    EXPECT_EQ(actual.entryId, expected.entryId);
    EXPECT_EQ(actual.title, expected.title);
    EXPECT_EQ(actual.comments, expected.comments);
    EXPECT_EQ(actual.payload, expected.payload);
}

}  // namespace

TEST(Bookmarks, VersionThreeFileDropsPayloadsSilently) {
    TempDir dir;
    const std::string path = dir.file("v3.mvlog");
    { SqliteLogFile file = fileWithEntries(path, 5, 2); }
    setLogVersion(path, 3);
    SqliteLogFile file{fs::path(path)};
    EXPECT_FALSE(file.isBookmarkPayloadsSupported());
    EXPECT_TRUE(file.isResourceCompressionSupported());

    ASSERT_TRUE(file.addBookmark(Bookmark{1, "first", "note", patternBytes(300, 1)}));
    ASSERT_TRUE(file.updateBookmark(Bookmark{1, "first!", "note!", patternBytes(300, 2)}));
    ASSERT_TRUE(file.addBookmark(Bookmark{2, "second", "", bytesOf("gone")}));
    EXPECT_EQ(file.getLastError(), "No error");

    const std::vector<Bookmark> bookmarks = file.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 2u);
    expectBookmark(bookmarks[0], Bookmark{1, "first!", "note!", {}});
    expectBookmark(bookmarks[1], Bookmark{2, "second", "", {}});
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.rows("SELECT typeof(payload) FROM bookmarks;"), (Rows{{"null"}, {"null"}}));
}

TEST(Bookmarks, VersionThreeFileIgnoresStoredPayloads) {
    TempDir dir;
    const std::string path = dir.file("v3.mvlog");
    {
        SqliteLogFile file = fileWithEntries(path, 0, 1);
        ASSERT_TRUE(file.addBookmark(Bookmark{1, "t", "c", bytesOf("stored")}));
    }
    setLogVersion(path, 3);
    SqliteLogFile file{fs::path(path)};
    const std::vector<Bookmark> bookmarks = file.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    expectBookmark(bookmarks[0], Bookmark{1, "t", "c", {}});
}

TEST(Bookmarks, CompressingFileStoresACompressedPayload) {
    TempDir dir;
    const std::string path = dir.file("v4.mvlog");
    SqliteLogFile file = fileWithEntries(path, 6, 1);
    const ByteBuffer payload = patternBytes(4000, 3);
    ASSERT_TRUE(file.addBookmark(Bookmark{1, "title", "comments", payload}));
    {
        RawDatabase raw(path, SQLITE_OPEN_READONLY);
        const ByteBuffer stored = raw.blob("SELECT payload FROM bookmarks;");
        EXPECT_NE(stored, payload);
        EXPECT_EQ(stored, Marivane::Compression::compress(payload, 6));
    }
    const std::vector<Bookmark> bookmarks = file.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    expectBookmark(bookmarks[0], Bookmark{1, "title", "comments", payload});
}

TEST(Bookmarks, CompressingFileCompressesAnEmptyPayloadToo) {
    TempDir dir;
    const std::string path = dir.file("v4.mvlog");
    SqliteLogFile file = fileWithEntries(path, 6, 1);
    ASSERT_TRUE(file.addBookmark(Bookmark{1, "no payload", "", {}}));
    {
        RawDatabase raw(path, SQLITE_OPEN_READONLY);
        EXPECT_EQ(raw.blob("SELECT payload FROM bookmarks;"), Marivane::Compression::compress({}, 6));
    }
    const std::vector<Bookmark> bookmarks = file.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    EXPECT_TRUE(bookmarks[0].payload.empty());
}

TEST(Bookmarks, UncompressedFileStoresThePayloadAsGiven) {
    TempDir dir;
    const std::string path = dir.file("raw.mvlog");
    SqliteLogFile file = fileWithEntries(path, 0, 2);
    const ByteBuffer payload = patternBytes(4000, 4);
    ASSERT_TRUE(file.addBookmark(Bookmark{1, "title", "comments", payload}));
    ASSERT_TRUE(file.addBookmark(Bookmark{2, "empty", "", {}}));
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.blob("SELECT payload FROM bookmarks WHERE entryId = 1;"), payload);
    EXPECT_EQ(raw.rows("SELECT typeof(payload), length(payload) FROM bookmarks WHERE entryId = 2;"),
              (Rows{{"blob", "0"}}));
    const std::vector<Bookmark> bookmarks = file.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 2u);
    expectBookmark(bookmarks[0], Bookmark{1, "title", "comments", payload});
    expectBookmark(bookmarks[1], Bookmark{2, "empty", "", {}});
}

TEST(Bookmarks, UpdateAndRemoveActOnEveryBookmarkOfTheEntry) {
    TempDir dir;
    const std::string path = dir.file("pair.mvlog");
    SqliteLogFile file = fileWithEntries(path, 2, 2);
    ASSERT_TRUE(file.addBookmark(Bookmark{1, "a", "first", bytesOf("pa")}));
    ASSERT_TRUE(file.addBookmark(Bookmark{1, "b", "second", bytesOf("pb")}));
    ASSERT_TRUE(file.addBookmark(Bookmark{2, "other", "entry", bytesOf("po")}));

    ASSERT_TRUE(file.updateBookmark(Bookmark{1, "new", "both", bytesOf("updated")}));
    std::vector<Bookmark> bookmarks = file.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 3u);
    expectBookmark(bookmarks[0], Bookmark{1, "new", "both", bytesOf("updated")});
    expectBookmark(bookmarks[1], Bookmark{1, "new", "both", bytesOf("updated")});
    expectBookmark(bookmarks[2], Bookmark{2, "other", "entry", bytesOf("po")});

    // Only the entry id of the given record matters for removal.
    ASSERT_TRUE(file.removeBookmark(Bookmark{1, "ignored", "ignored", {}}));
    bookmarks = file.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    expectBookmark(bookmarks[0], Bookmark{2, "other", "entry", bytesOf("po")});
}

TEST(Bookmarks, UpdateAndRemoveWithoutMatchSucceedAndChangeNothing) {
    TempDir dir;
    SqliteLogFile file = fileWithEntries(dir.file("nomatch.mvlog"), 0, 3);
    ASSERT_TRUE(file.addBookmark(Bookmark{1, "keep", "", {}}));
    EXPECT_FALSE(file.logData(makeEntry(99, 0, 0, {})));
    const std::string before = file.getLastError();
    EXPECT_TRUE(file.updateBookmark(Bookmark{3, "nothing", "here", bytesOf("x")}));
    EXPECT_TRUE(file.removeBookmark(Bookmark{3, "", "", {}}));
    EXPECT_TRUE(file.removeBookmark(Bookmark{12345, "", "", {}}));
    EXPECT_EQ(file.getLastError(), before);
    const std::vector<Bookmark> bookmarks = file.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    expectBookmark(bookmarks[0], Bookmark{1, "keep", "", {}});
}

TEST(Bookmarks, BookmarkOnAMissingEntryIsRefused) {
    TempDir dir;
    SqliteLogFile file = fileWithEntries(dir.file("missing.mvlog"), 0, 1);
    EXPECT_FALSE(file.addBookmark(Bookmark{2, "nowhere", "", {}}));
    EXPECT_EQ(file.getLastError(), "Unknown internal error");
    EXPECT_TRUE(file.getBookmarks().empty());
}

TEST(Bookmarks, OpenedFileAcceptsBookmarks) {
    TempDir dir;
    const std::string path = dir.file("opened.mvlog");
    { SqliteLogFile file = fileWithEntries(path, 4, 2); }
    {
        SqliteLogFile file{fs::path(path)};
        ASSERT_TRUE(file.addBookmark(Bookmark{2, "later", "annotated", bytesOf("note")}));
        ASSERT_TRUE(file.addBookmark(Bookmark{1, "gone soon", "", {}}));
        ASSERT_TRUE(file.updateBookmark(Bookmark{2, "later!", "annotated!", bytesOf("note!")}));
        ASSERT_TRUE(file.removeBookmark(Bookmark{1, "", "", {}}));
    }
    SqliteLogFile file{fs::path(path)};
    const std::vector<Bookmark> bookmarks = file.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    expectBookmark(bookmarks[0], Bookmark{2, "later!", "annotated!", bytesOf("note!")});
}

TEST(Bookmarks, NullCommentsReadAsEmptyText) {
    TempDir dir;
    const std::string path = dir.file("nulls.mvlog");
    { SqliteLogFile file = fileWithEntries(path, 0, 1); }
    {
        RawDatabase raw(path);
        raw.exec(
            "INSERT INTO bookmarks (entryId, title, comments, payload) VALUES (1, 'from elsewhere', NULL, "
            "NULL);");
    }
    SqliteLogFile file{fs::path(path)};
    const std::vector<Bookmark> bookmarks = file.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    expectBookmark(bookmarks[0], Bookmark{1, "from elsewhere", "", {}});
}

TEST(Bookmarks, NullCommentsBesideACompressedPayload) {
    TempDir dir;
    const std::string path = dir.file("nulls.mvlog");
    const ByteBuffer payload = patternBytes(100, 8);
    {
        SqliteLogFile file = fileWithEntries(path, 3, 1);
        ASSERT_TRUE(file.addBookmark(Bookmark{1, "t", "will be cleared", payload}));
    }
    {
        RawDatabase raw(path);
        raw.exec("UPDATE bookmarks SET comments = NULL;");
    }
    SqliteLogFile file{fs::path(path)};
    const std::vector<Bookmark> bookmarks = file.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    expectBookmark(bookmarks[0], Bookmark{1, "t", "", payload});
}

TEST(Bookmarks, NullPayloadInACompressingFileReadsAsNoPayload) {
    TempDir dir;
    const std::string path = dir.file("nullpayload.mvlog");
    { SqliteLogFile file = fileWithEntries(path, 3, 1); }
    {
        RawDatabase raw(path);
        raw.exec(
            "INSERT INTO bookmarks (entryId, title, comments, payload) VALUES (1, 'other writer', 'c', "
            "NULL);");
    }
    SqliteLogFile file{fs::path(path)};
    const std::vector<Bookmark> bookmarks = file.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    expectBookmark(bookmarks[0], Bookmark{1, "other writer", "c", {}});
}
