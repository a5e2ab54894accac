#include "ToolTestSupport.h"

#include <TempDir.h>
#include <logging/Version.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

TEST(UsageTest, VersionNamesToolAndLibrary) {
    const RunResult result = runMvlog({"--version"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, std::string("mvlog ") + MARIVANE_LOGGING_VERSION + " (libmarivane-logging " +
                              MARIVANE_LOGGING_VERSION + ")\n");
    EXPECT_EQ(std::string(MARIVANE_LOGGING_VERSION), "4.0.0");
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

TEST(UsageTest, AWordThatIsNoCommandIsNamedWithTheCommands) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"frob"}, {"frob", "file.mvlog", "--json"}, {"--", "frob"}}) {
        const RunResult result = runMvlog(arguments);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err,
                  "mvlog: 'frob' is not a command; the commands are info, cat, export, slice, clone, merge, "
                  "split, play, bookmarks, metadata, resource, du, check, recover, index, view and demo\n"
                  "Run with --help for more information.\n");
    }
    // Without any word the command is still what is missing.
    EXPECT_EQ(runMvlog({}).err, "A subcommand is required\nRun with --help for more information.\n");
}

// Each numeric option with a range says which numbers it takes, in a line.
TEST(UsageTest, NumbersOutsideTheirRangeGetAShortMessage) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    writeKnownFile(path);
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"cat", path, "--limit", "-1"}, "--limit: must be a whole number of 0 or more, got -1"},
        {{"cat", path, "--limit", "2.5"}, "--limit: must be a whole number of 0 or more, got 2.5"},
        {{"cat", path, "--source", "300"}, "--source: must be a whole number from -128 to 127, got 300"},
        {{"cat", path, "--follow", "--idle", "-1"}, "--idle: must be a number of 0 or more, got -1"},
        {{"cat", path, "--follow", "--idle", "nan"}, "--idle: must be a number of 0 or more, got nan"},
        {{"slice", path, "--source", "-129", "--from", "1", "--to", "2"},
         "--source: must be a whole number from -128 to 127, got -129"},
        {{"slice", path, "--source", "1x", "--from", "1", "--to", "2"},
         "--source: must be a whole number from -128 to 127, got 1x"},
        {{"slice", path, "--from", "1", "--to", "2", "--level", "-2"},
         "--level: must be a whole number from -1 to 9, got -2"},
        {{"clone", path, "--level", "10"}, "--level: must be a whole number from -1 to 9, got 10"},
        {{"merge", path, path, "-o", directory.file("m.mvlog"), "--level", "99"},
         "--level: must be a whole number from -1 to 9, got 99"},
        {{"play", path, "--speed", "0"}, "--speed: must be a number above 0, got 0"},
        {{"play", path, "--speed", "-2"}, "--speed: must be a number above 0, got -2"},
        {{"play", path, "--speed", "inf"}, "--speed: must be a number above 0, got inf"},
        {{"play", path, "--max-delay", "0"}, "--max-delay: must be a whole number from 1 to 3600000, got 0"},
        {{"play", path, "--from", "-1"}, "--from: must be a whole number of 0 or more, got -1"},
    };
    for (const auto& [arguments, message] : cases) {
        const RunResult result = runMvlog(arguments);
        EXPECT_EQ(result.exitCode, 2) << message;
        EXPECT_EQ(result.out, "") << message;
        EXPECT_EQ(result.err, message + "\nRun with --help for more information.\n");
    }
    EXPECT_FALSE(std::filesystem::exists(directory.file("m.mvlog")));
    // The same options still take what they took: hexadecimal as the option
    // itself reads it, and the bounds themselves.
    EXPECT_EQ(runMvlog({"cat", path, "--limit", "0x2", "--format", "json"}).outLines().size(), 2u);
    EXPECT_EQ(runMvlog({"cat", path, "--limit", "0", "--source", "-128"}).exitCode, 0);
    EXPECT_EQ(runMvlog({"cat", path, "--limit", "1", "--source", "127"}).exitCode, 0);
}

}  // namespace
}  // namespace MvlogTest
