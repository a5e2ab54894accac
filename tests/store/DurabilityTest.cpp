// The durability mode chosen at creation: fast files stay byte for byte what
// they always were, safe files use a write-ahead log, keep it when opened
// again, leave nothing beside them after a clean close, and can be read by
// other connections while they are written.

#include "StoreTestSupport.h"

#include <logging/SqliteLogFile.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

namespace {

namespace fs = std::filesystem;
using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::Durability;
using Marivane::Logging::EntryIndexFilter;
using Marivane::Logging::SqliteLogFile;
using Marivane::Testing::makeEntry;
using Marivane::Testing::patternBytes;
using Marivane::Testing::RawDatabase;
using Marivane::Testing::TempDir;

SqliteLogFile createFile(const std::string& path, Durability durability, int8_t level = -1) {
    return SqliteLogFile(path, "Etc/UTC", "durability-tests", "1.0", level, 1700000000000, durability);
}

std::string journalModeOf(const std::string& path) {
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    return raw.text("PRAGMA journal_mode;");
}

// Byte 18 and 19 of the header: 1 for a rollback journal, 2 for a write-ahead log.
int headerFormatVersion(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    std::vector<char> header(20);
    stream.read(header.data(), 20);
    return header[18];
}

void writeSample(SqliteLogFile& file) {
    DataSource lidar{-1, MV_LogDataSourceType_Lidar, "lidar"};
    ASSERT_TRUE(file.addDataSource(lidar));
    auto batch = file.beginBatch();
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(file.logData(makeEntry(lidar.id, i % 3, 1000 + 10 * i, patternBytes(1000 + i, i))));
    }
    ASSERT_TRUE(batch.commit());
}

TEST(Durability, TheDefaultIsFastAndKeepsTheRollbackJournal) {
    TempDir dir;
    const std::string path = dir.file("fast.mvlog");
    {
        SqliteLogFile file = Marivane::Testing::createLogFile(path, -1);
        EXPECT_EQ(file.getDurability(), Durability::Fast);
        writeSample(file);
    }
    EXPECT_EQ(headerFormatVersion(path), 1);
    EXPECT_EQ(journalModeOf(path), "delete");
    EXPECT_EQ(SqliteLogFile(fs::path(path)).getDurability(), Durability::Fast);
}

TEST(Durability, ASafeFileUsesAWriteAheadLogAndKeepsItWhenOpenedAgain) {
    TempDir dir;
    const std::string path = dir.file("safe.mvlog");
    {
        SqliteLogFile file = createFile(path, Durability::Safe);
        EXPECT_EQ(file.getDurability(), Durability::Safe);
        writeSample(file);
    }
    EXPECT_EQ(headerFormatVersion(path), 2);
    {
        SqliteLogFile reopened{fs::path(path)};
        EXPECT_EQ(reopened.getDurability(), Durability::Safe);
        EXPECT_EQ(reopened.getEntryCount(), 50);
    }
    EXPECT_EQ(journalModeOf(path), "wal");
    EXPECT_EQ(SqliteLogFile::openReadOnly(path).getDurability(), Durability::Safe);
}

TEST(Durability, ASafeFileLeavesNoSideFilesAfterACleanClose) {
    TempDir dir;
    const std::string path = dir.file("clean.mvlog");
    {
        SqliteLogFile file = createFile(path, Durability::Safe);
        writeSample(file);
        EXPECT_TRUE(fs::exists(path + "-wal"));
    }
    EXPECT_FALSE(fs::exists(path + "-wal"));
    EXPECT_FALSE(fs::exists(path + "-shm"));
    {
        SqliteLogFile reopened{fs::path(path)};
        EXPECT_EQ(reopened.getEntryCount(), 50);
    }
    EXPECT_FALSE(fs::exists(path + "-wal"));
    EXPECT_FALSE(fs::exists(path + "-shm"));
    const auto bytesOf = [](const std::string& file) {
        std::ifstream stream(file, std::ios::binary);
        return std::vector<char>(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    };
    const std::vector<char> before = bytesOf(path);
    EXPECT_EQ(SqliteLogFile::openReadOnly(path).getEntryCount(), 50);
    EXPECT_EQ(bytesOf(path), before);
    EXPECT_FALSE(fs::exists(path + "-wal"));
    EXPECT_FALSE(fs::exists(path + "-shm"));
}

TEST(Durability, SafeAndFastFilesStoreAndReadTheSameRows) {
    TempDir dir;
    const std::string fastPath = dir.file("fast.mvlog");
    const std::string safePath = dir.file("safe.mvlog");
    {
        SqliteLogFile fast = createFile(fastPath, Durability::Fast);
        SqliteLogFile safe = createFile(safePath, Durability::Safe);
        writeSample(fast);
        writeSample(safe);
        const auto fastEntries = fast.readEntries(-1, -1, EntryIndexFilter{}, -1);
        const auto safeEntries = safe.readEntries(-1, -1, EntryIndexFilter{}, -1);
        ASSERT_EQ(fastEntries.size(), 50u);
        ASSERT_EQ(safeEntries.size(), fastEntries.size());
        for (std::size_t i = 0; i < fastEntries.size(); ++i) {
            EXPECT_EQ(safeEntries[i].entryId, fastEntries[i].entryId);
            EXPECT_EQ(safeEntries[i].timestamp, fastEntries[i].timestamp);
            EXPECT_EQ(safeEntries[i].data, fastEntries[i].data);
        }
    }
    RawDatabase fastRaw(fastPath, SQLITE_OPEN_READONLY);
    RawDatabase safeRaw(safePath, SQLITE_OPEN_READONLY);
    const std::string rows = "SELECT entryId, timestamp, type, dataSourceId, length, hex(payload) FROM data;";
    EXPECT_EQ(safeRaw.rows(rows), fastRaw.rows(rows));
}

TEST(Durability, OthersReadASafeFileWhileItIsWritten) {
    TempDir dir;
    const std::string path = dir.file("live.mvlog");
    SqliteLogFile writer = createFile(path, Durability::Safe, 0);
    DataSource gnss{-1, MV_LogDataSourceType_Navigation, "gnss"};
    ASSERT_TRUE(writer.addDataSource(gnss));
    std::atomic<int> committed{0};
    std::atomic<bool> done{false};
    std::thread writing([&] {
        for (int round = 0; round < 40; ++round) {
            auto batch = writer.beginBatch();
            for (int i = 0; i < 25; ++i) {
                const int index = round * 25 + i;
                EXPECT_TRUE(writer.logData(makeEntry(gnss.id, 1, 5000 + index, patternBytes(64, index))));
            }
            EXPECT_TRUE(batch.commit());
            committed.store((round + 1) * 25);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        done.store(true);
    });
    int reads = 0;
    int lastSeen = 0;
    while (!done.load() || reads == 0) {
        const int before = committed.load();
        SqliteLogFile reader = SqliteLogFile::openReadOnly(path);
        const int32_t count = reader.getEntryCount();
        // Everything committed before the look is seen, and only whole batches.
        EXPECT_GE(count, before);
        EXPECT_EQ(count % 25, 0);
        EXPECT_GE(count, lastSeen);
        if (count > 0) {
            EXPECT_EQ(reader.readEntry(count)->data, patternBytes(64, count - 1));
        }
        EXPECT_EQ(reader.getFailureCount(), 0u) << reader.getLastFailure();
        lastSeen = count;
        ++reads;
    }
    writing.join();
    EXPECT_EQ(SqliteLogFile::openReadOnly(path).getEntryCount(), 1000);
}

}  // namespace
