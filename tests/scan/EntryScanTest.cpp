// The damage-tolerant scan: what it delivers, what it reports as damaged (and
// in which words), and that it goes on past both.

#include <logging/EntryScan.h>
#include <logging/SqliteLogFile.h>

#include "store/StoreTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

using namespace Marivane::Logging;
using Marivane::Testing::RawDatabase;
using Marivane::Testing::TempDir;

namespace {

constexpr int64_t kStart = 1'700'000'000'000;

// What one run handed out: the ids delivered and each damaged entry as a
// report line.
struct ScanResult {
    std::vector<int32_t> delivered;
    std::vector<std::string> damaged;
};

ScanResult scan(EntryScan& scanner) {
    ScanResult result;
    scanner.run(
        [&](const ScannedEntry& entry) {
            entry.forEachPiece([](const std::byte*, std::size_t) { return true; });
            result.delivered.push_back(entry.entryId);
        },
        [&](const DamagedEntry& damaged) { result.damaged.push_back(describe(damaged)); });
    return result;
}

ScanResult scan(const SqliteLogFile& file, EntrySelection selection = {}) {
    EntryScan scanner(file, std::move(selection));
    return scan(scanner);
}

std::vector<int32_t> idsFrom(int32_t first, int32_t last) {
    std::vector<int32_t> ids;
    for (int32_t id = first; id <= last; ++id) {
        ids.push_back(id);
    }
    return ids;
}

// `count` entries, one a millisecond, alternating between sources 1 and 2.
void writeEntries(const std::string& path, int count, int8_t level, bool checksums = false) {
    SqliteLogFile file(path, "UTC", "scan-tests", "1", level, kStart, Durability::Fast, checksums);
    DataSource first{1, MV_LogDataSourceType_Radar, "radar"};
    DataSource second{2, MV_LogDataSourceType_Camera, "camera"};
    ASSERT_TRUE(file.addDataSource(first));
    ASSERT_TRUE(file.addDataSource(second));
    for (int id = 1; id <= count; ++id) {
        ASSERT_TRUE(file.logData(
            Marivane::Testing::makeEntry(static_cast<int8_t>(id % 2 == 1 ? 1 : 2), id, kStart + id,
                                         Marivane::Testing::bytesOf("reading " + std::to_string(id)))));
    }
}

class EntryScanTest : public ::testing::Test {
protected:
    TempDir directory;
    std::string path = directory.file("scanned.mvlog");
};

TEST_F(EntryScanTest, ASoundFileIsDeliveredWholeInIdOrder) {
    writeEntries(path, 10, 3);
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    EntryScan scanner(file, EntrySelection{});
    EXPECT_EQ(scanner.selectedCount(), 10u);
    EXPECT_TRUE(scanner.coversWholeFile());
    const ScanResult result = scan(scanner);
    EXPECT_EQ(result.delivered, idsFrom(1, 10));
    EXPECT_TRUE(result.damaged.empty());
    EXPECT_EQ(scanner.metCount(), 10u);
}

TEST_F(EntryScanTest, ADamagedPayloadIsReportedAndTheScanGoesOn) {
    writeEntries(path, 10, 3);
    RawDatabase(path).exec("UPDATE data SET payload = x'28b52ffd0000' WHERE entryId = 4;");
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    const ScanResult result = scan(file);
    EXPECT_EQ(result.delivered, (std::vector<int32_t>{1, 2, 3, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ(result.damaged,
              std::vector<std::string>{
                  "entry 4: payload cannot be expanded: Cannot uncompress data: the data is truncated"});
}

// Garbage over the first overflow page of entry 200 (no row's local part
// holds 8000 of its bytes), whose id the index still lists: the streaming
// read fails there, and the entries after the damage are still delivered,
// read one by one.
TEST_F(EntryScanTest, EntriesBehindADamagedPageAreReadOneByOne) {
    constexpr char kFill = '\xc8';  // entry 200's bytes
    {
        SqliteLogFile file(path, "UTC", "scan-tests", "1", 0, kStart);
        DataSource source{1, MV_LogDataSourceType_Radar, "radar"};
        ASSERT_TRUE(file.addDataSource(source));
        for (int id = 1; id <= 400; ++id) {
            ASSERT_TRUE(file.logData(Marivane::Testing::makeEntry(
                1, 1, kStart + id, ByteBuffer(20000, static_cast<std::byte>(id)))));
        }
    }
    const int64_t pageSize = RawDatabase(path).integer("PRAGMA page_size;");
    std::fstream stream(path, std::ios::in | std::ios::out | std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    const std::size_t found = bytes.find(std::string(8000, kFill));
    ASSERT_NE(found, std::string::npos);
    stream.seekp(static_cast<std::streamoff>(found / static_cast<std::size_t>(pageSize)) * pageSize);
    const std::string garbage(static_cast<std::size_t>(pageSize), '\xa5');
    stream.write(garbage.data(), static_cast<std::streamsize>(garbage.size()));
    stream.close();

    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    EntryScan scanner(file, EntrySelection{});
    EXPECT_EQ(scanner.selectedCount(), 400u);
    const ScanResult result = scan(scanner);
    std::vector<int32_t> expected = idsFrom(1, 199);
    const std::vector<int32_t> after = idsFrom(201, 400);
    expected.insert(expected.end(), after.begin(), after.end());
    EXPECT_EQ(result.delivered, expected);
    EXPECT_EQ(result.damaged,
              std::vector<std::string>{"entry 200: listed in the index but its row cannot be read"});
    EXPECT_EQ(scanner.metCount(), 400u);
}

TEST_F(EntryScanTest, AnEntryOfAMissingDataSourceIsReported) {
    writeEntries(path, 5, 0);
    RawDatabase(path).exec(
        "INSERT INTO data(entryId, timestamp, type, dataSourceId, length, payload) "
        "VALUES (6, 1700000000006, 1, 9, 1, x'41');");
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    EntryScan scanner(file, EntrySelection{});
    const ScanResult result = scan(scanner);
    EXPECT_EQ(result.delivered, idsFrom(1, 5));
    EXPECT_EQ(result.damaged,
              std::vector<std::string>{"entry 6 refers to data source 9, which the file does not have"});
    EXPECT_EQ(scanner.metCount(), 6u);
}

TEST_F(EntryScanTest, APayloadThatNoLongerMatchesItsChecksumIsReportedWhenAsked) {
    writeEntries(path, 5, 0, true);
    RawDatabase(path).exec("UPDATE data SET payload = CAST('readinG 3' AS BLOB) WHERE entryId = 3;");
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    EXPECT_EQ(scan(file).delivered, idsFrom(1, 5));
    EntryScan scanner(file, EntrySelection{});
    scanner.verifyChecksums(true);
    const ScanResult result = scan(scanner);
    EXPECT_EQ(result.delivered, (std::vector<int32_t>{1, 2, 4, 5}));
    EXPECT_EQ(result.damaged, std::vector<std::string>{"entry 3: its payload does not match its checksum"});
}

TEST_F(EntryScanTest, ASelectionNamesIdsTimesSourcesAndALimit) {
    writeEntries(path, 20, 3);
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    EntrySelection byIds;
    byIds.from = 5;
    byIds.to = 8;
    EXPECT_EQ(scan(file, byIds).delivered, idsFrom(5, 8));
    EntrySelection byTime;
    byTime.startTimestamp = kStart + 10;
    byTime.endTimestamp = kStart + 12;
    EXPECT_EQ(scan(file, byTime).delivered, idsFrom(10, 12));
    EntrySelection bySource;
    bySource.filter.dataSources = {2};
    bySource.limit = 3;
    EXPECT_EQ(scan(file, bySource).delivered, (std::vector<int32_t>{2, 4, 6}));
    EntryScan limited(file, bySource);
    EXPECT_FALSE(limited.coversWholeFile());
    EXPECT_EQ(limited.selectedIds(), (std::vector<int32_t>{2, 4, 6}));
}

TEST_F(EntryScanTest, InTimeOrderTheLimitKeepsTheEarliest) {
    {
        SqliteLogFile file = Marivane::Testing::createLogFile(path, 0);
        DataSource source{1, MV_LogDataSourceType_Radar, "radar"};
        ASSERT_TRUE(file.addDataSource(source));
        for (const int64_t offset : {50, 10, 40, 20, 30}) {
            ASSERT_TRUE(file.logData(
                Marivane::Testing::makeEntry(1, 1, kStart + offset, Marivane::Testing::bytesOf("x"))));
        }
    }
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    EntrySelection byTime;
    byTime.order = EntryOrder::Time;
    EXPECT_EQ(scan(file, byTime).delivered, (std::vector<int32_t>{2, 4, 5, 3, 1}));
    byTime.limit = 2;
    EXPECT_EQ(scan(file, byTime).delivered, (std::vector<int32_t>{2, 4}));
}

TEST_F(EntryScanTest, TheWholeFileReadsUnlistedWhileInGoodOrderOnly) {
    writeEntries(path, 10, 3);
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    std::vector<int32_t> delivered;
    const auto onEntry = [&](const ScannedEntry& entry) { delivered.push_back(entry.entryId); };
    const auto onDamaged = [](const DamagedEntry&) {};
    EXPECT_TRUE(EntryScan::runWholeFileUnlisted(file, 10, onEntry, onDamaged));
    EXPECT_EQ(delivered, idsFrom(1, 10));
    // More entries than counted: a writer added some, which the listed scan
    // tells apart.
    EXPECT_FALSE(EntryScan::runWholeFileUnlisted(file, 9, onEntry, onDamaged));
}

TEST_F(EntryScanTest, AStoredFrameInAnUncompressedFileIsNamed) {
    writeEntries(path, 2, 0);
    RawDatabase(path).exec("UPDATE data SET payload = x'28b52ffd0000' WHERE entryId = 2;");
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    std::vector<std::string> problems;
    EntryScan scanner(file, EntrySelection{});
    scanner.run(
        [&](const ScannedEntry& entry) {
            if (const std::optional<std::string> problem = storedFormProblem(entry)) {
                problems.push_back(*problem);
            }
        },
        [](const DamagedEntry&) {});
    EXPECT_EQ(problems,
              std::vector<std::string>{
                  "the payload is a compressed frame but the file's compression level is 0 (payloads "
                  "stored uncompressed): readers hand it out compressed"});
}

}  // namespace
