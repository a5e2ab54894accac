#include <logging/SqliteLogFile.h>

#include "store/SqliteLogFilePrivate.h"

#include <database/SqliteQuery.h>

#include "FaultInjectingVfs.h"
#include "StoreTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

using namespace Marivane::Logging;
using Marivane::Testing::bytesOf;
using Marivane::Testing::createLogFile;
using Marivane::Testing::FaultInjectingVfs;
using Marivane::Testing::makeEntry;
using Marivane::Testing::patternBytes;
using Marivane::Testing::TempDir;
namespace fs = std::filesystem;

namespace {

const char* const kFull = "Filesystem full.";
const char* const kIo = "IO error while reading or writing to the file.";

// A compressing file with one source, one entry, one bookmark and a thumbnail,
// so that every write has something to work on.
void populate(SqliteLogFile& file, int8_t& source) {
    DataSource camera{-1, MV_LogDataSourceType_Camera, "cam"};
    ASSERT_TRUE(file.addDataSource(camera));
    source = camera.id;
    ASSERT_TRUE(file.logData(makeEntry(source, 1, 1, patternBytes(1000, 1))));
    ASSERT_TRUE(file.addBookmark(Bookmark{1, "mark", "", bytesOf("p")}));
    ASSERT_TRUE(file.setThumbnail(bytesOf("thumb")));
}

}  // namespace

TEST(StorageFailure, FullDiskFailsLogDataAndTheMessageStaysUntilTheNextFailure) {
    TempDir dir;
    const std::string path = dir.file("full.mvlog");
    FaultInjectingVfs vfs;
    {
        SqliteLogFile file = createLogFile(path, 3);
        int8_t source = 0;
        populate(file, source);

        vfs.failWrites(SQLITE_FULL);
        EXPECT_FALSE(file.logData(makeEntry(source, 1, 2, patternBytes(200000, 2))));
        EXPECT_EQ(file.getLastError(), kFull);
        vfs.failWrites(0);

        // Nothing landed, and the file is still usable.
        EXPECT_EQ(file.getEntryCount(), 1);
        ASSERT_TRUE(file.logData(makeEntry(source, 1, 3, bytesOf("after"))));
        EXPECT_EQ(file.getEntryCount(), 2);
        EXPECT_EQ(file.readEntry(2)->data, bytesOf("after"));
        ASSERT_TRUE(file.addMetadata("after", int32_t{1}));
        EXPECT_EQ(file.getLastError(), kFull);

        EXPECT_FALSE(file.logData(makeEntry(static_cast<int8_t>(source + 1), 1, 4, {})));
        EXPECT_EQ(file.getLastError(),
                  "Attempted to log data against a data source that did not exist in the file.");
    }
}

TEST(StorageFailure, EveryWriteReportsAFullDisk) {
    TempDir dir;
    const std::string path = dir.file("full.mvlog");
    FaultInjectingVfs vfs;
    {
        SqliteLogFile file = createLogFile(path, 3);
        int8_t source = 0;
        populate(file, source);

        const std::vector<std::pair<std::string, std::function<bool()>>> writes{
            {"addDataSource",
             [&] {
                 DataSource another{-1, MV_LogDataSourceType_Radar, "radar"};
                 return file.addDataSource(another);
             }},
            {"addDataSource const",
             [&] {
                 return file.addDataSource(static_cast<const DataSource&>(DataSource{50, {}, "fixed"}));
             }},
            {"addDataSourceProperty",
             [&] {
                 return file.addDataSourceProperty({source, "k", int32_t{1}});
             }},
            {"logData", [&] { return file.logData(makeEntry(source, 1, 1, bytesOf("x"))); }},
            {"addMetadata", [&] { return file.addMetadata("new key", std::string("v")); }},
            {"addResource", [&] { return file.addResource("new resource", bytesOf("r")); }},
            {"setThumbnail", [&] { return file.setThumbnail(bytesOf("replacement")); }},
            {"addBookmark",
             [&] {
                 return file.addBookmark(Bookmark{1, "second", "", {}});
             }},
            {"updateBookmark",
             [&] {
                 return file.updateBookmark(Bookmark{1, "changed", "", {}});
             }},
            {"removeBookmark",
             [&] {
                 return file.removeBookmark(Bookmark{1, "", "", {}});
             }},
        };
        for (const auto& [name, write] : writes) {
            // A different text before each write shows that this write set it.
            EXPECT_FALSE(file.addDataSourceProperty({static_cast<int8_t>(source + 9), "k", int32_t{1}}));
            vfs.failWrites(SQLITE_FULL);
            EXPECT_FALSE(write()) << name;
            vfs.failWrites(0);
            EXPECT_EQ(file.getLastError(), kFull) << name;
        }
        // None of them changed the file.
        EXPECT_EQ(file.getDataSources().size(), 1u);
        EXPECT_TRUE(file.getAllDataSourceProperties().empty());
        EXPECT_EQ(file.getEntryCount(), 1);
        EXPECT_FALSE(file.getMetadataValue("new key"));
        EXPECT_FALSE(file.getResource("new resource"));
        EXPECT_EQ(file.getThumbnail(), bytesOf("thumb"));
        ASSERT_EQ(file.getBookmarks().size(), 1u);
        EXPECT_EQ(file.getBookmarks()[0].title, "mark");
    }
}

TEST(StorageFailure, WriteIoErrorHasItsOwnMessage) {
    TempDir dir;
    FaultInjectingVfs vfs;
    {
        SqliteLogFile file = createLogFile(dir.file("io.mvlog"), 0);
        int8_t source = 0;
        populate(file, source);
        vfs.failWrites(SQLITE_IOERR_WRITE);
        EXPECT_FALSE(file.logData(makeEntry(source, 1, 2, bytesOf("lost"))));
        EXPECT_EQ(file.getLastError(), kIo);
        EXPECT_FALSE(file.addBookmark(Bookmark{1, "lost", "", {}}));
        EXPECT_EQ(file.getLastError(), kIo);
        vfs.failWrites(0);
        EXPECT_EQ(file.getEntryCount(), 1);
    }
}

TEST(StorageFailure, ReadIoErrorFailsTheEntryRangeAndThumbnailCount) {
    TempDir dir;
    FaultInjectingVfs vfs;
    {
        SqliteLogFile file = createLogFile(dir.file("io.mvlog"), 0);
        int8_t source = 0;
        populate(file, source);
        vfs.failReads(SQLITE_IOERR_READ);
        EXPECT_EQ(file.getEntryCount(), -1);
        EXPECT_EQ(file.getLastError(), kIo);
        EXPECT_EQ(file.getFirstEntryId(), -1);
        EXPECT_EQ(file.getLastEntryId(), -1);

        // Reads that only find nothing record no text of their own.
        EXPECT_FALSE(file.addDataSourceProperty({static_cast<int8_t>(source + 9), "k", int32_t{1}}));
        vfs.failReads(0);
        ASSERT_EQ(file.getLastError(), kIo);
        EXPECT_FALSE(file.addDataSourceProperty({static_cast<int8_t>(source + 9), "k", int32_t{1}}));
        const std::string before = file.getLastError();
        vfs.failReads(SQLITE_IOERR_READ);
        EXPECT_FALSE(file.readEntry(1));
        EXPECT_TRUE(file.getDataSources().empty());
        EXPECT_FALSE(file.getDataSourceProperty(source, "k"));
        EXPECT_EQ(file.getLastError(), before);

        EXPECT_FALSE(file.setThumbnail(bytesOf("new")));
        EXPECT_EQ(file.getLastError(), kIo);
        vfs.failReads(0);
        EXPECT_EQ(file.getThumbnail(), bytesOf("thumb"));
        EXPECT_EQ(file.getEntryCount(), 1);
    }
}

TEST(StorageFailure, PageLimitOnTheConnectionReportsAFullDisk) {
    TempDir dir;
    SqliteLogFilePrivate file{fs::path(dir.file("limit.mvlog"))};
    ASSERT_TRUE(file.database.executeSimpleQuery("INSERT INTO dataSources VALUES (1, 0, 'cam');"));
    // Cap the connection at the pages it already has.
    {
        Marivane::Database::SqliteQuery pages(file.database, "PRAGMA page_count;");
        ASSERT_EQ(pages.executeStep(), Marivane::Database::StepRow);
        const int64_t count = std::get<int64_t>(*pages.getValueFromColumn(0));
        file.database.executeSimpleQuery("PRAGMA max_page_count = " + std::to_string(count) + ";");
    }
    const ByteBuffer big = patternBytes(64 * 1024, 3);
    Marivane::Database::SqliteQuery insert(
        file.database,
        "INSERT INTO data (timestamp, type, dataSourceId, length, payload) "
        "VALUES (0, 0, 1, 0, :payload);");
    insert.bindParameter(":payload", big, Marivane::Database::BindMode::NoCopy);
    EXPECT_FALSE(file.executeWrite(insert, "foreign key text"));
    EXPECT_EQ(file.database.getLastErrorCode(), SQLITE_FULL);
    EXPECT_EQ(file.lastError, kFull);
}
