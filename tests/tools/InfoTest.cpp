#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <fstream>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

class InfoTest : public ::testing::Test {
protected:
    void SetUp() override { writeKnownFile(path); }

    TempDir directory;
    std::string path = directory.file("known.mvlog");
};

TEST_F(InfoTest, TextNamesTheFixedFactsExactly) {
    const RunResult result = runMvlog({"info", path});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::vector<std::string> lines = result.outLines();
    EXPECT_TRUE(containsLine(lines, "File               " + path));
    EXPECT_TRUE(containsLine(lines, "Format version     4"));
    EXPECT_TRUE(containsLine(lines, "Compression level  3"));
    EXPECT_TRUE(containsLine(lines, "Durability         fast (no flushes, journal in memory)"));
    EXPECT_TRUE(containsLine(
        lines, "Created            2023-11-14T22:13:20.000Z (stored time zone \"Europe/Oslo\")"));
    EXPECT_TRUE(containsLine(lines, "Application        tooltest 1.2"));
    EXPECT_TRUE(containsLine(lines, "Entries            101 (ids 1 to 101)"));
    EXPECT_TRUE(
        containsLine(lines, "Time span          2023-11-14T22:13:20.000Z to 2023-11-14T22:13:30.000Z"));
    EXPECT_TRUE(containsLine(lines, "Duration           10.000 s"));
    // 101 payloads of 16 + id bytes.
    EXPECT_TRUE(
        containsLine(lines, "Payload bytes      6.6 KiB (6767 bytes), as logged (before compression)"));
    EXPECT_TRUE(containsLine(lines, "Data sources (3)"));
    EXPECT_TRUE(
        containsLine(lines, "  [1] Camera \"alpha\": 34 entries, 2.2 KiB payload, 3.33 Hz mean rate"));
    EXPECT_TRUE(containsLine(lines, "      width = 640 (int64)"));
    EXPECT_TRUE(containsLine(lines, "  [3] 1234 \"gamma\": 33 entries, 2.2 KiB payload, 3.33 Hz mean rate"));
    EXPECT_TRUE(containsLine(lines, "      gain = 1.5 (double)"));
    EXPECT_TRUE(containsLine(lines, "  type 10: 50 entries"));
    EXPECT_TRUE(containsLine(lines, "  type 11: 51 entries"));
    EXPECT_TRUE(containsLine(lines, "  notes.txt: 5 B (5 bytes)"));
    EXPECT_TRUE(containsLine(lines, "  thumbnail: 10 B (10 bytes)"));
    EXPECT_TRUE(containsLine(lines, "  entry 5: \"five\" - first comment"));
    EXPECT_TRUE(containsLine(lines, "  site                   \"Test basin\" (text)"));
    EXPECT_TRUE(result.err.empty()) << result.err;
}

TEST_F(InfoTest, JsonParsesAndHoldsTheCounts) {
    const nlohmann::json info = infoJson(path);
    EXPECT_EQ(info["path"], path);
    EXPECT_EQ(info["formatVersion"], 4);
    EXPECT_EQ(info["compressionLevel"], 3);
    EXPECT_EQ(info["created"]["timestamp"], kKnownStart);
    EXPECT_EQ(info["created"]["iso8601"], "2023-11-14T22:13:20.000Z");
    EXPECT_EQ(info["created"]["timeZone"], "Europe/Oslo");
    EXPECT_EQ(info["applicationName"], "tooltest");
    EXPECT_EQ(info["applicationVersion"], "1.2");
    EXPECT_TRUE(info["oldApplicationName"].is_null());
    EXPECT_EQ(info["entries"]["count"], 101);
    EXPECT_EQ(info["entries"]["firstId"], 1);
    EXPECT_EQ(info["entries"]["lastId"], 101);
    EXPECT_EQ(info["entries"]["durationMs"], 10'000);
    EXPECT_EQ(info["entries"]["payloadBytes"], 6767);
    EXPECT_GT(info["sizeOnDisk"].get<uint64_t>(), 0u);

    const nlohmann::json& sources = info["dataSources"];
    ASSERT_EQ(sources.size(), 3u);
    EXPECT_EQ(sources[0]["name"], "alpha");
    EXPECT_EQ(sources[0]["type"], "Camera");
    EXPECT_EQ(sources[0]["entryCount"], 34);
    EXPECT_EQ(sources[1]["type"], "Navigation");
    EXPECT_EQ(sources[1]["entryCount"], 34);
    EXPECT_EQ(sources[2]["type"], 1234);
    EXPECT_EQ(sources[2]["typeValue"], 1234);
    EXPECT_EQ(sources[2]["entryCount"], 33);
    uint64_t alphaBytes = 0;
    for (int id = 1; id <= kKnownEntries; id += 3) {
        alphaBytes += knownPayload(id).size();
    }
    EXPECT_EQ(sources[0]["payloadBytes"], alphaBytes);
    EXPECT_NEAR(sources[0]["meanRateHz"].get<double>(), 33.0 / 9.9, 1e-9);
    EXPECT_EQ(sources[1]["properties"][0]["name"], "datum");
    EXPECT_EQ(sources[1]["properties"][0]["value"], "WGS84");
    EXPECT_EQ(sources[1]["properties"][0]["valueType"], "text");

    ASSERT_EQ(info["entryTypes"].size(), 2u);
    EXPECT_EQ(info["entryTypes"][0]["type"], 10);
    EXPECT_EQ(info["entryTypes"][0]["count"], 50);
    EXPECT_EQ(info["metadata"]["site"], "Test basin");
    ASSERT_EQ(info["resources"].size(), 2u);
    EXPECT_EQ(info["resources"][0]["name"], "notes.txt");
    EXPECT_EQ(info["resources"][0]["size"], 5);
    EXPECT_EQ(info["resources"][1]["name"], "thumbnail");
    EXPECT_EQ(info["resources"][1]["size"], 10);
    ASSERT_EQ(info["bookmarks"].size(), 1u);
    EXPECT_EQ(info["bookmarks"][0]["entryId"], 5);
    EXPECT_EQ(info["bookmarks"][0]["title"], "five");
    EXPECT_TRUE(info["damagedEntries"].empty());
}

TEST_F(InfoTest, DamagedPayloadIsListedNotFatal) {
    overwriteStoredPayload(path, 9, bytesOf("garbage, not a compressed frame"));
    const nlohmann::json info = infoJson(path);
    ASSERT_EQ(info["damagedEntries"].size(), 1u);
    EXPECT_EQ(info["damagedEntries"][0]["entryId"], 9);
    EXPECT_EQ(info["entries"]["count"], 101);
    EXPECT_EQ(info["entries"]["payloadBytes"], 6767 - (16 + 9));
}

TEST(InfoDamage, EntriesHiddenByADamagedPageAreCountedAsMissing) {
    TempDir directory;
    const std::string path = directory.file("damaged.mvlog");
    writeFileWithDamagedPages(path);
    const nlohmann::json info = infoJson(path);
    EXPECT_EQ(info["entries"]["count"], 400);
    const int64_t missing = info["entriesMissingFromIndex"];
    EXPECT_GT(missing, 0);
    EXPECT_LT(missing, 400);
    EXPECT_EQ(info["dataSources"][0]["entryCount"].get<int64_t>() + missing +
                  static_cast<int64_t>(info["damagedEntries"].size()),
              400);
    const RunResult text = runMvlog({"info", path});
    EXPECT_NE(text.out.find("  " + std::to_string(missing) + " entries are missing from the entry index"),
              std::string::npos)
        << text.out;
}

TEST(InfoErrors, MissingFileIsAnErrorAndIsNotCreated) {
    TempDir directory;
    const std::string missing = directory.file("missing.mvlog");
    const RunResult result = runMvlog({"info", missing});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: " + missing + ": no such file\n");
    EXPECT_TRUE(result.out.empty());
    EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST(InfoErrors, ForeignFileCarriesTheLibraryMessage) {
    TempDir directory;
    const std::string text = directory.file("notes.txt");
    std::ofstream(text) << "This is a text file, long enough to be read as a database header.\n";
    const RunResult result = runMvlog({"info", text});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err,
              "mvlog: cannot open " + text + ": This file is not in a supported log file format.\n");
}

TEST(InfoErrors, EmptyFileIsRefusedAndLeftEmpty) {
    TempDir directory;
    const std::string empty = directory.file("empty.mvlog");
    std::ofstream{empty};
    const RunResult result = runMvlog({"info", empty});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: " + empty + ": the file is empty (0 bytes), not a log file\n");
    EXPECT_EQ(std::filesystem::file_size(empty), 0u);
}

TEST(InfoErrors, DirectoryIsRefused) {
    TempDir directory;
    const RunResult result = runMvlog({"info", directory.path().string()});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: " + directory.path().string() + ": is a directory, not a log file\n");
}

}  // namespace
}  // namespace MvlogTest

namespace MvlogTest {
namespace {

TEST(InfoDurability, ASafeFileSaysSo) {
    Marivane::Testing::TempDir directory;
    const std::string path = directory.file("safe.mvlog");
    {
        Marivane::Logging::SqliteLogFile file(path, "Etc/UTC", "tooltest", "1.2", 0, kKnownStart,
                                              Marivane::Logging::Durability::Safe);
    }
    EXPECT_EQ(infoJson(path)["durability"], "safe");
    const RunResult result = runMvlog({"info", path});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(
        containsLine(result.outLines(), "Durability         safe (write-ahead log; readable while recorded)"))
        << result.out;
}

// The span from the smallest to the largest timestamp is 2^64 - 1 ms, more
// than a signed 64-bit value holds.
TEST_F(InfoTest, TheWidestTimeSpanIsShownWhole) {
    executeSql(path,
               "UPDATE data SET timestamp = -9223372036854775808 WHERE entryId = 1;"
               "UPDATE data SET timestamp = 9223372036854775807 WHERE entryId = 101;");
    const RunResult result = runMvlog({"info", path});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(containsLine(result.outLines(), "Duration           5124095576030 h 25 min 51 s"))
        << result.out;
    const nlohmann::json info = infoJson(path);
    EXPECT_EQ(info["entries"]["durationMs"].get<uint64_t>(), 18'446'744'073'709'551'615u);
}

// Entry records carry 32-bit ids; the index reads 2147483648 as
// -2147483648.
TEST_F(InfoTest, AnIdNoRecordCanCarryIsAFailure) {
    executeSql(path, "PRAGMA foreign_keys = OFF; UPDATE data SET entryId = 2147483648 WHERE entryId = 101;");
    for (const bool json : {false, true}) {
        const RunResult result = json ? runMvlog({"info", path, "--json"}) : runMvlog({"info", path});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.err,
                  "mvlog: " + path +
                      ": the file holds entry id 2147483648, which no entry record can carry (ids "
                      "are 32-bit); its ids and counts cannot be summarized (`mvlog check` lists "
                      "what is wrong)\n");
        EXPECT_TRUE(result.out.empty()) << result.out;
    }
}

}  // namespace
}  // namespace MvlogTest
