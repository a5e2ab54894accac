#include <logging/LegacyLogFileError.h>
#include <logging/NotALogFileError.h>
#include <logging/SqliteLogFile.h>

#include "store/SqliteLogFilePrivate.h"

#include <core/Compression.h>
#include <database/DatabaseAccessError.h>
#include <database/FileIsNotDatabase.h>
#include "services/database/ColumnAccess.h"

#include "StoreTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

using namespace Marivane::Logging;
using Marivane::Testing::bytesOf;
using Marivane::Testing::createLogFile;
using Marivane::Testing::expectedSchemaRows;
using Marivane::Testing::makeEntry;
using Marivane::Testing::patternBytes;
using Marivane::Testing::RawDatabase;
using Marivane::Testing::schemaRows;
using Marivane::Testing::TempDir;
using Marivane::Testing::writeFile;
namespace fs = std::filesystem;

namespace {

using Rows = std::vector<std::vector<std::string>>;

template <typename Exception>
std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const Exception& error) {
        return error.what();
    }
    return "<no exception>";
}

std::string openFailure(const std::string& path) {
    return messageOf<std::runtime_error>([&] { SqliteLogFile file{fs::path(path)}; });
}

std::string pragmaText(const SqliteLogFilePrivate& file, const std::string& pragma) {
    Marivane::Database::SqliteQuery query(file.database, pragma);
    EXPECT_EQ(query.executeStep(), Marivane::Database::StepRow) << pragma;
    const Marivane::Database::ColumnValue value = query.getValueFromColumn(0);
    if (!value) {
        return "<null>";
    }
    if (const auto* integer = std::get_if<int64_t>(&*value)) {
        return std::to_string(*integer);
    }
    return std::get<std::string>(*value);
}

// Adds a data source and one entry; returns the source id.
int8_t addSourceAndEntry(SqliteLogFile& file, const ByteBuffer& payload) {
    DataSource source{-1, MV_LogDataSourceType_Lidar, "lidar"};
    EXPECT_TRUE(file.addDataSource(source));
    EXPECT_TRUE(file.logData(makeEntry(source.id, 2, 1000, payload)));
    return source.id;
}

// Writes an uncompressed entry into a fresh (version 0, level 0) file and
// checks that the raw row holds the bytes as given.
void expectStoresUncompressed(SqliteLogFile& file, const std::string& path) {
    const ByteBuffer payload = patternBytes(5000, 3);
    addSourceAndEntry(file, payload);
    RawDatabase raw(path);
    const int64_t id = raw.integer("SELECT MAX(entryId) FROM data;");
    EXPECT_EQ(raw.blob("SELECT payload FROM data WHERE entryId = " + std::to_string(id) + ";"), payload);
    EXPECT_EQ(raw.integer("SELECT length FROM data WHERE entryId = " + std::to_string(id) + ";"), 5000);
}

}  // namespace

// ---- schema and fixed metadata ------------------------------------------------

TEST(CreateLogFile, WritesExactlyTheNineSchemaObjects) {
    TempDir dir;
    const std::string path = dir.file("new.mvlog");
    { SqliteLogFile file = createLogFile(path, 3); }
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(schemaRows(raw), expectedSchemaRows());
}

TEST(CreateLogFile, WritesTheSixMetadataRowsInOrder) {
    for (int8_t level : {int8_t{-1}, int8_t{0}, int8_t{9}}) {
        TempDir dir;
        const std::string path = dir.file("new.mvlog");
        {
            SqliteLogFile file(path, "America/Sao_Paulo", "recorder", "7.1", level, 1712345678901);
            EXPECT_EQ(file.getLastError(), "No error");
        }
        RawDatabase raw(path, SQLITE_OPEN_READONLY);
        const Rows expected{{"createdDateTime", "integer", "1712345678901"},
                            {"applicationName", "text", "recorder"},
                            {"applicationVersion", "text", "7.1"},
                            {"currentTimeZone", "text", "America/Sao_Paulo"},
                            {"logVersion", "integer", "4"},
                            {"compressionLevel", "integer", std::to_string(level)}};
        EXPECT_EQ(raw.rows("SELECT key, typeof(value), value FROM metadata ORDER BY rowid;"), expected);
    }
}

TEST(CreateLogFile, MetadataReadsBackInOrderWithIntegersAsInt64) {
    TempDir dir;
    SqliteLogFile file(dir.file("new.mvlog"), "UTC", "recorder", "7.1", -1, 1712345678901);
    const std::vector<LogMetadataEntry> all = file.getAllMetadata();
    ASSERT_EQ(all.size(), 6u);
    EXPECT_EQ(all[0].key, "createdDateTime");
    EXPECT_EQ(all[0].value, PropertyValue{int64_t{1712345678901}});
    EXPECT_EQ(all[1].key, "applicationName");
    EXPECT_EQ(all[1].value, PropertyValue{std::string("recorder")});
    EXPECT_EQ(all[2].key, "applicationVersion");
    EXPECT_EQ(all[2].value, PropertyValue{std::string("7.1")});
    EXPECT_EQ(all[3].key, "currentTimeZone");
    EXPECT_EQ(all[3].value, PropertyValue{std::string("UTC")});
    EXPECT_EQ(all[4].key, "logVersion");
    EXPECT_EQ(all[4].value, PropertyValue{int64_t{4}});
    EXPECT_EQ(all[5].key, "compressionLevel");
    EXPECT_EQ(all[5].value, PropertyValue{int64_t{-1}});

    const std::optional<PropertyValue> version = file.getMetadataValue("logVersion");
    ASSERT_TRUE(version);
    EXPECT_EQ(version->index(), 1u);
    EXPECT_EQ(std::get<int64_t>(*version), 4);
    EXPECT_TRUE(file.isResourceCompressionSupported());
    EXPECT_TRUE(file.isBookmarkPayloadsSupported());
}

TEST(CreateLogFile, ReopenedFileKnowsItsVersionAndLevel) {
    TempDir dir;
    const std::string path = dir.file("new.mvlog");
    const ByteBuffer payload = patternBytes(10000, 1);
    {
        SqliteLogFile file = createLogFile(path, 7);
        addSourceAndEntry(file, payload);
    }
    SqliteLogFile reopened{fs::path(path)};
    EXPECT_TRUE(reopened.isResourceCompressionSupported());
    EXPECT_TRUE(reopened.isBookmarkPayloadsSupported());
    ASSERT_TRUE(reopened.readEntry(1));
    EXPECT_EQ(reopened.readEntry(1)->data, payload);
    // Level 7 from the metadata: new entries are compressed exactly so.
    ASSERT_TRUE(reopened.logData(makeEntry(1, 2, 2000, payload)));
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.blob("SELECT payload FROM data WHERE entryId = 2;"),
              Marivane::Compression::compress(payload, 7));
}

TEST(OpenLogFile, ConnectionSettingsOfANewAndAnExistingFile) {
    TempDir dir;
    const std::string path = dir.file("pragmas.mvlog");
    for (int round = 0; round < 2; ++round) {
        SqliteLogFilePrivate file{fs::path(path)};
        EXPECT_EQ(file.createdTables, round == 0);
        EXPECT_EQ(pragmaText(file, "PRAGMA foreign_keys;"), "1");
        EXPECT_EQ(pragmaText(file, "PRAGMA journal_mode;"), "memory");
        EXPECT_EQ(pragmaText(file, "PRAGMA synchronous;"), "0");
    }
}

TEST(OpenLogFile, ForeignKeysAreEnforcedThroughTheStore) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("fk.mvlog"));
    EXPECT_FALSE(file.logData(makeEntry(1, 0, 0, bytesOf("x"))));
    EXPECT_EQ(file.getLastError(),
              "Attempted to log data against a data source that did not exist in the file.");
}

// ---- files that are not log files -------------------------------------------

TEST(OpenLogFile, LegacyMagicIsRefusedAsLegacy) {
    TempDir dir;
    const std::string path = dir.file("old.log");
    std::vector<unsigned char> bytes{0x44, 0x33, 0x22, 0x11};
    for (int i = 0; i < 200; ++i) {
        bytes.push_back(static_cast<unsigned char>(i * 13));
    }
    writeFile(path, bytes);
    EXPECT_EQ(messageOf<LegacyLogFileError>([&] { SqliteLogFile file{fs::path(path)}; }),
              "Tried to open a legacy log file.");
    // Only looked at, never changed.
    EXPECT_EQ(fs::file_size(path), bytes.size());

    const std::string bare = dir.file("bare.log");
    writeFile(bare, {0x44, 0x33, 0x22, 0x11});
    EXPECT_EQ(messageOf<LegacyLogFileError>([&] { SqliteLogFile file{fs::path(bare)}; }),
              "Tried to open a legacy log file.");
}

TEST(OpenLogFile, MagicInTheOtherByteOrderIsForeign) {
    TempDir dir;
    const std::string path = dir.file("swapped.log");
    std::vector<unsigned char> bytes{0x11, 0x22, 0x33, 0x44};
    bytes.resize(512, 0xAB);
    writeFile(path, bytes);
    EXPECT_EQ(messageOf<NotALogFileError>([&] { SqliteLogFile file{fs::path(path)}; }),
              "This file is not in a supported log file format.");
}

TEST(OpenLogFile, RandomBytesAreForeign) {
    TempDir dir;
    const std::string path = dir.file("random.bin");
    std::vector<unsigned char> bytes(4096);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>((i * 131 + 7) & 0xFF);
    }
    writeFile(path, bytes);
    EXPECT_EQ(messageOf<NotALogFileError>([&] { SqliteLogFile file{fs::path(path)}; }),
              "This file is not in a supported log file format.");
    EXPECT_EQ(fs::file_size(path), 4096u);
}

TEST(OpenLogFile, ThreeByteFileIsForeign) {
    TempDir dir;
    const std::string path = dir.file("tiny.bin");
    writeFile(path, {0x44, 0x33, 0x22});
    EXPECT_EQ(messageOf<NotALogFileError>([&] { SqliteLogFile file{fs::path(path)}; }),
              "This file is not in a supported log file format.");
}

TEST(OpenLogFile, DatabaseWithAnUnrelatedTableIsForeignAndLeftAlone) {
    TempDir dir;
    const std::string path = dir.file("other.sqlite");
    {
        RawDatabase raw(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
        raw.exec("CREATE TABLE customers(name TEXT);");
    }
    EXPECT_EQ(messageOf<NotALogFileError>([&] { SqliteLogFile file{fs::path(path)}; }),
              "This file is not in a supported log file format.");
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.rows("SELECT name FROM sqlite_master;"), (Rows{{"customers"}}));
}

TEST(OpenLogFile, LogFileMissingOneTableIsForeign) {
    TempDir dir;
    const std::string path = dir.file("partial.mvlog");
    { SqliteLogFile file = createLogFile(path); }
    {
        RawDatabase raw(path);
        raw.exec("DROP TABLE resources;");
    }
    EXPECT_EQ(openFailure(path), "This file is not in a supported log file format.");
}

TEST(OpenLogFile, ExtraTablesBesideTheSixAreAllowed) {
    TempDir dir;
    const std::string path = dir.file("extra.mvlog");
    { SqliteLogFile file = createLogFile(path); }
    {
        RawDatabase raw(path);
        raw.exec("CREATE TABLE annotations(text TEXT); INSERT INTO annotations VALUES ('kept');");
    }
    SqliteLogFile file{fs::path(path)};
    EXPECT_EQ(file.getAllMetadata().size(), 6u);
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.rows("SELECT text FROM annotations;"), (Rows{{"kept"}}));
}

// ---- empty and missing files ----------------------------------------------------

TEST(OpenLogFile, ZeroLengthFileBecomesAnEmptyLogFile) {
    TempDir dir;
    const std::string path = dir.file("empty.mvlog");
    writeFile(path, {});
    SqliteLogFile file{fs::path(path)};
    EXPECT_TRUE(file.getAllMetadata().empty());
    EXPECT_FALSE(file.isResourceCompressionSupported());
    EXPECT_FALSE(file.isBookmarkPayloadsSupported());
    EXPECT_EQ(file.getLastError(), "No error");
    {
        RawDatabase raw(path, SQLITE_OPEN_READONLY);
        EXPECT_EQ(schemaRows(raw), expectedSchemaRows());
        EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM metadata;"), 0);
    }
    expectStoresUncompressed(file, path);
}

TEST(OpenLogFile, MissingPathBecomesAnEmptyLogFile) {
    TempDir dir;
    const std::string path = dir.file("absent.mvlog");
    SqliteLogFile file{fs::path(path)};
    EXPECT_TRUE(fs::exists(path));
    EXPECT_EQ(file.getFilePath(), fs::path(path));
    EXPECT_TRUE(file.getAllMetadata().empty());
    EXPECT_FALSE(file.isResourceCompressionSupported());
    EXPECT_FALSE(file.isBookmarkPayloadsSupported());
    {
        RawDatabase raw(path, SQLITE_OPEN_READONLY);
        EXPECT_EQ(schemaRows(raw), expectedSchemaRows());
    }
    expectStoresUncompressed(file, path);
}

TEST(OpenLogFile, EmptyDatabaseStartsAtLevelZeroAndVersionZero) {
    TempDir dir;
    SqliteLogFilePrivate file{fs::path(dir.file("absent.mvlog"))};
    EXPECT_TRUE(file.createdTables);
    EXPECT_EQ(file.compressionLevel, 0);
    EXPECT_EQ(file.logVersion, 0);
    EXPECT_EQ(file.lastError, "No error");
    EXPECT_EQ(file.filePath, fs::path(dir.file("absent.mvlog")));
}

TEST(OpenLogFile, DirectoryIsAnAccessErrorNotANonDatabase) {
    TempDir dir;
    try {
        SqliteLogFile file{dir.path()};
        FAIL() << "opened a directory";
    } catch (const Marivane::Database::FileIsNotDatabase& error) {
        FAIL() << "reported as not a database: " << error.what();
    } catch (const Marivane::Database::DatabaseAccessError& error) {
        EXPECT_EQ(std::string(error.what()),
                  "Cannot open database '" + dir.path().string() + "': unable to open database file");
    }
}

TEST(OpenLogFile, MissingDirectoryIsAnAccessError) {
    TempDir dir;
    const std::string path = dir.file("no/such/dir.mvlog");
    EXPECT_EQ(
        messageOf<Marivane::Database::DatabaseAccessError>([&] { SqliteLogFile file = createLogFile(path); }),
        "Cannot open database '" + path + "': unable to open database file");
}

// ---- bookmarks repair ---------------------------------------------------------

TEST(OpenLogFile, DanglingBookmarkRebuildsTheTableEmpty) {
    TempDir dir;
    const std::string path = dir.file("dangling.mvlog");
    {
        SqliteLogFile file = createLogFile(path);
        addSourceAndEntry(file, bytesOf("entry"));
    }
    {
        RawDatabase raw(path);
        // An older bookmarks table, without payloads, holding one good and
        // one dangling row (written with the checks off).
        raw.exec(
            "PRAGMA foreign_keys = off;"
            "DROP TABLE bookmarks;"
            "CREATE TABLE bookmarks(entryId INT NOT NULL REFERENCES data(entryId), title TEXT NOT NULL, "
            "comments "
            "TEXT);"
            "CREATE INDEX bookmarkIndex ON bookmarks(entryId);"
            "INSERT INTO bookmarks VALUES (1, 'good', 'c'), (99, 'dangling', 'c');");
        ASSERT_EQ(raw.integer("SELECT COUNT(*) FROM bookmarks;"), 2);
    }
    SqliteLogFile file{fs::path(path)};
    EXPECT_TRUE(file.getBookmarks().empty());
    EXPECT_EQ(file.getLastError(), "No error");

    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM bookmarks;"), 0);
    EXPECT_EQ(
        raw.text("SELECT sql FROM sqlite_master WHERE name = 'bookmarks';"),
        "CREATE TABLE bookmarks(entryId INT NOT NULL REFERENCES data(entryId), title TEXT NOT NULL, comments "
        "TEXT, payload BLOB)");
    EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM sqlite_master WHERE name = 'bookmarkIndex';"), 0);
    EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM sqlite_master;"), 8);
    // The rest of the file is untouched.
    EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM data;"), 1);
}

TEST(OpenLogFile, RepairedBookmarksTableWorks) {
    TempDir dir;
    const std::string path = dir.file("dangling.mvlog");
    {
        SqliteLogFile file = createLogFile(path, 2);
        addSourceAndEntry(file, bytesOf("entry"));
    }
    {
        RawDatabase raw(path);
        raw.exec("PRAGMA foreign_keys = off; INSERT INTO bookmarks VALUES (42, 'dangling', '', NULL);");
    }
    SqliteLogFile file{fs::path(path)};
    const Bookmark bookmark{1, "title", "comments", bytesOf("payload")};
    ASSERT_TRUE(file.addBookmark(bookmark));
    const std::vector<Bookmark> bookmarks = file.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    EXPECT_EQ(bookmarks[0].entryId, 1);
    EXPECT_EQ(bookmarks[0].payload, bytesOf("payload"));
}

TEST(OpenLogFile, IntactBookmarksTableIsKept) {
    TempDir dir;
    const std::string path = dir.file("intact.mvlog");
    {
        SqliteLogFile file = createLogFile(path);
        addSourceAndEntry(file, bytesOf("entry"));
        ASSERT_TRUE(file.addBookmark(Bookmark{1, "kept", "as is", {}}));
    }
    SqliteLogFile file{fs::path(path)};
    const std::vector<Bookmark> bookmarks = file.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    EXPECT_EQ(bookmarks[0].title, "kept");
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(schemaRows(raw), expectedSchemaRows());
}

// ---- level and version from the metadata ------------------------------------------

TEST(OpenLogFile, MissingCompressionLevelReadsPayloadsAsStored) {
    TempDir dir;
    const std::string path = dir.file("nolevel.mvlog");
    const ByteBuffer payload = patternBytes(20000, 5);
    {
        SqliteLogFile file = createLogFile(path, 9);
        addSourceAndEntry(file, payload);
    }
    ByteBuffer stored;
    {
        RawDatabase raw(path);
        raw.exec("DELETE FROM metadata WHERE key = 'compressionLevel';");
        stored = raw.blob("SELECT payload FROM data WHERE entryId = 1;");
    }
    ASSERT_NE(stored, payload);
    SqliteLogFile file{fs::path(path)};
    const std::optional<DataEntry> entry = file.readEntry(1);
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->data, stored);
    EXPECT_EQ(Marivane::Compression::uncompress(entry->data), payload);

    // New entries are stored as given.
    ASSERT_TRUE(file.logData(makeEntry(1, 2, 3000, payload)));
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.blob("SELECT payload FROM data WHERE entryId = 2;"), payload);
    EXPECT_EQ(raw.integer("SELECT length FROM data WHERE entryId = 2;"), 20000);
}

TEST(OpenLogFile, ChangedCompressionLevelIsTheOneUsed) {
    TempDir dir;
    const std::string path = dir.file("changed.mvlog");
    const ByteBuffer payload = patternBytes(20000, 6);
    {
        SqliteLogFile file = createLogFile(path, 0);
        addSourceAndEntry(file, payload);
    }
    {
        RawDatabase raw(path);
        raw.exec("UPDATE metadata SET value = 5 WHERE key = 'compressionLevel';");
    }
    SqliteLogFile file{fs::path(path)};
    // The raw bytes of entry 1 are now taken for a frame.
    EXPECT_THROW(file.readEntry(1), Marivane::Compression::CompressionError);
    ASSERT_TRUE(file.logData(makeEntry(1, 2, 3000, payload)));
    {
        RawDatabase raw(path, SQLITE_OPEN_READONLY);
        const ByteBuffer stored = raw.blob("SELECT payload FROM data WHERE entryId = 2;");
        EXPECT_EQ(stored, Marivane::Compression::compress(payload, 5));
        EXPECT_EQ(raw.integer("SELECT length FROM data WHERE entryId = 2;"),
                  static_cast<int64_t>(stored.size()));
    }
    ASSERT_TRUE(file.readEntry(2));
    EXPECT_EQ(file.readEntry(2)->data, payload);
}

TEST(OpenLogFile, CompressionLevelIsNarrowedToEightBits) {
    TempDir dir;
    const std::string path = dir.file("wide.mvlog");
    const ByteBuffer payload = patternBytes(20000, 7);
    {
        SqliteLogFile file = createLogFile(path, 0);
        addSourceAndEntry(file, payload);
    }
    {
        RawDatabase raw(path);
        raw.exec("UPDATE metadata SET value = 257 WHERE key = 'compressionLevel';");
    }
    SqliteLogFile file{fs::path(path)};
    ASSERT_TRUE(file.logData(makeEntry(1, 2, 3000, payload)));
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.blob("SELECT payload FROM data WHERE entryId = 2;"),
              Marivane::Compression::compress(payload, 1));
}

TEST(OpenLogFile, NonIntegerCompressionLevelCountsAsMissing) {
    TempDir dir;
    const std::string path = dir.file("textlevel.mvlog");
    const ByteBuffer payload = patternBytes(2000, 8);
    {
        SqliteLogFile file = createLogFile(path, 0);
        addSourceAndEntry(file, payload);
    }
    {
        RawDatabase raw(path);
        raw.exec("UPDATE metadata SET value = 'high' WHERE key = 'compressionLevel';");
    }
    SqliteLogFile file{fs::path(path)};
    ASSERT_TRUE(file.readEntry(1));
    EXPECT_EQ(file.readEntry(1)->data, payload);
}

TEST(OpenLogFile, MissingLogVersionBehavesAsVersionZero) {
    TempDir dir;
    const std::string path = dir.file("noversion.mvlog");
    const ByteBuffer payload = patternBytes(3000, 9);
    {
        SqliteLogFile file = createLogFile(path, 6);
        addSourceAndEntry(file, payload);
    }
    {
        RawDatabase raw(path);
        raw.exec("DELETE FROM metadata WHERE key = 'logVersion';");
    }
    SqliteLogFile file{fs::path(path)};
    EXPECT_FALSE(file.isResourceCompressionSupported());
    EXPECT_FALSE(file.isBookmarkPayloadsSupported());
    // Entries still follow the level.
    ASSERT_TRUE(file.readEntry(1));
    EXPECT_EQ(file.readEntry(1)->data, payload);

    ASSERT_TRUE(file.addResource("calibration", payload));
    ASSERT_TRUE(file.addBookmark(Bookmark{1, "mark", "", bytesOf("dropped")}));
    {
        RawDatabase raw(path, SQLITE_OPEN_READONLY);
        EXPECT_EQ(raw.blob("SELECT payload FROM resources WHERE name = 'calibration';"), payload);
        EXPECT_EQ(raw.text("SELECT typeof(payload) FROM bookmarks;"), "null");
    }
    EXPECT_EQ(file.getResource("calibration"), payload);
    const std::vector<Bookmark> bookmarks = file.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    EXPECT_TRUE(bookmarks[0].payload.empty());
}

// ---- error texts -----------------------------------------------------------------

TEST(LastErrorText, FollowsTheKindOfTheDatabaseFailure) {
    TempDir dir;
    SqliteLogFilePrivate file{fs::path(dir.file("codes.mvlog"))};
    EXPECT_EQ(file.lastError, "No error");
    const std::vector<std::pair<int, std::string>> cases{
        {266, "IO error while reading or writing to the file."},
        {13, "Filesystem full."},
        {778, "IO error while reading or writing to the file."},
        {787, "Unknown internal error"},
        {1, "Unknown internal error"},
        {10, "Unknown internal error"},
        {0, "Unknown internal error"},
    };
    for (const auto& [code, message] : cases) {
        file.setLastErrorFor(Marivane::Database::Status(code, "failure"));
        EXPECT_EQ(file.lastError, message) << "code " << code;
    }
}

TEST(LastError, NoErrorUntilAFailureAndNeverResetBySuccess) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("errors.mvlog"));
    EXPECT_EQ(file.getLastError(), "No error");
    EXPECT_FALSE(file.logData(makeEntry(5, 0, 0, {})));
    const std::string failure = file.getLastError();
    EXPECT_EQ(failure, "Attempted to log data against a data source that did not exist in the file.");
    DataSource source{-1, MV_LogDataSourceType_Camera, "cam"};
    ASSERT_TRUE(file.addDataSource(source));
    ASSERT_TRUE(file.logData(makeEntry(source.id, 0, 0, bytesOf("ok"))));
    ASSERT_TRUE(file.addMetadata("extra", int32_t{1}));
    EXPECT_EQ(file.getLastError(), failure);
}

// ---- moving and re-creating -----------------------------------------------------

TEST(SqliteLogFileLife, MoveConstructionKeepsAWorkingFile) {
    TempDir dir;
    const std::string path = dir.file("moved.mvlog");
    SqliteLogFile original = createLogFile(path, 1);
    DataSource source{-1, MV_LogDataSourceType_Radar, "radar"};
    ASSERT_TRUE(original.addDataSource(source));
    SqliteLogFile moved(std::move(original));
    EXPECT_EQ(moved.getFilePath(), fs::path(path));
    ASSERT_TRUE(moved.logData(makeEntry(source.id, 1, 10, bytesOf("after move"))));
    ASSERT_TRUE(moved.readEntry(1));
    EXPECT_EQ(moved.readEntry(1)->data, bytesOf("after move"));
    EXPECT_EQ(moved.getDataSources().size(), 1u);
}

TEST(SqliteLogFileLife, MoveAssignmentTakesOverAndReleasesTheOldFile) {
    TempDir dir;
    const std::string first = dir.file("first.mvlog");
    const std::string second = dir.file("second.mvlog");
    SqliteLogFile source = createLogFile(first, 4);
    SqliteLogFile target = createLogFile(second, 0);
    ASSERT_TRUE(target.addMetadata("target", int32_t{2}));
    target = std::move(source);
    EXPECT_EQ(target.getFilePath(), fs::path(first));
    EXPECT_FALSE(target.getMetadataValue("target"));
    DataSource data{-1, MV_LogDataSourceType_Camera, "cam"};
    ASSERT_TRUE(target.addDataSource(data));
    ASSERT_TRUE(target.logData(makeEntry(data.id, 0, 0, patternBytes(100, 1))));
    EXPECT_EQ(target.readEntry(1)->data, patternBytes(100, 1));

    // The moved-from object accepts a new file.
    source = createLogFile(second, 0);
    EXPECT_EQ(source.getFilePath(), fs::path(second));
    EXPECT_EQ(source.getMetadataValue("target"), PropertyValue{int64_t{2}});
}

TEST(SqliteLogFileLife, CreateOnAnExistingLogFileKeepsItsMetadata) {
    TempDir dir;
    const std::string path = dir.file("twice.mvlog");
    { SqliteLogFile first(path, "UTC", "first", "1.0", 0, 1111); }
    const ByteBuffer payload = patternBytes(5000, 2);
    {
        SqliteLogFile second(path, "CET", "second", "2.0", 9, 2222);
        EXPECT_EQ(second.getMetadataValue("applicationName"), PropertyValue{std::string("first")});
        EXPECT_EQ(second.getMetadataValue("compressionLevel"), PropertyValue{int64_t{0}});
        EXPECT_EQ(second.getMetadataValue("createdDateTime"), PropertyValue{int64_t{1111}});
        EXPECT_EQ(second.getAllMetadata().size(), 6u);
        // Ignoring the refused keys is silent.
        EXPECT_EQ(second.getLastError(), "No error");
        // The object itself works at the level it was given.
        addSourceAndEntry(second, payload);
        EXPECT_EQ(second.readEntry(1)->data, payload);
    }
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.blob("SELECT payload FROM data WHERE entryId = 1;"),
              Marivane::Compression::compress(payload, 9));
}
