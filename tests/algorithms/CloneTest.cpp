#include <logging/Algorithms.h>
#include <logging/SqliteLogFile.h>

#include "AlgorithmsTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

using namespace Marivane::Logging;
using namespace Marivane::Testing;

namespace {

// A created file with two data sources, their properties, extra metadata and
// two resources, but not a single entry.
void writeSourceWithoutEntries(const std::string& path) {
    SqliteLogFile source(path, "America/Chicago", "recorder", "1.0", 5, 1);
    ASSERT_TRUE(source.addDataSource(DataSource{4, MV_LogDataSourceType_Inertial, "imu"}));
    ASSERT_TRUE(source.addDataSource(DataSource{11, MV_LogDataSourceType_VehicleBus, "can0"}));
    ASSERT_TRUE(source.addDataSourceProperty({4, "rate", int32_t{200}}));
    ASSERT_TRUE(source.addDataSourceProperty({11, "bitrate", 500.0}));
    ASSERT_TRUE(source.addDataSourceProperty({11, "bus", std::string("powertrain")}));
    ASSERT_TRUE(source.addMetadata("vehicle", std::string("test car 3")));
    ASSERT_TRUE(source.addMetadata("runNumber", int32_t{17}));
    ASSERT_TRUE(source.addResource("dbc", payloadFor(70, 300)));
    ASSERT_TRUE(source.setThumbnail(bytes({1, 2, 3, 4})));
}

}  // namespace

TEST(Clone, OfAFileWithoutEntriesCopiesEverythingElse) {
    TempDir dir;
    writeSourceWithoutEntries(dir.file("source.mvlog"));

    {
        SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};
        ASSERT_TRUE(Algorithms::clone(source, dir.file("out.mvlog"), "copier", "9.1", 2));
    }

    SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};
    SqliteLogFile output{std::filesystem::path(dir.file("out.mvlog"))};
    EXPECT_EQ(output.getEntryCount(), 0);
    EXPECT_TRUE(output.getEntryIndex(EntryIndexFilter{}).empty());
    EXPECT_TRUE(output.getBookmarks().empty());
    expectSameDataSources(output.getDataSources(), source.getDataSources());
    expectSameProperties(
        output.getAllDataSourceProperties(),
        {{4, "rate", int64_t{200}}, {11, "bitrate", 500.0}, {11, "bus", std::string("powertrain")}});
    expectSameResources(output.getAllResources(),
                        {{"dbc", payloadFor(70, 300)}, {"thumbnail", bytes({1, 2, 3, 4})}});
    EXPECT_EQ(*output.getMetadataValue("vehicle"), PropertyValue(std::string("test car 3")));
    EXPECT_EQ(*output.getMetadataValue("runNumber"), PropertyValue(int64_t{17}));
    EXPECT_EQ(*output.getMetadataValue("currentTimeZone"), PropertyValue(std::string("America/Chicago")));
    EXPECT_EQ(*output.getMetadataValue("applicationName"), PropertyValue(std::string("copier")));
    EXPECT_EQ(*output.getMetadataValue("oldApplicationName"), PropertyValue(std::string("recorder")));
    EXPECT_EQ(*output.getMetadataValue("compressionLevel"), PropertyValue(int64_t{2}));
    EXPECT_EQ(SqlConnection(dir.file("out.mvlog")).integers("SELECT COUNT(*) FROM data;"),
              (std::vector<int64_t>{0}));
}

TEST(Clone, RenumbersEntriesAndBookmarksOfAGappedFile) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));
    {
        SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};
        ASSERT_TRUE(source.addBookmark({5, "five", "", {}}));
        ASSERT_TRUE(source.addBookmark({8, "eight", "", {}}));
        ASSERT_TRUE(source.addBookmark({12, "twelve", "", {}}));
    }

    {
        SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};
        ASSERT_TRUE(Algorithms::clone(source, dir.file("out.mvlog"), "copier", "9.1", -1));
    }

    SqliteLogFile output{std::filesystem::path(dir.file("out.mvlog"))};
    const std::vector<DataEntry> entries = output.readEntries(-1, -1, EntryIndexFilter{}, -1);
    ASSERT_EQ(entries.size(), 5u);
    const int sourceIds[] = {5, 6, 8, 9, 12};
    for (int i = 0; i < 5; ++i) {
        expectEntry(entries[static_cast<std::size_t>(i)], i + 1, sourceIds[i], 1);
    }
    SqlConnection sql(dir.file("out.mvlog"));
    EXPECT_EQ(sql.integers("SELECT entryId FROM bookmarks ORDER BY entryId;"),
              (std::vector<int64_t>{1, 3, 5}));
    EXPECT_EQ(sql.texts("SELECT title FROM bookmarks ORDER BY entryId;"),
              (std::vector<std::string>{"five", "eight", "twelve"}));
}

TEST(Clone, RefusesAnExistingOutputFile) {
    TempDir dir;
    createSequentialSource(dir.file("source.mvlog"), 2);
    {
        std::ofstream existing(dir.file("out.mvlog"), std::ios::binary);
        existing << "occupied";
    }

    SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};
    EXPECT_FALSE(Algorithms::clone(source, dir.file("out.mvlog"), "copier", "9.1", 0));

    EXPECT_EQ(fileContents(dir.file("out.mvlog")), "occupied");
}

TEST(Clone, AnEmptyOutputPathDerivesAnExportedName) {
    TempDir dir;
    createSequentialSource(dir.file("drive.db"), 2);

    SqliteLogFile source{std::filesystem::path(dir.file("drive.db"))};
    std::unique_ptr<LogFileInterface> first = Algorithms::clone(source, "", "copier", "9.1", 0);
    std::unique_ptr<LogFileInterface> second = Algorithms::clone(source, "", "copier", "9.1", 0);

    ASSERT_TRUE(first);
    ASSERT_TRUE(second);
    EXPECT_EQ(first->getFilePath(), dir.path() / "drive_exported.db");
    EXPECT_EQ(second->getFilePath(), dir.path() / "drive_exported-2.db");
    EXPECT_EQ(first->getEntryCount(), 2);
    EXPECT_EQ(second->getEntryCount(), 2);
}

TEST(Clone, ReturnsEmptyWhenTheTimeZoneIsNotText) {
    TempDir dir;
    {
        SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};
        ASSERT_TRUE(source.addMetadata("currentTimeZone", 1.5));
    }

    SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};
    EXPECT_FALSE(Algorithms::clone(source, dir.file("out.mvlog"), "copier", "9.1", 0));

    EXPECT_FALSE(std::filesystem::exists(dir.file("out.mvlog")));
}
