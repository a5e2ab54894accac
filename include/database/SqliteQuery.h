#pragma once

#include <database/BindMode.h>
#include <database/ColumnValue.h>
#include <database/DatabaseExport.h>
#include <database/SqliteDatabase.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3_stmt;

namespace Marivane::Database {

// Results of SqliteQuery::executeStep (fixed numbers: the store's callers
// compare against them).
inline constexpr int32_t StepRow = 0;      // a result row is available
inline constexpr int32_t StepDone = 1;     // ran to completion
inline constexpr int32_t StepFailed = -1;  // failed: see SqliteDatabase::getLastErrorCode

// One prepared statement on a connection.
//
// Ownership: the statement belongs to the query for the query's lifetime; the
// destructor gives it back to the connection's cache (reset, bindings
// cleared), so preparing the same text again is cheap. The connection must
// outlive the query. Movable (the statement goes with the move; a moved-from
// query may only be destroyed), not copyable.
//
// Threads: one thread at a time per statement. Different statements on the
// same connection may be used from different threads at once.
class MV_DATABASE_EXPORT SqliteQuery {
public:
    // Prepares `sql` on `database`. Throws FileIsNotDatabase when the file is
    // not a database and DatabaseAccessError (with SQLite's message) for any
    // other failure to prepare.
    SqliteQuery(const SqliteDatabase& database, std::string_view sql);
    ~SqliteQuery();

    SqliteQuery(SqliteQuery&& other) noexcept;
    SqliteQuery& operator=(SqliteQuery&& other) = delete;
    SqliteQuery(const SqliteQuery&) = delete;
    SqliteQuery& operator=(const SqliteQuery&) = delete;

    // Advances by one row or runs the write: StepRow, StepDone or StepFailed.
    // The outcome is also recorded as the connection's last error code.
    int32_t executeStep();

    // The extended result code of this statement's last step: 0 when it
    // succeeded. Unlike the connection's code, no other thread's work on the
    // same connection can change it.
    int32_t getLastResultCode() const { return lastResultCode_; }

    // This statement's last step as a status: Ok after a row or completion,
    // otherwise the failure's kind, code and SQLite's message for it.
    Status status() const;

    // Rewinds the statement so that it can be bound and stepped again; the
    // bindings are kept.
    void resetQuery();

    // Binding a name that the statement does not contain does nothing, so a
    // caller may bind an optional clause's parameter unconditionally. A bind
    // that SQLite refuses (a value too big, no memory) is not lost: the next
    // executeStep fails with its code instead of running the statement with
    // a value missing.
    void bindParameter(const std::string& name, int32_t value);
    void bindParameter(const std::string& name, int64_t value);
    void bindParameter(const std::string& name, double value);
    // With BindMode::NoCopy `value` must stay alive and unchanged until the
    // statement has been stepped.
    void bindParameter(const std::string& name, const std::string& value, BindMode mode);
    // An empty buffer binds an empty blob, never NULL.
    void bindParameter(const std::string& name, const std::vector<std::byte>& value, BindMode mode);

    // For a statement bound again and again (an insert held for many rows):
    // the place of parameter `name` (from 1; 0 when the statement has none),
    // looked up once, then binding by place, which finds nothing by name.
    int parameterPlace(const std::string& name) const;
    void bindAt(int place, int64_t value);
    // `size` bytes at `data`; an empty blob (never NULL) for no bytes. With
    // BindMode::NoCopy they must stay alive until the statement is stepped.
    void bindBytesAt(int place, const std::byte* data, std::size_t size, BindMode mode);

    // The current row's value of column `column` (from 0) in its stored type;
    // absent for NULL or when no row is available.
    ColumnValue getValueFromColumn(int column) const;

    // The current row's blob or text bytes in column `column`, borrowed from
    // the statement rather than copied: valid until the next step, reset or
    // destruction of the query. Absent for NULL, for a number, or when no row
    // is available.
    // The current row's integer in column `column`; absent for NULL, any
    // other stored type, or when no row is available. Nothing is converted.
    // Cheaper than getValueFromColumn for readers that touch every row.
    std::optional<int64_t> getIntegerFromColumn(int column) const;

    struct BorrowedBytes {
        const std::byte* data;
        std::size_t size;
    };

    // One column of the current row as readColumns finds it: an integer, or
    // borrowed bytes (blob or text; valid like borrowBytesFromColumn's), or
    // neither (NULL, a real, no row).
    // readColumns sets every field; left uninitialised on purpose, so that a
    // reader's array of them costs nothing before it is filled.
    struct RawColumn {
        bool isInteger;
        bool isBytes;
        int64_t integer;
        BorrowedBytes bytes;
    };
    // Columns 0 to count - 1 of the current row in one call: for readers of
    // every row of a table, where a call per column costs as much as the row.
    void readColumns(RawColumn* columns, int count) const;
    std::optional<BorrowedBytes> borrowBytesFromColumn(int column) const;

private:
    MV_DATABASE_HIDDEN int parameterIndex(const std::string& name) const;

    const SqliteDatabase* database_;
    SqliteDatabase::StatementSlot* slot_ = nullptr;
    sqlite3_stmt* statement_ = nullptr;
    bool hasRow_ = false;
    int32_t lastResultCode_ = 0;
    // The first refused bind since the statement was last stepped; 0 if none.
    int32_t bindFailure_ = 0;
    MV_DATABASE_HIDDEN void noteBind(int code);
};

}  // namespace Marivane::Database
