#include <database/SqliteDatabase.h>

#include "SqliteErrors.h"

#include <sqlite3.h>

namespace Marivane::Database {

namespace {

// The connection is shared by the player's worker (reading entries) and the
// controlling thread (editing bookmarks), so SQLite must serialize it.
constexpr int kThreadingFlags = SQLITE_OPEN_FULLMUTEX;

}  // namespace

SqliteDatabase::SqliteDatabase(const std::string& path, OpenMode mode) {
    const int code = sqlite3_open_v2(path.c_str(), &connection_, mode | kThreadingFlags, nullptr);
    if (code != SQLITE_OK) {
        const std::string sqliteMessage = connection_ ? sqlite3_errmsg(connection_) : sqlite3_errstr(code);
        sqlite3_close_v2(connection_);
        connection_ = nullptr;
        throwDatabaseError(code, "Cannot open database '" + path + "'", sqliteMessage);
    }
    sqlite3_extended_result_codes(connection_, 1);
}

SqliteDatabase::~SqliteDatabase() { sqlite3_close_v2(connection_); }

bool SqliteDatabase::executeSimpleQuery(const std::string& sql) {
    sqlite3_stmt* statement = nullptr;
    const int prepared = sqlite3_prepare_v2(connection_, sql.c_str(), static_cast<int>(sql.size() + 1),
                                            &statement, nullptr);
    if (prepared != SQLITE_OK) {
        recordStepResult(prepared);
        const std::string sqliteMessage = sqlite3_errmsg(connection_);
        sqlite3_finalize(statement);
        if (isNotADatabase(prepared)) {
            throwDatabaseError(prepared, "Cannot run '" + sql + "'", sqliteMessage);
        }
        return false;
    }
    const int stepped = sqlite3_step(statement);
    sqlite3_finalize(statement);
    if (stepped == SQLITE_DONE) {
        recordStepResult(SQLITE_OK);
        return true;
    }
    if (stepped == SQLITE_ROW) {
        recordStepResult(SQLITE_OK);
        return false;
    }
    recordStepResult(stepped);
    if (isNotADatabase(stepped)) {
        throwDatabaseError(stepped, "Cannot run '" + sql + "'", sqlite3_errstr(stepped));
    }
    return false;
}

int32_t SqliteDatabase::getLastErrorCode() const { return lastErrorCode_.load(std::memory_order_relaxed); }

int64_t SqliteDatabase::getLastInsertedRowId() const { return sqlite3_last_insert_rowid(connection_); }

void SqliteDatabase::recordStepResult(int extendedCode) const {
    lastErrorCode_.store(extendedCode, std::memory_order_relaxed);
}

}  // namespace Marivane::Database
