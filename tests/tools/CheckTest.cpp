#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <sqlite3.h>

#include <array>
#include <filesystem>
#include <fstream>

namespace MvlogTest {
namespace {

using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::SqliteLogFile;
using Marivane::Testing::TempDir;

std::vector<std::string> problemLines(const RunResult& result) {
    std::vector<std::string> problems;
    for (const std::string& line : result.outLines()) {
        if (line.rfind("problem: ", 0) == 0) {
            problems.push_back(line);
        }
    }
    return problems;
}

TEST(CheckTest, SoundFileIsOk) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    writeKnownFile(path);
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    EXPECT_EQ(result.out, "Checked 101 entries, 3 data sources, 2 resources, 1 bookmarks\nOK\n");
}

TEST(CheckTest, DamagedPayloadIsNamed) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    writeKnownFile(path);
    overwriteStoredPayload(path, 7, bytesOf("\x28\xb5\x2f\xfd garbage after a frame magic"));
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 1);
    const std::vector<std::string> problems = problemLines(result);
    ASSERT_EQ(problems.size(), 1u) << result.out;
    EXPECT_EQ(problems[0].rfind("problem: entry 7: payload cannot be expanded: ", 0), 0u) << problems[0];
    const std::vector<std::string> lines = result.outLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2], "1 problem found in " + path);
    EXPECT_EQ(lines.back(), "hint: mvlog recover " + path + " -o NEW salvages what is intact");
}

TEST(CheckTest, EveryDamagedPayloadIsNamed) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    writeKnownFile(path);
    for (int id : {2, 3, 60, 101}) {
        overwriteStoredPayload(path, id, bytesOf("garbage"));
    }
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 1);
    const std::vector<std::string> problems = problemLines(result);
    ASSERT_EQ(problems.size(), 4u) << result.out;
    EXPECT_EQ(problems[0].rfind("problem: entry 2: ", 0), 0u);
    EXPECT_EQ(problems[1].rfind("problem: entry 3: ", 0), 0u);
    EXPECT_EQ(problems[2].rfind("problem: entry 60: ", 0), 0u);
    EXPECT_EQ(problems[3].rfind("problem: entry 101: ", 0), 0u);
    const std::vector<std::string> lines = result.outLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2], "4 problems found in " + path);
    EXPECT_EQ(lines.back(), "hint: mvlog recover " + path + " -o NEW salvages what is intact");
}

// Enough pages that half the file loses tables' pages, not just free space.
TEST(CheckTest, FileTruncatedMidPageIsReportedWithoutACrash) {
    TempDir directory;
    const std::string path = directory.file("truncated.mvlog");
    {
        SqliteLogFile file(path, "UTC", "tooltest", "1", 1, kKnownStart);
        DataSource source{-1, MV_LogDataSourceType_Radar, "radar"};
        ASSERT_TRUE(file.addDataSource(source));
        for (int id = 1; id <= 300; ++id) {
            DataEntry entry;
            entry.dataSourceId = source.id;
            entry.timestamp = kKnownStart + id;
            entry.data = knownPayload(id);
            entry.data.resize(3000, static_cast<std::byte>(id));
            ASSERT_TRUE(file.logData(entry));
        }
        ASSERT_TRUE(file.addBookmark({250, "late", "", {}}));
    }
    const auto size = std::filesystem::file_size(path);
    std::filesystem::resize_file(path, size / 2 + 123);
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.terminatingSignal, 0);
    EXPECT_EQ(result.exitCode, 1) << result.out << result.err;
    EXPECT_FALSE(problemLines(result).empty()) << result.out;
    const std::vector<std::string> lines = result.outLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_NE(lines[lines.size() - 2].find(" found in " + path), std::string::npos) << result.out;
    EXPECT_EQ(lines.back().rfind("hint: mvlog recover ", 0), 0u) << result.out;
}

// Garbage over two pages in the middle of the entries: the index read stops
// there, and the entries it hides are looked up by id and named.
TEST(CheckTest, DamagedPagesInTheMiddleAreReportedWithTheEntriesTheyHide) {
    TempDir directory;
    const std::string path = directory.file("damaged.mvlog");
    writeFileWithDamagedPages(path);
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.terminatingSignal, 0);
    EXPECT_EQ(result.exitCode, 1) << result.out << result.err;
    bool integrityProblem = false;
    bool entryProblem = false;
    for (const std::string& problem : problemLines(result)) {
        integrityProblem = integrityProblem || problem.rfind("problem: integrity_check: ", 0) == 0;
        entryProblem = entryProblem || problem.rfind("problem: entr", 0) == 0;
    }
    EXPECT_TRUE(integrityProblem) << result.out;
    EXPECT_TRUE(entryProblem) << result.out;
    const std::vector<std::string> lines = result.outLines();
    ASSERT_GE(lines.size(), 3u);
    const std::string checked = lines[lines.size() - 3];
    ASSERT_EQ(checked.rfind("Checked ", 0), 0u) << result.out;
    EXPECT_LT(std::stoi(checked.substr(8)), 400) << checked;
    EXPECT_GT(std::stoi(checked.substr(8)), 300) << checked;
}

TEST(CheckTest, ForeignFileIsReportedWithTheLibraryMessage) {
    TempDir directory;
    const std::string path = directory.file("notes.txt");
    std::ofstream(path) << "Just some text that is certainly not an SQLite database at all.\n";
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 1);
    const std::vector<std::string> lines = result.outLines();
    EXPECT_TRUE(containsLine(lines, "problem: PRAGMA integrity_check; cannot run: file is not a database"))
        << result.out;
    EXPECT_TRUE(containsLine(
        lines, "problem: cannot open as a log file: This file is not in a supported log file format."))
        << result.out;
}

TEST(CheckTest, MissingAndMistypedMetadataAreNamed) {
    TempDir directory;
    const std::string path = directory.file("bare.mvlog");
    {
        // The open constructor makes the tables but writes no metadata.
        SqliteLogFile file{std::filesystem::path(path)};
        ASSERT_TRUE(file.addMetadata("createdDateTime", kKnownStart));
        ASSERT_TRUE(file.addMetadata("applicationName", int64_t{42}));
        ASSERT_TRUE(file.addMetadata("logVersion", std::string("four")));
        ASSERT_TRUE(file.addMetadata("compressionLevel", int32_t{12}));
    }
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(problemLines(result),
              (std::vector<std::string>{"problem: metadata key \"applicationName\" should hold text",
                                        "problem: metadata key \"applicationVersion\" is missing",
                                        "problem: metadata key \"currentTimeZone\" is missing",
                                        "problem: metadata key \"logVersion\" should hold an integer",
                                        "problem: compression level 12 is outside -1 to 9"}));
}

TEST(CheckTest, BookmarkOnAMissingEntryIsFoundBeforeOpeningRepairsIt) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    writeKnownFile(path);
    executeSql(path, "INSERT INTO bookmarks (entryId, title, comments) VALUES (500, 'lost', '');");
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 1);
    const std::vector<std::string> problems = problemLines(result);
    ASSERT_FALSE(problems.empty()) << result.out;
    EXPECT_EQ(problems[0],
              "problem: foreign_key_check: row 2 of table bookmarks refers to a missing row of table data");
}

TEST(CheckTest, EmptyFileIsAProblemAndMissingFileAnError) {
    TempDir directory;
    const std::string empty = directory.file("empty.mvlog");
    std::ofstream{empty};
    RunResult result = runMvlog({"check", empty});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "problem: the file is empty (0 bytes)\n1 problem found in " + empty + "\n");
    result = runMvlog({"check", directory.file("missing.mvlog")});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: " + directory.file("missing.mvlog") + ": no such file\n");
    EXPECT_FALSE(std::filesystem::exists(directory.file("missing.mvlog")));
}

int64_t pageSizeOf(const std::string& path) {
    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(database, "PRAGMA page_size;", -1, &statement, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    const int64_t size = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    sqlite3_close(database);
    return size;
}

// SQLite reads the missing byte as a zero without an error; the length
// against the header's page count tells.
TEST(CheckLength, AFileCutShortByOneByteIsDamaged) {
    TempDir directory;
    const std::string path = directory.file("cut.mvlog");
    writeKnownFile(path, 0);
    const int64_t pageSize = pageSizeOf(path);
    const auto size = static_cast<int64_t>(std::filesystem::file_size(path));
    ASSERT_EQ(size % pageSize, 0);
    std::filesystem::resize_file(path, static_cast<uintmax_t>(size - 1));
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 1);
    const std::vector<std::string> problems = problemLines(result);
    ASSERT_FALSE(problems.empty()) << result.out;
    EXPECT_EQ(problems[0], "problem: the file is " + std::to_string(size - 1) + " bytes, its header says " +
                               std::to_string(size / pageSize) + " pages of " + std::to_string(pageSize) +
                               " bytes: it was cut short");
    EXPECT_EQ(result.outLines().back(), "hint: mvlog recover " + path + " -o NEW salvages what is intact");
}

TEST(CheckLength, BytesBeyondTheLastWholePageAreDamage) {
    TempDir directory;
    const std::string path = directory.file("longer.mvlog");
    writeKnownFile(path);
    const int64_t pageSize = pageSizeOf(path);
    const auto size = static_cast<int64_t>(std::filesystem::file_size(path));
    std::filesystem::resize_file(path, static_cast<uintmax_t>(size + 100));
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(problemLines(result),
              (std::vector<std::string>{"problem: the file is " + std::to_string(size + 100) +
                                        " bytes, not a whole number of its " + std::to_string(pageSize) +
                                        "-byte pages"}))
        << result.out;
}

int64_t pageCountOf(sqlite3* database) {
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(database, "PRAGMA page_count;", -1, &statement, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    const int64_t count = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    return count;
}

// Mid-checkpoint, the file's first page already counts the pages that the
// write-ahead log still holds: reads take them from the log, so the file is
// not cut short.
TEST(CheckLength, PagesHeldByTheWriteAheadLogAreNotMissing) {
    TempDir directory;
    const std::string path = directory.file("wal.mvlog");
    writeKnownFile(path);
    const int64_t pageSize = pageSizeOf(path);
    sqlite3* writer = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &writer), SQLITE_OK);
    // A long value grows the file: the log holds the new pages and a first
    // page that counts them.
    ASSERT_EQ(sqlite3_exec(writer,
                           "PRAGMA journal_mode = WAL; PRAGMA wal_autocheckpoint = 0;"
                           "INSERT INTO metadata (key, value) VALUES ('notes', printf('%.*c', 100000, 'x'));",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    ASSERT_GT(std::filesystem::file_size(path + "-wal"), 32u);
    const auto pages = static_cast<uint32_t>(pageCountOf(writer));
    ASSERT_GT(int64_t{pages} * pageSize, static_cast<int64_t>(std::filesystem::file_size(path)));
    {
        // The first page as a checkpoint writes it before the others.
        const std::array<char, 4> count = {static_cast<char>(pages >> 24), static_cast<char>(pages >> 16),
                                           static_cast<char>(pages >> 8), static_cast<char>(pages)};
        std::fstream stream(path, std::ios::in | std::ios::out | std::ios::binary);
        stream.seekp(28);
        stream.write(count.data(), count.size());
    }
    const RunResult result = runMvlog({"check", path});
    sqlite3_close(writer);
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    EXPECT_EQ(result.out, "Checked 101 entries, 3 data sources, 2 resources, 1 bookmarks\nOK\n");
}

TEST(CheckVersion, AVersionTheLibraryDoesNotReadIsNamed) {
    TempDir directory;
    const std::string path = directory.file("v1.mvlog");
    writeKnownFile(path);
    executeSql(path, "UPDATE metadata SET value = 1 WHERE key = 'logVersion';");
    RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 1);
    // It reads resources as stored, as version 2 does.
    EXPECT_EQ(problemLines(result),
              (std::vector<std::string>{
                  "problem: format version 1 is not one this library knows",
                  "problem: resource \"notes.txt\": it is a compressed frame but the file's format version "
                  "is 1 (resources stored uncompressed): readers hand it out compressed",
                  "problem: the thumbnail: it is a compressed frame but the file's format version is 1 "
                  "(resources stored uncompressed): readers hand it out compressed"}))
        << result.out;
    // Version 3 is read as it is: resources may be compressed, bookmarks
    // carry no payload.
    executeSql(path, "UPDATE metadata SET value = 3 WHERE key = 'logVersion';");
    result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 0) << result.out;
}

// A version-2 file stores resources as they are, so reads hand out these
// frames as the resources.
TEST(CheckVersion, CompressedResourcesInAVersionTwoFileAreNamed) {
    TempDir directory;
    const std::string path = directory.file("v2.mvlog");
    writeKnownFile(path);
    executeSql(path, "UPDATE metadata SET value = 2 WHERE key = 'logVersion';");
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(problemLines(result),
              (std::vector<std::string>{
                  "problem: resource \"notes.txt\": it is a compressed frame but the file's format version "
                  "is 2 (resources stored uncompressed): readers hand it out compressed",
                  "problem: the thumbnail: it is a compressed frame but the file's format version is 2 "
                  "(resources stored uncompressed): readers hand it out compressed"}))
        << result.out;
}

TEST(CheckVersion, CompressedResourcesInAnUncompressedFileAreNamed) {
    TempDir directory;
    const std::string path = directory.file("level0.mvlog");
    writeKnownFile(path);
    executeSql(path, "UPDATE metadata SET value = 0 WHERE key = 'compressionLevel';");
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 1);
    const std::vector<std::string> problems = problemLines(result);
    EXPECT_TRUE(containsLine(problems,
                             "problem: the thumbnail: it is a compressed frame but the file's compression "
                             "level is 0 (resources stored uncompressed): readers hand it out compressed"))
        << result.out;
}

}  // namespace
}  // namespace MvlogTest

namespace MvlogTest {
namespace {

// A level-0 file with entry checksums whose entry 3 has one byte changed in
// place: the pages stay well formed, only the checksum can tell.
std::string checksummedFileWithAChangedByte(const TempDir& directory) {
    const std::string path = directory.file("checked.mvlog");
    {
        SqliteLogFile file(path, "UTC", "test", "1", 0, 0, Marivane::Logging::Durability::Fast, true);
        DataSource source{-1, MV_LogDataSourceType_Generic, "generic"};
        EXPECT_TRUE(file.addDataSource(source));
        for (int i = 1; i <= 5; ++i) {
            EXPECT_TRUE(file.logData(DataEntry{0, source.id, 1, bytesOf("reading " + std::to_string(i)), i}));
        }
    }
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, "UPDATE data SET payload = CAST('readinG 3' AS BLOB) WHERE entryId = 3;",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    return path;
}

TEST(CheckChecksums, APayloadThatNoLongerMatchesItsChecksumIsAProblem) {
    TempDir directory;
    const std::string path = checksummedFileWithAChangedByte(directory);
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 1) << result.out << result.err;
    const std::vector<std::string> problems = problemLines(result);
    ASSERT_EQ(problems.size(), 1u) << result.out;
    EXPECT_EQ(problems[0], "problem: entry 3: its payload does not match its checksum") << result.out;
    // cat does not verify: the bytes are what the file holds.
    EXPECT_EQ(runMvlog({"cat", path, "--from", "3", "--to", "3", "--format", "hex"}).exitCode, 0);
}

TEST(CheckChecksums, AnIntactChecksummedFileIsOk) {
    TempDir directory;
    const std::string path = directory.file("intact.mvlog");
    {
        SqliteLogFile file(path, "UTC", "test", "1", 0, 0, Marivane::Logging::Durability::Fast, true);
        DataSource source{-1, MV_LogDataSourceType_Generic, "generic"};
        EXPECT_TRUE(file.addDataSource(source));
        EXPECT_TRUE(file.logData(DataEntry{0, source.id, 1, bytesOf("reading"), 1}));
    }
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    EXPECT_EQ(result.outLines().back(), "OK");
}

}  // namespace
}  // namespace MvlogTest
