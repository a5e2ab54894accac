// After a storage fault the file must still open and read back every entry
// written before it, and the failed write must leave nothing behind.
#include <logging/SqliteLogFile.h>

#include "FaultInjectingVfs.h"
#include "StoreTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>

using namespace Marivane::Logging;
using Marivane::Testing::FaultInjectingVfs;
using Marivane::Testing::patternBytes;
using Marivane::Testing::RawDatabase;
using Marivane::Testing::TempDir;

namespace {

constexpr int kEntriesBeforeFault = 20;

ByteBuffer payloadFor(int index) {
    return patternBytes(static_cast<std::size_t>(3000 + index * 100), static_cast<unsigned>(index));
}

DataEntry entryFor(int8_t source, int index, ByteBuffer data) {
    DataEntry entry;
    entry.dataSourceId = source;
    entry.type = index;
    entry.timestamp = index;
    entry.data = std::move(data);
    return entry;
}

int8_t recordBeforeFault(SqliteLogFile& file) {
    DataSource source{-1, MV_LogDataSourceType_Generic, "source"};
    EXPECT_TRUE(file.addDataSource(source));
    for (int i = 0; i < kEntriesBeforeFault; ++i) {
        EXPECT_TRUE(file.logData(entryFor(source.id, i, payloadFor(i))));
    }
    return source.id;
}

// Opens the file with no fault in place and checks that it holds exactly the
// entries written before the fault.
void expectIntactAfterReopening(const std::string& path) {
    {
        RawDatabase raw(path, SQLITE_OPEN_READONLY);
        EXPECT_EQ(raw.text("PRAGMA integrity_check;"), "ok");
    }
    SqliteLogFile file{std::filesystem::path(path)};
    ASSERT_EQ(file.getEntryCount(), kEntriesBeforeFault);
    const std::vector<DataEntry> entries = file.readEntries(-1, -1, EntryIndexFilter{}, -1);
    ASSERT_EQ(entries.size(), static_cast<std::size_t>(kEntriesBeforeFault));
    for (int i = 0; i < kEntriesBeforeFault; ++i) {
        EXPECT_EQ(entries[static_cast<std::size_t>(i)].entryId, i + 1);
        EXPECT_EQ(entries[static_cast<std::size_t>(i)].data, payloadFor(i)) << "entry " << i + 1;
    }
}

}  // namespace

TEST(FaultRecovery, AFullDiskLeavesEveryEarlierEntryAndNothingOfTheFailedOne) {
    TempDir dir;
    const std::string path = dir.file("full.mvlog");
    {
        FaultInjectingVfs vfs;
        SqliteLogFile file(path, "UTC", "faults", "1", -1, 0);
        const int8_t source = recordBeforeFault(file);
        vfs.failGrowth(true);
        for (int attempt = 0; attempt < 3; ++attempt) {
            EXPECT_FALSE(file.logData(entryFor(source, 100, patternBytes(400000, 99))));
            EXPECT_EQ(file.getLastError(), "Filesystem full.");
        }
        EXPECT_EQ(file.getEntryCount(), kEntriesBeforeFault);
        vfs.failGrowth(false);
    }
    expectIntactAfterReopening(path);
}

class TransientWriteError : public ::testing::TestWithParam<int> {};

TEST_P(TransientWriteError, LeavesEveryEarlierEntryAndNothingOfTheFailedOne) {
    TempDir dir;
    const std::string path = dir.file("transient.mvlog");
    {
        FaultInjectingVfs vfs;
        SqliteLogFile file(path, "UTC", "faults", "1", 0, 0);
        const int8_t source = recordBeforeFault(file);
        // A payload spanning many pages, so the fault can land part-way.
        vfs.failOneWrite(GetParam(), SQLITE_IOERR_WRITE);
        EXPECT_FALSE(file.logData(entryFor(source, 100, patternBytes(400000, 99))));
        EXPECT_EQ(file.getLastError(), "IO error while reading or writing to the file.");
        EXPECT_EQ(file.getEntryCount(), kEntriesBeforeFault);
    }
    expectIntactAfterReopening(path);
}

INSTANTIATE_TEST_SUITE_P(FaultRecovery, TransientWriteError, ::testing::Values(0, 1, 5, 20));

TEST(FaultRecovery, AWriteBatchCutShortByAFullDiskKeepsEarlierBatches) {
    TempDir dir;
    const std::string path = dir.file("batches.mvlog");
    {
        FaultInjectingVfs vfs;
        SqliteLogFile file(path, "UTC", "faults", "1", -1, 0);
        DataSource source{-1, MV_LogDataSourceType_Generic, "source"};
        ASSERT_TRUE(file.addDataSource(source));
        {
            SqliteLogFile::WriteBatch batch = file.beginBatch();
            for (int i = 0; i < kEntriesBeforeFault; ++i) {
                ASSERT_TRUE(file.logData(entryFor(source.id, i, payloadFor(i))));
            }
            ASSERT_TRUE(batch.commit());
        }
        vfs.failGrowth(true);
        SqliteLogFile::WriteBatch batch = file.beginBatch();
        for (int i = 0; i < 50; ++i) {
            file.logData(entryFor(source.id, 100 + i, patternBytes(100000, static_cast<unsigned>(i))));
        }
        EXPECT_FALSE(batch.commit());
        EXPECT_EQ(file.getLastError(), "Filesystem full.");
        vfs.failGrowth(false);
    }
    expectIntactAfterReopening(path);
}
