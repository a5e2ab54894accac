// Files and command lines that try to do harm: texts with control characters
// or bytes that are not UTF-8, exports aimed at existing files or at the log
// itself, numbers that are not numbers.
#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

class HostileInputTest : public ::testing::Test {
protected:
    void SetUp() override { writeKnownFile(path); }

    TempDir directory;
    std::string path = directory.file("known.mvlog");
};

TEST_F(HostileInputTest, ControlCharactersFromTheFileAreEscaped) {
    executeSql(path,
               "UPDATE dataSources SET dataSourceName = 'al' || char(27) || '[31mpha' || char(10) || 'x' "
               "WHERE dataSourceId = 1;"
               "UPDATE bookmarks SET title = 'five' || char(13) || char(127), comments = 'a\\b';");
    const RunResult info = runMvlog({"info", path});
    ASSERT_EQ(info.exitCode, 0) << info.err;
    EXPECT_EQ(info.out.find('\x1b'), std::string::npos);
    EXPECT_NE(info.out.find("\"al\\x1b[31mpha\\nx\""), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("entry 5: \"five\\r\\x7f\" - a\\\\b"), std::string::npos) << info.out;
    const RunResult bookmarks = runMvlog({"bookmarks", path});
    EXPECT_EQ(bookmarks.out, "entry 5: \"five\\r\\x7f\" - a\\\\b\n");
    const RunResult cat = runMvlog({"cat", path, "--limit", "1"});
    EXPECT_NE(cat.out.find("source 1 \"al\\x1b[31mpha\\nx\""), std::string::npos) << cat.out;
    EXPECT_EQ(cat.out.find('\x1b'), std::string::npos);
}

TEST_F(HostileInputTest, JsonEscapesBytesThatAreNotUtf8) {
    executeSql(path,
               "UPDATE dataSources SET dataSourceName = CAST(x'61ff62c3' AS TEXT) WHERE dataSourceId = 2;");
    const RunResult info = runMvlog({"info", path, "--json"});
    ASSERT_EQ(info.exitCode, 0) << info.err;
    const nlohmann::json document = nlohmann::json::parse(info.out);
    EXPECT_EQ(document["dataSources"][1]["name"], "a\\xffb\\xc3");
    const RunResult cat = runMvlog({"cat", path, "--from", "2", "--to", "2", "--format", "json"});
    ASSERT_EQ(cat.exitCode, 0) << cat.err;
    EXPECT_EQ(nlohmann::json::parse(cat.out)["dataSourceName"], "a\\xffb\\xc3");
}

TEST_F(HostileInputTest, ExportNeverOverwritesWithoutForceAndNeverTheLogItself) {
    const std::string output = directory.file("out.bin");
    { std::ofstream(output) << "keep"; }
    const RunResult refused = runMvlog({"export", path, "--entry", "3", "-o", output});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.err, "mvlog: refused: " + output + " already exists (use --force to replace it)\n");
    EXPECT_EQ(readFileText(output), "keep");
    const RunResult forced = runMvlog({"export", path, "--entry", "3", "-o", output, "--force"});
    EXPECT_EQ(forced.exitCode, 0) << forced.err;
    EXPECT_EQ(readFileBytes(output), knownPayload(3));

    const ByteBuffer before = readFileBytes(path);
    const std::string link = directory.file("link.mvlog");
    std::filesystem::create_symlink(path, link);
    for (const std::string& target : {path, link}) {
        const RunResult self = runMvlog({"export", path, "--entry", "3", "-o", target, "--force"});
        EXPECT_EQ(self.exitCode, 1);
        EXPECT_EQ(self.err, "mvlog: refused: " + target + " is the log file being read\n");
    }
    EXPECT_EQ(readFileBytes(path), before);
}

TEST_F(HostileInputTest, NumbersMustBeFinite) {
    for (const char* value : {"nan", "inf", "-inf", "1e999"}) {
        EXPECT_EQ(runMvlog({"play", path, "--speed", value}).exitCode, 2) << value;
        EXPECT_EQ(runMvlog({"cat", path, "--follow", "--idle", value}).exitCode, 2) << value;
    }
}

}  // namespace
}  // namespace MvlogTest
