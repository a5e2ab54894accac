// In a write batch, small entries wait and go into the file many rows per
// statement. Nothing of that shows: the stored bytes are those of one insert
// per entry, the file reads its own writes at once, an entry for an unknown
// data source still fails on its own call, and a full disk still reaches the
// commit's answer.
#include <logging/SqliteLogFile.h>

#include "store/SqliteLogFilePrivate.h"

#include "StoreTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

using namespace Marivane::Logging;
using Marivane::Testing::patternBytes;
using Marivane::Testing::RawDatabase;
using Marivane::Testing::TempDir;

namespace {

constexpr const char* kUnknownSourceText =
    "Attempted to log data against a data source that did not exist in the file.";

// Sizes around the largest payload that waits, and an empty one.
std::size_t sizeOf(int index) {
    constexpr std::size_t kSizes[] = {64, 0, 1000, 4096, 4097, 1, 300, 20000};
    return kSizes[static_cast<std::size_t>(index) % std::size(kSizes)] + static_cast<std::size_t>(index % 3);
}

DataEntry entryAt(int index) {
    DataEntry entry;
    entry.dataSourceId = static_cast<int8_t>(1 + index % 3);
    entry.type = index % 5;
    entry.timestamp = 1000 + index * 7;
    entry.data = patternBytes(sizeOf(index), static_cast<unsigned>(index));
    return entry;
}

SqliteLogFile createFile(const std::string& path, int8_t level) {
    SqliteLogFile file(path, "UTC", "batch", "1", level, 1234);
    for (int8_t id = 1; id <= 3; ++id) {
        EXPECT_TRUE(
            file.addDataSource(DataSource{id, MV_LogDataSourceType_Generic, "source " + std::to_string(id)}));
    }
    return file;
}

// Writes `count` entries in one batch; with `readAfterEach`, a read after
// every entry makes each one go in on its own statement.
void writeEntries(const std::string& path, int8_t level, int count, bool readAfterEach) {
    SqliteLogFile file = createFile(path, level);
    SqliteLogFile::WriteBatch batch = file.beginBatch();
    for (int index = 0; index < count; ++index) {
        ASSERT_TRUE(file.logData(entryAt(index))) << index;
        if (readAfterEach) {
            ASSERT_EQ(file.getEntryCount(), index + 1);
        }
    }
    ASSERT_TRUE(batch.commit());
}

std::vector<char> bytesOf(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class SmallEntriesInABatch : public ::testing::TestWithParam<int> {};

}  // namespace

TEST_P(SmallEntriesInABatch, StoreTheSameBytesAsOneInsertPerEntry) {
    TempDir dir;
    const std::string together = dir.file("together.mvlog");
    const std::string oneByOne = dir.file("one-by-one.mvlog");
    const auto level = static_cast<int8_t>(GetParam());
    writeEntries(together, level, 1000, false);
    writeEntries(oneByOne, level, 1000, true);
    const std::vector<char> expected = bytesOf(oneByOne);
    ASSERT_GT(expected.size(), 100000u);
    EXPECT_TRUE(bytesOf(together) == expected);
}

TEST_P(SmallEntriesInABatch, ReadBackWithTheirIdsInOrder) {
    TempDir dir;
    const std::string path = dir.file("ids.mvlog");
    writeEntries(path, static_cast<int8_t>(GetParam()), 300, false);
    SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    ASSERT_EQ(file.getEntryCount(), 300);
    for (int index = 0; index < 300; ++index) {
        const std::optional<DataEntry> read = file.readEntry(index + 1);
        ASSERT_TRUE(read) << index;
        const DataEntry expected = entryAt(index);
        EXPECT_EQ(read->timestamp, expected.timestamp);
        EXPECT_EQ(read->type, expected.type);
        EXPECT_EQ(read->dataSourceId, expected.dataSourceId);
        EXPECT_EQ(read->data, expected.data) << index;
    }
}

INSTANTIATE_TEST_SUITE_P(Levels, SmallEntriesInABatch, ::testing::Values(0, -1, 3));

TEST(SmallEntriesInABatchReads, EveryReadSeesTheEntriesLoggedBeforeIt) {
    TempDir dir;
    const std::string path = dir.file("reads.mvlog");
    SqliteLogFile file = createFile(path, 0);
    SqliteLogFile::WriteBatch batch = file.beginBatch();
    for (int index = 0; index < 10; ++index) {
        ASSERT_TRUE(file.logData(entryAt(index * 8)));
    }
    EXPECT_EQ(file.getLastEntryId(), 10);
    EXPECT_EQ(file.getEntryIndex(EntryIndexFilter{}).size(), 10u);
    ASSERT_TRUE(file.logData(entryAt(80)));
    const std::optional<DataEntry> last = file.readEntry(11);
    ASSERT_TRUE(last);
    EXPECT_EQ(last->data, entryAt(80).data);
    ASSERT_TRUE(file.logData(entryAt(88)));
    Bookmark bookmark;
    bookmark.entryId = 12;
    bookmark.title = "on a waiting entry";
    EXPECT_TRUE(file.addBookmark(bookmark));
    ASSERT_TRUE(batch.commit());
    EXPECT_EQ(file.getBookmarks().size(), 1u);
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM data;"), 12);
}

TEST(SmallEntriesInABatchReads, OthersSeeNothingBeforeTheCommitAndEverythingAfter) {
    TempDir dir;
    const std::string path = dir.file("others.mvlog");
    SqliteLogFile file = createFile(path, 0);
    SqliteLogFile::WriteBatch batch = file.beginBatch();
    for (int index = 0; index < 100; ++index) {
        ASSERT_TRUE(file.logData(entryAt(0)));
    }
    {
        RawDatabase raw(path, SQLITE_OPEN_READONLY);
        EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM data;"), 0);
    }
    ASSERT_TRUE(batch.commit());
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM data;"), 100);
}

TEST(SmallEntriesInABatchReads, DestroyingTheFileKeepsTheWaitingEntries) {
    TempDir dir;
    const std::string path = dir.file("destroyed.mvlog");
    {
        SqliteLogFile file = createFile(path, 0);
        SqliteLogFile::WriteBatch batch = file.beginBatch();
        for (int index = 0; index < 70; ++index) {
            ASSERT_TRUE(file.logData(entryAt(0)));
        }
    }
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM data;"), 70);
}

TEST(SmallEntriesInABatchRefusals, AnUnknownSourceFailsOnItsOwnCallAndTheOthersStay) {
    TempDir dir;
    const std::string path = dir.file("unknown.mvlog");
    SqliteLogFile file = createFile(path, 0);
    SqliteLogFile::WriteBatch batch = file.beginBatch();
    for (int index = 0; index < 5; ++index) {
        ASSERT_TRUE(file.logData(entryAt(0)));
    }
    DataEntry stray = entryAt(0);
    stray.dataSourceId = 99;
    EXPECT_FALSE(file.logData(stray));
    EXPECT_EQ(file.getLastError(), kUnknownSourceText);
    for (int index = 0; index < 5; ++index) {
        ASSERT_TRUE(file.logData(entryAt(0)));
    }
    EXPECT_FALSE(file.logData(stray));
    EXPECT_TRUE(batch.commit());
    EXPECT_EQ(file.getEntryCount(), 10);
    EXPECT_EQ(file.getFailureCount(), 2u);
}

namespace {

void capAtCurrentPageCount(SqliteLogFilePrivate& file) {
    Marivane::Database::SqliteQuery pages(file.database, "PRAGMA page_count;");
    ASSERT_EQ(pages.executeStep(), Marivane::Database::StepRow);
    const int64_t count = std::get<int64_t>(*pages.getValueFromColumn(0));
    file.database.executeSimpleQuery("PRAGMA max_page_count = " + std::to_string(count) + ";");
}

}  // namespace

// The entries that were waiting when the disk filled are lost: the call that
// wrote them out fails, and so does the commit. Their statement is rolled back
// alone, so the entry written before them stays.
TEST(SmallEntriesInABatchRefusals, AFullDiskFailsTheCallThatWritesThemAndTheCommit) {
    TempDir dir;
    const std::string path = dir.file("full.mvlog");
    {
        SqliteLogFilePrivate file{std::filesystem::path(path)};
        ASSERT_TRUE(file.database.executeSimpleQuery("INSERT INTO dataSources VALUES (1, 0, 'cam');"));
        const std::shared_ptr<SqliteLogFilePrivate*> batch = file.beginBatch();
        const ByteBuffer small = patternBytes(1000, 1);
        ASSERT_TRUE(file.insertStoredEntry(0, 0, 1, small));
        capAtCurrentPageCount(file);
        int accepted = 0;
        Outcome written = Outcome::success();
        while (accepted < 10000 && (written = file.insertStoredEntry(0, 0, 1, small))) {
            ++accepted;
        }
        ASSERT_FALSE(written.ok());
        EXPECT_EQ(written.kind(), FailureKind::Full);
        EXPECT_EQ(written.message(), "Filesystem full.");
        // The failing call wrote out the waiting entries, its own the last.
        EXPECT_EQ(accepted + 1, static_cast<int>(DeferredRows::kRowsPerStatement));
        file.database.executeSimpleQuery("PRAGMA max_page_count = 1000000;");
        ASSERT_TRUE(file.insertStoredEntry(0, 0, 1, small));
        ASSERT_TRUE(file.insertStoredEntry(0, 0, 1, small));
        const Outcome ended = file.endBatch();
        EXPECT_FALSE(ended.ok());
        EXPECT_EQ(ended.kind(), FailureKind::Full);
        EXPECT_EQ(ended.message(), "Filesystem full.");
    }
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM data;"), 3);
}

// Entries written out by a read that meets a full disk are not lost
// silently: the failure is counted at once, and the commit answers with it
// even though the read replaced the last error since.
TEST(SmallEntriesInABatchRefusals, AFullDiskMetByAReadIsReportedByTheCommit) {
    TempDir dir;
    SqliteLogFilePrivate file{std::filesystem::path(dir.file("full-read.mvlog"))};
    ASSERT_TRUE(file.database.executeSimpleQuery("INSERT INTO dataSources VALUES (1, 0, 'cam');"));
    file.beginBatch();
    const ByteBuffer small = patternBytes(1000, 1);
    ASSERT_TRUE(file.insertStoredEntry(0, 0, 1, small));
    capAtCurrentPageCount(file);
    for (int index = 0; index < 60; ++index) {
        ASSERT_TRUE(file.insertStoredEntry(0, 0, 1, small));
    }
    const uint64_t failuresBefore = file.failureCount();
    int32_t last = 0;
    (void)file.readLastEntryId(last);
    EXPECT_EQ(file.failureCount(), failuresBefore + 1);
    EXPECT_NE(file.lastFailure().find("database or disk is full"), std::string::npos) << file.lastFailure();
    // One entry at a time, SQLite abandons the whole transaction.
    EXPECT_EQ(last, -1);
    file.database.executeSimpleQuery("PRAGMA max_page_count = 1000000;");
    const Outcome ended = file.endBatch();
    EXPECT_FALSE(ended.ok());
    EXPECT_EQ(ended.kind(), FailureKind::Full);
    EXPECT_EQ(ended.message(), "Filesystem full.");
    EXPECT_EQ(file.lastError, "Filesystem full.");
}
