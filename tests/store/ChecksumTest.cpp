// Entry checksums, chosen when a file is created: every writer stores one,
// verifying reads name the entry whose payload no longer matches, and files
// created without them stay exactly as they were.

#include <logging/EntryIndexFilter.h>
#include <logging/EntryRange.h>
#include <logging/EntryView.h>
#include <logging/Recorder.h>
#include <logging/SqliteLogFile.h>
#include <logging/VisitOptions.h>

#include <core/Checksum.h>

#include "StoreTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

using namespace Marivane::Logging;
using Marivane::Testing::RawDatabase;
using Marivane::Testing::TempDir;
namespace fs = std::filesystem;

namespace {

ByteBuffer payload(int index, std::size_t size = 1500) {
    ByteBuffer bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::byte>((static_cast<std::size_t>(index) * 13 + i) & 0xff);
    }
    return bytes;
}

// Entries 1-3 by logData, 4-6 in a batch.
std::string fileWithChecksums(const TempDir& dir, int8_t level) {
    const std::string path = dir.file("checked.mvlog");
    SqliteLogFile file(path, "UTC", "test", "1", level, 0, Durability::Fast, true);
    EXPECT_TRUE(file.hasEntryChecksums());
    DataSource source{-1, MV_LogDataSourceType_Generic, "generic"};
    EXPECT_TRUE(file.addDataSource(source));
    for (int i = 1; i <= 3; ++i) {
        EXPECT_TRUE(file.logData(DataEntry{0, source.id, 1, payload(i), i}));
    }
    SqliteLogFile::WriteBatch batch = file.beginBatch();
    for (int i = 4; i <= 6; ++i) {
        EXPECT_TRUE(file.logData(DataEntry{0, source.id, 1, payload(i), i}));
    }
    EXPECT_TRUE(batch.commit());
    return path;
}

// Every stored payload with its stored checksum, as two columns of text.
void expectEveryChecksumMatches(const std::string& path, std::size_t entries) {
    RawDatabase raw(path);
    const auto rows = raw.rows(
        "SELECT data.entryId, hex(data.payload), entryChecksums.checksum FROM data LEFT JOIN entryChecksums "
        "ON entryChecksums.entryId = data.entryId ORDER BY data.entryId;");
    ASSERT_EQ(rows.size(), entries);
    for (const auto& row : rows) {
        ByteBuffer stored;
        for (std::size_t i = 0; i + 1 < row[1].size(); i += 2) {
            stored.push_back(static_cast<std::byte>(std::stoi(row[1].substr(i, 2), nullptr, 16)));
        }
        EXPECT_EQ(row[2],
                  std::to_string(static_cast<int64_t>(Marivane::Checksum::of(stored.data(), stored.size()))))
            << "entry " << row[0];
    }
}

std::vector<int32_t> verifiedIds(const SqliteLogFile& file, std::vector<std::string>& reasons) {
    std::vector<int32_t> ids;
    VisitOptions options;
    options.verifyChecksums = true;
    options.onDamagedEntry = [&](int64_t entryId, const std::string& reason) {
        reasons.push_back(std::to_string(entryId) + ": " + reason);
        return true;
    };
    EXPECT_TRUE(file.visitEntries(
        EntryRange{}, EntryIndexFilter(),
        [&](const EntryView& view) {
            ids.push_back(view.entryId);
            return true;
        },
        options));
    return ids;
}

}  // namespace

TEST(EntryChecksums, AFileWithoutThemHasNoChecksumTable) {
    TempDir dir;
    const std::string path = dir.file("plain.mvlog");
    { SqliteLogFile file(path, "UTC", "test", "1", 0, 0, Durability::Fast); }
    RawDatabase raw(path);
    EXPECT_TRUE(raw.rows("SELECT name FROM sqlite_master WHERE name = 'entryChecksums';").empty());
    EXPECT_FALSE(SqliteLogFile::openReadOnly(path).hasEntryChecksums());
}

TEST(EntryChecksums, LogDataAndBatchesStoreTheChecksumOfTheStoredPayload) {
    for (const int8_t level : {int8_t{0}, int8_t{-1}}) {
        TempDir dir;
        const std::string path = fileWithChecksums(dir, level);
        expectEveryChecksumMatches(path, 6);
    }
}

TEST(EntryChecksums, TheRecorderStoresThemToo) {
    TempDir dir;
    const std::string path = dir.file("recorded.mvlog");
    {
        RecorderOptions options;
        options.compressionLevel = 0;
        options.entryChecksums = true;
        Recorder recorder(path, options);
        DataSource source{-1, MV_LogDataSourceType_Generic, "generic"};
        ASSERT_TRUE(recorder.addDataSource(source));
        for (int i = 0; i < 50; ++i) {
            ASSERT_TRUE(recorder.record(source.id, 0, i, payload(i, 100 + static_cast<std::size_t>(i))));
        }
        ASSERT_TRUE(recorder.close());
    }
    expectEveryChecksumMatches(path, 50);
}

TEST(EntryChecksums, AWriterThatReopensTheFileKeepsWritingThem) {
    TempDir dir;
    const std::string path = fileWithChecksums(dir, 0);
    {
        SqliteLogFile file{fs::path(path)};
        EXPECT_TRUE(file.hasEntryChecksums());
        EXPECT_TRUE(file.logData(DataEntry{0, 1, 1, payload(7), 7}));
    }
    expectEveryChecksumMatches(path, 7);
}

TEST(EntryChecksums, AVerifyingReadNamesADamagedUncompressedPayload) {
    TempDir dir;
    const std::string path = fileWithChecksums(dir, 0);
    // A byte changed inside a payload keeps every page's structure: without
    // the checksum nothing could tell.
    RawDatabase(path).exec(
        "UPDATE data SET payload = substr(payload, 1, 100) || x'FF' || substr(payload, 102) WHERE entryId = "
        "5;");
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    std::vector<std::string> reasons;
    EXPECT_EQ(verifiedIds(file, reasons), (std::vector<int32_t>{1, 2, 3, 4, 6}));
    EXPECT_EQ(reasons, std::vector<std::string>{"5: its payload does not match its checksum"});
    EXPECT_EQ(file.getLastFailure(),
              "Entry 5 of '" + path + "' cannot be read: its payload does not match its checksum");
    // Unasked, reads are what they always were.
    int unverified = 0;
    EXPECT_TRUE(file.visitEntries(EntryRange{}, EntryIndexFilter(), [&](const EntryView&) {
        ++unverified;
        return true;
    }));
    EXPECT_EQ(unverified, 6);
    // Without a handler the damaged entry ends the read as failed.
    VisitOptions options;
    options.verifyChecksums = true;
    EXPECT_FALSE(file.visitEntries(
        EntryRange{}, EntryIndexFilter(), [](const EntryView&) { return true; }, options));
}

TEST(EntryChecksums, AnEntryWithoutItsChecksumIsReported) {
    TempDir dir;
    const std::string path = fileWithChecksums(dir, -1);
    RawDatabase(path).exec("DELETE FROM entryChecksums WHERE entryId = 2;");
    std::vector<std::string> reasons;
    EXPECT_EQ(verifiedIds(SqliteLogFile::openReadOnly(path), reasons), (std::vector<int32_t>{1, 3, 4, 5, 6}));
    EXPECT_EQ(reasons, std::vector<std::string>{"2: it has no checksum"});
}

TEST(EntryChecksums, VerifyingAFileWithoutThemReadsEverything) {
    TempDir dir;
    const std::string path = dir.file("plain.mvlog");
    {
        SqliteLogFile file(path, "UTC", "test", "1", 0, 0);
        DataSource source{-1, MV_LogDataSourceType_Generic, "generic"};
        ASSERT_TRUE(file.addDataSource(source));
        ASSERT_TRUE(file.logData(DataEntry{0, source.id, 1, payload(1), 1}));
    }
    std::vector<std::string> reasons;
    EXPECT_EQ(verifiedIds(SqliteLogFile::openReadOnly(path), reasons), std::vector<int32_t>{1});
    EXPECT_TRUE(reasons.empty());
}
