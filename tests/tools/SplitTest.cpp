// mvlog split: numbered complete log files by time, stored size or count.

#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace MvlogTest {
namespace {

using Marivane::Logging::SqliteLogFile;
using Marivane::Testing::TempDir;

class SplitTest : public ::testing::Test {
protected:
    void SetUp() override { writeKnownFile(path); }

    std::string part(int number) const { return parts + fmt(number); }

    static std::string fmt(int number) {
        std::string digits = std::to_string(number);
        return "/known_" + std::string(4 - digits.size(), '0') + digits + ".mvlog";
    }

    // Every part's payloads, in order, are the file's.
    void expectThePartsHoldEveryEntryOnce(const std::vector<int>& counts) {
        int id = 1;
        for (std::size_t i = 0; i < counts.size(); ++i) {
            const std::string file = part(static_cast<int>(i) + 1);
            const nlohmann::json info = infoJson(file);
            EXPECT_EQ(info["entries"]["count"], counts[i]) << file;
            for (int k = 1; k <= counts[i]; ++k, ++id) {
                EXPECT_EQ(bytesOf(runMvlog({"export", file, "--entry", std::to_string(k), "-o", "-"}).out),
                          knownPayload(id))
                    << file << " entry " << k;
            }
        }
        EXPECT_EQ(id, kKnownEntries + 1);
        EXPECT_FALSE(std::filesystem::exists(part(static_cast<int>(counts.size()) + 1)));
    }

    TempDir directory;
    std::string path = directory.file("known.mvlog");
    std::string parts = directory.file("parts");
};

TEST_F(SplitTest, ByDurationInWindowsFromTheFirstEntry) {
    // 101 entries 100 ms apart: five windows of 2 s hold 20 each, the sixth the last entry.
    const RunResult result = runMvlog({"split", path, "-o", parts, "--every", "2s"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.outLines().front(),
              part(1) + ": 20 entries, 2023-11-14T22:13:20.000Z to 2023-11-14T22:13:21.900Z");
    EXPECT_EQ(result.outLines().back(),
              part(6) + ": 1 entries, 2023-11-14T22:13:30.000Z to 2023-11-14T22:13:30.000Z");
    expectThePartsHoldEveryEntryOnce({20, 20, 20, 20, 20, 1});
}

TEST_F(SplitTest, ByCountAndEachPartIsACompleteLogFile) {
    const RunResult result = runMvlog({"split", path, "-o", parts, "--every", "30", "--json"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    const nlohmann::json document = nlohmann::json::parse(result.out);
    EXPECT_EQ(document["input"], path);
    EXPECT_EQ(document["directory"], parts);
    ASSERT_EQ(document["parts"].size(), 4u);
    EXPECT_EQ(document["parts"][0], nlohmann::json::parse(R"({"output": ")" + part(1) + R"(", "entries": 30,
        "start": "2023-11-14T22:13:20.000Z", "end": "2023-11-14T22:13:22.900Z", "bookmarks": 1, "resources": 2})"));
    EXPECT_EQ(document["parts"][3]["entries"], 11);
    EXPECT_EQ(document["parts"][3]["bookmarks"], 0);
    expectThePartsHoldEveryEntryOnce({30, 30, 30, 11});
    // Metadata with the producer's history, data sources with their
    // properties, resources and the thumbnail, the bookmark on its entry.
    const SqliteLogFile first = SqliteLogFile::openReadOnly(part(1));
    EXPECT_EQ(first.getMetadataValue("site"), Marivane::Logging::PropertyValue{std::string("Test basin")});
    EXPECT_EQ(first.getMetadataValue("oldApplicationName"),
              Marivane::Logging::PropertyValue{std::string("tooltest")});
    EXPECT_EQ(first.getDataSources().size(), 3u);
    EXPECT_EQ(first.getAllDataSourceProperties().size(),
              SqliteLogFile::openReadOnly(path).getAllDataSourceProperties().size());
    EXPECT_EQ(first.getResource("notes.txt"), bytesOf("hello"));
    EXPECT_EQ(first.getThumbnail(), SqliteLogFile::openReadOnly(path).getThumbnail());
    ASSERT_EQ(first.getBookmarks().size(), 1u);
    EXPECT_EQ(first.getBookmarks()[0].entryId, 5);
    EXPECT_EQ(runMvlog({"check", part(4)}).outLines().back(), "OK");
}

TEST_F(SplitTest, BySizeOfStoredBytes) {
    const nlohmann::json document =
        nlohmann::json::parse(runMvlog({"split", path, "-o", parts, "--every", "2KiB", "--json"}).out);
    ASSERT_GE(document["parts"].size(), 2u);
    int total = 0;
    for (const nlohmann::json& made : document["parts"]) {
        total += made["entries"].get<int>();
    }
    EXPECT_EQ(total, kKnownEntries);
}

TEST_F(SplitTest, RefusalsWriteNothing) {
    std::filesystem::create_directories(parts);
    { std::ofstream(part(2)) << "mine"; }
    const RunResult taken = runMvlog({"split", path, "-o", parts, "--every", "30"});
    EXPECT_EQ(taken.exitCode, 1);
    EXPECT_EQ(taken.err, "mvlog: refused: " + part(2) +
                             " already exists (split never overwrites); nothing was written\n");
    EXPECT_FALSE(std::filesystem::exists(part(1)));
    EXPECT_EQ(readFileText(part(2)), "mine");

    for (const char* every : {"0", "-5", "2.5", "5x", "s", "1e30", "0.1ms"}) {
        const RunResult bad = runMvlog({"split", path, "-o", parts, "--every", every});
        EXPECT_EQ(bad.exitCode, 2) << every;
        EXPECT_EQ(bad.err,
                  std::string("mvlog: --every ") + every +
                      ": give a duration (500ms, 30s, 5m, 1h), a size of stored bytes (64MiB, 100MB, "
                      "512KiB) or a number of entries (1000)\n");
    }
    const std::string empty = directory.file("empty.mvlog");
    { SqliteLogFile file(empty, "UTC", "tooltest", "1", 0, kKnownStart); }
    const RunResult nothing = runMvlog({"split", empty, "-o", parts, "--every", "30"});
    EXPECT_EQ(nothing.exitCode, 1);
    EXPECT_EQ(nothing.err, "mvlog: refused: " + empty + " has no entries to split; nothing was written\n");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(parts), {}), 1);
}

}  // namespace
}  // namespace MvlogTest
