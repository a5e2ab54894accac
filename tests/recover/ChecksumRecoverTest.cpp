// Salvage of files created with entry checksums: a payload that no longer
// matches its checksum is lost, never recovered, wherever the salvage finds
// it; the new file keeps the checksums of the entries it holds.

#include "DamagedFiles.h"
#include "support/TempDir.h"

#include <logging/EntryIndexFilter.h>
#include <logging/EntryRange.h>
#include <logging/EntryView.h>
#include <logging/Recover.h>
#include <logging/SqliteLogFile.h>
#include <logging/VisitOptions.h>

#include <database/SqliteDatabase.h>
#include <database/SqliteQuery.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace RecoverTest {
namespace {

using Marivane::Database::SqliteDatabase;
using Marivane::Database::SqliteQuery;
using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::Durability;
using Marivane::Logging::EntryIdRange;
using Marivane::Logging::RecoveryReport;
using Marivane::Logging::SqliteLogFile;
using Marivane::Testing::TempDir;
namespace Algorithms = Marivane::Logging::Algorithms;

constexpr int64_t kStart = 1'700'000'000'000;

// Random bytes, the same for the same id: every payload differs from every
// other in every stretch of a few bytes.
ByteBuffer payloadOf(int id, std::size_t size) {
    std::mt19937 random(static_cast<unsigned>(id) * 7919u);
    return randomBytes(size, random);
}

// `entries` entries of 200 random bytes, every tenth one of 20000 (spilling
// into overflow pages).
void writeFile(const std::filesystem::path& path, int8_t level, bool checksums, int entries = 100) {
    SqliteLogFile file(path.string(), "UTC", "checksumtest", "1", level, kStart, Durability::Fast, checksums);
    ASSERT_EQ(file.hasEntryChecksums(), checksums);
    DataSource source{-1, MV_LogDataSourceType_Lidar, "lidar"};
    ASSERT_TRUE(file.addDataSource(source));
    auto batch = file.beginBatch();
    for (int id = 1; id <= entries; ++id) {
        DataEntry entry;
        entry.dataSourceId = source.id;
        entry.type = 2;
        entry.timestamp = kStart + id;
        entry.data = payloadOf(id, id % 10 == 0 ? 20000 : 200);
        ASSERT_TRUE(file.logData(entry));
    }
    ASSERT_TRUE(batch.commit());
}

ByteBuffer readBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    ByteBuffer bytes(std::filesystem::file_size(path));
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

void writeBytes(const std::filesystem::path& path, const ByteBuffer& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// Flips one byte of entry `id`'s 200-byte uncompressed payload where the
// file stores it, leaving every page well formed.
void flipPayloadByte(const std::filesystem::path& path, int id, std::size_t at) {
    ByteBuffer bytes = readBytes(path);
    const ByteBuffer payload = payloadOf(id, 200);
    const auto found = std::search(bytes.begin(), bytes.end(), payload.begin(), payload.end());
    ASSERT_NE(found, bytes.end()) << "entry " << id << " is not in the file as written";
    ASSERT_EQ(std::search(found + 1, bytes.end(), payload.begin(), payload.end()), bytes.end());
    found[static_cast<std::ptrdiff_t>(at)] ^= std::byte{0x5a};
    writeBytes(path, bytes);
}

void execute(const std::filesystem::path& path, const std::string& sql) {
    SqliteDatabase database(path.string(), Marivane::Database::OpenReadWrite);
    ASSERT_TRUE(database.execute(sql).ok()) << sql;
}

// Entry id -> stored checksum.
std::map<int64_t, int64_t> checksumsOf(const std::filesystem::path& path) {
    SqliteDatabase database(path.string(), Marivane::Database::OpenReadOnly);
    SqliteQuery query(database, "SELECT entryId, checksum FROM entryChecksums ORDER BY entryId;");
    std::map<int64_t, int64_t> checksums;
    while (query.executeStep() == Marivane::Database::StepRow) {
        checksums[query.getIntegerFromColumn(0).value_or(0)] = query.getIntegerFromColumn(1).value_or(0);
    }
    return checksums;
}

uint32_t rootPageOf(const std::filesystem::path& path, const std::string& table) {
    SqliteDatabase database(path.string(), Marivane::Database::OpenReadOnly);
    SqliteQuery query(database, "SELECT rootpage FROM sqlite_master WHERE name = '" + table + "';");
    EXPECT_EQ(query.executeStep(), Marivane::Database::StepRow);
    return static_cast<uint32_t>(query.getIntegerFromColumn(0).value_or(0));
}

void overwritePage(const std::filesystem::path& path, uint32_t page, const ByteBuffer& bytes) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(page - 1) * static_cast<std::streamoff>(bytes.size()));
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

constexpr uint32_t kPageSize = 8192;

// The ids a verifying read of `path` passes, and "id: reason" for the others.
std::vector<int32_t> verifiedIds(const std::filesystem::path& path, std::vector<std::string>& damaged) {
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    Marivane::Logging::VisitOptions options;
    options.verifyChecksums = true;
    options.onDamagedEntry = [&](int64_t id, const std::string& reason) {
        damaged.push_back(std::to_string(id) + ": " + reason);
        return true;
    };
    std::vector<int32_t> ids;
    EXPECT_TRUE(file.visitEntries(
        Marivane::Logging::EntryRange::all(), Marivane::Logging::EntryIndexFilter(),
        [&](const Marivane::Logging::EntryView& view) {
            ids.push_back(view.entryId);
            return true;
        },
        options));
    return ids;
}

std::vector<int32_t> idsFrom(int32_t first, int32_t last, const std::vector<int32_t>& without) {
    std::vector<int32_t> ids;
    for (int32_t id = first; id <= last; ++id) {
        if (std::find(without.begin(), without.end(), id) == without.end()) {
            ids.push_back(id);
        }
    }
    return ids;
}

bool hasNote(const RecoveryReport& report, const std::string& note) {
    return std::find(report.notes.begin(), report.notes.end(), note) != report.notes.end();
}

std::string notesOf(const RecoveryReport& report) {
    std::string text;
    for (const std::string& note : report.notes) {
        text += "\n  " + note;
    }
    return text;
}

const std::string kOneFailed =
    "1 entry failed its checksum and is lost: its stored payload is not the one that was written.";

void expectLostExactly(const RecoveryReport& report, const std::vector<EntryIdRange>& lost,
                       uint64_t recovered) {
    EXPECT_EQ(report.entriesRecovered, recovered);
    uint64_t count = 0;
    for (const EntryIdRange& range : lost) {
        count += static_cast<uint64_t>(range.last - range.first + 1);
    }
    EXPECT_EQ(report.entriesLost, count);
    EXPECT_FALSE(report.entriesLostIsLowerBound);
    ASSERT_EQ(report.lostEntryIds.size(), lost.size());
    for (std::size_t i = 0; i < lost.size(); ++i) {
        EXPECT_EQ(report.lostEntryIds[i].first, lost[i].first);
        EXPECT_EQ(report.lostEntryIds[i].last, lost[i].last);
    }
}

TEST(ChecksumRecoverTest, AByteChangedInsideAnUncompressedPayloadIsLostOnlyWithChecksums) {
    TempDir directory;
    const std::filesystem::path plain = directory.path() / "plain.mvlog";
    const std::filesystem::path checked = directory.path() / "checked.mvlog";
    writeFile(plain, 0, false);
    writeFile(checked, 0, true);
    const std::map<int64_t, int64_t> written = checksumsOf(checked);
    ASSERT_EQ(written.size(), 100u);
    flipPayloadByte(plain, 42, 117);
    flipPayloadByte(checked, 42, 117);

    // Without checksums nothing tells the changed byte from data.
    const RecoveryReport plainReport = Algorithms::recover(plain, directory.path() / "plain-new.mvlog");
    expectLostExactly(plainReport, {}, 100);
    const std::map<int32_t, ByteBuffer> plainBack = readPayloads(directory.path() / "plain-new.mvlog");
    ASSERT_EQ(plainBack.count(42), 1u);
    ByteBuffer changed = payloadOf(42, 200);
    changed[117] ^= std::byte{0x5a};
    EXPECT_EQ(plainBack.at(42), changed);
    EXPECT_FALSE(SqliteLogFile::openReadOnly(directory.path() / "plain-new.mvlog").hasEntryChecksums());

    const std::filesystem::path output = directory.path() / "checked-new.mvlog";
    const RecoveryReport report = Algorithms::recover(checked, output);
    expectLostExactly(report, {EntryIdRange{42, 42}}, 99);
    EXPECT_TRUE(hasNote(report, kOneFailed)) << notesOf(report);
    EXPECT_FALSE(report.pagesScanned);

    // The new file keeps the checksum of every entry it holds, as written.
    EXPECT_TRUE(SqliteLogFile::openReadOnly(output).hasEntryChecksums());
    std::map<int64_t, int64_t> expected = written;
    expected.erase(42);
    EXPECT_EQ(checksumsOf(output), expected);
    std::vector<std::string> damaged;
    EXPECT_EQ(verifiedIds(output, damaged), idsFrom(1, 100, {42}));
    EXPECT_TRUE(damaged.empty());
    for (const auto& [id, bytes] : readPayloads(output)) {
        EXPECT_EQ(bytes, payloadOf(id, id % 10 == 0 ? 20000 : 200)) << id;
    }
}

TEST(ChecksumRecoverTest, ABadChecksumLosesEvenAPayloadThatExpands) {
    TempDir directory;
    const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
    writeFile(damaged, -1, true);
    execute(damaged, "UPDATE entryChecksums SET checksum = checksum + 1 WHERE entryId IN (9, 60, 61);");

    const RecoveryReport report = Algorithms::recover(damaged, directory.path() / "new.mvlog");
    expectLostExactly(report, {EntryIdRange{9, 9}, EntryIdRange{60, 61}}, 97);
    EXPECT_TRUE(
        hasNote(report,
                "3 entries failed their checksums and are lost: their stored payloads are not the ones "
                "that were written."))
        << notesOf(report);
    std::vector<std::string> reasons;
    EXPECT_EQ(verifiedIds(directory.path() / "new.mvlog", reasons), idsFrom(1, 100, {9, 60, 61}));
    EXPECT_TRUE(reasons.empty());
}

// The checksum table's rows are still on their leaf pages, but SQLite cannot
// reach them: the page scan finds them.
TEST(ChecksumRecoverTest, ChecksumsSqliteCannotReachAreFoundInThePages) {
    TempDir directory;
    const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
    writeFile(damaged, 0, true, 3000);
    const uint32_t root = rootPageOf(damaged, "entryChecksums");
    std::mt19937 random(11);
    overwritePage(damaged, root, randomBytes(kPageSize, random));
    flipPayloadByte(damaged, 1234, 3);

    const RecoveryReport report = Algorithms::recover(damaged, directory.path() / "new.mvlog");
    expectLostExactly(report, {EntryIdRange{1234, 1234}}, 2999);
    EXPECT_TRUE(hasNote(report, kOneFailed)) << notesOf(report);
    EXPECT_TRUE(report.pagesScanned);
    std::vector<std::string> reasons;
    EXPECT_EQ(verifiedIds(directory.path() / "new.mvlog", reasons), idsFrom(1, 3000, {1234}));
    EXPECT_TRUE(reasons.empty());
}

// Without a schema, records of the checksum table in the pages say the file
// keeps checksums.
TEST(ChecksumRecoverTest, AFileWhoseSchemaIsLostIsKnownByItsChecksums) {
    TempDir directory;
    const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
    writeFile(damaged, 0, true);
    flipPayloadByte(damaged, 7, 0);
    overwritePage(damaged, 1, ByteBuffer(kPageSize));

    const std::filesystem::path output = directory.path() / "new.mvlog";
    const RecoveryReport report = Algorithms::recover(damaged, output);
    expectLostExactly(report, {EntryIdRange{7, 7}}, 99);
    EXPECT_TRUE(hasNote(report, kOneFailed)) << notesOf(report);
    EXPECT_TRUE(hasNote(report,
                        "The schema is lost; the entry checksums found in the pages show that the file "
                        "keeps them, so the new file does too."))
        << notesOf(report);
    EXPECT_TRUE(SqliteLogFile::openReadOnly(output).hasEntryChecksums());
    std::vector<std::string> reasons;
    EXPECT_EQ(verifiedIds(output, reasons), idsFrom(1, 100, {7}));
    EXPECT_TRUE(reasons.empty());
}

// An entry whose checksum cannot be read is recovered as it would be from a
// file without checksums, and the new file keeps none for it: verifying
// reads of the new file still single it out.
TEST(ChecksumRecoverTest, AnEntryWithoutAChecksumIsRecoveredAndKeepsNone) {
    for (const int8_t level : {int8_t{0}, int8_t{-1}}) {
        TempDir directory;
        const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
        writeFile(damaged, level, true);
        execute(damaged, "DELETE FROM entryChecksums WHERE entryId IN (7, 8);");

        const std::filesystem::path output = directory.path() / "new.mvlog";
        const RecoveryReport report = Algorithms::recover(damaged, output);
        expectLostExactly(report, {}, 100);
        EXPECT_TRUE(hasNote(
            report,
            std::string("2 entries have no readable checksum; they were recovered as from "
                        "a file without checksums (") +
                (level == 0 ? "the recorded length and the pages vouch" : "the compressed frame vouches") +
                " for them), and the new file keeps no checksum for them."))
            << notesOf(report);
        std::vector<std::string> reasons;
        EXPECT_EQ(verifiedIds(output, reasons), idsFrom(1, 100, {7, 8}));
        EXPECT_EQ(reasons, (std::vector<std::string>{"7: it has no checksum", "8: it has no checksum"}));
        for (const auto& [id, bytes] : readPayloads(output)) {
            EXPECT_EQ(bytes, payloadOf(id, id % 10 == 0 ? 20000 : 200)) << id;
        }
    }
}

// An overflow page of nothing but zeros is what a zeroed page looks like;
// without a checksum such an entry is not trusted, with a matching one it is.
TEST(ChecksumRecoverTest, AMatchingChecksumVouchesForAPayloadThatEndsInZeros) {
    for (const bool checksums : {false, true}) {
        TempDir directory;
        const std::filesystem::path path = directory.path() / "zeros.mvlog";
        {
            SqliteLogFile file(path.string(), "UTC", "checksumtest", "1", 0, kStart, Durability::Fast,
                               checksums);
            DataSource source{-1, MV_LogDataSourceType_Lidar, "lidar"};
            ASSERT_TRUE(file.addDataSource(source));
            ASSERT_TRUE(file.logData(DataEntry{0, source.id, 1, payloadOf(1, 200), kStart}));
            ASSERT_TRUE(file.logData(DataEntry{0, source.id, 1, ByteBuffer(30000), kStart + 1}));
            ASSERT_TRUE(file.logData(DataEntry{0, source.id, 1, payloadOf(3, 200), kStart + 2}));
        }
        const RecoveryReport report = Algorithms::recover(path, directory.path() / "new.mvlog");
        if (checksums) {
            expectLostExactly(report, {}, 3);
            EXPECT_EQ(readPayloads(directory.path() / "new.mvlog").at(2), ByteBuffer(30000));
        } else {
            expectLostExactly(report, {EntryIdRange{2, 2}}, 2);
        }
    }
}

}  // namespace
}  // namespace RecoverTest
