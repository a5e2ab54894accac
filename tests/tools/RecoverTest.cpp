#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

TEST(RecoverTest, HealthyFileComesBackWhole) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    const std::string output = directory.file("new.mvlog");
    writeKnownFile(path);
    const RunResult result = runMvlog({"recover", path, "-o", output});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    const std::vector<std::string> lines = result.outLines();
    EXPECT_TRUE(containsLine(lines, "entries: 101 recovered, 0 lost")) << result.out;
    EXPECT_TRUE(containsLine(lines, "data sources: 3 recovered")) << result.out;
    EXPECT_TRUE(containsLine(lines, "bookmarks: 1 recovered, 0 lost")) << result.out;
    EXPECT_TRUE(containsLine(lines, "written: " + output)) << result.out;
    EXPECT_EQ(runMvlog({"check", output}).outLines().back(), "OK");
}

TEST(RecoverTest, DamagedEntriesAreNamedAndTheRestKept) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    const std::string output = directory.file("new.mvlog");
    writeKnownFile(path);
    for (int id : {7, 40, 41, 42}) {
        overwriteStoredPayload(path, id, bytesOf("\x28\xb5\x2f\xfd garbage after a frame magic"));
    }
    const RunResult check = runMvlog({"check", path});
    EXPECT_EQ(check.outLines().back(), "hint: mvlog recover " + path + " -o NEW salvages what is intact");

    const RunResult result = runMvlog({"recover", path, "-o", output});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    const std::vector<std::string> lines = result.outLines();
    EXPECT_TRUE(containsLine(lines, "entries: 97 recovered, 4 lost")) << result.out;
    EXPECT_TRUE(containsLine(lines, "lost entry ids: 7, 40-42")) << result.out;
    EXPECT_EQ(runMvlog({"check", output}).outLines().back(), "OK");
    EXPECT_EQ(runMvlog({"cat", output, "--from", "8", "--to", "8"}).exitCode, 0);
}

TEST(RecoverTest, ExistingOutputIsRefused) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    const std::string output = directory.file("taken.mvlog");
    writeKnownFile(path);
    std::ofstream(output) << "keep";
    const RunResult result = runMvlog({"recover", path, "-o", output});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("refused: " + output + " already exists"), std::string::npos) << result.err;
    EXPECT_EQ(readFileText(output), "keep");
}

TEST(RecoverTest, NothingToSalvageFails) {
    TempDir directory;
    const std::string path = directory.file("noise.mvlog");
    {
        std::ofstream noise(path, std::ios::binary);
        for (int i = 0; i < 40000; ++i) {
            noise.put(static_cast<char>((i * 7919) % 251));
        }
    }
    const RunResult result = runMvlog({"recover", path, "-o", directory.file("new.mvlog")});
    EXPECT_EQ(result.exitCode, 1) << result.out << result.err;
    EXPECT_NE(result.err.find("nothing could be recovered"), std::string::npos) << result.err;
}

TEST(RecoverTest, AFileTooShortForAPageIsNamedAsGiven) {
    TempDir directory;
    const std::string path = directory.file("short.mvlog");
    const std::string output = directory.file("new.mvlog");
    { std::ofstream(path, std::ios::binary) << std::string(100, 'x'); }
    const RunResult result = runMvlog({"recover", path, "-o", output});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: recover failed: Cannot read '" + path +
                              "': it is too short to hold a page. (nothing was written to " + output + ")\n");
    EXPECT_FALSE(std::filesystem::exists(output));
}

TEST(RecoverTest, MissingFileAndMissingOutputOption) {
    TempDir directory;
    EXPECT_EQ(runMvlog({"recover", directory.file("none.mvlog"), "-o", directory.file("new.mvlog")}).exitCode,
              1);
    EXPECT_EQ(runMvlog({"recover", directory.file("none.mvlog")}).exitCode, 2);
    const RunResult help = runMvlog({"recover", "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("intact"), std::string::npos) << help.out;
}

}  // namespace
}  // namespace MvlogTest
