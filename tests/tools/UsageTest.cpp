#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

TEST(UsageTest, VersionNamesToolAndLibrary) {
    const RunResult result = runMvlog({"--version"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out,
              std::string("mvlog ") + MVLOG_VERSION + " (libmarivane-logging " + MVLOG_VERSION + ")\n");
    EXPECT_EQ(std::string(MVLOG_VERSION), "4.0.0");
}

TEST(UsageTest, EverySubcommandHasHelp) {
    for (const char* command : {"info", "cat", "export", "slice", "clone", "merge", "play", "bookmarks",
                                "check", "index", "demo"}) {
        const RunResult result = runMvlog({command, "--help"});
        EXPECT_EQ(result.exitCode, 0) << command;
        EXPECT_NE(result.out.find("Usage:"), std::string::npos) << command << ": " << result.out;
    }
    const RunResult top = runMvlog({"--help"});
    EXPECT_EQ(top.exitCode, 0);
    for (const char* command : {"info", "cat", "export", "slice", "clone", "merge", "play", "bookmarks",
                                "check", "index", "demo"}) {
        EXPECT_NE(top.out.find(std::string("  ") + command), std::string::npos) << command;
    }
    const RunResult nested = runMvlog({"bookmarks", "file.mvlog", "add", "--help"});
    EXPECT_EQ(nested.exitCode, 0);
    EXPECT_NE(nested.out.find("--comments"), std::string::npos) << nested.out;
}

TEST(UsageTest, ParseErrorsExitWithTwo) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    writeKnownFile(path);
    const std::vector<std::vector<std::string>> mistakes = {
        {},
        {"frobnicate"},
        {"info"},
        {"info", path, "--jsn"},
        {"info", path, "extra"},
        {"cat", path, "--format", "xml"},
        {"cat", path, "--from", "one"},
        {"cat", path, "--source", "300"},
        {"cat", path, "--limit", "-5"},
        {"cat", path, "--source-type", "Unicorn"},
        {"play", path, "--max-delay", "0"},
        {"play", path, "--from", "-1"},
        {"slice", path, "--from", "1"},
        {"export", path, "--thumbnail"},
    };
    for (const std::vector<std::string>& arguments : mistakes) {
        const RunResult result = runMvlog(arguments);
        std::string line;
        for (const std::string& argument : arguments) {
            line += argument + " ";
        }
        EXPECT_EQ(result.exitCode, 2) << line << "\n" << result.out << result.err;
        EXPECT_FALSE(result.err.empty()) << line;
    }
}

}  // namespace
}  // namespace MvlogTest
