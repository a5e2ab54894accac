#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>

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

// A version-2 file stores resources as they are: these are frames, not the
// resources, and are not written as if they were.
TEST_F(ExportTest, AResourceThatReadsBackAsAFrameIsRefused) {
    executeSql(path, "UPDATE metadata SET value = 2 WHERE key = 'logVersion';");
    RunResult result = runMvlog({"export", path, "--thumbnail", "-o", output});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: " + path +
                              ": the thumbnail: it is a compressed frame but the file's format version is 2 "
                              "(resources stored uncompressed): readers hand it out compressed; nothing "
                              "written\n");
    EXPECT_FALSE(std::filesystem::exists(output));
    result = runMvlog({"export", path, "--resource", "notes.txt", "-o", "-"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: " + path +
                              ": resource \"notes.txt\": it is a compressed frame but the file's format "
                              "version is 2 (resources stored uncompressed): readers hand it out compressed; "
                              "nothing written\n");
    EXPECT_TRUE(result.out.empty());
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()),
                            std::filesystem::directory_iterator()),
              1);
}

// The last pages of the file hold entry 101's payload; SQLite would read
// the byte cut off as a zero.
TEST_F(ExportTest, AnEntryOnTheCutOffPartOfAFileIsNotWritten) {
    const std::string cut = directory.file("cut.mvlog");
    writeKnownFile(cut, 0);
    overwriteStoredPayload(cut, 101, ByteBuffer(50'000, std::byte{0x5a}));
    std::filesystem::resize_file(cut, std::filesystem::file_size(cut) - 1);
    const RunResult result = runMvlog({"export", cut, "--entry", "101", "-o", output});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err.rfind("mvlog: entry 101: cannot be read: ", 0), 0u) << result.err;
    EXPECT_FALSE(std::filesystem::exists(output));
    ASSERT_EQ(runMvlog({"export", cut, "--entry", "100", "-o", output}).exitCode, 0);
    EXPECT_EQ(readFileBytes(output), knownPayload(100));
}

TEST_F(ExportTest, ExactlyOneSelectorIsRequired) {
    EXPECT_EQ(runMvlog({"export", path, "-o", output}).exitCode, 2);
    EXPECT_EQ(runMvlog({"export", path, "--entry", "1", "--thumbnail", "-o", output}).exitCode, 2);
    EXPECT_EQ(runMvlog({"export", path, "--entry", "1"}).exitCode, 2);
    EXPECT_FALSE(std::filesystem::exists(output));
}

}  // namespace
}  // namespace MvlogTest
