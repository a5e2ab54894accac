// The library's summary of a file: the facts every description of a file
// (mvlog info, Python) is made from.

#include <logging/FileSummary.h>
#include <logging/SqliteLogFile.h>

#include "store/StoreTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <limits>
#include <map>
#include <string>

using namespace Marivane::Logging;
using Marivane::Testing::RawDatabase;
using Marivane::Testing::TempDir;

namespace {

constexpr int64_t kStart = 1'700'000'000'000;

// Six entries: odd ids from the radar (type 1), even ids from the camera
// (type 2), one a millisecond; entry N's payload is N bytes.
void writeFile(const std::string& path, int8_t level) {
    SqliteLogFile file(path, "Europe/Oslo", "summary-tests", "2.1", level, kStart, Durability::Safe, false);
    ASSERT_TRUE(file.addDataSource(DataSource{1, MV_LogDataSourceType_Radar, "radar"}));
    ASSERT_TRUE(file.addDataSource(DataSource{2, MV_LogDataSourceType_Camera, "camera"}));
    ASSERT_TRUE(file.addDataSourceProperty(DataSourceProperty{2, "gain", PropertyValue{int64_t{5}}}));
    for (int id = 1; id <= 6; ++id) {
        const int8_t source = id % 2 == 1 ? 1 : 2;
        ASSERT_TRUE(file.logData(Marivane::Testing::makeEntry(source, source, kStart + id,
                                                              ByteBuffer(static_cast<std::size_t>(id)))));
    }
    ASSERT_TRUE(file.addResource("calibration", ByteBuffer(100)));
    ASSERT_TRUE(file.addBookmark(Bookmark{3, "turn", "left", {}}));
}

class FileSummaryTest : public ::testing::TestWithParam<int8_t> {
protected:
    TempDir directory;
    std::string path = directory.file("summarized.mvlog");
};

TEST_P(FileSummaryTest, ASoundFileIsCountedBySourceAndType) {
    writeFile(path, GetParam());
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    const FileSummary summary = summarizeLogFile(file);

    EXPECT_EQ(summary.path, std::filesystem::path(path));
    EXPECT_EQ(summary.sizeOnDisk, std::filesystem::file_size(path));
    EXPECT_EQ(summary.durability, Durability::Safe);
    EXPECT_EQ(summary.compressionLevel, GetParam());
    EXPECT_EQ(summary.createdDateTime, kStart);
    EXPECT_EQ(summary.timeZone, "Europe/Oslo");
    EXPECT_EQ(summary.applicationName, "summary-tests");
    EXPECT_EQ(summary.applicationVersion, "2.1");
    EXPECT_EQ(summary.oldApplicationName, std::nullopt);

    EXPECT_EQ(summary.entryCount, 6);
    EXPECT_EQ(summary.firstEntryId, 1);
    EXPECT_EQ(summary.lastEntryId, 6);
    EXPECT_EQ(summary.firstTimestamp, kStart + 1);
    EXPECT_EQ(summary.lastTimestamp, kStart + 6);
    EXPECT_EQ(summary.durationMs(), 5u);
    // As logged, whatever the level stores.
    EXPECT_EQ(summary.payloadBytes, 21u);
    EXPECT_EQ(summary.entryTypes, (std::map<int32_t, int64_t>{{1, 3}, {2, 3}}));

    ASSERT_EQ(summary.sources.size(), 2u);
    const SourceSummary& camera = summary.sources[1];
    EXPECT_EQ(camera.source.name, "camera");
    EXPECT_EQ(camera.entryCount, 3);
    EXPECT_EQ(camera.payloadBytes, 12u);
    EXPECT_EQ(camera.firstTimestamp, kStart + 2);
    EXPECT_EQ(camera.lastTimestamp, kStart + 6);
    ASSERT_EQ(camera.properties.size(), 1u);
    EXPECT_EQ(camera.properties[0].propertyName, "gain");
    EXPECT_TRUE(summary.sources[0].properties.empty());

    ASSERT_EQ(summary.resources.size(), 1u);
    EXPECT_EQ(summary.resources[0].name, "calibration");
    EXPECT_EQ(summary.resources[0].size, 100u);
    ASSERT_EQ(summary.bookmarks.size(), 1u);
    EXPECT_EQ(summary.bookmarks[0].title, "turn");
    EXPECT_EQ(summary.resourceError, std::nullopt);
    EXPECT_EQ(summary.bookmarkError, std::nullopt);
    EXPECT_TRUE(summary.damagedEntries.empty());
    EXPECT_EQ(summary.entriesMissingFromIndex, 0);
}

INSTANTIATE_TEST_SUITE_P(Levels, FileSummaryTest, ::testing::Values(int8_t{0}, int8_t{3}));

class DamagedFileSummaryTest : public ::testing::Test {
protected:
    TempDir directory;
    std::string path = directory.file("damaged.mvlog");
};

TEST_F(DamagedFileSummaryTest, ADamagedPayloadIsNamedAndLeftOutOfTheCounts) {
    writeFile(path, 3);
    RawDatabase(path).exec("UPDATE data SET payload = x'28b52ffd0000' WHERE entryId = 4;");
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    const FileSummary summary = summarizeLogFile(file);

    ASSERT_EQ(summary.damagedEntries.size(), 1u);
    EXPECT_EQ(summary.damagedEntries[0].entryId, 4);
    EXPECT_EQ(summary.payloadBytes, 17u);
    EXPECT_EQ(summary.sources[1].entryCount, 2);
    EXPECT_EQ(summary.entryTypes.at(2), 2);
}

TEST_F(DamagedFileSummaryTest, AnEntryOfAMissingSourceIsNamed) {
    writeFile(path, 0);
    RawDatabase(path).exec(
        "INSERT INTO data(entryId, timestamp, type, dataSourceId, length, payload) "
        "VALUES (7, 1700000000007, 1, 9, 1, x'41');");
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    const FileSummary summary = summarizeLogFile(file);

    ASSERT_EQ(summary.damagedEntries.size(), 1u);
    EXPECT_EQ(describe(summary.damagedEntries[0]),
              "entry 7 refers to data source 9, which the file does not have");
    EXPECT_EQ(summary.payloadBytes, 21u);
    EXPECT_EQ(summary.entriesMissingFromIndex, 0);
}

TEST(FileSummaryDurationTest, SpansEveryPairOfTimestamps) {
    FileSummary summary;
    EXPECT_EQ(summary.durationMs(), std::nullopt);
    summary.firstTimestamp = std::numeric_limits<int64_t>::min();
    summary.lastTimestamp = std::numeric_limits<int64_t>::max();
    EXPECT_EQ(summary.durationMs(), std::numeric_limits<uint64_t>::max());
}

}  // namespace
