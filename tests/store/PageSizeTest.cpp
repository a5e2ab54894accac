// New files use 8 KiB pages; files with any other page size keep opening,
// reading and taking writes.
#include <logging/SqliteLogFile.h>

#include "StoreTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace Marivane::Logging;
using Marivane::Testing::RawDatabase;
using Marivane::Testing::TempDir;

TEST(PageSize, NewFilesUseEightKibPages) {
    TempDir dir;
    const std::string path = dir.file("new.mvlog");
    { SqliteLogFile file(path, "UTC", "pages", "1", 0, 0); }
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.integer("PRAGMA page_size;"), 8192);
}

TEST(PageSize, AnEmptyFileInitialisedOnOpenUsesThemToo) {
    TempDir dir;
    const std::string path = dir.file("opened.mvlog");
    { SqliteLogFile file{std::filesystem::path(path)}; }
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.integer("PRAGMA page_size;"), 8192);
}

class OtherPageSizes : public ::testing::TestWithParam<int> {};

TEST_P(OtherPageSizes, FilesKeepWorking) {
    TempDir dir;
    const std::string path = dir.file("other.mvlog");
    {
        RawDatabase raw(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
        raw.exec("PRAGMA page_size = " + std::to_string(GetParam()) + ";");
        for (const auto& object : Marivane::Testing::expectedSchema()) {
            raw.exec(object.sql + ";");
        }
        raw.exec("INSERT INTO metadata VALUES ('logVersion', 4), ('compressionLevel', 0);");
        raw.exec("INSERT INTO dataSources VALUES (1, 0, 'cam');");
        raw.exec("INSERT INTO data VALUES (1, 10, 2, 1, 3, x'010203');");
    }
    {
        SqliteLogFile file{std::filesystem::path(path)};
        ASSERT_EQ(file.readEntry(1)->data, Marivane::Testing::bytesOf("\x01\x02\x03"));
        DataEntry entry;
        entry.dataSourceId = 1;
        entry.data = Marivane::Testing::patternBytes(300000, 4);
        ASSERT_TRUE(file.logData(entry));
    }
    SqliteLogFile reopened{std::filesystem::path(path)};
    EXPECT_EQ(reopened.readEntry(2)->data, Marivane::Testing::patternBytes(300000, 4));
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.integer("PRAGMA page_size;"), GetParam());
}

INSTANTIATE_TEST_SUITE_P(PageSize, OtherPageSizes, ::testing::Values(1024, 4096, 16384, 32768, 65536));
