#include <logging/Algorithms.h>
#include <logging/SqliteLogFile.h>

#include <core/Chrono.h>
#include <core/Compression.h>

#include "AlgorithmsTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <variant>
#include <vector>

using namespace Marivane::Logging;
using namespace Marivane::Testing;

namespace {

const EntryIndexFilter kAllEntries{};

std::vector<DataEntry> allEntries(const LogFileInterface& file) {
    return file.readEntries(-1, -1, kAllEntries, -1);
}

// Adds bookmarks to the closed source at `path` on each of `entryIds`, titled
// "mark <id>", with comments "about <id>" and a payload derived from the id.
void addBookmarks(const std::string& path, const std::vector<int>& entryIds) {
    SqliteLogFile file{std::filesystem::path(path)};
    for (int id : entryIds) {
        Bookmark bookmark{id, "mark " + std::to_string(id), "about " + std::to_string(id),
                          bytes({id, 0, 255})};
        ASSERT_TRUE(file.addBookmark(bookmark)) << file.getLastError();
    }
}

std::unique_ptr<LogFileInterface> sliceOf(const std::string& sourcePath, int start, int end,
                                          const std::string& output, signed char level = 3) {
    SqliteLogFile source{std::filesystem::path(sourcePath)};
    return Algorithms::slice(source, start, end, output, "cutter", "2.0", level);
}

}  // namespace

// ---- the worked example: entries 5, 6, 8, 9, 12 sliced 6..9 ------------------------

TEST(Slice, CopiesTheRangeRenumberedFromOne) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));

    ASSERT_TRUE(sliceOf(dir.file("source.mvlog"), 6, 9, dir.file("out.mvlog")));

    SqliteLogFile output{std::filesystem::path(dir.file("out.mvlog"))};
    const std::vector<DataEntry> entries = allEntries(output);
    ASSERT_EQ(entries.size(), 3u);
    expectEntry(entries[0], 1, 6, 1);
    expectEntry(entries[1], 2, 8, 1);
    expectEntry(entries[2], 3, 9, 1);
    EXPECT_EQ(SqlConnection(dir.file("out.mvlog")).integers("SELECT entryId FROM data ORDER BY entryId;"),
              (std::vector<int64_t>{1, 2, 3}));
}

TEST(Slice, RemapsBookmarksInsideTheRangeAndDropsTheOthers) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));
    addBookmarks(dir.file("source.mvlog"), {5, 8, 12});

    ASSERT_TRUE(sliceOf(dir.file("source.mvlog"), 6, 9, dir.file("out.mvlog")));

    SqliteLogFile output{std::filesystem::path(dir.file("out.mvlog"))};
    const std::vector<Bookmark> bookmarks = output.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    EXPECT_EQ(bookmarks[0].entryId, 2);
    EXPECT_EQ(bookmarks[0].title, "mark 8");
    EXPECT_EQ(bookmarks[0].comments, "about 8");
    EXPECT_EQ(bookmarks[0].payload, bytes({8, 0, 255}));
    EXPECT_EQ(SqlConnection(dir.file("out.mvlog")).integers("SELECT entryId FROM bookmarks;"),
              (std::vector<int64_t>{2}));
}

TEST(Slice, BookmarksOnTheBoundsAreKept) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));
    addBookmarks(dir.file("source.mvlog"), {6, 9});

    ASSERT_TRUE(sliceOf(dir.file("source.mvlog"), 6, 9, dir.file("out.mvlog")));

    EXPECT_EQ(
        SqlConnection(dir.file("out.mvlog")).integers("SELECT entryId FROM bookmarks ORDER BY entryId;"),
        (std::vector<int64_t>{1, 3}));
}

TEST(Slice, ReturnsTheOutputOpenForWriting) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));

    std::unique_ptr<LogFileInterface> output = sliceOf(dir.file("source.mvlog"), 6, 9, dir.file("out.mvlog"));

    ASSERT_TRUE(output);
    EXPECT_EQ(output->getFilePath(), std::filesystem::path(dir.file("out.mvlog")));
    EXPECT_EQ(output->getEntryCount(), 3);
    ASSERT_TRUE(output->addBookmark({3, "added later", "", {}})) << output->getLastError();
    output.reset();
    EXPECT_EQ(SqlConnection(dir.file("out.mvlog")).texts("SELECT title FROM bookmarks;"),
              (std::vector<std::string>{"added later"}));
}

// ---- refusals ---------------------------------------------------------------------

TEST(Slice, RefusesAnExistingOutputFileAndLeavesItUntouched) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));
    {
        std::ofstream existing(dir.file("out.mvlog"), std::ios::binary);
        existing << "keep me";
    }

    EXPECT_FALSE(sliceOf(dir.file("source.mvlog"), 6, 9, dir.file("out.mvlog")));

    EXPECT_EQ(fileContents(dir.file("out.mvlog")), "keep me");
}

TEST(Slice, RefusesAnOutputPathThatIsADirectory) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));
    std::filesystem::create_directory(dir.file("out.mvlog"));

    EXPECT_FALSE(sliceOf(dir.file("source.mvlog"), 6, 9, dir.file("out.mvlog")));

    EXPECT_TRUE(std::filesystem::is_directory(dir.file("out.mvlog")));
    EXPECT_EQ(directoryEntryCount(dir.file("out.mvlog")), 0u);
}

TEST(Slice, RefusesAnEndBoundThatIsNoEntry) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));

    EXPECT_FALSE(sliceOf(dir.file("source.mvlog"), 6, 7, dir.file("out.mvlog")));

    EXPECT_FALSE(std::filesystem::exists(dir.file("out.mvlog")));
    EXPECT_EQ(directoryEntryCount(dir.path()), 1u);
}

TEST(Slice, RefusesAStartBoundThatIsNoEntry) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));

    EXPECT_FALSE(sliceOf(dir.file("source.mvlog"), 7, 8, dir.file("out.mvlog")));

    EXPECT_FALSE(std::filesystem::exists(dir.file("out.mvlog")));
}

TEST(Slice, RefusesAReversedRange) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));

    EXPECT_FALSE(sliceOf(dir.file("source.mvlog"), 9, 6, dir.file("out.mvlog")));

    EXPECT_FALSE(std::filesystem::exists(dir.file("out.mvlog")));
}

TEST(Slice, RefusesMinusOneForOnlyOneBound) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));

    EXPECT_FALSE(sliceOf(dir.file("source.mvlog"), -1, 9, dir.file("out.mvlog")));
    EXPECT_FALSE(sliceOf(dir.file("source.mvlog"), 6, -1, dir.file("out.mvlog")));

    EXPECT_FALSE(std::filesystem::exists(dir.file("out.mvlog")));
}

TEST(Slice, RefusesBoundsOutsideTheFile) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));

    EXPECT_FALSE(sliceOf(dir.file("source.mvlog"), 13, 20, dir.file("out.mvlog")));
    EXPECT_FALSE(sliceOf(dir.file("source.mvlog"), 0, 4, dir.file("out.mvlog")));

    EXPECT_FALSE(std::filesystem::exists(dir.file("out.mvlog")));
}

TEST(Slice, RefusesExplicitBoundsOnASourceWithoutEntries) {
    TempDir dir;
    createSequentialSource(dir.file("source.mvlog"), 0);

    EXPECT_FALSE(sliceOf(dir.file("source.mvlog"), 1, 1, dir.file("out.mvlog")));
    EXPECT_FALSE(sliceOf(dir.file("source.mvlog"), 0, 0, dir.file("out.mvlog")));

    EXPECT_FALSE(std::filesystem::exists(dir.file("out.mvlog")));
}

TEST(Slice, BothBoundsMinusOneCopyNoEntriesAndNoBookmarks) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));
    addBookmarks(dir.file("source.mvlog"), {5, 8});

    ASSERT_TRUE(sliceOf(dir.file("source.mvlog"), -1, -1, dir.file("out.mvlog")));

    SqliteLogFile output{std::filesystem::path(dir.file("out.mvlog"))};
    EXPECT_EQ(output.getEntryCount(), 0);
    EXPECT_TRUE(output.getBookmarks().empty());
    expectSameDataSources(output.getDataSources(), {{1, MV_LogDataSourceType_Camera, "front camera"}});
}

TEST(Slice, ReturnsEmptyWithoutCreatingAFileWhenTheTimeZoneIsNotText) {
    TempDir dir;
    {
        // The open constructor writes no metadata, so the time zone can be
        // stored with any type.
        SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};
        ASSERT_TRUE(source.addMetadata("currentTimeZone", int64_t{60}));
        DataSource camera{-1, MV_LogDataSourceType_Camera, "cam"};
        ASSERT_TRUE(source.addDataSource(camera));
        ASSERT_TRUE(source.logData(entryFor(1, camera.id)));
        ASSERT_TRUE(source.logData(entryFor(2, camera.id)));
    }

    EXPECT_FALSE(sliceOf(dir.file("source.mvlog"), 1, 2, dir.file("out.mvlog")));

    EXPECT_FALSE(std::filesystem::exists(dir.file("out.mvlog")));
    EXPECT_EQ(directoryEntryCount(dir.path()), 1u);
}

TEST(Slice, ANonTextApplicationNamePropagatesAndLeavesThePartialFile) {
    TempDir dir;
    {
        SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};
        ASSERT_TRUE(source.addMetadata("applicationName", int64_t{7}));
        DataSource camera{-1, MV_LogDataSourceType_Camera, "cam"};
        ASSERT_TRUE(source.addDataSource(camera));
        ASSERT_TRUE(source.logData(entryFor(1, camera.id)));
    }

    EXPECT_THROW(sliceOf(dir.file("source.mvlog"), 1, 1, dir.file("out.mvlog")), std::bad_variant_access);

    ASSERT_TRUE(std::filesystem::exists(dir.file("out.mvlog")));
    EXPECT_EQ(
        SqlConnection(dir.file("out.mvlog")).texts("SELECT value FROM metadata WHERE key='applicationName';"),
        (std::vector<std::string>{"cutter"}));
}

// ---- output name --------------------------------------------------------------------

TEST(Slice, AnEmptyOutputPathDerivesAnExportedNameBesideTheSource) {
    TempDir dir;
    createSequentialSource(dir.file("run.mvlog"), 3);

    std::unique_ptr<LogFileInterface> output = sliceOf(dir.file("run.mvlog"), 1, 2, "");

    ASSERT_TRUE(output);
    EXPECT_EQ(output->getFilePath(), dir.path() / "run_exported.mvlog");
    EXPECT_TRUE(std::filesystem::is_regular_file(dir.path() / "run_exported.mvlog"));
}

TEST(Slice, ASecondExportedSliceGetsAUniqueNameAndLeavesTheFirst) {
    TempDir dir;
    createSequentialSource(dir.file("run.mvlog"), 3);
    ASSERT_TRUE(sliceOf(dir.file("run.mvlog"), 1, 2, ""));

    std::unique_ptr<LogFileInterface> second = sliceOf(dir.file("run.mvlog"), 3, 3, "");

    ASSERT_TRUE(second);
    EXPECT_EQ(second->getFilePath(), dir.path() / "run_exported-2.mvlog");
    second.reset();
    SqliteLogFile first{dir.path() / "run_exported.mvlog"};
    const std::vector<DataEntry> firstEntries = allEntries(first);
    ASSERT_EQ(firstEntries.size(), 2u);
    expectEntry(firstEntries[0], 1, 1, 1);
    expectEntry(firstEntries[1], 2, 2, 1);
    SqliteLogFile reopenedSecond{dir.path() / "run_exported-2.mvlog"};
    const std::vector<DataEntry> secondEntries = allEntries(reopenedSecond);
    ASSERT_EQ(secondEntries.size(), 1u);
    expectEntry(secondEntries[0], 1, 3, 1);
}

// ---- metadata --------------------------------------------------------------------------

TEST(Slice, WritesTheNewFilesOwnFixedMetadataOnce) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));
    const int64_t before = Marivane::Chrono::msSinceUnixEpoch();

    ASSERT_TRUE(sliceOf(dir.file("source.mvlog"), 6, 9, dir.file("out.mvlog"), 3));

    const int64_t after = Marivane::Chrono::msSinceUnixEpoch();
    SqliteLogFile output{std::filesystem::path(dir.file("out.mvlog"))};
    const int64_t created = std::get<int64_t>(*output.getMetadataValue("createdDateTime"));
    EXPECT_GE(created, before);
    EXPECT_LE(created, after);
    EXPECT_EQ(*output.getMetadataValue("applicationName"), PropertyValue(std::string("cutter")));
    EXPECT_EQ(*output.getMetadataValue("applicationVersion"), PropertyValue(std::string("2.0")));
    EXPECT_EQ(*output.getMetadataValue("currentTimeZone"), PropertyValue(std::string("Europe/Oslo")));
    EXPECT_EQ(*output.getMetadataValue("logVersion"), PropertyValue(int64_t{4}));
    EXPECT_EQ(*output.getMetadataValue("compressionLevel"), PropertyValue(int64_t{3}));
    SqlConnection sql(dir.file("out.mvlog"));
    for (const char* key : {"createdDateTime", "applicationName", "applicationVersion", "currentTimeZone",
                            "logVersion", "compressionLevel"}) {
        EXPECT_EQ(sql.integers(std::string("SELECT COUNT(*) FROM metadata WHERE key='") + key + "';"),
                  (std::vector<int64_t>{1}))
            << key;
    }
}

TEST(Slice, RecordsThePreviousProducer) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));

    ASSERT_TRUE(sliceOf(dir.file("source.mvlog"), 6, 9, dir.file("out.mvlog")));

    SqliteLogFile output{std::filesystem::path(dir.file("out.mvlog"))};
    EXPECT_EQ(*output.getMetadataValue("oldApplicationName"), PropertyValue(std::string("recorder")));
    EXPECT_EQ(*output.getMetadataValue("oldApplicationVersion"), PropertyValue(std::string("1.0")));
}

TEST(Slice, AnUnchangedApplicationNameAddsNoOldApplicationName) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));

    SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};
    ASSERT_TRUE(Algorithms::slice(source, 6, 9, dir.file("out.mvlog"), "recorder", "2.0", 0));

    SqlConnection sql(dir.file("out.mvlog"));
    EXPECT_EQ(sql.integers("SELECT COUNT(*) FROM metadata WHERE key='oldApplicationName';"),
              (std::vector<int64_t>{0}));
    EXPECT_EQ(sql.texts("SELECT value FROM metadata WHERE key='oldApplicationVersion';"),
              (std::vector<std::string>{"1.0"}));
}

TEST(Slice, AnUnchangedProducerAddsNoHistory) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));

    SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};
    ASSERT_TRUE(Algorithms::slice(source, 6, 9, dir.file("out.mvlog"), "recorder", "1.0", 0));

    EXPECT_EQ(SqlConnection(dir.file("out.mvlog"))
                  .integers("SELECT COUNT(*) FROM metadata WHERE key IN ('oldApplicationName', "
                            "'oldApplicationVersion');"),
              (std::vector<int64_t>{0}));
}

TEST(Slice, ASliceOfASliceKeepsTheFirstProducer) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));
    ASSERT_TRUE(sliceOf(dir.file("source.mvlog"), 6, 12, dir.file("first.mvlog")));

    {
        SqliteLogFile first{std::filesystem::path(dir.file("first.mvlog"))};
        ASSERT_TRUE(Algorithms::slice(first, 2, 3, dir.file("second.mvlog"), "trimmer", "3.0", 0));
    }

    SqliteLogFile second{std::filesystem::path(dir.file("second.mvlog"))};
    EXPECT_EQ(*second.getMetadataValue("applicationName"), PropertyValue(std::string("trimmer")));
    EXPECT_EQ(*second.getMetadataValue("applicationVersion"), PropertyValue(std::string("3.0")));
    EXPECT_EQ(*second.getMetadataValue("oldApplicationName"), PropertyValue(std::string("recorder")));
    EXPECT_EQ(*second.getMetadataValue("oldApplicationVersion"), PropertyValue(std::string("1.0")));
    SqlConnection sql(dir.file("second.mvlog"));
    EXPECT_EQ(sql.integers("SELECT COUNT(*) FROM metadata WHERE key='oldApplicationName';"),
              (std::vector<int64_t>{1}));
    EXPECT_EQ(sql.integers("SELECT COUNT(*) FROM metadata WHERE key='oldApplicationVersion';"),
              (std::vector<int64_t>{1}));
    const std::vector<DataEntry> entries = allEntries(second);
    ASSERT_EQ(entries.size(), 2u);
    expectEntry(entries[0], 1, 8, 1);
    expectEntry(entries[1], 2, 9, 1);
}

TEST(Slice, ASourceWithoutProducerRecordsAnEmptyPreviousProducer) {
    TempDir dir;
    {
        SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};
        DataSource camera{-1, MV_LogDataSourceType_Camera, "cam"};
        ASSERT_TRUE(source.addDataSource(camera));
        ASSERT_TRUE(source.logData(entryFor(1, camera.id)));
    }

    ASSERT_TRUE(sliceOf(dir.file("source.mvlog"), 1, 1, dir.file("out.mvlog")));

    SqlConnection sql(dir.file("out.mvlog"));
    EXPECT_EQ(sql.texts("SELECT value FROM metadata WHERE key='oldApplicationName';"),
              (std::vector<std::string>{""}));
    EXPECT_EQ(sql.texts("SELECT value FROM metadata WHERE key='oldApplicationVersion';"),
              (std::vector<std::string>{""}));
    EXPECT_EQ(sql.texts("SELECT value FROM metadata WHERE key='currentTimeZone';"),
              (std::vector<std::string>{""}));
}

TEST(Slice, CopiesOtherMetadataWithItsType) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));
    {
        SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};
        ASSERT_TRUE(source.addMetadata("frameCount", int32_t{7}));
        ASSERT_TRUE(source.addMetadata("byteCount", int64_t{1} << 40));
        ASSERT_TRUE(source.addMetadata("gain", 2.5));
        ASSERT_TRUE(source.addMetadata("operator", std::string("Ana")));
    }

    ASSERT_TRUE(sliceOf(dir.file("source.mvlog"), 6, 9, dir.file("out.mvlog")));

    SqliteLogFile output{std::filesystem::path(dir.file("out.mvlog"))};
    EXPECT_EQ(*output.getMetadataValue("frameCount"), PropertyValue(int64_t{7}));
    EXPECT_EQ(*output.getMetadataValue("byteCount"), PropertyValue(int64_t{1} << 40));
    EXPECT_EQ(*output.getMetadataValue("gain"), PropertyValue(2.5));
    EXPECT_EQ(*output.getMetadataValue("operator"), PropertyValue(std::string("Ana")));
    SqlConnection sql(dir.file("out.mvlog"));
    EXPECT_EQ(sql.texts("SELECT typeof(value) FROM metadata WHERE key IN ('frameCount', 'byteCount', 'gain', "
                        "'operator') ORDER BY key;"),
              (std::vector<std::string>{"integer", "integer", "real", "text"}));
}

// ---- resources, data sources, properties -------------------------------------------------

TEST(Slice, CopiesResourcesAndTheThumbnail) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));
    {
        SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};
        ASSERT_TRUE(source.addResource("calibration", payloadFor(40)));
        ASSERT_TRUE(source.setThumbnail(bytes({0x89, 'P', 'N', 'G'})));
        ASSERT_TRUE(source.addResource("empty", {}));
    }

    ASSERT_TRUE(sliceOf(dir.file("source.mvlog"), 6, 9, dir.file("out.mvlog")));

    SqliteLogFile output{std::filesystem::path(dir.file("out.mvlog"))};
    expectSameResources(
        output.getAllResources(),
        {{"calibration", payloadFor(40)}, {"thumbnail", bytes({0x89, 'P', 'N', 'G'})}, {"empty", {}}});
    EXPECT_EQ(*output.getThumbnail(), bytes({0x89, 'P', 'N', 'G'}));
}

TEST(Slice, KeepsDataSourceIdsThatAreNotOneToN) {
    TempDir dir;
    {
        SqliteLogFile source(dir.file("source.mvlog"), "UTC", "recorder", "1.0", -1, 1);
        ASSERT_TRUE(source.addDataSource(DataSource{42, MV_LogDataSourceType_Lidar, "roof lidar"}));
        ASSERT_TRUE(source.addDataSource(DataSource{3, MV_LogDataSourceType_Camera, "rear camera"}));
        ASSERT_TRUE(source.addDataSource(DataSource{-5, MV_LogDataSourceType_Radar, "radar"}));
        ASSERT_TRUE(source.logData(entryFor(1, 42)));
        ASSERT_TRUE(source.logData(entryFor(2, -5)));
        ASSERT_TRUE(source.logData(entryFor(3, 3)));
    }

    ASSERT_TRUE(sliceOf(dir.file("source.mvlog"), 1, 3, dir.file("out.mvlog")));

    SqliteLogFile output{std::filesystem::path(dir.file("out.mvlog"))};
    SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};
    expectSameDataSources(output.getDataSources(), source.getDataSources());
    EXPECT_EQ(SqlConnection(dir.file("out.mvlog"))
                  .integers("SELECT dataSourceId FROM dataSources ORDER BY dataSourceId;"),
              (std::vector<int64_t>{-5, 3, 42}));
    const std::vector<DataEntry> entries = allEntries(output);
    ASSERT_EQ(entries.size(), 3u);
    expectEntry(entries[0], 1, 1, 42);
    expectEntry(entries[1], 2, 2, -5);
    expectEntry(entries[2], 3, 3, 3);
}

TEST(Slice, CopiesDataSourceProperties) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));
    {
        SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};
        ASSERT_TRUE(source.addDataSource(DataSource{9, MV_LogDataSourceType_Navigation, "gnss"}));
        ASSERT_TRUE(source.addDataSourceProperty({1, "width", int32_t{1920}}));
        ASSERT_TRUE(source.addDataSourceProperty({1, "fps", 29.97}));
        ASSERT_TRUE(source.addDataSourceProperty({9, "datum", std::string("WGS84")}));
        ASSERT_TRUE(source.addDataSourceProperty({9, "datum", std::string("ETRS89")}));
        ASSERT_TRUE(source.addDataSourceProperty({9, "epoch", int64_t{1} << 35}));
    }

    ASSERT_TRUE(sliceOf(dir.file("source.mvlog"), 6, 9, dir.file("out.mvlog")));

    SqliteLogFile output{std::filesystem::path(dir.file("out.mvlog"))};
    expectSameProperties(output.getAllDataSourceProperties(), {{1, "width", int64_t{1920}},
                                                               {1, "fps", 29.97},
                                                               {9, "datum", std::string("WGS84")},
                                                               {9, "datum", std::string("ETRS89")},
                                                               {9, "epoch", int64_t{1} << 35}});
}

// ---- payloads across compression levels ----------------------------------------------------

struct LevelPair {
    int8_t source;
    signed char output;
};

class SliceAcrossLevels : public ::testing::TestWithParam<LevelPair> {};

TEST_P(SliceAcrossLevels, KeepsPayloadBytesIdentical) {
    TempDir dir;
    SourceSettings settings;
    settings.compressionLevel = GetParam().source;
    {
        std::unique_ptr<SqliteLogFile> source = createSequentialSource(dir.file("source.mvlog"), 3, settings);
        DataEntry empty = entryFor(4, 1);
        empty.data.clear();
        ASSERT_TRUE(source->logData(empty));
        ASSERT_TRUE(source->addResource("calibration", payloadFor(50)));
        ASSERT_TRUE(source->addBookmark({2, "b", "c", payloadFor(60)}));
    }

    ASSERT_TRUE(sliceOf(dir.file("source.mvlog"), 2, 4, dir.file("out.mvlog"), GetParam().output));

    SqliteLogFile output{std::filesystem::path(dir.file("out.mvlog"))};
    const std::vector<DataEntry> entries = allEntries(output);
    ASSERT_EQ(entries.size(), 3u);
    expectEntry(entries[0], 1, 2, 1);
    expectEntry(entries[1], 2, 3, 1);
    EXPECT_TRUE(entries[2].data.empty());
    EXPECT_EQ(*output.getResource("calibration"), payloadFor(50));
    const std::vector<Bookmark> bookmarks = output.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    EXPECT_EQ(bookmarks[0].entryId, 1);
    EXPECT_EQ(bookmarks[0].payload, payloadFor(60));

    // The stored form follows the output's level, not the source's.
    SqlConnection sql(dir.file("out.mvlog"));
    const std::vector<ByteBuffer> stored = sql.blobs("SELECT payload FROM data WHERE entryId = 1;");
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(sql.integers("SELECT length FROM data WHERE entryId = 1;"),
              (std::vector<int64_t>{static_cast<int64_t>(stored[0].size())}));
    if (GetParam().output == 0) {
        EXPECT_EQ(stored[0], payloadFor(2));
    } else {
        EXPECT_NE(stored[0], payloadFor(2));
        EXPECT_EQ(Marivane::Compression::uncompress(stored[0]), payloadFor(2));
    }
}

INSTANTIATE_TEST_SUITE_P(Levels, SliceAcrossLevels,
                         ::testing::Values(LevelPair{0, 9}, LevelPair{9, 0}, LevelPair{-1, 1}),
                         [](const ::testing::TestParamInfo<LevelPair>& info) {
                             auto name = [](int level) {
                                 return level < 0 ? std::string("Default") : std::to_string(level);
                             };
                             return "From" + name(info.param.source) + "To" + name(info.param.output);
                         });

TEST(SliceBatches, AFailurePartWayKeepsEveryEntryWrittenBeforeIt) {
    Marivane::Testing::TempDir dir;
    const std::string source = dir.file("source.mvlog");
    const std::string output = dir.file("output.mvlog");
    {
        SqliteLogFile file(source, "UTC", "recorder", "1.0", 5, 0);
        DataSource camera{-1, MV_LogDataSourceType_Camera, "camera"};
        ASSERT_TRUE(file.addDataSource(camera));
        for (int i = 0; i < 5000; ++i) {
            DataEntry entry;
            entry.dataSourceId = camera.id;
            entry.timestamp = i;
            entry.data = ByteBuffer(32, static_cast<std::byte>(i));
            ASSERT_TRUE(file.logData(entry));
        }
        ASSERT_TRUE(file.addBookmark({10, "damaged", "", ByteBuffer(16, std::byte{1})}));
    }
    {
        // Bookmarks are copied after the entries: a damaged bookmark payload
        // makes the copy fail late.
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(source.c_str(), &db), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(db, "UPDATE bookmarks SET payload = x'00112233';", nullptr, nullptr, nullptr),
                  SQLITE_OK);
        sqlite3_close(db);
    }
    SqliteLogFile file{std::filesystem::path(source)};
    EXPECT_THROW(Algorithms::slice(file, 1, 5000, output, "slicer", "2.0", 0),
                 Marivane::Compression::CompressionError);
    SqliteLogFile partial{std::filesystem::path(output)};
    EXPECT_EQ(partial.getEntryCount(), 5000);
    EXPECT_EQ(partial.readEntry(4321)->data, ByteBuffer(32, static_cast<std::byte>(4320)));
    EXPECT_TRUE(partial.getBookmarks().empty());
}

namespace {

std::vector<std::string> storedPayloads(const std::string& path) {
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db, "SELECT payload FROM data ORDER BY entryId;", -1, &statement, nullptr),
              SQLITE_OK);
    std::vector<std::string> payloads;
    while (sqlite3_step(statement) == SQLITE_ROW) {
        payloads.emplace_back(static_cast<const char*>(sqlite3_column_blob(statement, 0)),
                              static_cast<std::size_t>(sqlite3_column_bytes(statement, 0)));
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return payloads;
}

void writeCountingFile(const std::string& path, int8_t level, int count) {
    SqliteLogFile file(path, "UTC", "recorder", "1.0", level, 0);
    DataSource camera{-1, MV_LogDataSourceType_Camera, "camera"};
    ASSERT_TRUE(file.addDataSource(camera));
    for (int i = 1; i <= count; ++i) {
        DataEntry entry;
        entry.dataSourceId = camera.id;
        entry.timestamp = i;
        entry.data = ByteBuffer(static_cast<std::size_t>(100 + i), static_cast<std::byte>(i));
        ASSERT_TRUE(file.logData(entry));
    }
}

}  // namespace

// At the source's own level the stored payloads are carried over as they are,
// which is what compressing the expanded bytes again would give.
TEST(SliceStreaming, AtTheSameLevelTheStoredBytesAreTheSame) {
    Marivane::Testing::TempDir dir;
    const std::string source = dir.file("source.mvlog");
    const std::string output = dir.file("output.mvlog");
    writeCountingFile(source, 5, 50);
    {
        SqliteLogFile file{std::filesystem::path(source)};
        ASSERT_NE(Algorithms::slice(file, 11, 40, output, "slicer", "2.0", 5), nullptr);
    }
    const std::vector<std::string> sourcePayloads = storedPayloads(source);
    const std::vector<std::string> slicePayloads = storedPayloads(output);
    ASSERT_EQ(slicePayloads.size(), 30u);
    for (std::size_t i = 0; i < slicePayloads.size(); ++i) {
        EXPECT_EQ(slicePayloads[i], sourcePayloads[i + 10]) << "entry " << i + 1;
    }
}

// A payload that does not expand stops the slice with the codec's error, as
// the one read of the range would, after the entries before it.
TEST(SliceStreaming, ADamagedPayloadThrowsTheCodecsErrorAtEveryLevel) {
    for (const int8_t outputLevel : {int8_t{5}, int8_t{0}}) {
        Marivane::Testing::TempDir dir;
        const std::string source = dir.file("source.mvlog");
        const std::string output = dir.file("output.mvlog");
        writeCountingFile(source, 5, 20);
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(source.c_str(), &db), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(db, "UPDATE data SET payload = x'28b52ffd00' WHERE entryId = 12;", nullptr,
                               nullptr, nullptr),
                  SQLITE_OK);
        sqlite3_close(db);
        SqliteLogFile file{std::filesystem::path(source)};
        EXPECT_THROW(Algorithms::slice(file, 1, 20, output, "slicer", "2.0", outputLevel),
                     Marivane::Compression::CompressionError);
        EXPECT_EQ(SqliteLogFile{std::filesystem::path(output)}.getEntryCount(), 11);
    }
}
