#pragma once

#include <database/DatabaseExport.h>
#include <database/PendingWrites.h>
#include <database/Status.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace Marivane::Database {

// SQLite's open flags (their values are checked against SQLite's at compile
// time); combine with |.
using OpenMode = int;
inline constexpr OpenMode OpenReadOnly = 0x1;
inline constexpr OpenMode OpenReadWrite = 0x2;
inline constexpr OpenMode OpenCreate = 0x4;

// How a connection reads the file.
enum class FileLayer {
    // A read of a page beyond the end of the file fails as an I/O error: a
    // file cut short never reads back zeros as data.
    Strict,
    // As SQLite reads by default: the part of a page beyond the end of the
    // file reads as zeros. For SQLite's own verdict on a file as it is
    // stored (PRAGMA integrity_check), never for handing out data.
    AsStored,
};

// One connection to an SQLite database file.
//
// Ownership: the object owns the connection and closes it on destruction; it is
// neither copyable nor movable, so statements (SqliteQuery) can keep a
// reference to it. Every statement must be destroyed before the connection.
//
// Prepared statements are kept per connection, keyed by their SQL text: a
// SqliteQuery takes a free one (or prepares it) and gives it back, reset and
// with its bindings cleared, when destroyed. All of them are finalized before
// the connection closes.
//
// Threads: the connection runs in SQLite's serialized mode, so two threads may
// use it at once (each with its own statements); the statement cache is
// guarded by a mutex and the error code kept here is an atomic. Under such use
// getLastErrorCode answers for whichever thread stepped last.
class MV_DATABASE_EXPORT SqliteDatabase {
public:
    // How long an operation waits for another connection's lock before it
    // fails as busy, unless setBusyTimeout says otherwise.
    static constexpr int32_t kDefaultBusyTimeoutMs = 5000;

    // Opens (and with OpenCreate, creates) the file. Throws FileIsNotDatabase
    // when SQLite says the file is not a database, DatabaseAccessError for any
    // other failure, with SQLite's message. The connection waits up to
    // kDefaultBusyTimeoutMs for locks held by other connections.
    SqliteDatabase(const std::string& path, OpenMode mode);
    // As above, reading the file through `layer`.
    SqliteDatabase(const std::string& path, OpenMode mode, FileLayer layer);
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

    // Runs a statement that takes no parameters to completion, stepping over
    // any rows it yields; `yieldedRow` (when given) says whether there was
    // one. Unlike executeSimpleQuery it tells a failure (with its kind and
    // SQLite's message) from a statement that merely produced rows. Throws
    // FileIsNotDatabase when the file is not a database.
    Status execute(const std::string& sql, bool* yieldedRow = nullptr);

    // Runs a statement that takes no parameters, handing each row it yields
    // to `onRow` as the text of its columns (absent for NULL). Returns the
    // outcome with SQLite's own message; `prepared` (when given) says whether
    // the failure came after the statement was prepared. Unlike execute it
    // does not throw for a file that is not a database, which a check reports
    // like any other finding. An exception that `onRow` throws ends the
    // statement and goes on to the caller.
    Status visitRows(const std::string& sql,
                     const std::function<void(const std::vector<std::optional<std::string>>& columns)>& onRow,
                     bool* prepared = nullptr);

    // The full path of the file, as SQLite names it.
    std::string filename() const;

    // Replaces the busy timeout of this connection (0: fail at once).
    void setBusyTimeout(int32_t milliseconds);
    int32_t busyTimeout() const { return busyTimeoutMs_; }

    // Calls `handler` after about every `instructions` virtual-machine
    // instructions that statements on this connection run, until
    // clearProgressHandler: the only measure of progress inside one long
    // statement (an index build). The handler must not use the connection;
    // an exception it throws is dropped. One handler at a time; set and
    // clear it from the thread that runs the statements.
    void setProgressHandler(int32_t instructions, std::function<void()> handler);
    void clearProgressHandler() noexcept;

    // Closes the connection before destruction (its statements must be gone);
    // nothing but destruction may follow. Never throws.
    void close() noexcept;

    // True when the connection cannot write (opened read-only, or the file
    // is write-protected).
    bool isReadOnly() const;

    // The SQLite extended result code of the most recent step on this
    // connection: 0 when it succeeded, otherwise its failure code (13 disk
    // full, 266/778 I/O errors, 787 foreign key, ...).
    int32_t getLastErrorCode() const;

    // Row id of the most recent successful INSERT on this connection.
    int64_t getLastInsertedRowId() const;

    // True while an explicit transaction (BEGIN ... COMMIT) is open. SQLite may
    // end one by itself after some failures (a full disk, an I/O error).
    bool isInTransaction() const;

    // Prepared statements kept for reuse (free ones only); for diagnostics.
    std::size_t cachedStatementCount() const;

    // Makes `writes` write out before every statement this connection steps,
    // until replaced or cleared (nullptr). One holder at a time; the holder
    // clears it before `writes` is destroyed.
    void setPendingWrites(PendingWrites* writes) noexcept;

private:
    friend class SqliteQuery;
    class StatementCache;
    // The free statements of one SQL text.
    struct StatementSlot;

    // Closes the connection it owns; statements are finalized before.
    struct ConnectionCloser {
        MV_DATABASE_HIDDEN void operator()(sqlite3* connection) const noexcept;
    };

    MV_DATABASE_HIDDEN sqlite3* connection() const { return connection_.get(); }
    MV_DATABASE_HIDDEN void recordStepResult(int extendedCode) const;
    // Runs the pending writes, if any, before a statement steps.
    MV_DATABASE_HIDDEN void writePendingWrites() const noexcept;
    enum class StopAt { FirstRow, Completion };
    MV_DATABASE_HIDDEN Status execute(const std::string& sql, bool* yieldedRow, StopAt stopAt);
    // A statement for `sql` that no one else uses, cached or newly prepared,
    // and the slot to give it back to (null when the cache is full). Throws
    // like SqliteQuery's constructor.
    MV_DATABASE_HIDDEN sqlite3_stmt* acquireStatement(std::string_view sql, StatementSlot*& slot) const;
    // Takes back a statement from acquireStatement; never throws.
    MV_DATABASE_HIDDEN void releaseStatement(sqlite3_stmt* statement, StatementSlot* slot) const noexcept;

    // Declared before the cache so that the cache, whose statements belong to
    // the connection, is destroyed first.
    std::unique_ptr<sqlite3, ConnectionCloser> connection_;
    std::unique_ptr<StatementCache> statements_;
    int32_t busyTimeoutMs_ = kDefaultBusyTimeoutMs;
    mutable std::atomic<int32_t> lastErrorCode_{0};
    // Checked before every step: a load, no lock, when nothing is pending.
    std::atomic<PendingWrites*> pendingWrites_{nullptr};
};

}  // namespace Marivane::Database
