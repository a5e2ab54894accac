#include <database/SqliteQuery.h>

#include <database/SqliteDatabase.h>

#include "StatementSlot.h"

#include <sqlite3.h>

#include <utility>

namespace Marivane::Database {

namespace {

sqlite3_destructor_type destructorFor(BindMode mode) {
    return mode == BindMode::NoCopy ? SQLITE_STATIC : SQLITE_TRANSIENT;
}

}  // namespace

SqliteQuery::SqliteQuery(const SqliteDatabase& database, std::string_view sql)
    : database_(&database), statement_(database.acquireStatement(sql, slot_)) {}

SqliteQuery::SqliteQuery(SqliteQuery&& other) noexcept
    : database_(other.database_),
      slot_(other.slot_),
      statement_(std::exchange(other.statement_, nullptr)),
      hasRow_(other.hasRow_),
      lastResultCode_(other.lastResultCode_),
      bindFailure_(other.bindFailure_) {}

SqliteQuery::~SqliteQuery() {
    if (statement_ != nullptr) {
        database_->releaseStatement(statement_, slot_);
    }
}

void SqliteQuery::noteBind(int code) {
    if (code != SQLITE_OK && bindFailure_ == 0) {
        bindFailure_ = code;
    }
}

int32_t SqliteQuery::executeStep() {
    database_->writePendingWrites();
    if (bindFailure_ != 0) {
        hasRow_ = false;
        lastResultCode_ = std::exchange(bindFailure_, 0);
        database_->recordStepResult(lastResultCode_);
        return StepFailed;
    }
    const int code = sqlite3_step(statement_);
    hasRow_ = code == SQLITE_ROW;
    lastResultCode_ = code == SQLITE_ROW || code == SQLITE_DONE ? SQLITE_OK : code;
    database_->recordStepResult(lastResultCode_);
    if (code == SQLITE_ROW) {
        return StepRow;
    }
    return code == SQLITE_DONE ? StepDone : StepFailed;
}

Status SqliteQuery::status() const {
    if (lastResultCode_ == SQLITE_OK) {
        return Status::success();
    }
    return Status(lastResultCode_, sqlite3_errstr(lastResultCode_));
}

void SqliteQuery::resetQuery() {
    sqlite3_reset(statement_);
    hasRow_ = false;
}

int SqliteQuery::parameterIndex(const std::string& name) const {
    if (slot_ != nullptr) {
        return slot_->parameterIndex(name);
    }
    return sqlite3_bind_parameter_index(statement_, name.c_str());
}

void SqliteQuery::bindParameter(const std::string& name, int32_t value) {
    if (const int index = parameterIndex(name)) {
        noteBind(sqlite3_bind_int(statement_, index, value));
    }
}

void SqliteQuery::bindParameter(const std::string& name, int64_t value) {
    if (const int index = parameterIndex(name)) {
        noteBind(sqlite3_bind_int64(statement_, index, value));
    }
}

void SqliteQuery::bindParameter(const std::string& name, double value) {
    if (const int index = parameterIndex(name)) {
        noteBind(sqlite3_bind_double(statement_, index, value));
    }
}

void SqliteQuery::bindParameter(const std::string& name, const std::string& value, BindMode mode) {
    if (const int index = parameterIndex(name)) {
        noteBind(sqlite3_bind_text64(statement_, index, value.data(), value.size(), destructorFor(mode),
                                     SQLITE_UTF8));
    }
}

void SqliteQuery::bindParameter(const std::string& name, const std::vector<std::byte>& value, BindMode mode) {
    const int index = parameterIndex(name);
    if (index == 0) {
        return;
    }
    if (value.empty()) {
        // A null data pointer would bind NULL; the columns want an empty blob.
        noteBind(sqlite3_bind_zeroblob(statement_, index, 0));
        return;
    }
    noteBind(sqlite3_bind_blob64(statement_, index, value.data(), value.size(), destructorFor(mode)));
}

int SqliteQuery::parameterPlace(const std::string& name) const {
    return parameterIndex(name);
}

void SqliteQuery::bindAt(int place, int64_t value) {
    if (place != 0) {
        noteBind(sqlite3_bind_int64(statement_, place, value));
    }
}

void SqliteQuery::bindBytesAt(int place, const std::byte* data, std::size_t size, BindMode mode) {
    if (place == 0) {
        return;
    }
    if (size == 0) {
        noteBind(sqlite3_bind_zeroblob(statement_, place, 0));
        return;
    }
    noteBind(sqlite3_bind_blob64(statement_, place, data, size, destructorFor(mode)));
}

void SqliteQuery::readColumns(RawColumn* columns, int count) const {
    for (int column = 0; column < count; ++column) {
        RawColumn& out = columns[column];
        out.isInteger = false;
        out.isBytes = false;
        out.integer = 0;
        out.bytes = BorrowedBytes{nullptr, 0};
        if (!hasRow_) {
            continue;
        }
        sqlite3_value* value = sqlite3_column_value(statement_, column);
        switch (sqlite3_value_type(value)) {
            case SQLITE_INTEGER:
                out.isInteger = true;
                out.integer = sqlite3_value_int64(value);
                break;
            case SQLITE_BLOB:
            case SQLITE_TEXT: {
                const auto* bytes = static_cast<const std::byte*>(sqlite3_value_blob(value));
                const auto size = static_cast<std::size_t>(sqlite3_value_bytes(value));
                out.isBytes = true;
                out.bytes = BorrowedBytes{bytes, bytes == nullptr ? 0 : size};
                break;
            }
            default:
                break;
        }
    }
}

std::optional<int64_t> SqliteQuery::getIntegerFromColumn(int column) const {
    if (!hasRow_) {
        return std::nullopt;
    }
    sqlite3_value* value = sqlite3_column_value(statement_, column);
    if (sqlite3_value_type(value) != SQLITE_INTEGER) {
        return std::nullopt;
    }
    return sqlite3_value_int64(value);
}

std::optional<SqliteQuery::BorrowedBytes> SqliteQuery::borrowBytesFromColumn(int column) const {
    if (!hasRow_) {
        return std::nullopt;
    }
    sqlite3_value* value = sqlite3_column_value(statement_, column);
    const int type = sqlite3_value_type(value);
    if (type != SQLITE_BLOB && type != SQLITE_TEXT) {
        return std::nullopt;
    }
    const auto* bytes = static_cast<const std::byte*>(sqlite3_value_blob(value));
    const auto size = static_cast<std::size_t>(sqlite3_value_bytes(value));
    return BorrowedBytes{bytes, bytes == nullptr ? 0 : size};
}

ColumnValue SqliteQuery::getValueFromColumn(int column) const {
    if (!hasRow_) {
        return std::nullopt;
    }
    // One call that takes the connection's mutex, then plain reads of the
    // value: every sqlite3_column_* call would lock it again. The value belongs
    // to this statement's current row, which no other thread touches, and none
    // of the reads below allocates (the text is read as bytes, so SQLite need
    // neither convert nor terminate it).
    sqlite3_value* value = sqlite3_column_value(statement_, column);
    switch (sqlite3_value_type(value)) {
        case SQLITE_INTEGER:
            return ColumnValue{std::in_place, std::in_place_index<0>, sqlite3_value_int64(value)};
        case SQLITE_FLOAT:
            return ColumnValue{std::in_place, std::in_place_index<1>, sqlite3_value_double(value)};
        case SQLITE_TEXT: {
            const auto* text = static_cast<const char*>(sqlite3_value_blob(value));
            const auto size = static_cast<std::size_t>(sqlite3_value_bytes(value));
            return ColumnValue{std::in_place, std::in_place_index<2>,
                               text ? std::string(text, size) : std::string()};
        }
        case SQLITE_BLOB: {
            const auto* bytes = static_cast<const std::byte*>(sqlite3_value_blob(value));
            const int size = sqlite3_value_bytes(value);
            return ColumnValue{std::in_place, std::in_place_index<3>, bytes, bytes + size};
        }
        default:
            return std::nullopt;
    }
}

}  // namespace Marivane::Database
