#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

class DeriveTest : public ::testing::Test {
protected:
    void SetUp() override { writeKnownFile(path); }

    TempDir directory;
    std::string path = directory.file("known.mvlog");
    std::string output = directory.file("derived.mvlog");
};

TEST_F(DeriveTest, SliceIsReadBackByInfoWithTheRightCounts) {
    const RunResult result = runMvlog({"slice", path, "--from", "10", "--to", "30", "-o", output});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, output + "\n");
    const nlohmann::json info = infoJson(output);
    EXPECT_EQ(info["entries"]["count"], 21);
    EXPECT_EQ(info["entries"]["firstId"], 1);
    EXPECT_EQ(info["entries"]["lastId"], 21);
    EXPECT_EQ(info["entries"]["durationMs"], 2000);
    EXPECT_EQ(info["applicationName"], "mvlog");
    EXPECT_EQ(info["oldApplicationName"], "tooltest");
    EXPECT_EQ(info["oldApplicationVersion"], "1.2");
    EXPECT_EQ(info["compressionLevel"], 3);
    EXPECT_EQ(info["dataSources"].size(), 3u);
    EXPECT_EQ(info["metadata"]["site"], "Test basin");
    // The bookmark on entry 5 lies outside the range.
    EXPECT_TRUE(info["bookmarks"].empty());
    // Renumbered from 1: the slice's entry 1 is the source's entry 10.
    const RunResult exported = runMvlog({"export", output, "--entry", "1", "-o", "-"});
    EXPECT_EQ(bytesOf(exported.out), knownPayload(10));
}

TEST_F(DeriveTest, SliceKeepsAndRemapsBookmarksInsideTheRange) {
    ASSERT_EQ(runMvlog({"slice", path, "--from", "3", "--to", "8", "-o", output}).exitCode, 0);
    const RunResult result = runMvlog({"bookmarks", output});
    EXPECT_EQ(result.out, "entry 3: \"five\" - first comment\n");
}

TEST_F(DeriveTest, SliceWithoutOutputWritesBesideTheSource) {
    const RunResult result = runMvlog({"slice", path, "--from", "1", "--to", "2"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::string expected = directory.file("known_exported.mvlog");
    EXPECT_EQ(result.out, expected + "\n");
    EXPECT_EQ(infoJson(expected)["entries"]["count"], 2);
}

TEST_F(DeriveTest, RefusalsSayWhyAndWriteNothing) {
    RunResult result = runMvlog({"slice", path, "--from", "30", "--to", "10", "-o", output});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: refused: the range is reversed (--from 30 is after --to 10)\n");
    result = runMvlog({"slice", path, "--from", "10", "--to", "500", "-o", output});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: refused: entry 500 does not exist (the file holds ids 1 to 101)\n");
    EXPECT_FALSE(std::filesystem::exists(output));

    result = runMvlog({"slice", path, "--from", "1", "--to", "2", "-o", path});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: refused: " + path + " already exists (derived files never overwrite)\n");
    result = runMvlog({"clone", path, "-o", directory.file("no/such/dir.mvlog")});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: refused: the directory " + directory.file("no/such") + " does not exist\n");
}

TEST_F(DeriveTest, CloneAtAnotherLevelKeepsEveryEntry) {
    const RunResult result = runMvlog({"clone", path, "-o", output, "--level", "0"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, output + "\n");
    const nlohmann::json info = infoJson(output);
    EXPECT_EQ(info["compressionLevel"], 0);
    EXPECT_EQ(info["entries"]["count"], 101);
    EXPECT_EQ(info["entries"]["payloadBytes"], 6767);
    EXPECT_EQ(info["bookmarks"].size(), 1u);
    EXPECT_EQ(info["resources"].size(), 2u);
    const RunResult exported = runMvlog({"export", output, "--entry", "77", "-o", "-"});
    EXPECT_EQ(bytesOf(exported.out), knownPayload(77));
}

TEST_F(DeriveTest, CopyFailureNamesThePartialOutput) {
    overwriteStoredPayload(path, 60, bytesOf("not a compressed frame"));
    const RunResult result = runMvlog({"clone", path, "-o", output});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err.rfind("mvlog: cloning failed: ", 0), 0u) << result.err;
    const std::string ending = " (the partial output " + output + " remains)\n";
    ASSERT_GE(result.err.size(), ending.size());
    EXPECT_EQ(result.err.substr(result.err.size() - ending.size()), ending) << result.err;
    EXPECT_TRUE(std::filesystem::exists(output));
}

TEST_F(DeriveTest, LevelOutsideTheRangeIsAUsageError) {
    EXPECT_EQ(runMvlog({"clone", path, "-o", output, "--level", "10"}).exitCode, 2);
    EXPECT_EQ(runMvlog({"slice", path, "--from", "1", "--to", "2", "--level", "-2"}).exitCode, 2);
    EXPECT_EQ(runMvlog({"slice", path, "--to", "2"}).exitCode, 2);
    EXPECT_FALSE(std::filesystem::exists(output));
}

TEST(DeriveErrors, MissingSourceIsAnError) {
    TempDir directory;
    const RunResult result = runMvlog({"clone", directory.file("missing.mvlog")});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: " + directory.file("missing.mvlog") + ": no such file\n");
}

}  // namespace
}  // namespace MvlogTest
