// Files and command lines that try to do harm: texts with control characters
// or bytes that are not UTF-8, exports aimed at existing files or at the log
// itself, numbers that are not numbers, paths that are not files.
#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

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

// Opening a named pipe for reading waits for a writer, forever when none
// comes: every command that reads a log file refuses anything that is not a
// regular file before opening it, also behind a link. Each run is bounded so
// that a hang fails the test instead of stalling it.
TEST_F(HostileInputTest, EveryCommandRefusesANamedPipeAtOnce) {
    const std::string pipe = directory.file("pipe.mvlog");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const std::string link = directory.file("link-to-pipe.mvlog");
    std::filesystem::create_symlink(pipe, link);
    const std::string output = directory.file("out.mvlog");
    for (const std::string& target : {pipe, link}) {
        const std::vector<std::vector<std::string>> commands = {
            {"info", target},
            {"info", target, "--json"},
            {"cat", target},
            {"export", target, "--entry", "1", "-o", output},
            {"slice", target, "--from", "1", "--to", "2", "-o", output},
            {"clone", target, "-o", output},
            {"merge", path, target, "-o", output},
            {"merge", target, path, "-o", output},
            {"play", target},
            {"bookmarks", target},
            {"bookmarks", target, "add", "1", "title"},
            {"check", target},
            {"recover", target, "-o", output},
            {"index", target},
        };
        for (const std::vector<std::string>& arguments : commands) {
            ChildProcess child(MVLOG_BINARY, arguments);
            const RunResult result = child.wait(std::chrono::seconds(20));
            EXPECT_EQ(result.exitCode, 1) << arguments[0] << " " << target;
            EXPECT_EQ(result.out, "") << arguments[0];
            EXPECT_EQ(result.err, "mvlog: '" + target + "' is not a regular file (it is a named pipe)\n")
                << arguments[0];
            EXPECT_LT(result.seconds, 10.0) << arguments[0];
            EXPECT_FALSE(std::filesystem::exists(output)) << arguments[0];
        }
    }
    EXPECT_EQ(std::filesystem::status(pipe).type(), std::filesystem::file_type::fifo);
}

TEST_F(HostileInputTest, ADeviceIsNotALogFile) {
    const RunResult result = runMvlog({"info", "/dev/null"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: '/dev/null' is not a regular file (it is a character device)\n");
    // A link to a regular file is read as the file.
    const std::string link = directory.file("link.mvlog");
    std::filesystem::create_symlink(path, link);
    EXPECT_EQ(runMvlog({"check", link}).exitCode, 0);
}

}  // namespace
}  // namespace MvlogTest
