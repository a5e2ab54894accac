#include <database/SqliteDatabase.h>

#include "SqliteErrors.h"
#include "StatementSlot.h"

#include <sqlite3.h>

#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace Marivane::Database {

namespace {

// The connection is shared by the player's worker (reading entries) and the
// controlling thread (editing bookmarks), so SQLite must serialize it.
constexpr int kThreadingFlags = SQLITE_OPEN_FULLMUTEX;

static_assert(OpenReadOnly == SQLITE_OPEN_READONLY && OpenReadWrite == SQLITE_OPEN_READWRITE &&
              OpenCreate == SQLITE_OPEN_CREATE);

// Distinct statement texts kept per connection. The store uses about forty;
// filtered reads add one text per shape of filter, which is not bounded.
constexpr std::size_t kMaxCachedTexts = 128;

struct TransparentHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>{}(text); }
};

}  // namespace

class SqliteDatabase::StatementCache {
public:
    StatementCache() = default;
    StatementCache(const StatementCache&) = delete;
    StatementCache& operator=(const StatementCache&) = delete;
    ~StatementCache() { finalizeAll(); }

    // A free statement of `sql` (null when there is none) and its slot (null
    // when the cache is full and the text is not in it).
    sqlite3_stmt* take(std::string_view sql, StatementSlot*& slot) {
        std::lock_guard lock(mutex_);
        auto found = slots_.find(sql);
        if (found == slots_.end()) {
            if (slots_.size() >= kMaxCachedTexts) {
                slot = nullptr;
                return nullptr;
            }
            found = slots_.emplace(std::string(sql), StatementSlot{}).first;
        }
        slot = &found->second;
        if (slot->free.empty()) {
            return nullptr;
        }
        sqlite3_stmt* statement = slot->free.back();
        slot->free.pop_back();
        return statement;
    }

    void learnParameterNames(sqlite3_stmt* statement, StatementSlot& slot) {
        std::lock_guard lock(mutex_);
        if (slot.parameterNamesKnown) {
            return;
        }
        const int count = sqlite3_bind_parameter_count(statement);
        for (int index = 1; index <= count; ++index) {
            const char* name = sqlite3_bind_parameter_name(statement, index);
            slot.parameterNames.emplace_back(name ? name : "");
        }
        slot.parameterNamesKnown = true;
    }

    void giveBack(sqlite3_stmt* statement, StatementSlot& slot) {
        std::lock_guard lock(mutex_);
        slot.free.push_back(statement);
    }

    std::size_t freeCount() {
        std::lock_guard lock(mutex_);
        std::size_t count = 0;
        for (const auto& entry : slots_) {
            count += entry.second.free.size();
        }
        return count;
    }

    void finalizeAll() noexcept {
        std::lock_guard lock(mutex_);
        for (auto& [sql, slot] : slots_) {
            for (sqlite3_stmt* statement : slot.free) {
                sqlite3_finalize(statement);
            }
            slot.free.clear();
        }
    }

private:
    std::mutex mutex_;
    // Nodes never move, so slots handed out stay valid until destruction.
    std::unordered_map<std::string, StatementSlot, TransparentHash, std::equal_to<>> slots_;
};

SqliteDatabase::SqliteDatabase(const std::string& path, OpenMode mode)
    : statements_(std::make_unique<StatementCache>()) {
    const int code = sqlite3_open_v2(path.c_str(), &connection_, mode | kThreadingFlags, nullptr);
    if (code != SQLITE_OK) {
        const std::string sqliteMessage = connection_ ? sqlite3_errmsg(connection_) : sqlite3_errstr(code);
        sqlite3_close_v2(connection_);
        connection_ = nullptr;
        throwDatabaseError(code, "Cannot open database '" + path + "'", sqliteMessage);
    }
    sqlite3_extended_result_codes(connection_, 1);
    sqlite3_busy_timeout(connection_, busyTimeoutMs_);
}

SqliteDatabase::~SqliteDatabase() { close(); }

void SqliteDatabase::close() noexcept {
    statements_->finalizeAll();
    sqlite3_close_v2(connection_);
    connection_ = nullptr;
}

sqlite3_stmt* SqliteDatabase::acquireStatement(std::string_view sql, StatementSlot*& slot) const {
    if (sqlite3_stmt* cached = statements_->take(sql, slot)) {
        return cached;
    }
    sqlite3_stmt* statement = nullptr;
    const int code = sqlite3_prepare_v3(connection_, sql.data(), static_cast<int>(sql.size()),
                                        slot ? SQLITE_PREPARE_PERSISTENT : 0, &statement, nullptr);
    if (code != SQLITE_OK) {
        recordStepResult(code);
        const std::string sqliteMessage = sqlite3_errmsg(connection_);
        sqlite3_finalize(statement);
        throwDatabaseError(code, "Cannot prepare '" + std::string(sql) + "'", sqliteMessage);
    }
    if (slot != nullptr) {
        try {
            statements_->learnParameterNames(statement, *slot);
        } catch (...) {
            sqlite3_finalize(statement);
            throw;
        }
    }
    return statement;
}

void SqliteDatabase::releaseStatement(sqlite3_stmt* statement, StatementSlot* slot) const noexcept {
    if (slot == nullptr) {
        sqlite3_finalize(statement);
        return;
    }
    // Reset and unbind at once: bindings made without a copy must not outlive
    // the caller's buffers.
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    try {
        statements_->giveBack(statement, *slot);
    } catch (...) {
        sqlite3_finalize(statement);
    }
}

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

Status SqliteDatabase::execute(const std::string& sql, bool* yieldedRow) {
    if (yieldedRow != nullptr) {
        *yieldedRow = false;
    }
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
        return Status(prepared, sqliteMessage);
    }
    int stepped = sqlite3_step(statement);
    while (stepped == SQLITE_ROW) {
        if (yieldedRow != nullptr) {
            *yieldedRow = true;
        }
        stepped = sqlite3_step(statement);
    }
    const int code = stepped == SQLITE_DONE ? SQLITE_OK : sqlite3_extended_errcode(connection_);
    const std::string sqliteMessage = code == SQLITE_OK ? std::string() : sqlite3_errmsg(connection_);
    sqlite3_finalize(statement);
    recordStepResult(code);
    if (isNotADatabase(code)) {
        throwDatabaseError(code, "Cannot run '" + sql + "'", sqliteMessage);
    }
    return Status(code, sqliteMessage);
}

void SqliteDatabase::setBusyTimeout(int32_t milliseconds) {
    busyTimeoutMs_ = milliseconds;
    sqlite3_busy_timeout(connection_, milliseconds);
}

bool SqliteDatabase::isReadOnly() const { return sqlite3_db_readonly(connection_, "main") == 1; }

int32_t SqliteDatabase::getLastErrorCode() const { return lastErrorCode_.load(std::memory_order_relaxed); }

int64_t SqliteDatabase::getLastInsertedRowId() const { return sqlite3_last_insert_rowid(connection_); }

std::size_t SqliteDatabase::cachedStatementCount() const { return statements_->freeCount(); }

bool SqliteDatabase::isInTransaction() const { return sqlite3_get_autocommit(connection_) == 0; }

void SqliteDatabase::recordStepResult(int extendedCode) const {
    lastErrorCode_.store(extendedCode, std::memory_order_relaxed);
}

}  // namespace Marivane::Database
