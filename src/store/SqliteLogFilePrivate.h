#pragma once

#include <logging/ByteBuffer.h>
#include <logging/Durability.h>
#include <logging/FailureKind.h>
#include <logging/PropertyValue.h>

#include "DeferredRows.h"
#include "model/Outcome.h"

#include <database/PendingWrites.h>
#include <database/SqliteDatabase.h>
#include <database/SqliteQuery.h>
#include <database/Status.h>
#include <database/Transaction.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Marivane::Logging {

// Metadata written in the same transaction as the tables of a new file.
using CreationMetadata = std::vector<std::pair<std::string, PropertyValue>>;

// How a file is opened.
enum class OpenPolicy {
    // Read and write; a missing file or an empty database becomes an empty
    // log file, and a damaged bookmarks table is rebuilt.
    OpenOrCreate,
    // Read only: never creates, repairs or changes the file, and sets no
    // setting that writes.
    ReadOnly,
};

// The class interface answers a read that failed with what it read before
// the failure (a short or empty list, an absent value): the read's Outcome is
// recorded on the file, where getFailureCount and getLastFailure report it.
template <typename T>
T answered(T value, const Outcome& /*recordedOnTheFile*/) {
    return value;
}

// The state of an open SqliteLogFile and the routines that validate and
// initialise the file. Only the compression level and the format version are
// cached; everything else is read from the file on each call.
class SqliteLogFilePrivate final : private Database::PendingWrites {
public:
    // Opens `path` under `policy`: checks the tables; with OpenOrCreate also
    // creates them in an empty database or repairs the bookmarks table of an
    // existing log file, and applies the connection settings. Throws
    // LegacyLogFileError or NotALogFileError for files that are not log files,
    // Database::DatabaseBusy (naming the file) when another connection keeps
    // the file locked past the busy timeout, and lets every other database
    // error through. A busy file is never taken for a damaged one.
    // A database without tables becomes a log file of `newFileDurability`;
    // an existing log file keeps the mode it has. When the tables are
    // created, `creationMetadata` (if any) is written in the same
    // transaction, so that no other connection ever sees a log file without
    // its fixed metadata.
    SqliteLogFilePrivate(const std::filesystem::path& path, OpenPolicy policy = OpenPolicy::OpenOrCreate,
                         Durability newFileDurability = Durability::Fast,
                         const CreationMetadata* creationMetadata = nullptr, bool withEntryChecksums = false);
    // Commits an open write batch.
    ~SqliteLogFilePrivate();
    SqliteLogFilePrivate(const SqliteLogFilePrivate&) = delete;
    SqliteLogFilePrivate& operator=(const SqliteLogFilePrivate&) = delete;

    Database::SqliteDatabase database;
    std::filesystem::path filePath;
    OpenPolicy policy;
    bool createdTables = false;
    // The file keeps a checksum of every entry's stored payload (chosen at
    // creation; a table only such files have).
    bool entryChecksums = false;
    // True when the tables and the creation metadata were committed together.
    bool creationMetadataWritten = false;
    bool creationMetadataInserted = false;
    // Safe files are in write-ahead-log mode, which the file itself records.
    Durability durability = Durability::Fast;
    // 0: store uncompressed; -1 or 1 to 9: compress at that level.
    int8_t compressionLevel = 0;
    int32_t logVersion = 0;
    // Reads that fail record a message too, so const operations write here.
    // Written through setLastError, so that the kind always goes with the
    // text.
    mutable std::string lastError = "No error";
    mutable FailureKind lastErrorKind = FailureKind::None;
    // Set while a write batch (one open transaction) is in progress; shared
    // with the batch's guard and cleared when the batch ends, so a guard never
    // reaches a file that is gone or a later batch.
    std::shared_ptr<SqliteLogFilePrivate*> batchOwner;
    // The batch's transaction; it outlives the batch when its commit met
    // readers for longer than the commit wait, and is committed later.
    std::optional<Database::Transaction> transaction;
    // Why the batch lost writes it had accepted: SQLite abandoned its
    // transaction after a failure (it does so on a full disk or an I/O
    // error), or entries it held back could not be written. The first cause
    // is kept, so the commit answers with it whatever failed later.
    std::optional<Outcome> batchLoss;
    // The buffer logData compresses into, kept from entry to entry.
    ByteBuffer compressionBuffer;

    // True when the database holds the six log tables, false when it holds no
    // table at all; throws NotALogFileError for anything in between.
    bool checkForTables();
    void createTables(const CreationMetadata* creationMetadata = nullptr, bool withEntryChecksums = false);
    void insertCreationMetadata(const CreationMetadata& metadata);
    Database::Status createBookmarksTable();
    // Rebuilds the bookmarks table (its rows are lost) when its foreign-key
    // check reports a problem.
    void fixBookmarksTable();
    // Replaces lastError with the message for a database failure: its kind
    // decides, never its raw code.
    void setLastErrorFor(const Database::Status& status) const;
    void setLastError(FailureKind kind, std::string text) const;
    std::string lastErrorTextFor(const Database::Status& status) const;

    // Write batches: one transaction from begin to end. endBatch writes the
    // entries the batch still holds back, commits, and answers whether all of
    // that worked.
    std::shared_ptr<SqliteLogFilePrivate*> beginBatch();
    Outcome endBatch();
    bool batchOpen() const { return batchOwner != nullptr; }

    bool isResourceCompressionSupported() const { return logVersion > 2; }
    bool isBookmarkPayloadsSupported() const { return logVersion > 3; }
    bool compressesPayloads() const { return compressionLevel != 0; }
    bool isReadOnly() const { return policy == OpenPolicy::ReadOnly; }

    // Steps a write statement once. A failure is also recorded on the file
    // (failure count, last failure, last error); its message is the one for
    // the kind of database failure, or `foreignKeyMessage` (when given) for a
    // foreign-key violation.
    Outcome executeWrite(Database::SqliteQuery& query, const char* foreignKeyMessage = nullptr);
    // After SQLite rolled back a batch's transaction by itself (on `cause`),
    // keeps the following writes batched.
    void resumeBatchAfterRollback(const Outcome& cause);
    void noteBatchLoss(const Outcome& cause);
    // The batch's loss, if any, also as the last error; success otherwise.
    Outcome answerBatchLoss();

    // Runs `writes` so that all of them or none are kept: inside the open
    // transaction (a write batch's), or in one of their own. The second form
    // is for writes that answer as the class interface does (false, with the
    // failure recorded on the file).
    Outcome writeTogether(const std::function<Outcome()>& writes);
    bool writeTogether(const std::function<bool()>& writes);
    // The failure last recorded on the file, for writes that only answer false.
    Outcome lastRecordedFailure() const;

    // Reads column 0 of a one-row statement as a 32-bit integer into `value`:
    // -1, with the last error replaced, when it yields nothing (the MIN of an
    // empty table) or fails. A failure is also recorded and answered.
    Outcome readSingleInteger(const std::string& sql, int32_t& value) const;
    // The file's lowest and highest entry ids, -1 when it holds no entry.
    Outcome readFirstEntryId(int32_t& id) const;
    Outcome readLastEntryId(int32_t& id) const;

    // Inserts an entry whose payload is already in its stored form (compressed
    // at the file's level when the file compresses). logData and the recorder
    // both end here, so the stored bytes are the same whichever wrote them.
    Outcome insertStoredEntry(int64_t timestamp, int32_t type, int8_t dataSourceId, const ByteBuffer& stored);
    // As insertStoredEntry, under the id `entryId`: a salvage keeps the ids
    // of the file it salvages, so bookmarks and references stay valid.
    Outcome insertStoredEntryWithId(int32_t entryId, int64_t timestamp, int32_t type, int8_t dataSourceId,
                                    const ByteBuffer& stored);
    // As insertStoredEntry, for `size` stored bytes at `data`.
    Outcome insertStoredBytes(int64_t timestamp, int32_t type, int8_t dataSourceId, const std::byte* data,
                              std::size_t size);

    // Payload bytes as read from the file, expanded when the file compresses.
    ByteBuffer expandPayload(ByteBuffer stored) const;

    // ---- failures ---------------------------------------------------------
    // Every failure inside the database, of reads and writes alike, is
    // counted here with its message, also where the operation's result cannot
    // say so (a list read that stopped early looks like a short list). Safe
    // to use from the player's worker beside the controlling thread.

    // Records a failed operation and answers it with the recorded message. A
    // busy database also replaces lastError, so that a read that could not
    // wait long enough never passes for one that found nothing.
    Outcome recordFailure(const char* operation, const Database::Status& status) const;
    // Records a failure that is not the database's (an entry that cannot be
    // handed out) with its complete message, and answers it.
    Outcome recordFailureMessage(FailureKind kind, std::string message) const;
    // How a read whose statement stopped stepping came out: success when the
    // statement finished, else its failure, recorded.
    Outcome finishRead(const Database::SqliteQuery& query, const char* operation) const;
    uint64_t failureCount() const;
    std::string lastFailure() const;
    FailureKind lastFailureKind() const;

    // Reads an integer metadata value while opening: absent when the key is
    // missing or not an integer; throws when the read fails.
    std::optional<int32_t> readOpeningMetadataInteger(const std::string& key);

private:
    Outcome insertStored(std::optional<int32_t> entryId, int64_t timestamp, int32_t type, int8_t dataSourceId,
                         const std::byte* data, std::size_t size);
    void openAsLogFile(Durability newFileDurability, const CreationMetadata* creationMetadata,
                       bool withEntryChecksums);
    bool hasEntryChecksumTable();
    Outcome insertEntryChecksum(int64_t entryId, const std::byte* data, std::size_t size);
    Outcome insertStoredRow(std::optional<int32_t> entryId, int64_t timestamp, int32_t type,
                            int8_t dataSourceId, const std::byte* data, std::size_t size);
    Outcome insertNumberedRow(int64_t timestamp, int32_t type, int8_t dataSourceId, const std::byte* data,
                              std::size_t size);
    Outcome insertOneNumberedRow(int64_t timestamp, int32_t type, int8_t dataSourceId, const std::byte* data,
                                 std::size_t size);
    bool mayHoldBack(int8_t dataSourceId, std::size_t size) const;
    void forgetKnownSources();
    // Writes the entries a batch holds back, in order: many rows per
    // statement, the rest one by one. A failure loses them all, so the batch
    // then reports lost writes when it ends.
    Outcome writeHeldRows();
    Outcome writeHeldRowsLocked();
    Outcome insertManyHeldRows(std::size_t first);
    // Before any other statement on the connection.
    void writeOut() noexcept override;
    bool journalIsWriteAheadLog();
    void applyConnectionSettings();
    // Throws the exception for a failure met while opening: DatabaseBusy
    // (naming the file) for a busy database, DatabaseAccessError otherwise.
    [[noreturn]] void throwOpeningFailure(const Database::Status& status) const;
    // A failed commit that was only busy keeps its transaction for later;
    // anything else ends it. Succeeds when the writes are kept.
    Outcome commitTransaction();
    // Records a database failure on the file and answers it.
    Outcome failed(const char* operation, const Database::Status& status) const;
    std::string busyMessage() const;
    [[noreturn]] void throwUnfinishedCommit() const;
    std::string readOnlyMessage() const;

    // A read-only connection to a write-ahead-log file creates the log's side
    // files when nobody else has the file open, and SQLite leaves them behind
    // after such a connection; the destructor removes what this open created.
    bool sideFilesExistedAtOpen_ = false;
    void removeSideFilesCreatedByThisOpen() noexcept;

    // The insert that numbers entries (logData, batches, the recorder's
    // writer), prepared once and bound by place: looking a statement up by
    // its text and its parameters by name cost as much as the insert of a
    // small entry. Declared after `database`, so it is finalized first.
    struct HeldInsert {
        Database::SqliteQuery query;
        int timestamp;
        int type;
        int dataSourceId;
        int length;
        int payload;
    };
    std::unique_ptr<HeldInsert> heldInsert_;
    // The insert of DeferredRows::kRowsPerStatement rows, parameters in row
    // order, five per row.
    std::unique_ptr<Database::SqliteQuery> heldRowsInsert_;
    // Small entries of the open batch waiting for one multi-row insert; the
    // mutex keeps a read on another thread (which writes them out first)
    // from meeting them half written.
    DeferredRows heldRows_;
    mutable std::recursive_mutex heldRowsMutex_;
    bool writingHeldRows_ = false;

    mutable std::mutex failureMutex_;
    mutable uint64_t failureCount_ = 0;
    mutable std::string lastFailure_;
    mutable FailureKind lastFailureKind_ = FailureKind::None;
};

}  // namespace Marivane::Logging
