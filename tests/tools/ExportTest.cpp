#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

class ExportTest : public ::testing::Test {
protected:
    void SetUp() override { writeKnownFile(path); }

    TempDir directory;
    std::string path = directory.file("known.mvlog");
    std::string output = directory.file("out.bin");
};

TEST_F(ExportTest, EntryPayloadIsWrittenByteForByte) {
    const RunResult result = runMvlog({"export", path, "--entry", "42", "-o", output});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "Wrote 58 bytes (58 B) to " + output + "\n");
    EXPECT_EQ(readFileBytes(output), knownPayload(42));
}

TEST_F(ExportTest, ResourceAndThumbnailAreWrittenByteForByte) {
    ASSERT_EQ(runMvlog({"export", path, "--resource", "notes.txt", "-o", output}).exitCode, 0);
    EXPECT_EQ(readFileText(output), "hello");
    // The second export replaces the first file, which takes --force.
    ASSERT_EQ(runMvlog({"export", path, "--thumbnail", "--output", output, "--force"}).exitCode, 0);
    EXPECT_EQ(readFileText(output), "0123456789");
}

TEST_F(ExportTest, DashSendsTheBytesToStandardOutput) {
    const RunResult result = runMvlog({"export", path, "--entry", "3", "-o", "-"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(bytesOf(result.out), knownPayload(3));
}

TEST_F(ExportTest, MissingItemsAreFailures) {
    RunResult result = runMvlog({"export", path, "--entry", "999", "-o", output});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: " + path + ": no entry with id 999\n");
    result = runMvlog({"export", path, "--resource", "nothing", "-o", output});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: " + path + ": no resource named \"nothing\"\n");
    EXPECT_FALSE(std::filesystem::exists(output));
}

TEST_F(ExportTest, FileWithoutThumbnailSaysSo) {
    const std::string bare = directory.file("bare.mvlog");
    { Marivane::Logging::SqliteLogFile file(bare, "UTC", "tooltest", "1", 0, kKnownStart); }
    const RunResult result = runMvlog({"export", bare, "--thumbnail", "-o", output});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: " + bare + ": the file has no thumbnail\n");
}

TEST_F(ExportTest, DamagedPayloadIsAFailureWithTheReason) {
    overwriteStoredPayload(path, 42, bytesOf("garbage"));
    const RunResult result = runMvlog({"export", path, "--entry", "42", "-o", output});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err.rfind("mvlog: entry 42: payload cannot be expanded: ", 0), 0u) << result.err;
}

TEST_F(ExportTest, ExactlyOneSelectorIsRequired) {
    EXPECT_EQ(runMvlog({"export", path, "-o", output}).exitCode, 2);
    EXPECT_EQ(runMvlog({"export", path, "--entry", "1", "--thumbnail", "-o", output}).exitCode, 2);
    EXPECT_EQ(runMvlog({"export", path, "--entry", "1"}).exitCode, 2);
    EXPECT_FALSE(std::filesystem::exists(output));
}

}  // namespace
}  // namespace MvlogTest
