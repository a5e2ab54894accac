#pragma once

namespace Marivane::Database {

// Writes that the user of a connection holds back so that it can run many of
// them in one statement. A connection holding a PendingWrites
// (SqliteDatabase::setPendingWrites) calls writeOut before it steps any
// statement, so every read and write on it sees them, and in the order they
// were made.
//
// Ownership: the holder owns the object and clears it from the connection
// before destroying it.
//
// Threads: writeOut runs on whichever thread steps a statement on the
// connection; an implementation serializes its own state. A connection never
// calls it again from inside writeOut on the same thread, so the statements
// that write the rows out do not recurse.
class PendingWrites {
public:
    // Writes out whatever is held back. Never throws: a failure belongs to
    // the holder, which records and reports it.
    virtual void writeOut() noexcept = 0;

protected:
    PendingWrites() = default;
    ~PendingWrites() = default;
    PendingWrites(const PendingWrites&) = default;
    PendingWrites& operator=(const PendingWrites&) = default;
};

}  // namespace Marivane::Database
