// Opening read-only, and a file that another connection keeps locked: a look
// never changes a byte, a lock is never taken for damage, and a commit waits
// for readers instead of discarding what it was given.

#include "StoreTestSupport.h"
#include "store/StoreAccess.h"

#include <logging/NotALogFileError.h>
#include <logging/NotYetALogFileError.h>
#include <logging/SqliteLogFile.h>

#include <database/DatabaseAccessError.h>
#include <database/DatabaseBusy.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <future>
#include <iterator>
#include <thread>

namespace {

namespace fs = std::filesystem;
using Marivane::Database::DatabaseAccessError;
using Marivane::Database::DatabaseBusy;
using Marivane::Logging::Bookmark;
using Marivane::Logging::DataSource;
using Marivane::Logging::EntryIndexFilter;
using Marivane::Logging::FailureKind;
using Marivane::Logging::NotALogFileError;
using Marivane::Logging::SqliteLogFile;
using Marivane::Logging::StoreAccess;
using Marivane::Testing::bytesOf;
using Marivane::Testing::createLogFile;
using Marivane::Testing::makeEntry;
using Marivane::Testing::patternBytes;
using Marivane::Testing::RawDatabase;
using Marivane::Testing::TempDir;

std::vector<char> fileBytes(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// A compressed file with one source, three entries and two bookmarks.
std::string makeSampleFile(const TempDir& dir, const std::string& name = "sample.mvlog") {
    const std::string path = dir.file(name);
    SqliteLogFile file = createLogFile(path, -1);
    DataSource camera{-1, MV_LogDataSourceType_Generic, "camera"};
    EXPECT_TRUE(file.addDataSource(camera));
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(
            file.logData(makeEntry(camera.id, 7, 1000 + i, patternBytes(4096, static_cast<unsigned>(i)))));
    }
    EXPECT_TRUE(file.addBookmark(Bookmark{1, "start", "first entry", bytesOf("p1")}));
    EXPECT_TRUE(file.addBookmark(Bookmark{3, "end", "", {}}));
    return path;
}

// Shortens the wait for locks so that the tests of a busy file stay quick.
void shortenBusyTimeout(SqliteLogFile& file) {
    StoreAccess::of(file).database.setBusyTimeout(100);
}

TEST(ReadOnlyOpen, ReadsEverythingAndChangesNoByte) {
    TempDir dir;
    const std::string path = makeSampleFile(dir);
    const std::vector<char> before = fileBytes(path);
    {
        SqliteLogFile file = SqliteLogFile::openReadOnly(path);
        EXPECT_TRUE(file.isReadOnly());
        EXPECT_EQ(file.getEntryCount(), 3);
        ASSERT_TRUE(file.readEntry(2).has_value());
        EXPECT_EQ(file.readEntry(2)->data, patternBytes(4096, 1));
        EXPECT_EQ(file.getBookmarks().size(), 2u);
        EXPECT_EQ(file.getDataSources().size(), 1u);
        EXPECT_EQ(file.getEntryIndex(EntryIndexFilter{}).size(), 3u);
        EXPECT_EQ(file.readEntries(-1, -1, EntryIndexFilter{}, -1).size(), 3u);
        EXPECT_EQ(file.getAllMetadata().size(), 6u);
        EXPECT_EQ(file.getFailureCount(), 0u);
        EXPECT_EQ(file.getLastFailure(), "");
    }
    EXPECT_EQ(fileBytes(path), before);
}

TEST(ReadOnlyOpen, RefusesEveryWriteWithAMessageNamingTheFile) {
    TempDir dir;
    const std::string path = makeSampleFile(dir);
    const std::vector<char> before = fileBytes(path);
    const std::string message = "The log file '" + path + "' was opened read-only: it cannot be changed.";
    {
        SqliteLogFile file = SqliteLogFile::openReadOnly(path);
        EXPECT_FALSE(file.addBookmark(Bookmark{2, "middle", "", {}}));
        EXPECT_EQ(file.getLastError(), message);
        EXPECT_FALSE(file.updateBookmark(Bookmark{1, "changed", "", {}}));
        EXPECT_FALSE(file.removeBookmark(Bookmark{1, "", "", {}}));
        EXPECT_FALSE(file.addMetadata("extra", int64_t{1}));
        EXPECT_FALSE(file.logData(makeEntry(1, 7, 5000, bytesOf("x"))));
        EXPECT_FALSE(file.setThumbnail(bytesOf("thumb")));
        EXPECT_EQ(file.getLastError(), message);
        EXPECT_EQ(file.getFailureCount(), 6u);
        try {
            auto batch = file.beginBatch();
            FAIL() << "a read-only file began a batch";
        } catch (const DatabaseAccessError& error) {
            EXPECT_EQ(std::string(error.what()), message);
        }
        EXPECT_EQ(file.getBookmarks().size(), 2u);
    }
    EXPECT_EQ(fileBytes(path), before);
}

TEST(ReadOnlyOpen, NeverCreatesAFile) {
    TempDir dir;
    const std::string path = dir.file("missing.mvlog");
    EXPECT_THROW((void)SqliteLogFile::openReadOnly(path), DatabaseAccessError);
    EXPECT_FALSE(fs::exists(path));
}

TEST(ReadOnlyOpen, TakesAnEmptyDatabaseForNoLogFileAndLeavesItEmpty) {
    TempDir dir;
    const std::string path = dir.file("empty.mvlog");
    std::ofstream(path).close();
    EXPECT_THROW((void)SqliteLogFile::openReadOnly(path), NotALogFileError);
    EXPECT_EQ(fs::file_size(path), 0u);
}

TEST(ReadOnlyOpen, SaysAnEmptyDatabaseIsNotALogFileYet) {
    TempDir dir;
    const std::string path = dir.file("empty.mvlog");
    std::ofstream(path).close();
    try {
        (void)SqliteLogFile::openReadOnly(path);
        FAIL() << "opened an empty file read-only";
    } catch (const Marivane::Logging::NotYetALogFileError& error) {
        EXPECT_EQ(std::string(error.what()),
                  "'" + path +
                      "' is not a log file yet: it holds no tables (it is empty, or still being created).");
    }
}

TEST(ReadOnlyOpen, KeepsBookmarksThatTheRepairWouldDrop) {
    TempDir dir;
    const std::string path = makeSampleFile(dir);
    {
        RawDatabase raw(path);
        raw.exec("INSERT INTO bookmarks (entryId, title, comments) VALUES (99, 'dangling', '');");
    }
    const std::vector<char> before = fileBytes(path);
    {
        SqliteLogFile file = SqliteLogFile::openReadOnly(path);
        EXPECT_EQ(file.getBookmarks().size(), 3u);
    }
    EXPECT_EQ(fileBytes(path), before);
}

TEST(BusyFile, OpeningWaitsThenReportsBusyAndNeverRepairs) {
    TempDir dir;
    const std::string path = makeSampleFile(dir);
    RawDatabase writer(path);
    writer.exec("BEGIN EXCLUSIVE;");
    const auto started = std::chrono::steady_clock::now();
    try {
        SqliteLogFile file(path);
        FAIL() << "opened a file that another connection holds exclusively";
    } catch (const DatabaseBusy& error) {
        EXPECT_EQ(
            std::string(error.what()),
            "The file '" + path + "' is busy: another connection kept it locked for more than 5000 ms.");
    }
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(4000));
    EXPECT_THROW((void)SqliteLogFile::openReadOnly(path), DatabaseBusy);
    writer.exec("COMMIT;");

    SqliteLogFile file(path);
    EXPECT_EQ(file.getBookmarks().size(), 2u);
    EXPECT_EQ(file.readEntry(1)->data, patternBytes(4096, 0));
}

TEST(BusyFile, AnOpenLockReleasedWithinTheTimeoutIsWaitedFor) {
    TempDir dir;
    const std::string path = makeSampleFile(dir);
    RawDatabase writer(path);
    writer.exec("BEGIN EXCLUSIVE;");
    auto release = std::async(std::launch::async, [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        writer.exec("COMMIT;");
    });
    SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    release.get();
    EXPECT_EQ(file.getBookmarks().size(), 2u);
    EXPECT_EQ(file.readEntry(3)->data, patternBytes(4096, 2));
}

TEST(BusyFile, AFailedReadIsCountedAndSaysBusyInsteadOfLookingEmpty) {
    TempDir dir;
    const std::string path = makeSampleFile(dir);
    SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    shortenBusyTimeout(file);
    RawDatabase writer(path);
    writer.exec("BEGIN EXCLUSIVE;");

    EXPECT_TRUE(file.getBookmarks().empty());
    EXPECT_EQ(file.getFailureCount(), 1u);
    const std::string busy =
        "The file '" + path + "' is busy: another connection kept it locked for more than 100 ms.";
    EXPECT_EQ(file.getLastError(), busy);
    EXPECT_EQ(file.getLastFailure(), "Reading the bookmarks of '" + path + "' failed: " + busy);

    EXPECT_FALSE(file.readEntry(1).has_value());
    EXPECT_TRUE(file.getDataSources().empty());
    EXPECT_EQ(file.getEntryCount(), -1);
    EXPECT_EQ(file.getFailureCount(), 4u);

    writer.exec("COMMIT;");
    EXPECT_EQ(file.getBookmarks().size(), 2u);
    EXPECT_EQ(file.getFailureCount(), 4u);
}

TEST(BusyFile, TheLastErrorsKindGoesWithItsText) {
    TempDir dir;
    const std::string path = makeSampleFile(dir);
    SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    shortenBusyTimeout(file);
    EXPECT_EQ(file.getLastError(), "No error");
    EXPECT_EQ(file.getLastErrorKind(), FailureKind::None);

    RawDatabase writer(path);
    writer.exec("BEGIN EXCLUSIVE;");
    EXPECT_TRUE(file.getBookmarks().empty());
    EXPECT_EQ(file.getLastErrorKind(), FailureKind::Busy);
    writer.exec("COMMIT;");

    // A refusal replaces both; a success leaves both as they were.
    EXPECT_FALSE(file.addMetadata("late", std::string("no")));
    EXPECT_EQ(file.getLastError(), "The log file '" + path + "' was opened read-only: it cannot be changed.");
    EXPECT_EQ(file.getLastErrorKind(), FailureKind::ReadOnly);
    EXPECT_EQ(file.getBookmarks().size(), 2u);
    EXPECT_EQ(file.getLastErrorKind(), FailureKind::ReadOnly);
}

TEST(BusyFile, ABatchCommitWaitsForAReaderAndKeepsEveryEntry) {
    TempDir dir;
    const std::string path = makeSampleFile(dir);
    SqliteLogFile file(path);
    RawDatabase reader(path, SQLITE_OPEN_READONLY);
    {
        auto batch = file.beginBatch();
        for (int i = 0; i < 1000; ++i) {
            ASSERT_TRUE(file.logData(makeEntry(1, 8, 2000 + i, patternBytes(200, static_cast<unsigned>(i)))));
        }
        // The reader holds a shared lock over the commit.
        reader.exec("BEGIN; SELECT COUNT(*) FROM data;");
        auto release = std::async(std::launch::async, [&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
            reader.exec("COMMIT;");
        });
        EXPECT_TRUE(batch.commit()) << file.getLastError();
        release.get();
    }
    EXPECT_EQ(file.getEntryCount(), 1003);
    EXPECT_EQ(file.readEntry(1003)->data, patternBytes(200, 999));
    EXPECT_EQ(file.getFailureCount(), 0u);
}

TEST(BusyFile, ACommitStillBusyAfterItsWaitKeepsTheWritesForLater) {
    TempDir dir;
    const std::string path = makeSampleFile(dir);
    SqliteLogFile file(path);
    auto& state = StoreAccess::of(file);
    state.database.setBusyTimeout(50);
    RawDatabase reader(path, SQLITE_OPEN_READONLY);
    {
        auto batch = file.beginBatch();
        ASSERT_TRUE(file.logData(makeEntry(1, 8, 3000, bytesOf("kept"))));
        reader.exec("BEGIN; SELECT COUNT(*) FROM data;");
        // The transaction's own wait is a minute; ask for a short one here.
        ASSERT_TRUE(state.transaction.has_value());
        EXPECT_TRUE(state.transaction->commit(200).isBusy());
        EXPECT_TRUE(state.transaction->isOpen());
        reader.exec("COMMIT;");
        EXPECT_TRUE(batch.commit()) << file.getLastError();
    }
    RawDatabase check(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(check.integer("SELECT COUNT(*) FROM data;"), 4);
}

}  // namespace
