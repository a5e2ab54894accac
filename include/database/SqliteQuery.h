#pragma once

#include <database/BindMode.h>
#include <database/ColumnValue.h>
#include <database/DatabaseExport.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct sqlite3_stmt;

namespace Marivane::Database {

class SqliteDatabase;

// Results of SqliteQuery::executeStep.
inline constexpr int32_t StepRow = 0;     // a result row is available
inline constexpr int32_t StepDone = 1;    // ran to completion
inline constexpr int32_t StepFailed = -1; // failed: see SqliteDatabase::getLastErrorCode

// One prepared statement on a connection.
//
// Ownership: the statement is finalized by the destructor; the connection must
// outlive it. Not copyable or movable.
//
// Threads: one thread at a time per statement. Different statements on the
// same connection may be used from different threads at once.
class MV_DATABASE_EXPORT SqliteQuery {
public:
    // Prepares `sql` on `database`. Throws FileIsNotDatabase when the file is
    // not a database and DatabaseAccessError (with SQLite's message) for any
    // other failure to prepare.
    SqliteQuery(const SqliteDatabase& database, const std::string& sql);
    ~SqliteQuery();

    SqliteQuery(const SqliteQuery&) = delete;
    SqliteQuery& operator=(const SqliteQuery&) = delete;

    // Advances by one row or runs the write: StepRow, StepDone or StepFailed.
    // The outcome is also recorded as the connection's last error code.
    int32_t executeStep();

    // Rewinds the statement so that it can be bound and stepped again; the
    // bindings are kept.
    void resetQuery();

    // Binding a name that the statement does not contain does nothing, so a
    // caller may bind an optional clause's parameter unconditionally.
    void bindParameter(const std::string& name, int32_t value);
    void bindParameter(const std::string& name, int64_t value);
    void bindParameter(const std::string& name, double value);
    // With BindMode::NoCopy `value` must stay alive and unchanged until the
    // statement has been stepped.
    void bindParameter(const std::string& name, const std::string& value, BindMode mode);
    // An empty buffer binds an empty blob, never NULL.
    void bindParameter(const std::string& name, const std::vector<std::byte>& value, BindMode mode);

    // The current row's value of column `column` (from 0) in its stored type;
    // absent for NULL or when no row is available.
    ColumnValue getValueFromColumn(int column) const;

private:
    int parameterIndex(const std::string& name) const;

    const SqliteDatabase& database_;
    sqlite3_stmt* statement_ = nullptr;
    bool hasRow_ = false;
};

}  // namespace Marivane::Database
