#pragma once

#include <logging/ByteBuffer.h>

#include <database/SqliteDatabase.h>
#include <database/SqliteQuery.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

namespace Marivane::Logging {

// The state of an open SqliteLogFile and the routines that validate and
// initialise the file. Only the compression level and the format version are
// cached; everything else is read from the file on each call.
class SqliteLogFilePrivate {
public:
    // Opens `path` (creating it if missing), checks the tables, creates them in
    // an empty database or repairs the bookmarks table of an existing log
    // file, and applies the connection settings. Throws LegacyLogFileError or
    // NotALogFileError for files that are not log files, and lets every other
    // database error through.
    explicit SqliteLogFilePrivate(const std::filesystem::path& path);
    // Commits an open write batch.
    ~SqliteLogFilePrivate();
    SqliteLogFilePrivate(const SqliteLogFilePrivate&) = delete;
    SqliteLogFilePrivate& operator=(const SqliteLogFilePrivate&) = delete;

    Database::SqliteDatabase database;
    std::filesystem::path filePath;
    bool createdTables = false;
    // 0: store uncompressed; -1 or 1 to 9: compress at that level.
    int8_t compressionLevel = 0;
    int32_t logVersion = 0;
    // Reads that fail record a message too, so const operations write here.
    mutable std::string lastError = "No error";
    // Set while a write batch (one open transaction) is in progress; shared
    // with the batch's guard and cleared when the batch ends, so a guard never
    // reaches a file that is gone or a later batch.
    std::shared_ptr<SqliteLogFilePrivate*> batchOwner;
    // SQLite abandoned the batch's transaction after a failure (it does so on
    // a full disk or an I/O error), losing the writes made before it.
    bool batchLostWrites = false;

    // True when the database holds the six log tables, false when it holds no
    // table at all; throws NotALogFileError for anything in between.
    bool checkForTables();
    void createTables();
    void createBookmarksTable();
    // Rebuilds the bookmarks table (its rows are lost) when its foreign-key
    // check reports a problem.
    void fixBookmarksTable();
    // Replaces lastError with the message for a database error code.
    void processErrorCode(int code) const;

    // Write batches: one transaction from begin to end. endBatch commits and
    // answers whether that worked (lastError says why not).
    std::shared_ptr<SqliteLogFilePrivate*> beginBatch();
    bool endBatch();
    bool batchOpen() const { return batchOwner != nullptr; }

    bool isResourceCompressionSupported() const { return logVersion > 2; }
    bool isBookmarkPayloadsSupported() const { return logVersion > 3; }
    bool compressesPayloads() const { return compressionLevel != 0; }

    // Steps a write statement once; on failure records the message for the
    // database's error code, or `foreignKeyMessage` (when given) for a
    // foreign-key violation.
    bool executeWrite(Database::SqliteQuery& query, const char* foreignKeyMessage = nullptr);
    // After SQLite rolled back a batch's transaction by itself, keeps the
    // following writes batched.
    void resumeBatchAfterRollback();

    // Reads column 0 of a one-row statement as a 32-bit integer; -1 with a
    // recorded message when it yields nothing.
    int32_t readSingleInteger(const std::string& sql) const;

    // Inserts an entry whose payload is already in its stored form (compressed
    // at the file's level when the file compresses). logData and the recorder
    // both end here, so the stored bytes are the same whichever wrote them.
    bool insertStoredEntry(int64_t timestamp, int32_t type, int8_t dataSourceId, const ByteBuffer& stored);

    // Payload bytes as read from the file, expanded when the file compresses.
    ByteBuffer expandPayload(ByteBuffer stored) const;
};

}  // namespace Marivane::Logging
