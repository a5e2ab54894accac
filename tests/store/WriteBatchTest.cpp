// Write batches group writes into one transaction: same results and error
// texts as unbatched writes, a failing write fails only itself, the file reads
// its own writes at once, and ending a batch (by commit, by the guard or by
// destroying the file) keeps everything written.
#include <logging/SqliteLogFile.h>

#include "store/SqliteLogFilePrivate.h"

#include "StoreTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <stdexcept>

using namespace Marivane::Logging;
using Marivane::Testing::RawDatabase;
using Marivane::Testing::TempDir;

namespace {

struct Recording {
    explicit Recording(const std::string& path, int8_t level = 0)
        : file(path, "UTC", "batch", "1", level, 0) {
        EXPECT_TRUE(file.addDataSource(source));
    }
    bool log(int index) {
        DataEntry entry;
        entry.dataSourceId = source.id;
        entry.type = index;
        entry.timestamp = index;
        entry.data = Marivane::Testing::patternBytes(100 + static_cast<std::size_t>(index),
                                                     static_cast<unsigned>(index));
        return file.logData(entry);
    }
    SqliteLogFile file;
    DataSource source{-1, MV_LogDataSourceType_Generic, "source"};
};

int64_t rowsSeenByAnotherConnection(const std::string& path) {
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    return raw.integer("SELECT COUNT(*) FROM data;");
}

}  // namespace

TEST(WriteBatch, WritesAreVisibleToTheFileAtOnceAndToOthersAfterCommit) {
    TempDir dir;
    const std::string path = dir.file("batch.mvlog");
    Recording recording(path, 3);
    SqliteLogFile::WriteBatch batch = recording.file.beginBatch();
    EXPECT_TRUE(batch.isOpen());
    EXPECT_TRUE(recording.file.isBatchOpen());
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(recording.log(i));
    }
    EXPECT_EQ(recording.file.getEntryCount(), 10);
    EXPECT_EQ(recording.file.readEntry(10)->data, Marivane::Testing::patternBytes(109, 9));
    EXPECT_EQ(rowsSeenByAnotherConnection(path), 0);

    EXPECT_TRUE(batch.commit());
    EXPECT_FALSE(batch.isOpen());
    EXPECT_FALSE(recording.file.isBatchOpen());
    EXPECT_EQ(rowsSeenByAnotherConnection(path), 10);
    EXPECT_FALSE(batch.commit());
}

TEST(WriteBatch, ASecondBatchWhileOneIsOpenIsRefused) {
    TempDir dir;
    Recording recording(dir.file("twice.mvlog"));
    SqliteLogFile::WriteBatch batch = recording.file.beginBatch();
    try {
        SqliteLogFile::WriteBatch second = recording.file.beginBatch();
        FAIL() << "a second batch was opened";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "A write batch is already open on this log file.");
    }
    EXPECT_TRUE(batch.isOpen());
    EXPECT_TRUE(batch.commit());
    SqliteLogFile::WriteBatch afterwards = recording.file.beginBatch();
    EXPECT_TRUE(afterwards.isOpen());
}

TEST(WriteBatch, AFailingWriteFailsOnlyItselfWithTheUsualText) {
    TempDir dir;
    const std::string path = dir.file("failing.mvlog");
    Recording recording(path);
    {
        SqliteLogFile::WriteBatch batch = recording.file.beginBatch();
        ASSERT_TRUE(recording.log(0));
        DataEntry orphan;
        orphan.dataSourceId = 42;
        EXPECT_FALSE(recording.file.logData(orphan));
        EXPECT_EQ(recording.file.getLastError(),
                  "Attempted to log data against a data source that did not exist in the file.");
        EXPECT_FALSE(recording.file.addDataSource(
            DataSource{recording.source.id, MV_LogDataSourceType_Generic, "dup"}));
        EXPECT_EQ(recording.file.getLastError(), "Unknown internal error");
        ASSERT_TRUE(recording.log(1));
        EXPECT_TRUE(recording.file.isBatchOpen());
    }
    EXPECT_EQ(rowsSeenByAnotherConnection(path), 2);
    EXPECT_EQ(recording.file.getEntryIndex(EntryIndexFilter{}), (std::vector<int32_t>{1, 2}));
}

TEST(WriteBatch, TheGuardCommitsWhenItGoesOutOfScope) {
    TempDir dir;
    const std::string path = dir.file("scope.mvlog");
    Recording recording(path);
    {
        SqliteLogFile::WriteBatch batch = recording.file.beginBatch();
        ASSERT_TRUE(recording.log(0));
        ASSERT_TRUE(recording.log(1));
    }
    EXPECT_FALSE(recording.file.isBatchOpen());
    EXPECT_EQ(rowsSeenByAnotherConnection(path), 2);
}

TEST(WriteBatch, MovingAGuardKeepsOneBatchAndAssigningOverAGuardCommitsIt) {
    TempDir dir;
    const std::string path = dir.file("moves.mvlog");
    Recording recording(path);
    SqliteLogFile::WriteBatch first = recording.file.beginBatch();
    ASSERT_TRUE(recording.log(0));
    SqliteLogFile::WriteBatch moved = std::move(first);
    EXPECT_FALSE(first.isOpen());
    EXPECT_TRUE(moved.isOpen());
    EXPECT_FALSE(first.commit());
    EXPECT_EQ(rowsSeenByAnotherConnection(path), 0);
    moved = SqliteLogFile::WriteBatch(std::move(moved));
    EXPECT_TRUE(moved.isOpen());
    EXPECT_TRUE(moved.commit());
    EXPECT_EQ(rowsSeenByAnotherConnection(path), 1);
}

TEST(WriteBatch, DestroyingTheFileCommitsAndLeavesTheGuardHarmless) {
    TempDir dir;
    const std::string path = dir.file("destroyed.mvlog");
    auto recording = std::make_unique<Recording>(path);
    SqliteLogFile::WriteBatch batch = recording->file.beginBatch();
    ASSERT_TRUE(recording->log(0));
    ASSERT_TRUE(recording->log(1));
    ASSERT_TRUE(recording->log(2));
    recording.reset();
    EXPECT_FALSE(batch.isOpen());
    EXPECT_FALSE(batch.commit());
    EXPECT_EQ(rowsSeenByAnotherConnection(path), 3);
}

TEST(WriteBatch, AnOldGuardCannotEndALaterBatch) {
    TempDir dir;
    const std::string path = dir.file("stale.mvlog");
    Recording recording(path);
    SqliteLogFile::WriteBatch first = recording.file.beginBatch();
    SqliteLogFile::WriteBatch copyOfState = std::move(first);
    EXPECT_TRUE(copyOfState.commit());
    SqliteLogFile::WriteBatch second = recording.file.beginBatch();
    ASSERT_TRUE(recording.log(0));
    EXPECT_FALSE(copyOfState.commit());
    EXPECT_TRUE(recording.file.isBatchOpen());
    EXPECT_EQ(rowsSeenByAnotherConnection(path), 0);
    EXPECT_TRUE(second.commit());
    EXPECT_EQ(rowsSeenByAnotherConnection(path), 1);
}

namespace {

bool insertPayload(SqliteLogFilePrivate& file, const ByteBuffer& payload) {
    Marivane::Database::SqliteQuery insert(
        file.database,
        "INSERT INTO data (timestamp, type, dataSourceId, length, payload) VALUES (0, 0, 1, 0, :payload);");
    insert.bindParameter(":payload", payload, Marivane::Database::BindMode::NoCopy);
    return file.executeWrite(insert).ok();
}

void capAtCurrentPageCount(SqliteLogFilePrivate& file) {
    Marivane::Database::SqliteQuery pages(file.database, "PRAGMA page_count;");
    ASSERT_EQ(pages.executeStep(), Marivane::Database::StepRow);
    const int64_t count = std::get<int64_t>(*pages.getValueFromColumn(0));
    file.database.executeSimpleQuery("PRAGMA max_page_count = " + std::to_string(count) + ";");
}

}  // namespace

// SQLite abandons a whole transaction on a full disk: the batch says so,
// keeps going with the writes that follow, and keeps those.
TEST(WriteBatch, AFullDiskAbandonsTheBatchSoFarAndCommitSaysSo) {
    TempDir dir;
    const std::string path = dir.file("full.mvlog");
    {
        SqliteLogFilePrivate file{std::filesystem::path(path)};
        ASSERT_TRUE(file.database.executeSimpleQuery("INSERT INTO dataSources VALUES (1, 0, 'cam');"));
        const std::shared_ptr<SqliteLogFilePrivate*> batch = file.beginBatch();
        const ByteBuffer small = Marivane::Testing::patternBytes(100, 1);
        for (int i = 0; i < 5; ++i) {
            ASSERT_TRUE(insertPayload(file, small));
        }
        capAtCurrentPageCount(file);
        EXPECT_FALSE(insertPayload(file, Marivane::Testing::patternBytes(256 * 1024, 3)));
        EXPECT_EQ(file.lastError, "Filesystem full.");
        EXPECT_TRUE(file.batchOpen());
        EXPECT_TRUE(file.database.isInTransaction());
        file.database.executeSimpleQuery("PRAGMA max_page_count = 1000000;");
        ASSERT_TRUE(insertPayload(file, small));
        ASSERT_TRUE(insertPayload(file, small));
        const Outcome ended = file.endBatch();
        EXPECT_FALSE(ended.ok());
        EXPECT_EQ(ended.kind(), FailureKind::Full);
        EXPECT_EQ(ended.message(), "Filesystem full.");
        EXPECT_EQ(file.lastError, "Filesystem full.");
        EXPECT_EQ(*batch, nullptr);
        EXPECT_FALSE(file.batchOpen());
    }
    EXPECT_EQ(rowsSeenByAnotherConnection(path), 2);
}

TEST(WriteBatch, ABatchWithoutTroubleCommitsTrueAfterAnEarlierTroubledOne) {
    TempDir dir;
    SqliteLogFilePrivate file{std::filesystem::path(dir.file("again.mvlog"))};
    ASSERT_TRUE(file.database.executeSimpleQuery("INSERT INTO dataSources VALUES (1, 0, 'cam');"));
    file.beginBatch();
    capAtCurrentPageCount(file);
    EXPECT_FALSE(insertPayload(file, Marivane::Testing::patternBytes(256 * 1024, 3)));
    EXPECT_FALSE(file.endBatch());
    file.database.executeSimpleQuery("PRAGMA max_page_count = 1000000;");
    file.beginBatch();
    ASSERT_TRUE(insertPayload(file, Marivane::Testing::patternBytes(10, 3)));
    EXPECT_TRUE(file.endBatch());
}

TEST(WriteBatch, TheCreatedFileHoldsItsMetadataAfterCreation) {
    TempDir dir;
    const std::string path = dir.file("created.mvlog");
    SqliteLogFile file(path, "Europe/Berlin", "app", "2.0", 4, 123);
    EXPECT_FALSE(file.isBatchOpen());
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM metadata;"), 6);
}

TEST(StoredEntryWrite, AnUnknownSourceIsRefusedWithTheInterfacesText) {
    TempDir dir;
    SqliteLogFilePrivate file{std::filesystem::path(dir.file("refused.mvlog"))};
    const Outcome written = file.insertStoredEntry(1, 0, 7, Marivane::Testing::patternBytes(10, 1));
    EXPECT_EQ(written.kind(), FailureKind::Refused);
    EXPECT_EQ(written.message(),
              "Attempted to log data against a data source that did not exist in the file.");
    EXPECT_EQ(file.lastError, written.message());
    EXPECT_EQ(file.failureCount(), 1u);
}

TEST(StoredEntryWrite, AFullDiskAnswersFullWithTheInterfacesText) {
    TempDir dir;
    SqliteLogFilePrivate file{std::filesystem::path(dir.file("full-entry.mvlog"))};
    ASSERT_TRUE(file.database.executeSimpleQuery("INSERT INTO dataSources VALUES (1, 0, 'cam');"));
    capAtCurrentPageCount(file);
    const Outcome written = file.insertStoredEntry(1, 0, 1, Marivane::Testing::patternBytes(256 * 1024, 3));
    EXPECT_EQ(written.kind(), FailureKind::Full);
    EXPECT_EQ(written.message(), "Filesystem full.");
    const Outcome small = file.insertStoredEntry(2, 0, 1, Marivane::Testing::patternBytes(0, 3));
    EXPECT_TRUE(small.ok()) << small.message();
}
