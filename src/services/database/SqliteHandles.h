#pragma once

#include <sqlite3.h>

#include <memory>

namespace Marivane::Database {

// Owners of SQLite's raw handles: whatever path a function leaves by, a
// prepared statement is finalized exactly once.
struct StatementFinalizer {
    void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
};
using StatementHandle = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

// Prepares `sql` (its whole length) on `connection`; the handle is empty and
// `code` holds SQLite's result when that fails.
inline StatementHandle prepareStatement(sqlite3* connection, const char* sql, int length, unsigned flags,
                                        int& code) {
    sqlite3_stmt* raw = nullptr;
    code = sqlite3_prepare_v3(connection, sql, length, flags, &raw, nullptr);
    StatementHandle statement(raw);
    if (code != SQLITE_OK) {
        statement.reset();
    }
    return statement;
}

}  // namespace Marivane::Database
