#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

namespace MvlogTest {
namespace {

using Marivane::Logging::Bookmark;
using Marivane::Logging::SqliteLogFile;
using Marivane::Testing::TempDir;

class BookmarksTest : public ::testing::Test {
protected:
    void SetUp() override { writeKnownFile(path); }

    std::string list() const {
        const RunResult result = runMvlog({"bookmarks", path, "list"});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return result.out;
    }

    TempDir directory;
    std::string path = directory.file("known.mvlog");
};

TEST_F(BookmarksTest, ListIsTheDefault) {
    const RunResult result = runMvlog({"bookmarks", path});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "entry 5: \"five\" - first comment\n");
}

TEST_F(BookmarksTest, AddUpdateRemoveRoundTrip) {
    RunResult result = runMvlog({"bookmarks", path, "add", "7", "seven", "--comments", "a comment"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "Added entry 7: \"seven\" - a comment\n");
    EXPECT_EQ(list(), "entry 5: \"five\" - first comment\nentry 7: \"seven\" - a comment\n");

    // Without --comments the comments stay.
    result = runMvlog({"bookmarks", path, "update", "7", "SEVEN"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "Updated entry 7: \"SEVEN\" - a comment\n");
    result = runMvlog({"bookmarks", path, "update", "7", "Seven", "--comments", "new words"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(list(), "entry 5: \"five\" - first comment\nentry 7: \"Seven\" - new words\n");

    result = runMvlog({"bookmarks", path, "remove", "7"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "Removed 1 bookmark on entry 7\n");
    EXPECT_EQ(list(), "entry 5: \"five\" - first comment\n");

    ASSERT_EQ(runMvlog({"bookmarks", path, "remove", "5"}).exitCode, 0);
    EXPECT_EQ(list(), "No bookmarks.\n");
}

TEST_F(BookmarksTest, UpdateKeepsThePayload) {
    {
        SqliteLogFile file(path);
        ASSERT_TRUE(file.addBookmark(Bookmark{9, "nine", "", bytesOf("payload bytes")}));
    }
    ASSERT_EQ(runMvlog({"bookmarks", path, "update", "9", "NINE"}).exitCode, 0);
    SqliteLogFile file(path);
    bool found = false;
    for (const Bookmark& bookmark : file.getBookmarks()) {
        if (bookmark.entryId == 9) {
            found = true;
            EXPECT_EQ(bookmark.title, "NINE");
            EXPECT_EQ(bookmark.payload, bytesOf("payload bytes"));
        }
    }
    EXPECT_TRUE(found);
    EXPECT_NE(list().find("entry 9: \"NINE\" [payload 13 B]\n"), std::string::npos);
}

TEST_F(BookmarksTest, MissingEntriesAndBookmarksAreFailures) {
    RunResult result = runMvlog({"bookmarks", path, "add", "999", "nowhere"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: " + path + ": no entry with id 999\n");
    result = runMvlog({"bookmarks", path, "update", "6", "title"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: " + path + ": no bookmark on entry 6\n");
    result = runMvlog({"bookmarks", path, "remove", "6"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: " + path + ": no bookmark on entry 6\n");
    EXPECT_EQ(list(), "entry 5: \"five\" - first comment\n");
}

TEST_F(BookmarksTest, MalformedActionsAreUsageErrors) {
    EXPECT_EQ(runMvlog({"bookmarks", path, "add", "7"}).exitCode, 2);
    EXPECT_EQ(runMvlog({"bookmarks", path, "add", "seven", "title"}).exitCode, 2);
    EXPECT_EQ(runMvlog({"bookmarks", path, "remove"}).exitCode, 2);
    EXPECT_EQ(runMvlog({"bookmarks", path, "rename", "5"}).exitCode, 2);
    EXPECT_EQ(list(), "entry 5: \"five\" - first comment\n");
}

}  // namespace
}  // namespace MvlogTest
