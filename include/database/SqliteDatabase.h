#pragma once

#include <database/DatabaseExport.h>

#include <atomic>
#include <cstdint>
#include <string>

struct sqlite3;

namespace Marivane::Database {

// SQLite's open flags; combine with |.
using OpenMode = int;
inline constexpr OpenMode OpenReadOnly = 0x1;
inline constexpr OpenMode OpenReadWrite = 0x2;
inline constexpr OpenMode OpenCreate = 0x4;

// One connection to an SQLite database file.
//
// Ownership: the object owns the connection and closes it on destruction; it is
// neither copyable nor movable, so statements (SqliteQuery) can keep a
// reference to it. Every statement must be destroyed before the connection.
//
// Threads: the connection runs in SQLite's serialized mode, so two threads may
// use it at once (each with its own statements); the error code kept here is
// an atomic. Under such use getLastErrorCode answers for whichever thread
// stepped last.
class MV_DATABASE_EXPORT SqliteDatabase {
public:
    // Opens (and with OpenCreate, creates) the file. Throws FileIsNotDatabase
    // when SQLite says the file is not a database, DatabaseAccessError for any
    // other failure, with SQLite's message.
    SqliteDatabase(const std::string& path, OpenMode mode);
    ~SqliteDatabase();

    SqliteDatabase(const SqliteDatabase&) = delete;
    SqliteDatabase& operator=(const SqliteDatabase&) = delete;

    // Runs a statement that takes no parameters and returns no rows (schema
    // statements, pragmas). True when it runs to completion. A statement that
    // yields a row counts as not completed: a check pragma such as
    // "PRAGMA foreign_key_check(t);" thus fails exactly when it finds a
    // problem. Throws FileIsNotDatabase when the file is not a database; other
    // failures, including a failing prepare, are reported by the result.
    bool executeSimpleQuery(const std::string& sql);

    // The SQLite extended result code of the most recent step on this
    // connection: 0 when it succeeded, otherwise its failure code (13 disk
    // full, 266/778 I/O errors, 787 foreign key, ...).
    int32_t getLastErrorCode() const;

    // Row id of the most recent successful INSERT on this connection.
    int64_t getLastInsertedRowId() const;

private:
    friend class SqliteQuery;

    sqlite3* connection() const { return connection_; }
    void recordStepResult(int extendedCode) const;

    sqlite3* connection_ = nullptr;
    mutable std::atomic<int32_t> lastErrorCode_{0};
};

}  // namespace Marivane::Database
