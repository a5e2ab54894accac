#include "SqliteLogFilePrivate.h"

#include <logging/LegacyLogFileError.h>
#include <logging/NotALogFileError.h>
#include <logging/NotYetALogFileError.h>

#include <core/Checksum.h>
#include <core/Compression.h>
#include <core/Filesystem.h>
#include <database/DatabaseAccessError.h>
#include <database/DatabaseBusy.h>
#include <database/FileIsNotDatabase.h>
#include <database/UnfinishedCommit.h>
#include "services/database/ColumnAccess.h"
#include "store/BindParameterVisitor.h"
#include "store/Schema.h"

#include <array>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <utility>

namespace Marivane::Logging {

namespace {

using Database::SqliteQuery;

constexpr Database::OpenMode kOpenMode = Database::OpenReadWrite | Database::OpenCreate;
constexpr uint32_t kLegacyMagic = 0x11223344;

// The text of any failure the store has no message of its own for.
constexpr const char* kUnknownInternalError = "Unknown internal error";

FailureKind failureKindOf(Database::StatusCode code) {
    switch (code) {
        case Database::StatusCode::Ok:
            return FailureKind::None;
        case Database::StatusCode::Busy:
            return FailureKind::Busy;
        case Database::StatusCode::Corrupt:
        case Database::StatusCode::NotADatabase:
            return FailureKind::Damaged;
        case Database::StatusCode::IoError:
            return FailureKind::IoError;
        case Database::StatusCode::Full:
            return FailureKind::Full;
        case Database::StatusCode::ReadOnly:
            return FailureKind::ReadOnly;
        case Database::StatusCode::ForeignKey:
        case Database::StatusCode::Constraint:
            return FailureKind::Refused;
        case Database::StatusCode::Misuse:
        case Database::StatusCode::Other:
            break;
    }
    return FailureKind::Other;
}

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

namespace {

Database::OpenMode openModeFor(OpenPolicy policy) {
    return policy == OpenPolicy::ReadOnly ? Database::OpenReadOnly : kOpenMode;
}

}  // namespace

SqliteLogFilePrivate::SqliteLogFilePrivate(const std::filesystem::path& path, OpenPolicy openPolicy,
                                           Durability newFileDurability,
                                           const CreationMetadata* creationMetadata,
                                           bool withEntryChecksums) try
    : database(path.string(), openModeFor(openPolicy)),
      filePath(path),
      policy(openPolicy),
      sideFilesExistedAtOpen_(
          Filesystem::somethingExistsAt(path.string() + "-shm", Filesystem::PathLookup::PathItself)) {
    try {
        openAsLogFile(newFileDurability, creationMetadata, withEntryChecksums);
    } catch (const Database::DatabaseBusy&) {
        // Preparing a statement can meet the lock too; name the file either way.
        throw Database::DatabaseBusy(busyMessage());
    } catch (const Database::UnfinishedCommit&) {
        throwUnfinishedCommit();
    }
} catch (const Database::FileIsNotDatabase&) {
    if (hasLegacyMagic(path)) {
        throw LegacyLogFileError();
    }
    throw NotALogFileError();
}

void SqliteLogFilePrivate::openAsLogFile(Durability newFileDurability,
                                         const CreationMetadata* creationMetadata, bool withEntryChecksums) {
    if (isReadOnly()) {
        // A second line of defence: SQLite refuses every write on this
        // connection even if one slipped through.
        if (const Database::Status status = database.execute("PRAGMA query_only = 1;"); !status.ok()) {
            throwOpeningFailure(status);
        }
        // Pages are read, not mapped: mapped pages count as the process's
        // resident memory, and a map of the first 32 MiB was most of what a
        // tool reading a large file held, while copying pages costs little
        // beside what a read does with them. A failure changes nothing.
        (void)database.execute("PRAGMA mmap_size = 0;");
        // An empty database becomes a log file only when it may be written;
        // read-only, it may be a file whose creation has not committed yet.
        if (!checkForTables()) {
            throw NotYetALogFileError(filePath.string());
        }
        durability = journalIsWriteAheadLog() ? Durability::Safe : Durability::Fast;
    } else {
        // Connection settings only: they neither wait for locks nor fail on a
        // healthy connection, and a failure would leave SQLite's defaults.
        (void)database.execute("PRAGMA foreign_keys = on;");
        createdTables = !checkForTables();
        if (createdTables && creationMetadata != nullptr) {
            // The journal mode cannot change inside a transaction, and the
            // tables and the metadata share one: settings first, after the
            // page size (a write-ahead log fixes it).
            durability = newFileDurability;
            (void)database.execute(Schema::kPageSize);
            applyConnectionSettings();
            createTables(creationMetadata, withEntryChecksums);
        } else if (createdTables) {
            createTables();
            durability = newFileDurability;
            applyConnectionSettings();
        } else {
            fixBookmarksTable();
            durability = journalIsWriteAheadLog() ? Durability::Safe : Durability::Fast;
            applyConnectionSettings();
        }
    }
    entryChecksums = hasEntryChecksumTable();
    if (!createdTables) {
        compressionLevel = static_cast<int8_t>(readOpeningMetadataInteger("compressionLevel").value_or(0));
        logVersion = readOpeningMetadataInteger("logVersion").value_or(0);
    }
}

void SqliteLogFilePrivate::applyConnectionSettings() {
    if (durability == Durability::Balanced) {
        // The rollback journal is on disk: a commit a kill cuts short is
        // rolled back by the next writer, and a finished one is in the
        // operating system's hands. Nothing is flushed, so a power cut may
        // lose or damage either.
        (void)database.execute("PRAGMA synchronous = OFF;");
        (void)database.execute("PRAGMA journal_mode = DELETE;");
        return;
    }
    if (durability == Durability::Safe) {
        // The journal mode is stored in the file, so a safe file stays safe
        // for every later connection; a commit is flushed at checkpoints.
        if (const Database::Status status = database.execute("PRAGMA journal_mode = WAL;"); !status.ok()) {
            throwOpeningFailure(status);
        }
        if (const Database::Status status = database.execute("PRAGMA synchronous = NORMAL;"); !status.ok()) {
            throwOpeningFailure(status);
        }
        return;
    }
    // These trade durability for speed. A failure leaves SQLite's defaults,
    // which are the safer side of that trade, so the open goes on.
    (void)database.execute("PRAGMA synchronous = OFF;");
    (void)database.execute("PRAGMA journal_mode = MEMORY;");
}

bool SqliteLogFilePrivate::journalIsWriteAheadLog() {
    SqliteQuery query(database, "PRAGMA journal_mode;");
    if (query.executeStep() != Database::StepRow) {
        throwOpeningFailure(query.status());
    }
    return Database::getValueFromColumn<std::string>(query, 0).value_or(std::string()) == "wal";
}

std::optional<int32_t> SqliteLogFilePrivate::readOpeningMetadataInteger(const std::string& key) {
    SqliteQuery query(database, "SELECT value FROM metadata WHERE key = :key;");
    query.bindParameter(":key", key, Database::BindMode::NoCopy);
    const int32_t step = query.executeStep();
    if (step == Database::StepFailed) {
        // Taking a busy file for one without the key would read compressed
        // payloads as they are stored.
        throwOpeningFailure(query.status());
    }
    if (const std::optional<int64_t> value = Database::getValueFromColumn<int64_t>(query, 0)) {
        return static_cast<int32_t>(*value);
    }
    return std::nullopt;
}

void SqliteLogFilePrivate::throwOpeningFailure(const Database::Status& status) const {
    if (status.isBusy()) {
        throw Database::DatabaseBusy(busyMessage());
    }
    if (status.isUnfinishedCommit()) {
        throwUnfinishedCommit();
    }
    throw Database::DatabaseAccessError("Cannot open '" + filePath.string() +
                                        "' as a log file: " + status.message());
}

void SqliteLogFilePrivate::throwUnfinishedCommit() const {
    // SQLite's own text ("attempt to write a readonly database") hides that
    // the file is fine once the writer's journal is rolled back.
    throw Database::UnfinishedCommit(
        "Cannot read '" + filePath.string() +
        "' yet: a writer stopped in the middle of a commit and left its journal beside it. Opening the file "
        "once for writing (as a recording program or MV_LogFile_Open does) rolls the unfinished commit back; "
        "'mvlog recover' salvages it without changing it.");
}

std::string SqliteLogFilePrivate::busyMessage() const {
    return "The file '" + filePath.string() + "' is busy: another connection kept it locked for more than " +
           std::to_string(database.busyTimeout()) + " ms.";
}

SqliteLogFilePrivate::~SqliteLogFilePrivate() {
    writeOut();
    heldRowsInsert_.reset();
    heldInsert_.reset();
    removeSideFilesCreatedByThisOpen();
    try {
        (void)endBatch();
        if (transaction) {
            // A batch whose commit met readers earlier: one more full wait.
            (void)commitTransaction();
        }
    } catch (...) {
        // Closing must not throw; the connection's close rolls back what the
        // commit could not keep.
    }
}

void SqliteLogFilePrivate::removeSideFilesCreatedByThisOpen() noexcept {
    if (!isReadOnly() || durability != Durability::Safe || sideFilesExistedAtOpen_) {
        return;
    }
    try {
        database.close();
        // The last read-write connection to close removes the side files; if
        // a writer still has the file open, closing this one changes nothing.
        // The log is empty (nobody wrote while only readers had it), so the
        // file's own bytes stay as they are.
        Database::SqliteDatabase tidy(filePath.string(), Database::OpenReadWrite);
        (void)tidy.execute("PRAGMA journal_mode;");
    } catch (...) {
        // A write-protected directory or file keeps its side files.
    }
}

std::shared_ptr<SqliteLogFilePrivate*> SqliteLogFilePrivate::beginBatch() {
    if (batchOpen()) {
        throw std::logic_error("A write batch is already open on this log file.");
    }
    // A transaction whose commit was busy is still open: the new batch goes
    // on in it and commits everything together.
    if (!transaction || !transaction->isOpen()) {
        transaction.reset();
        try {
            transaction.emplace(database);
        } catch (const Database::DatabaseBusy&) {
            throw Database::DatabaseBusy(busyMessage());
        } catch (const Database::DatabaseAccessError& error) {
            if (isReadOnly()) {
                throw Database::DatabaseAccessError(readOnlyMessage());
            }
            throw Database::DatabaseAccessError(std::string("Cannot begin a write batch: ") + error.what());
        }
    }
    batchLoss.reset();
    forgetKnownSources();
    batchOwner = std::make_shared<SqliteLogFilePrivate*>(this);
    return batchOwner;
}

Outcome SqliteLogFilePrivate::endBatch() {
    if (!batchOpen()) {
        return Outcome::failure(FailureKind::Other, "No write batch is open on '" + filePath.string() + "'.");
    }
    // A failure here loses the rows, which the commit's answer reports.
    (void)writeHeldRows();
    forgetKnownSources();
    *batchOwner = nullptr;
    batchOwner.reset();
    return commitTransaction();
}

Outcome SqliteLogFilePrivate::commitTransaction() {
    if (!transaction || !transaction->isOpen()) {
        // SQLite ended the transaction itself after a failure; nothing is left
        // to commit.
        transaction.reset();
        return answerBatchLoss();
    }
    const Database::Status committed = transaction->commit();
    if (committed.ok()) {
        transaction.reset();
        return answerBatchLoss();
    }
    Outcome failure = failed("Committing a write batch", committed);
    if (!committed.isBusy()) {
        // The commit rolled back; never leave a transaction that cannot commit.
        transaction.reset();
    }
    return failure;
}

bool SqliteLogFilePrivate::checkForTables() {
    SqliteQuery count(database, "SELECT COUNT(*) FROM sqlite_master WHERE type='table';");
    if (count.executeStep() != Database::StepRow) {
        // A count always yields a row; without one the read failed, and a
        // failed read must not pass for an empty database.
        throwOpeningFailure(count.status());
    }
    if (Database::getValueFromColumn<int>(count, 0).value_or(0) == 0) {
        return false;
    }
    SqliteQuery probe(database, "SELECT name FROM sqlite_master WHERE type='table' AND name=:tableName;");
    std::size_t hits = 0;
    for (const char* table : Schema::kLogTables) {
        probe.resetQuery();
        probe.bindParameter(":tableName", std::string(table), Database::BindMode::Copy);
        const int32_t step = probe.executeStep();
        if (step == Database::StepRow) {
            ++hits;
        } else if (step == Database::StepFailed) {
            throwOpeningFailure(probe.status());
        }
    }
    if (hits < Schema::kLogTables.size()) {
        throw NotALogFileError();
    }
    return true;
}

void SqliteLogFilePrivate::createTables(const CreationMetadata* creationMetadata, bool withEntryChecksums) {
    // One transaction makes creation atomic and saves a synchronous commit per
    // statement.
    // A statement that fails for any reason but a lock leaves the file as far
    // as it got, and opening goes on; a lock means another connection is at
    // work on the file, and nothing here may be taken as done.
    auto run = [this](const std::string& sql) {
        if (const Database::Status status = database.execute(sql); status.isBusy()) {
            (void)database.execute("ROLLBACK;");
            throwOpeningFailure(status);
        }
    };
    run(Schema::kPageSize);
    run("BEGIN;");
    for (const char* statement : Schema::kTablesBeforeBookmarks) {
        run(statement);
    }
    if (const Database::Status status = createBookmarksTable(); status.isBusy()) {
        (void)database.execute("ROLLBACK;");
        throwOpeningFailure(status);
    }
    run(Schema::kCreateBookmarkIndex);
    if (withEntryChecksums) {
        run(Schema::kCreateEntryChecksums);
    }
    if (creationMetadata != nullptr) {
        insertCreationMetadata(*creationMetadata);
    }
    const Database::Status committed = database.execute("COMMIT;");
    if (committed.isBusy()) {
        (void)database.execute("ROLLBACK;");
        throwOpeningFailure(committed);
    }
    creationMetadataWritten = creationMetadata != nullptr && committed.ok() && creationMetadataInserted;
}

// The statement and binding of addMetadata, so the rows are stored exactly
// as it stores them; the table is new, so no key exists yet.
void SqliteLogFilePrivate::insertCreationMetadata(const CreationMetadata& metadata) {
    creationMetadataInserted = true;
    for (const auto& [key, value] : metadata) {
        SqliteQuery insert(database, "INSERT INTO metadata (key, value) VALUES (:key, :value);");
        insert.bindParameter(":key", key, Database::BindMode::NoCopy);
        std::visit(Database::BindParameterVisitor(insert, ":value"), value);
        if (!executeWrite(insert).ok()) {
            creationMetadataInserted = false;
            if (insert.status().isBusy()) {
                (void)database.execute("ROLLBACK;");
                throwOpeningFailure(insert.status());
            }
        }
    }
}

Database::Status SqliteLogFilePrivate::createBookmarksTable() {
    return database.execute(Schema::kCreateBookmarks);
}

void SqliteLogFilePrivate::fixBookmarksTable() {
    bool problems = false;
    const Database::Status check = database.execute("PRAGMA foreign_key_check(bookmarks);", &problems);
    if (check.isBusy()) {
        // A lock is not damage: never repair what could not be looked at.
        throwOpeningFailure(check);
    }
    if (check.ok() && !problems) {
        return;
    }
    std::optional<Database::Transaction> repair;
    try {
        repair.emplace(database);
    } catch (const Database::DatabaseBusy&) {
        throw;
    } catch (const Database::DatabaseAccessError&) {
        // A file that cannot be written keeps its table as it is.
        return;
    }
    const Database::Status dropped = database.execute("DROP TABLE bookmarks;");
    const Database::Status created = dropped.ok() ? createBookmarksTable() : dropped;
    if (dropped.isBusy() || created.isBusy()) {
        throwOpeningFailure(dropped.isBusy() ? dropped : created);
    }
    if (!created.ok()) {
        // Rolling back keeps the old table: a file without one no longer opens.
        return;
    }
    if (const Database::Status committed = repair->commit(); committed.isBusy()) {
        throwOpeningFailure(committed);
    }
}

std::string SqliteLogFilePrivate::readOnlyMessage() const {
    return "The log file '" + filePath.string() + "' was opened read-only: it cannot be changed.";
}

void SqliteLogFilePrivate::setLastErrorFor(const Database::Status& status) const {
    // A statement that finished without the row it should have yielded is
    // answered with the internal-error text: a failure of no known kind.
    setLastError(status.ok() ? FailureKind::Other : failureKindOf(status.code()), lastErrorTextFor(status));
}

void SqliteLogFilePrivate::setLastError(FailureKind kind, std::string text) const {
    lastErrorKind = kind;
    lastError = std::move(text);
}

std::string SqliteLogFilePrivate::lastErrorTextFor(const Database::Status& status) const {
    if (status.isReadOrWriteFailure()) {
        return "IO error while reading or writing to the file.";
    }
    switch (status.code()) {
        case Database::StatusCode::Full:
            return "Filesystem full.";
        case Database::StatusCode::Busy:
            return busyMessage();
        case Database::StatusCode::ReadOnly:
            return isReadOnly() ? readOnlyMessage() : kUnknownInternalError;
        default:
            return kUnknownInternalError;
    }
}

Outcome SqliteLogFilePrivate::executeWrite(SqliteQuery& query, const char* foreignKeyMessage) {
    if (query.executeStep() == Database::StepDone) {
        if (!batchOpen() && transaction) {
            // An earlier batch could not commit for readers; try again now.
            (void)commitTransaction();
        }
        return Outcome::success();
    }
    // The statement's own code: the player's worker may step another statement
    // on this connection meanwhile.
    const Database::Status status = query.status();
    const Outcome recorded = recordFailure("Writing", status);
    if (status.code() == Database::StatusCode::ForeignKey && foreignKeyMessage) {
        setLastError(recorded.kind(), foreignKeyMessage);
    } else {
        setLastErrorFor(status);
    }
    // Writes answer with the text the class interface shows (getLastError).
    Outcome failure = Outcome::failure(recorded.kind(), lastError);
    resumeBatchAfterRollback(failure);
    return failure;
}

Outcome SqliteLogFilePrivate::failed(const char* operation, const Database::Status& status) const {
    const Outcome recorded = recordFailure(operation, status);
    setLastErrorFor(status);
    return Outcome::failure(recorded.kind(), lastError);
}

Outcome SqliteLogFilePrivate::lastRecordedFailure() const {
    return Outcome::failure(lastFailureKind(), lastError);
}

Outcome SqliteLogFilePrivate::answerBatchLoss() {
    if (!batchLoss) {
        return Outcome::success();
    }
    // Reads after the loss may have replaced the last error; the commit's
    // answer and the last error say why the writes were lost.
    setLastError(batchLoss->kind(), batchLoss->message());
    return *batchLoss;
}

void SqliteLogFilePrivate::noteBatchLoss(const Outcome& cause) {
    if (!batchLoss) {
        batchLoss = cause;
    }
}

void SqliteLogFilePrivate::resumeBatchAfterRollback(const Outcome& cause) {
    if (batchOpen() && !database.isInTransaction()) {
        noteBatchLoss(cause);
        forgetKnownSources();
        try {
            transaction.reset();
            transaction.emplace(database);
        } catch (const Database::DatabaseAccessError&) {
            // The writes that follow run on their own; the batch still
            // reports the loss when it ends.
        }
    }
}

Outcome SqliteLogFilePrivate::readSingleInteger(const std::string& sql, int32_t& value) const {
    value = -1;
    SqliteQuery query(database, sql);
    query.executeStep();
    if (const std::optional<int64_t> read = Database::getValueFromColumn<int64_t>(query, 0)) {
        if (*read < std::numeric_limits<int32_t>::min() || *read > std::numeric_limits<int32_t>::max()) {
            // Cut to 32 bits it would pass for another id (2^31 for a negative
            // one): a value no record can carry is damage, never an answer.
            setLastError(FailureKind::Damaged, kUnknownInternalError);
            return recordFailureMessage(FailureKind::Damaged,
                                        "Reading '" + filePath.string() + "' failed: the stored value " +
                                            std::to_string(*read) + " does not fit in 32 bits");
        }
        value = static_cast<int32_t>(*read);
        return Outcome::success();
    }
    Outcome outcome = finishRead(query, "Reading");
    setLastErrorFor(query.status());
    return outcome;
}

Outcome SqliteLogFilePrivate::readFirstEntryId(int32_t& id) const {
    return readSingleInteger("SELECT MIN(entryId) FROM data;", id);
}

Outcome SqliteLogFilePrivate::readLastEntryId(int32_t& id) const {
    return readSingleInteger("SELECT MAX(entryId) FROM data;", id);
}

Outcome SqliteLogFilePrivate::recordFailure(const char* operation, const Database::Status& status) const {
    std::lock_guard lock(failureMutex_);
    ++failureCount_;
    lastFailureKind_ = failureKindOf(status.code());
    lastFailure_ = std::string(operation) + " '" + filePath.string() +
                   "' failed: " + (status.isBusy() ? busyMessage() : status.message());
    if (status.isBusy()) {
        setLastError(FailureKind::Busy, busyMessage());
    }
    return Outcome::failure(lastFailureKind_, lastFailure_);
}

Outcome SqliteLogFilePrivate::recordFailureMessage(FailureKind kind, std::string message) const {
    std::lock_guard lock(failureMutex_);
    ++failureCount_;
    lastFailureKind_ = kind;
    lastFailure_ = std::move(message);
    return Outcome::failure(lastFailureKind_, lastFailure_);
}

Outcome SqliteLogFilePrivate::finishRead(const SqliteQuery& query, const char* operation) const {
    const Database::Status status = query.status();
    if (status.ok()) {
        return Outcome::success();
    }
    return recordFailure(operation, status);
}

uint64_t SqliteLogFilePrivate::failureCount() const {
    std::lock_guard lock(failureMutex_);
    return failureCount_;
}

std::string SqliteLogFilePrivate::lastFailure() const {
    std::lock_guard lock(failureMutex_);
    return lastFailure_;
}

FailureKind SqliteLogFilePrivate::lastFailureKind() const {
    std::lock_guard lock(failureMutex_);
    return lastFailureKind_;
}

Outcome SqliteLogFilePrivate::insertStoredEntry(int64_t timestamp, int32_t type, int8_t dataSourceId,
                                                const ByteBuffer& stored) {
    return insertStored(std::nullopt, timestamp, type, dataSourceId, stored.data(), stored.size());
}

Outcome SqliteLogFilePrivate::insertStoredBytes(int64_t timestamp, int32_t type, int8_t dataSourceId,
                                                const std::byte* data, std::size_t size) {
    return insertStored(std::nullopt, timestamp, type, dataSourceId, data, size);
}

Outcome SqliteLogFilePrivate::insertStoredEntryWithId(int32_t entryId, int64_t timestamp, int32_t type,
                                                      int8_t dataSourceId, const ByteBuffer& stored) {
    return insertStored(entryId, timestamp, type, dataSourceId, stored.data(), stored.size());
}

// With checksums an entry is two rows, written together.
Outcome SqliteLogFilePrivate::insertStored(std::optional<int32_t> entryId, int64_t timestamp, int32_t type,
                                           int8_t dataSourceId, const std::byte* data, std::size_t size) {
    if (!entryChecksums) {
        return insertStoredRow(entryId, timestamp, type, dataSourceId, data, size);
    }
    return writeTogether([&] {
        Outcome row = insertStoredRow(entryId, timestamp, type, dataSourceId, data, size);
        return row ? insertEntryChecksum(database.getLastInsertedRowId(), data, size) : row;
    });
}

Outcome SqliteLogFilePrivate::writeTogether(const std::function<Outcome()>& writes) {
    if (database.isInTransaction()) {
        return writes();
    }
    if (const Database::Status begun = database.execute("BEGIN;"); !begun.ok()) {
        return failed("Writing", begun);
    }
    if (Outcome written = writes(); !written) {
        (void)database.execute("ROLLBACK;");
        return written;
    }
    if (const Database::Status committed = database.execute("COMMIT;"); !committed.ok()) {
        Outcome failure = failed("Writing", committed);
        (void)database.execute("ROLLBACK;");
        return failure;
    }
    return Outcome::success();
}

bool SqliteLogFilePrivate::writeTogether(const std::function<bool()>& writes) {
    return writeTogether([&] { return writes() ? Outcome::success() : lastRecordedFailure(); }).ok();
}

Outcome SqliteLogFilePrivate::insertEntryChecksum(int64_t entryId, const std::byte* data, std::size_t size) {
    SqliteQuery query(database,
                      "INSERT INTO entryChecksums (entryId, checksum) VALUES (:entryId, :checksum);");
    query.bindParameter(":entryId", entryId);
    query.bindParameter(":checksum", static_cast<int64_t>(Checksum::of(data, size)));
    return executeWrite(query);
}

bool SqliteLogFilePrivate::hasEntryChecksumTable() {
    SqliteQuery query(database, "SELECT 1 FROM sqlite_master WHERE type='table' AND name='entryChecksums';");
    const int32_t step = query.executeStep();
    if (step == Database::StepFailed) {
        throwOpeningFailure(query.status());
    }
    return step == Database::StepRow;
}

// Without an id the file numbers the entry, as logData always has it; with
// one (a salvage keeping ids) the id is the given one.
Outcome SqliteLogFilePrivate::insertStoredRow(std::optional<int32_t> entryId, int64_t timestamp, int32_t type,
                                              int8_t dataSourceId, const std::byte* data, std::size_t size) {
    if (!entryId) {
        return insertNumberedRow(timestamp, type, dataSourceId, data, size);
    }
    SqliteQuery query(database,
                      "INSERT INTO data (entryId, timestamp, type, dataSourceId, length, payload) VALUES "
                      "(:entryId, :timestamp, :type, :dataSourceId, :length, :payload);");
    query.bindParameter(":entryId", *entryId);
    query.bindParameter(":timestamp", timestamp);
    query.bindParameter(":type", type);
    query.bindParameter(":dataSourceId", int32_t{dataSourceId});
    query.bindParameter(":length", static_cast<int32_t>(size));
    query.bindBytesAt(query.parameterPlace(":payload"), data, size, Database::BindMode::NoCopy);
    return executeWrite(query, "Attempted to log data against a data source that did not exist in the file.");
}

// In a batch, a small entry for a data source the transaction has already
// accepted waits for others and goes in with them; anything else is inserted
// at once, after the entries waiting before it.
Outcome SqliteLogFilePrivate::insertNumberedRow(int64_t timestamp, int32_t type, int8_t dataSourceId,
                                                const std::byte* data, std::size_t size) {
    std::lock_guard lock(heldRowsMutex_);
    if (mayHoldBack(dataSourceId, size)) {
        if (heldRows_.empty()) {
            database.setPendingWrites(this);
        }
        heldRows_.hold(timestamp, type, dataSourceId, data, size);
        return heldRows_.full() ? writeHeldRowsLocked() : Outcome::success();
    }
    if (Outcome held = writeHeldRowsLocked(); !held) {
        return held;
    }
    Outcome written = insertOneNumberedRow(timestamp, type, dataSourceId, data, size);
    if (written && batchOpen() && database.isInTransaction()) {
        heldRows_.noteKnownSource(dataSourceId);
    }
    return written;
}

bool SqliteLogFilePrivate::mayHoldBack(int8_t dataSourceId, std::size_t size) const {
    // With checksums an entry's second row needs its id at once.
    return batchOpen() && !entryChecksums && heldRows_.mayHold(dataSourceId, size) &&
           database.isInTransaction();
}

void SqliteLogFilePrivate::forgetKnownSources() {
    std::lock_guard lock(heldRowsMutex_);
    heldRows_.forgetKnownSources();
}

Outcome SqliteLogFilePrivate::writeHeldRows() {
    std::lock_guard lock(heldRowsMutex_);
    return writeHeldRowsLocked();
}

void SqliteLogFilePrivate::writeOut() noexcept {
    try {
        (void)writeHeldRows();
    } catch (...) {
        // writeHeldRowsLocked already let the rows go and marked the batch.
    }
}

Outcome SqliteLogFilePrivate::writeHeldRowsLocked() {
    // The inserts below step through the connection, which asks for the
    // held rows first: those are the rows being written.
    if (heldRows_.empty() || writingHeldRows_) {
        return Outcome::success();
    }
    writingHeldRows_ = true;
    // Whatever happens below, the rows are written or lost, never written
    // twice: they leave the buffer, and an unfinished write marks the batch.
    struct LetGo {
        SqliteLogFilePrivate& file;
        Outcome outcome = Outcome::failure(FailureKind::Other, kUnknownInternalError);
        ~LetGo() {
            file.writingHeldRows_ = false;
            file.heldRows_.clear();
            file.database.setPendingWrites(nullptr);
            if (!outcome) {
                file.noteBatchLoss(outcome);
                file.heldRows_.forgetKnownSources();
            }
        }
    } letGo{*this};
    const std::vector<DeferredRows::Row>& rows = heldRows_.rows();
    Outcome written = Outcome::success();
    std::size_t next = 0;
    for (; written && rows.size() - next >= DeferredRows::kRowsPerStatement;
         next += DeferredRows::kRowsPerStatement) {
        written = insertManyHeldRows(next);
    }
    for (; written && next < rows.size(); ++next) {
        const DeferredRows::Row& row = rows[next];
        written = insertOneNumberedRow(row.timestamp, row.type, row.dataSourceId, heldRows_.payloadOf(row),
                                       row.size);
    }
    letGo.outcome = written;
    return written;
}

namespace {

std::string manyRowsInsertText() {
    std::string sql = "INSERT INTO data (timestamp, type, dataSourceId, length, payload) VALUES ";
    for (std::size_t row = 0; row < DeferredRows::kRowsPerStatement; ++row) {
        sql += row == 0 ? "(?,?,?,?,?)" : ",(?,?,?,?,?)";
    }
    return sql + ";";
}

}  // namespace

Outcome SqliteLogFilePrivate::insertManyHeldRows(std::size_t first) {
    if (!heldRowsInsert_) {
        heldRowsInsert_ = std::make_unique<SqliteQuery>(database, manyRowsInsertText());
    }
    SqliteQuery& insert = *heldRowsInsert_;
    const std::vector<DeferredRows::Row>& rows = heldRows_.rows();
    int place = 1;
    for (std::size_t index = first; index < first + DeferredRows::kRowsPerStatement; ++index) {
        const DeferredRows::Row& row = rows[index];
        insert.bindAt(place++, row.timestamp);
        insert.bindAt(place++, row.type);
        insert.bindAt(place++, row.dataSourceId);
        insert.bindAt(place++, static_cast<int64_t>(static_cast<int32_t>(row.size)));
        insert.bindBytesAt(place++, heldRows_.payloadOf(row), row.size, Database::BindMode::NoCopy);
    }
    Outcome written =
        executeWrite(insert, "Attempted to log data against a data source that did not exist in the file.");
    // The payloads stay bound to the buffer, which outlives the statement;
    // every place is bound again before the next step.
    insert.resetQuery();
    return written;
}

Outcome SqliteLogFilePrivate::insertOneNumberedRow(int64_t timestamp, int32_t type, int8_t dataSourceId,
                                                   const std::byte* data, std::size_t size) {
    if (!heldInsert_) {
        SqliteQuery query(database,
                          "INSERT INTO data (timestamp, type, dataSourceId, length, payload) VALUES "
                          "(:timestamp, :type, :dataSourceId, :length, :payload);");
        const int timestampPlace = query.parameterPlace(":timestamp");
        const int typePlace = query.parameterPlace(":type");
        const int sourcePlace = query.parameterPlace(":dataSourceId");
        const int lengthPlace = query.parameterPlace(":length");
        const int payloadPlace = query.parameterPlace(":payload");
        heldInsert_.reset(new HeldInsert{std::move(query), timestampPlace, typePlace, sourcePlace,
                                         lengthPlace, payloadPlace});
    }
    HeldInsert& insert = *heldInsert_;
    insert.query.bindAt(insert.timestamp, timestamp);
    insert.query.bindAt(insert.type, type);
    insert.query.bindAt(insert.dataSourceId, dataSourceId);
    insert.query.bindAt(insert.length, static_cast<int64_t>(static_cast<int32_t>(size)));
    insert.query.bindBytesAt(insert.payload, data, size, Database::BindMode::NoCopy);
    Outcome written = executeWrite(
        insert.query, "Attempted to log data against a data source that did not exist in the file.");
    // Ready for the next entry, and no longer pointing at the caller's bytes.
    insert.query.resetQuery();
    insert.query.bindBytesAt(insert.payload, nullptr, 0, Database::BindMode::NoCopy);
    return written;
}

ByteBuffer SqliteLogFilePrivate::expandPayload(ByteBuffer stored) const {
    if (!compressesPayloads()) {
        return stored;
    }
    return Compression::uncompress(stored);
}

}  // namespace Marivane::Logging
