#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <sqlite3.h>

#include <string>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

int64_t timeIndexCount(const std::string& path) {
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db,
                                 "SELECT count(*) FROM sqlite_master WHERE type = 'index' AND name = "
                                 "'dataTimestampIndex';",
                                 -1, &statement, nullptr),
              SQLITE_OK);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    const int64_t count = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return count;
}

class IndexTest : public ::testing::Test {
protected:
    void SetUp() override { writeKnownFile(path); }

    TempDir directory;
    std::string path = directory.file("known.mvlog");
};

TEST_F(IndexTest, BuildsTheTimeIndexOnceAndTimeWindowsAnswerTheSame) {
    const RunResult before = runMvlog({"cat", path, "--start", "+2", "--end", "+2.45"});
    ASSERT_EQ(before.exitCode, 0) << before.err;
    EXPECT_EQ(timeIndexCount(path), 0);

    const RunResult built = runMvlog({"index", path});
    ASSERT_EQ(built.exitCode, 0) << built.err;
    const std::vector<std::string> lines = splitLines(built.out);
    ASSERT_EQ(lines.size(), 2u) << built.out;
    EXPECT_EQ(lines[0], "Building the time index of " + path + " (101 entries)...");
    EXPECT_EQ(lines[1].rfind("Built the time index in ", 0), 0u) << lines[1];
    EXPECT_EQ(timeIndexCount(path), 1);

    const RunResult again = runMvlog({"index", path});
    ASSERT_EQ(again.exitCode, 0) << again.err;
    EXPECT_EQ(again.out, path + " already has a time index\n");

    const RunResult after = runMvlog({"cat", path, "--start", "+2", "--end", "+2.45"});
    ASSERT_EQ(after.exitCode, 0) << after.err;
    EXPECT_EQ(after.out, before.out);
    EXPECT_EQ(splitLines(after.out).size(), 5u);
    const RunResult check = runMvlog({"check", path});
    EXPECT_EQ(check.exitCode, 0) << check.out;
}

TEST_F(IndexTest, AMissingFileIsAFailure) {
    const std::string missing = directory.file("missing.mvlog");
    const RunResult result = runMvlog({"index", missing});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_FALSE(std::filesystem::exists(missing));
}

}  // namespace
}  // namespace MvlogTest
