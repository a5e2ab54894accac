#pragma once

#include <database/DatabaseExport.h>
#include <database/SqliteDatabase.h>
#include <database/Status.h>

#include <cstdint>

namespace Marivane::Database {

// One explicit write transaction on a connection, begun IMMEDIATE so that the
// wait for other writers happens at the start (bounded by the connection's
// busy timeout) rather than in the middle of the writes.
//
// Ownership: refers to the connection, which must outlive it. Destroying an
// open transaction rolls it back; commit() is the only way to keep its writes.
// Movable, not copyable.
//
// Threads: the thread that uses the connection for writing.
class MV_DATABASE_EXPORT Transaction {
public:
    // Begins the transaction. Throws DatabaseBusy when another connection
    // keeps the write lock past the busy timeout, DatabaseAccessError when
    // SQLite refuses for any other reason (for example a read-only
    // connection, or a transaction already open).
    explicit Transaction(SqliteDatabase& database);
    ~Transaction();

    Transaction(Transaction&& other) noexcept;
    Transaction& operator=(Transaction&& other) = delete;
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    // Commits. A commit that meets readers still holding the file is retried
    // (each try waits up to the busy timeout) until `maxWaitMs` have passed;
    // the writes are never discarded for being busy: the transaction then
    // stays open, the result is the busy status, and commit() may be called
    // again. Any other failure rolls the transaction back (SQLite may already
    // have done so) and is returned.
    Status commit(int32_t maxWaitMs = kDefaultCommitWaitMs);

    // Rolls back if open; never throws.
    void rollback() noexcept;

    // False once committed or rolled back, also when SQLite ended the
    // transaction by itself after a failure (a full disk, an I/O error).
    bool isOpen() const;

    // How long commit() keeps retrying while readers hold the file.
    static constexpr int32_t kDefaultCommitWaitMs = 60000;

private:
    SqliteDatabase* database_;
};

}  // namespace Marivane::Database
