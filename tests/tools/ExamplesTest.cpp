#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

// The three examples on one file: the C recorder writes it, the C reader
// prints it, the C++ replayer plays it.
class ExamplesTest : public ::testing::Test {
protected:
    void SetUp() override {
        const RunResult recorded = runProgram(RECORDER_EXAMPLE, {path});
        ASSERT_EQ(recorded.exitCode, 0) << recorded.err;
        EXPECT_EQ(recorded.out, "Recorded 70 entries into " + path + "\n");
    }

    TempDir directory;
    std::string path = directory.file("example.mvlog");
};

TEST_F(ExamplesTest, ReaderPrintsEverythingTheRecorderWrote) {
    const RunResult result = runProgram(READER_EXAMPLE, {path});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::vector<std::string> lines = result.outLines();
    for (const char* expected : {
             "metadata:",
             "  applicationName = \"recorder-example\"",
             "  applicationVersion = \"1.0\"",
             "  currentTimeZone = \"UTC\"",
             "  logVersion = 4",
             "  compressionLevel = 3",
             "  site = \"Example harbour\"",
             "  recordingIndex = 7",
             "data sources:",
             "  [1] type 7 \"thermometer\"",
             "  [2] type 4 \"receiver\"",
             "properties:",
             "  source 1: unit = \"celsius\"",
             "  source 1: rateHz = 2",
             "  source 2: datum = \"WGS84\"",
             "  source 2: rateHz = 5",
             "entries: 70 (ids 1 to 70)",
             "  t=1700000000000 source 2 type 2: $POS,0,59.900000,10.700000",
             "  t=1700000000000 source 1 type 1: 21.0",
             "  t=1700000009800 source 2 type 2: $POS,9800,59.900980,10.700490",
             "printed 70 entries",
             "bookmarks:",
             "  entry 1: \"First reading\" (recorded by the C example)",
             "resources:",
         }) {
        EXPECT_TRUE(containsLine(lines, expected)) << expected << "\n" << result.out;
    }
    EXPECT_EQ(lines.back(), "resources:");
}

TEST_F(ExamplesTest, ReplayerPlaysEveryFrameAtTheGivenSpeed) {
    const RunResult result = runProgram(REPLAYER_EXAMPLE, {path, "50"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::vector<std::string> lines = result.outLines();
    ASSERT_EQ(lines.size(), 71u) << result.out;
    EXPECT_EQ(lines[0], "70 frames over 9800 ms, at 50x");
    EXPECT_EQ(lines[1], "frame 0: entry 1, t=1700000000000, source 2, type 2, 26 bytes");
    EXPECT_EQ(lines[70], "frame 69: entry 70, t=1700000009800, source 2, type 2, 29 bytes");
    // 9.8 s at 50x is about 0.2 s.
    EXPECT_GE(result.seconds, 0.18);
    EXPECT_LE(result.seconds, 5.0);
}

TEST_F(ExamplesTest, ToolReadsTheRecordedFile) {
    const nlohmann::json info = infoJson(path);
    EXPECT_EQ(info["entries"]["count"], 70);
    EXPECT_EQ(info["compressionLevel"], 3);
    EXPECT_EQ(info["dataSources"][0]["name"], "thermometer");
    EXPECT_EQ(info["dataSources"][0]["type"], "Environment");
    EXPECT_EQ(info["dataSources"][0]["entryCount"], 20);
    EXPECT_EQ(info["dataSources"][1]["entryCount"], 50);
    EXPECT_EQ(runMvlog({"check", path}).exitCode, 0);
}

TEST_F(ExamplesTest, RecorderRefusesAnExistingFile) {
    const RunResult result = runProgram(RECORDER_EXAMPLE, {path});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err.rfind("recorder: cannot create the log file: ", 0), 0u) << result.err;
}

TEST(ExamplesThreaded, ThreeCaptureThreadsRecordEveryReading) {
    TempDir directory;
    const std::string path = directory.file("threaded.mvlog");
    const RunResult recorded = runProgram(THREADED_RECORDER_EXAMPLE, {path});
    ASSERT_EQ(recorded.exitCode, 0) << recorded.err;
    EXPECT_EQ(recorded.out,
              "camera 150, lidar 50, gnss 100 readings\naccepted 300, written 300, dropped 0, failed 0\n");
    const RunResult info = runMvlog({"info", path, "--json"});
    ASSERT_EQ(info.exitCode, 0) << info.err;
    const nlohmann::json document = nlohmann::json::parse(info.out);
    EXPECT_EQ(document["entries"]["count"], 300);
    EXPECT_EQ(document["dataSources"][0]["entryCount"], 150);
    EXPECT_EQ(document["dataSources"][0]["payloadBytes"], 150 * 16384);
    EXPECT_EQ(runMvlog({"check", path}).outLines().back(), "OK");
    const RunResult again = runProgram(THREADED_RECORDER_EXAMPLE, {path});
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_EQ(again.err, "cannot record into " + path + ": Cannot record into '" + path +
                             "': the file already exists.\n");
}

TEST(ExamplesErrors, ReaderAndReplayerRefuseAMissingFile) {
    TempDir directory;
    const std::string missing = directory.file("missing.mvlog");
    EXPECT_EQ(runProgram(READER_EXAMPLE, {missing}).exitCode, 1);
    EXPECT_EQ(runProgram(REPLAYER_EXAMPLE, {missing}).exitCode, 1);
    EXPECT_FALSE(std::filesystem::exists(missing));
}

}  // namespace
}  // namespace MvlogTest
