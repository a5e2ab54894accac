#include "SqliteLogFilePrivate.h"

#include <logging/LegacyLogFileError.h>
#include <logging/NotALogFileError.h>

#include <core/Compression.h>
#include <database/ColumnAccess.h>
#include <database/DatabaseAccessError.h>
#include <database/FileIsNotDatabase.h>

#include <array>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace Marivane::Logging {

namespace {

using Database::SqliteQuery;

constexpr Database::OpenMode kOpenMode = Database::OpenReadWrite | Database::OpenCreate;
constexpr uint32_t kLegacyMagic = 0x11223344;

constexpr int kForeignKeyViolation = 787;
constexpr int kDiskFull = 13;
constexpr int kIoErrorRead = 266;
constexpr int kIoErrorBit = 512;

constexpr const char* kPageSizePragma = "PRAGMA page_size = 8192;";

constexpr std::array<const char*, 6> kLogTables = {"dataSources", "dataSourceProperties", "data",
                                                   "metadata",    "resources",            "bookmarks"};

// Called once SQLite has said the file is not a database: legacy log files
// begin with a four-byte magic; anything else (a file too short included) is
// foreign.
bool hasLegacyMagic(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    uint32_t magic = 0;
    if (!stream.read(reinterpret_cast<char*>(&magic), sizeof magic)) {
        return false;
    }
    return magic == kLegacyMagic;
}

}  // namespace

SqliteLogFilePrivate::SqliteLogFilePrivate(const std::filesystem::path& path) try
    : database(path.string(), kOpenMode), filePath(path) {
    database.executeSimpleQuery("PRAGMA foreign_keys = on;");
    createdTables = !checkForTables();
    if (createdTables) {
        createTables();
    } else {
        fixBookmarksTable();
    }
    database.executeSimpleQuery("PRAGMA synchronous = OFF;");
    database.executeSimpleQuery("PRAGMA journal_mode = MEMORY;");
} catch (const Database::FileIsNotDatabase&) {
    if (hasLegacyMagic(path)) {
        throw LegacyLogFileError();
    }
    throw NotALogFileError();
}

SqliteLogFilePrivate::~SqliteLogFilePrivate() {
    try {
        endBatch();
    } catch (...) {
        // Closing must not throw; the connection's close rolls back what the
        // commit could not keep.
    }
}

std::shared_ptr<SqliteLogFilePrivate*> SqliteLogFilePrivate::beginBatch() {
    if (batchOpen()) {
        throw std::logic_error("A write batch is already open on this log file.");
    }
    if (!database.executeSimpleQuery("BEGIN;")) {
        throw Database::DatabaseAccessError("Cannot begin a write batch: a transaction is already open");
    }
    batchLostWrites = false;
    batchOwner = std::make_shared<SqliteLogFilePrivate*>(this);
    return batchOwner;
}

bool SqliteLogFilePrivate::endBatch() {
    if (!batchOpen()) {
        return false;
    }
    *batchOwner = nullptr;
    batchOwner.reset();
    if (!database.isInTransaction()) {
        // SQLite ended the transaction itself after a failure; nothing is left
        // to commit.
        return !batchLostWrites;
    }
    if (database.executeSimpleQuery("COMMIT;")) {
        return !batchLostWrites;
    }
    processErrorCode(database.getLastErrorCode());
    // Never leave the connection inside a transaction that cannot commit.
    database.executeSimpleQuery("ROLLBACK;");
    return false;
}

bool SqliteLogFilePrivate::checkForTables() {
    SqliteQuery count(database, "SELECT COUNT(*) FROM sqlite_master WHERE type='table';");
    count.executeStep();
    if (Database::getValueFromColumn<int>(count, 0).value_or(0) == 0) {
        return false;
    }
    SqliteQuery probe(database, "SELECT name FROM sqlite_master WHERE type='table' AND name=:tableName;");
    std::size_t hits = 0;
    for (const char* table : kLogTables) {
        probe.resetQuery();
        probe.bindParameter(":tableName", std::string(table), Database::BindMode::Copy);
        if (probe.executeStep() == Database::StepRow) {
            ++hits;
        }
    }
    if (hits < kLogTables.size()) {
        throw NotALogFileError();
    }
    return true;
}

void SqliteLogFilePrivate::createTables() {
    // 8 KiB pages measured best over small and large payloads, batched and not
    // (bench/README.md); the size must be set before the first table exists. One transaction makes creation atomic
    // and saves a synchronous commit per statement.
    database.executeSimpleQuery(kPageSizePragma);
    database.executeSimpleQuery("BEGIN;");
    database.executeSimpleQuery(
        "CREATE TABLE dataSources(dataSourceId INTEGER PRIMARY KEY,dataSourceType INT NOT NULL,"
        "dataSourceName TEXT NOT NULL);");
    database.executeSimpleQuery(
        "CREATE TABLE dataSourceProperties(dataSourceId INT NOT NULL REFERENCES dataSources(dataSourceId),"
        "key TEXT NOT NULL,value NOT NULL);");
    database.executeSimpleQuery("CREATE INDEX dataSourcePropertiesIndex ON dataSourceProperties(dataSourceId);");
    database.executeSimpleQuery(
        "CREATE TABLE data(entryId INTEGER PRIMARY KEY,timestamp INT NOT NULL,type INT NOT NULL,"
        "dataSourceId INT NOT NULL REFERENCES dataSources(dataSourceId),length INT NOT NULL,"
        "payload BLOB NOT NULL);");
    database.executeSimpleQuery("CREATE INDEX dataDataSourceIndex ON data(dataSourceId);");
    database.executeSimpleQuery("CREATE TABLE metadata(key TEXT NOT NULL, value NOT NULL);");
    database.executeSimpleQuery("CREATE TABLE resources(name TEXT NOT NULL, payload NOT NULL);");
    createBookmarksTable();
    database.executeSimpleQuery("CREATE INDEX bookmarkIndex ON bookmarks(entryId);");
    database.executeSimpleQuery("COMMIT;");
}

void SqliteLogFilePrivate::createBookmarksTable() {
    database.executeSimpleQuery(
        "CREATE TABLE bookmarks(entryId INT NOT NULL REFERENCES data(entryId), title TEXT NOT NULL, "
        "comments TEXT, payload BLOB);");
}

void SqliteLogFilePrivate::fixBookmarksTable() {
    if (database.executeSimpleQuery("PRAGMA foreign_key_check(bookmarks);")) {
        return;
    }
    database.executeSimpleQuery("DROP TABLE bookmarks;");
    createBookmarksTable();
}

void SqliteLogFilePrivate::processErrorCode(int code) const {
    if ((code & ~kIoErrorBit) == kIoErrorRead) {
        lastError = "IO error while reading or writing to the file.";
    } else if (code == kDiskFull) {
        lastError = "Filesystem full.";
    } else {
        lastError = "Unknown internal error";
    }
}

bool SqliteLogFilePrivate::executeWrite(SqliteQuery& query, const char* foreignKeyMessage) {
    if (query.executeStep() == Database::StepDone) {
        return true;
    }
    // The statement's own code: the player's worker may step another statement
    // on this connection meanwhile.
    const int code = query.getLastResultCode();
    resumeBatchAfterRollback();
    if (code == kForeignKeyViolation && foreignKeyMessage) {
        lastError = foreignKeyMessage;
    } else {
        processErrorCode(code);
    }
    return false;
}

void SqliteLogFilePrivate::resumeBatchAfterRollback() {
    if (batchOpen() && !database.isInTransaction()) {
        batchLostWrites = true;
        database.executeSimpleQuery("BEGIN;");
    }
}

int32_t SqliteLogFilePrivate::readSingleInteger(const std::string& sql) const {
    SqliteQuery query(database, sql);
    query.executeStep();
    if (const std::optional<int> value = Database::getValueFromColumn<int>(query, 0)) {
        return *value;
    }
    processErrorCode(query.getLastResultCode());
    return -1;
}

bool SqliteLogFilePrivate::insertStoredEntry(int64_t timestamp, int32_t type, int8_t dataSourceId,
                                             const ByteBuffer& stored) {
    SqliteQuery query(database,
                      "INSERT INTO data (timestamp, type, dataSourceId, length, payload) VALUES (:timestamp, "
                      ":type, :dataSourceId, :length, :payload);");
    query.bindParameter(":timestamp", timestamp);
    query.bindParameter(":type", type);
    query.bindParameter(":dataSourceId", int32_t{dataSourceId});
    query.bindParameter(":length", static_cast<int32_t>(stored.size()));
    query.bindParameter(":payload", stored, Database::BindMode::NoCopy);
    return executeWrite(query, "Attempted to log data against a data source that did not exist in the file.");
}

ByteBuffer SqliteLogFilePrivate::expandPayload(ByteBuffer stored) const {
    if (!compressesPayloads()) {
        return stored;
    }
    return Compression::uncompress(stored);
}

}  // namespace Marivane::Logging
