#include "ToolTestSupport.h"

#include <TempDir.h>

#include <logging/SqliteLogFile.h>

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
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

// The second half of the file is gone, and with it the end of the index on
// the entries: the last id is unknown, so the count of lost entries runs up
// to the highest id the file still shows (a bookmark on the last entry) and
// says that more may be lost.
TEST(RecoverTest, ACutFileSaysHowManyEntriesAtLeastWereLost) {
    TempDir directory;
    const std::string path = directory.file("cut.mvlog");
    const std::string output = directory.file("new.mvlog");
    constexpr int kEntries = 20000;
    {
        Marivane::Logging::SqliteLogFile file(path, "UTC", "tooltest", "1", 0, kKnownStart);
        Marivane::Logging::DataSource source{-1, MV_LogDataSourceType_Radar, "radar"};
        ASSERT_TRUE(file.addDataSource(source));
        auto batch = file.beginBatch();
        for (int id = 1; id <= kEntries; ++id) {
            Marivane::Logging::DataEntry entry;
            entry.dataSourceId = source.id;
            entry.timestamp = kKnownStart + id;
            entry.data = bytesOf("ping " + std::to_string(id));
            ASSERT_TRUE(file.logData(entry));
        }
        ASSERT_TRUE(batch.commit());
        ASSERT_TRUE(file.addBookmark(Marivane::Logging::Bookmark{kEntries, "last", "", {}}));
    }
    std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2 / 8192 * 8192);

    const RunResult result = runMvlog({"recover", path, "-o", output});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    const auto recovered = Marivane::Logging::SqliteLogFile::openReadOnly(output).getEntryCount();
    ASSERT_GT(recovered, 0);
    ASSERT_LT(recovered, kEntries);
    const std::vector<std::string> lines = result.outLines();
    EXPECT_TRUE(containsLine(lines, "entries: " + std::to_string(recovered) + " recovered, at least " +
                                        std::to_string(kEntries - recovered) + " lost"))
        << result.out;
    EXPECT_TRUE(containsLine(lines, "lost entry ids: " + std::to_string(recovered + 1) + "-20000"))
        << result.out;
    EXPECT_TRUE(containsLine(lines, "bookmarks: 0 recovered, 1 lost")) << result.out;
    EXPECT_TRUE(containsLine(lines,
                             "note: The number of lost entries is a lower bound: the file shows ids up to "
                             "20000, and entries after that, if there were any, left no trace that could "
                             "be counted."))
        << result.out;
    EXPECT_EQ(runMvlog({"check", output}).outLines().back(), "OK");
}

// A disk too small for the salvage: the message says so and how much room
// it needs, where a copy would have said "Input/output error".
TEST(RecoverTest, AFullDiskSaysHowMuchRoomIsNeeded) {
    TempDir directory;
    const std::filesystem::path small = directory.path() / "small";
    std::filesystem::create_directories(small);
    if (::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=1m") != 0) {
        GTEST_SKIP() << "cannot mount a small file system here: " << std::strerror(errno);
    }
    struct Unmount {
        std::filesystem::path path;
        ~Unmount() { ::umount2(path.c_str(), MNT_DETACH); }
    } unmount{small};
    const std::string path = directory.file("big.mvlog");
    {
        Marivane::Logging::SqliteLogFile file(path, "UTC", "tooltest", "1", 0, kKnownStart);
        Marivane::Logging::DataSource source{-1, MV_LogDataSourceType_Radar, "radar"};
        ASSERT_TRUE(file.addDataSource(source));
        auto batch = file.beginBatch();
        for (int id = 1; id <= 300; ++id) {
            Marivane::Logging::DataEntry entry;
            entry.dataSourceId = source.id;
            entry.timestamp = kKnownStart + id;
            entry.data = std::vector<std::byte>(5000, static_cast<std::byte>(id));
            ASSERT_TRUE(file.logData(entry));
        }
        ASSERT_TRUE(batch.commit());
    }
    ASSERT_GT(std::filesystem::file_size(path), 1024u * 1024u);
    const std::string output = (small / "new.mvlog").string();
    const RunResult result = runMvlog({"recover", path, "-o", output});
    EXPECT_EQ(result.exitCode, 1);
    const double needed =
        std::ceil(2.0 * static_cast<double>(std::filesystem::file_size(path)) / 104857.6) / 10;
    char text[2048];
    std::snprintf(
        text, sizeof text,
        "mvlog: recover failed: Not enough room on the disk for '%s': recovering needs about %.1f MiB "
        "free, 1.0 MiB are free. (nothing was written to %s)\n",
        output.c_str(), needed, output.c_str());
    EXPECT_EQ(result.err, text);
    EXPECT_TRUE(std::filesystem::is_empty(small));
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
