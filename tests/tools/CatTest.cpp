#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

namespace MvlogTest {
namespace {

using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::SqliteLogFile;
using Marivane::Testing::TempDir;

class CatTest : public ::testing::Test {
protected:
    void SetUp() override { writeKnownFile(path); }

    // The entry ids named at the start of each text line ("#12  ...").
    static std::vector<int> idsOf(const RunResult& result) {
        std::vector<int> ids;
        for (const std::string& line : result.outLines()) {
            ids.push_back(std::stoi(line.substr(1)));
        }
        return ids;
    }

    TempDir directory;
    std::string path = directory.file("known.mvlog");
};

TEST_F(CatTest, StartAndEndSelectATimeWindow) {
    // Entry n is logged at kKnownStart + 100 * (n - 1) ms.
    RunResult result = runMvlog({"cat", path, "--start", "+1", "--end", "+1.25"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(idsOf(result), (std::vector<int>{11, 12, 13}));
    result = runMvlog({"cat", path, "--start", "2023-11-14T22:13:29.95Z", "--source", "2"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(idsOf(result), (std::vector<int>{101}));
    result = runMvlog({"cat", path, "--start", "+3", "--end", "+1"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: refused: the time range is reversed (--start is after --end)\n");
    result = runMvlog({"cat", path, "--start", "yesterday"});
    EXPECT_EQ(result.exitCode, 2);
}

TEST_F(CatTest, AReversedIdRangeIsRefused) {
    const RunResult result = runMvlog({"cat", path, "--from", "5", "--to", "2"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: refused: the id range is reversed (--from is after --to)\n");
    EXPECT_TRUE(result.out.empty()) << result.out;
    EXPECT_EQ(idsOf(runMvlog({"cat", path, "--from", "5", "--to", "5"})), (std::vector<int>{5}));
}

TEST_F(CatTest, HelpSaysWhatHappensToAnEntryThatCannotBeRead) {
    const RunResult result = runMvlog({"cat", "--help"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_NE(
        result.out.find("a compressed frame in a file whose compression level is 0, a data source the "
                        "file does not have, an id beyond 32 bits) is not printed: it is named on stderr, "
                        "and cat exits with 1."),
        std::string::npos)
        << result.out;
}

TEST_F(CatTest, TextLineShowsIdTimeSourceTypeSizeAndFirstBytes) {
    const RunResult result = runMvlog({"cat", path, "--from", "2", "--to", "3"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    // Entry 2: payload 18 bytes counting up from 14 (0x0e); only 16 shown.
    EXPECT_EQ(result.out,
              "#2  2023-11-14T22:13:20.100Z  source 2 \"beta\"  type 10  18 B  "
              "0e 0f 10 11 12 13 14 15 16 17 18 19 1a 1b 1c 1d ...\n"
              "#3  2023-11-14T22:13:20.200Z  source 3 \"gamma\"  type 11  19 B  "
              "15 16 17 18 19 1a 1b 1c 1d 1e 1f 20 21 22 23 24 ...\n");
}

TEST_F(CatTest, WithoutBoundsPrintsEveryEntryInIdOrder) {
    const RunResult result = runMvlog({"cat", path});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    std::vector<int> expected(kKnownEntries);
    for (int i = 0; i < kKnownEntries; ++i) {
        expected[static_cast<std::size_t>(i)] = i + 1;
    }
    EXPECT_EQ(idsOf(result), expected);
}

TEST_F(CatTest, FiltersCombineAndLimitCuts) {
    EXPECT_EQ(idsOf(runMvlog({"cat", path, "--source", "1", "--limit", "4"})),
              (std::vector<int>{1, 4, 7, 10}));
    EXPECT_EQ(idsOf(runMvlog({"cat", path, "--type", "10", "--from", "90"})),
              (std::vector<int>{90, 92, 94, 96, 98, 100}));
    EXPECT_EQ(idsOf(runMvlog({"cat", path, "--source-type", "navigation", "--type", "11", "--to", "20"})),
              (std::vector<int>{5, 11, 17}));
    EXPECT_EQ(idsOf(runMvlog({"cat", path, "--source-type", "1234", "--source-type", "Camera", "--to", "7"})),
              (std::vector<int>{1, 3, 4, 6, 7}));
    EXPECT_EQ(idsOf(runMvlog({"cat", path, "--source", "2", "--source", "3", "--from", "95"})),
              (std::vector<int>{95, 96, 98, 99, 101}));
    EXPECT_TRUE(runMvlog({"cat", path, "--limit", "0"}).out.empty());
}

TEST_F(CatTest, SourcesByNameSelectWhatTheirIdsSelect) {
    EXPECT_EQ(idsOf(runMvlog({"cat", path, "--source", "beta", "--source", "gamma", "--from", "95"})),
              (std::vector<int>{95, 96, 98, 99, 101}));
    // Names and ids mix; a source named twice is selected once.
    EXPECT_EQ(idsOf(runMvlog({"cat", path, "--source", "alpha", "--source", "1", "--limit", "3"})),
              (std::vector<int>{1, 4, 7}));
    EXPECT_EQ(idsOf(runMvlog({"cat", path, "--source", "0x2", "--limit", "2"})), (std::vector<int>{2, 5}));
}

TEST_F(CatTest, ASourceNameThatMatchesNoSourceListsTheSources) {
    const RunResult result = runMvlog({"cat", path, "--source", "delta"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(
        result.err,
        "mvlog: --source delta: no data source has that name; the file has alpha (1), beta (2), gamma (3)\n");
    // Names are matched exactly.
    EXPECT_EQ(runMvlog({"cat", path, "--source", "Alpha"}).exitCode, 2);
}

TEST(CatSources, ANameSeveralSourcesShareIsRefusedWithTheirIds) {
    TempDir directory;
    const std::string path = directory.file("twins.mvlog");
    {
        SqliteLogFile file(path, "UTC", "tooltest", "1", 0, kKnownStart);
        DataSource left{0, MV_LogDataSourceType_Camera, "cam"};
        DataSource right{0, MV_LogDataSourceType_Camera, "cam"};
        DataSource escape{0, MV_LogDataSourceType_Camera, "\x1b[31m"};
        ASSERT_TRUE(file.addDataSource(left));
        ASSERT_TRUE(file.addDataSource(right));
        ASSERT_TRUE(file.addDataSource(escape));
    }
    const RunResult result = runMvlog({"cat", path, "--source", "cam"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.err,
              "mvlog: --source cam: 2 data sources have that name (ids 1, 2); give the id instead\n");
    // A name from the file is printed escaped, never as control bytes.
    const RunResult other = runMvlog({"cat", path, "--source", "x"});
    EXPECT_EQ(other.exitCode, 2);
    EXPECT_EQ(
        other.err,
        "mvlog: --source x: no data source has that name; the file has cam (1), cam (2), \\x1b[31m (3)\n");
    EXPECT_EQ(runMvlog({"cat", path, "--source", "\x1b[31m"}).exitCode, 0);
}

TEST_F(CatTest, JsonLinesCarryTheWholePayload) {
    const RunResult result = runMvlog({"cat", path, "--from", "40", "--to", "41", "--format", "json"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::vector<std::string> lines = result.outLines();
    ASSERT_EQ(lines.size(), 2u);
    for (int k = 0; k < 2; ++k) {
        const nlohmann::json entry = nlohmann::json::parse(lines[static_cast<std::size_t>(k)]);
        const int id = 40 + k;
        EXPECT_EQ(entry["entryId"], id);
        EXPECT_EQ(entry["timestamp"], kKnownStart + (id - 1) * kKnownPeriodMs);
        EXPECT_EQ(entry["dataSourceId"], knownSource(id));
        EXPECT_EQ(entry["type"], knownType(id));
        EXPECT_EQ(entry["size"], 16 + id);
        EXPECT_EQ(decodeBase64(entry["data"]), knownPayload(id));
    }
    EXPECT_EQ(nlohmann::json::parse(lines[0])["dataSourceName"], "alpha");
    EXPECT_EQ(nlohmann::json::parse(lines[0])["time"], "2023-11-14T22:13:23.900Z");
}

TEST_F(CatTest, HexFormatDumpsEveryByte) {
    const RunResult result = runMvlog({"cat", path, "--from", "1", "--to", "1", "--format", "hex"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    // Entry 1: 17 bytes counting up from 7.
    EXPECT_EQ(result.out,
              "#1  2023-11-14T22:13:20.000Z  source 1 \"alpha\"  type 11  17 B\n"
              "  00000000  07 08 09 0a 0b 0c 0d 0e 0f 10 11 12 13 14 15 16  |................|\n"
              "  00000010  17                                               |.|\n");
}

TEST_F(CatTest, DamagedEntryIsNamedAndTheOthersStillPrinted) {
    overwriteStoredPayload(path, 50, bytesOf("definitely not compressed"));
    const RunResult result = runMvlog({"cat", path});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.outLines().size(), static_cast<std::size_t>(kKnownEntries - 1));
    EXPECT_NE(result.err.find("mvlog: entry 50: payload cannot be expanded: "), std::string::npos)
        << result.err;
    EXPECT_NE(result.err.find("mvlog: 1 of 101 entries could not be read\n"), std::string::npos)
        << result.err;
}

TEST(CatDamage, EntriesHiddenByADamagedPageMakeItAFailure) {
    TempDir directory;
    const std::string path = directory.file("damaged.mvlog");
    writeFileWithDamagedPages(path);
    const RunResult result = runMvlog({"cat", path});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_LT(result.outLines().size(), 400u);
    EXPECT_NE(
        result.err.find(" entries of the file are missing from its index (behind a damaged page) and were "
                        "not printed\n"),
        std::string::npos)
        << result.err;
}

// The last pages of the file hold entry 101's payload; SQLite would read
// the byte cut off as a zero.
TEST(CatDamage, AnEntryOnTheCutOffPartOfAFileIsNamed) {
    TempDir directory;
    const std::string path = directory.file("cut.mvlog");
    writeKnownFile(path, 0);
    overwriteStoredPayload(path, 101, ByteBuffer(50'000, std::byte{0x5a}));
    std::filesystem::resize_file(path, std::filesystem::file_size(path) - 1);
    const RunResult result = runMvlog({"cat", path, "--from", "100"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.outLines().size(), 1u) << result.out;
    EXPECT_EQ(result.out.rfind("#100  ", 0), 0u) << result.out;
    EXPECT_EQ(result.err,
              "mvlog: entry 101: listed in the index but its row cannot be read\n"
              "mvlog: 1 of 2 entries could not be read\n");
}

TEST(CatDamage, DamageIsNamedTheSameWayInBothOrders) {
    for (const std::string order : {"time", "id"}) {
        TempDir directory;
        const std::string path = directory.file("cut.mvlog");
        writeKnownFile(path, 0);
        overwriteStoredPayload(path, 101, ByteBuffer(50'000, std::byte{0x5a}));
        std::filesystem::resize_file(path, std::filesystem::file_size(path) - 1);
        const RunResult cut = runMvlog({"cat", path, "--from", "99", "--order", order});
        EXPECT_EQ(cut.exitCode, 1);
        EXPECT_EQ(cut.outLines().size(), 2u) << cut.out;
        EXPECT_EQ(cut.err,
                  "mvlog: entry 101: listed in the index but its row cannot be read\n"
                  "mvlog: 1 of 3 entries could not be read\n")
            << order;

        const std::string pages = directory.file("damaged.mvlog");
        writeFileWithDamagedPages(pages);
        const RunResult hidden = runMvlog({"cat", pages, "--order", order});
        EXPECT_EQ(hidden.exitCode, 1);
        EXPECT_NE(
            hidden.err.find(" entries of the file are missing from its index (behind a damaged page) and "
                            "were not printed\n"),
            std::string::npos)
            << order << ": " << hidden.err;
    }
}

// Two sources written one after the other: ids 1-6 every 100 ms from the
// start, ids 7-11 50 ms after the first five of those.
class CatOrderTest : public ::testing::Test {
protected:
    void SetUp() override {
        SqliteLogFile file(path, "UTC", "tooltest", "1", 3, kKnownStart);
        DataSource early{-1, MV_LogDataSourceType_Text, "early"};
        DataSource late{-1, MV_LogDataSourceType_Text, "late"};
        ASSERT_TRUE(file.addDataSource(early));
        ASSERT_TRUE(file.addDataSource(late));
        const auto log = [&file](int8_t source, int32_t type, int64_t timestamp, const std::string& text) {
            DataEntry entry;
            entry.dataSourceId = source;
            entry.type = type;
            entry.timestamp = timestamp;
            entry.data = bytesOf(text);
            return file.logData(entry);
        };
        for (int i = 0; i < 6; ++i) {
            ASSERT_TRUE(log(early.id, 4, kKnownStart + i * 100, "early"));
        }
        for (int i = 0; i < 5; ++i) {
            ASSERT_TRUE(log(late.id, 5, kKnownStart + 50 + i * 100, "late"));
        }
    }

    static std::vector<int> idsOf(const RunResult& result) {
        std::vector<int> ids;
        for (const std::string& line : result.outLines()) {
            ids.push_back(std::stoi(line.substr(1)));
        }
        return ids;
    }

    TempDir directory;
    std::string path = directory.file("two-threads.mvlog");
};

TEST_F(CatOrderTest, TimeOrderByDefaultAndIdOrderOnRequest) {
    const RunResult result = runMvlog({"cat", path});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(idsOf(result), (std::vector<int>{1, 7, 2, 8, 3, 9, 4, 10, 5, 11, 6}));
    EXPECT_EQ(result.outLines()[1],
              "#7  2023-11-14T22:13:20.050Z  source 2 \"late\"  type 5  4 B  6c 61 74 65");
    EXPECT_EQ(idsOf(runMvlog({"cat", path, "--order", "id"})),
              (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    EXPECT_EQ(idsOf(runMvlog({"cat", path, "--order", "time"})),
              (std::vector<int>{1, 7, 2, 8, 3, 9, 4, 10, 5, 11, 6}));
    EXPECT_EQ(runMvlog({"cat", path, "--order", "entry"}).exitCode, 2);
}

TEST_F(CatOrderTest, BoundsFiltersAndLimitApplyInTimeOrder) {
    EXPECT_EQ(idsOf(runMvlog({"cat", path, "--limit", "3"})), (std::vector<int>{1, 7, 2}));
    EXPECT_EQ(idsOf(runMvlog({"cat", path, "--limit", "3", "--order", "id"})), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(idsOf(runMvlog({"cat", path, "--start", "+0.1", "--end", "+0.3"})),
              (std::vector<int>{2, 8, 3, 9, 4}));
    EXPECT_EQ(idsOf(runMvlog({"cat", path, "--start", "+0.1", "--end", "+0.3", "--order", "id"})),
              (std::vector<int>{2, 3, 4, 8, 9}));
    EXPECT_EQ(idsOf(runMvlog({"cat", path, "--from", "5", "--to", "8"})), (std::vector<int>{7, 8, 5, 6}));
    EXPECT_EQ(idsOf(runMvlog({"cat", path, "--source", "2", "--limit", "2"})), (std::vector<int>{7, 8}));
    EXPECT_TRUE(runMvlog({"cat", path, "--limit", "0"}).out.empty());
}

TEST_F(CatOrderTest, ADamagedPayloadMetInTimeOrderIsNamed) {
    overwriteStoredPayload(path, 8, bytesOf("definitely not compressed"));
    const RunResult result = runMvlog({"cat", path});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(idsOf(result), (std::vector<int>{1, 7, 2, 3, 9, 4, 10, 5, 11, 6}));
    EXPECT_EQ(result.err.rfind("mvlog: entry 8: payload cannot be expanded: ", 0), 0u) << result.err;
    EXPECT_NE(result.err.find("mvlog: 1 of 11 entries could not be read\n"), std::string::npos) << result.err;
}

// More payload than one read chunk holds: every entry still arrives, once,
// in order.
TEST(CatLargeFile, ReadsAFileLargerThanOneChunk) {
    TempDir directory;
    const std::string path = directory.file("large.mvlog");
    constexpr int kEntries = 160;
    constexpr std::size_t kPayload = 100 * 1024;
    {
        SqliteLogFile file(path, "UTC", "tooltest", "1", 1, kKnownStart);
        DataSource source{-1, MV_LogDataSourceType_Lidar, "lidar"};
        ASSERT_TRUE(file.addDataSource(source));
        for (int id = 1; id <= kEntries; ++id) {
            DataEntry entry;
            entry.dataSourceId = source.id;
            entry.timestamp = kKnownStart + id;
            entry.data.assign(kPayload, static_cast<std::byte>(id));
            ASSERT_TRUE(file.logData(entry));
        }
    }
    const RunResult result = runMvlog({"cat", path});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::vector<std::string> lines = result.outLines();
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(kEntries));
    for (int id = 1; id <= kEntries; ++id) {
        const std::string prefix = std::string("#").append(std::to_string(id)).append("  ");
        EXPECT_EQ(lines[static_cast<std::size_t>(id - 1)].rfind(prefix, 0), 0u);
    }
    EXPECT_NE(lines.back().find("102400 B  a0 a0 a0"), std::string::npos) << lines.back();
}

}  // namespace
}  // namespace MvlogTest

namespace MvlogTest {
namespace {

// A safe file is read while another connection records into it: --follow
// prints every entry as it is committed, in order, and ends when no entry
// came for the idle time.
TEST(CatFollow, PrintsEntriesAsTheyAreCommitted) {
    Marivane::Testing::TempDir directory;
    const std::string path = directory.file("live.mvlog");
    Marivane::Logging::SqliteLogFile writer(path, "Etc/UTC", "tooltest", "1.2", 0, kKnownStart,
                                            Marivane::Logging::Durability::Safe);
    Marivane::Logging::DataSource gnss{-1, MV_LogDataSourceType_Navigation, "gnss"};
    ASSERT_TRUE(writer.addDataSource(gnss));
    auto follow = std::async(std::launch::async, [&] {
        return runMvlog({"cat", path, "--follow", "--idle", "1.5", "--format", "json"});
    });
    for (int round = 0; round < 5; ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        auto batch = writer.beginBatch();
        for (int i = 0; i < 4; ++i) {
            Marivane::Logging::DataEntry entry;
            entry.dataSourceId = gnss.id;
            entry.timestamp = kKnownStart + round * 4 + i;
            entry.data = knownPayload(round * 4 + i + 1);
            ASSERT_TRUE(writer.logData(entry));
        }
        ASSERT_TRUE(batch.commit());
    }
    const RunResult result = follow.get();
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::vector<std::string> lines = result.outLines();
    ASSERT_EQ(lines.size(), 20u) << result.out;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const nlohmann::json entry = nlohmann::json::parse(lines[i]);
        EXPECT_EQ(entry["entryId"], static_cast<int>(i + 1));
        EXPECT_EQ(decodeBase64(entry["data"].get<std::string>()), knownPayload(static_cast<int>(i + 1)));
    }
}

}  // namespace
}  // namespace MvlogTest
