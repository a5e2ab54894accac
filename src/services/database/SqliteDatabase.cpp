#include <database/SqliteDatabase.h>

#include "SqliteErrors.h"
#include "SqliteHandles.h"
#include "StatementSlot.h"
#include "StrictFileLayer.h"

#include <sqlite3.h>

#include <database/DatabaseAccessError.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
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
    std::size_t operator()(std::string_view text) const noexcept {
        return std::hash<std::string_view>{}(text);
    }
};

// Opening a FIFO, a socket or a device would block or read something that is
// not a file; a missing path (which may be created) and a directory (which
// SQLite refuses itself) go on to SQLite.
void refuseSpecialFile(const std::string& path) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(path, error);
    if (error || !std::filesystem::exists(status) || std::filesystem::is_regular_file(status) ||
        std::filesystem::is_directory(status)) {
        return;
    }
    throw DatabaseAccessError("Cannot open database '" + path + "': it is not a regular file.");
}

}  // namespace

class SqliteDatabase::StatementCache {
public:
    StatementCache() = default;
    StatementCache(const StatementCache&) = delete;
    StatementCache& operator=(const StatementCache&) = delete;
    ~StatementCache() { finalizeAll(); }

    // The connection's progress handler (setProgressHandler), where SQLite's
    // callback points while one is set. It lives in this private object, not
    // in SqliteDatabase, whose size is part of the shared library's interface.
    std::unique_ptr<std::function<void()>> progressHandler;

    // A free statement of `sql` (null when there is none) and its slot (null
    // when the cache is full and the text is not in it).
    StatementHandle take(std::string_view sql, StatementSlot*& slot) {
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
        StatementHandle statement = std::move(slot->free.back());
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

    void giveBack(StatementHandle statement, StatementSlot& slot) {
        std::lock_guard lock(mutex_);
        slot.free.push_back(std::move(statement));
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
            slot.free.clear();
        }
    }

private:
    std::mutex mutex_;
    // Nodes never move, so slots handed out stay valid until destruction.
    std::unordered_map<std::string, StatementSlot, TransparentHash, std::equal_to<>> slots_;
};

void SqliteDatabase::ConnectionCloser::operator()(sqlite3* connection) const noexcept {
    sqlite3_close_v2(connection);
}

SqliteDatabase::SqliteDatabase(const std::string& path, OpenMode mode)
    : SqliteDatabase(path, mode, FileLayer::Strict) {}

SqliteDatabase::SqliteDatabase(const std::string& path, OpenMode mode, FileLayer layer)
    : statements_(std::make_unique<StatementCache>()) {
    refuseSpecialFile(path);
    sqlite3* opened = nullptr;
    const int code = sqlite3_open_v2(path.c_str(), &opened, mode | kThreadingFlags,
                                     layer == FileLayer::Strict ? strictFileLayerName() : nullptr);
    // SQLite hands out a connection even when opening fails; it must be closed.
    connection_.reset(opened);
    if (code != SQLITE_OK) {
        const std::string sqliteMessage =
            connection_ ? sqlite3_errmsg(connection_.get()) : sqlite3_errstr(code);
        connection_.reset();
        throwDatabaseError(code, "Cannot open database '" + path + "'", sqliteMessage);
    }
    sqlite3_extended_result_codes(connection(), 1);
    sqlite3_busy_timeout(connection(), busyTimeoutMs_);
}

SqliteDatabase::~SqliteDatabase() {
    close();
}

void SqliteDatabase::close() noexcept {
    statements_->finalizeAll();
    connection_.reset();
}

sqlite3_stmt* SqliteDatabase::acquireStatement(std::string_view sql, StatementSlot*& slot) const {
    if (StatementHandle cached = statements_->take(sql, slot)) {
        return cached.release();
    }
    int code = SQLITE_OK;
    StatementHandle statement = prepareStatement(connection(), sql.data(), static_cast<int>(sql.size()),
                                                 slot ? SQLITE_PREPARE_PERSISTENT : 0, code);
    if (!statement) {
        recordStepResult(code);
        throwDatabaseError(code, "Cannot prepare '" + std::string(sql) + "'", sqlite3_errmsg(connection()));
    }
    if (slot != nullptr) {
        statements_->learnParameterNames(statement.get(), *slot);
    }
    return statement.release();
}

void SqliteDatabase::releaseStatement(sqlite3_stmt* raw, StatementSlot* slot) const noexcept {
    StatementHandle statement(raw);
    if (slot == nullptr) {
        return;
    }
    // Reset and unbind at once: bindings made without a copy must not outlive
    // the caller's buffers.
    sqlite3_reset(statement.get());
    sqlite3_clear_bindings(statement.get());
    try {
        statements_->giveBack(std::move(statement), *slot);
    } catch (...) {
        // Not kept: the handle finalizes it.
    }
}

bool SqliteDatabase::executeSimpleQuery(const std::string& sql) {
    bool yieldedRow = false;
    const Status status = execute(sql, &yieldedRow, StopAt::FirstRow);
    // A statement that yields a row has not run to completion: check pragmas
    // such as "PRAGMA foreign_key_check(t);" thus fail exactly when they find
    // a problem.
    return status.ok() && !yieldedRow;
}

Status SqliteDatabase::execute(const std::string& sql, bool* yieldedRow) {
    return execute(sql, yieldedRow, StopAt::Completion);
}

Status SqliteDatabase::execute(const std::string& sql, bool* yieldedRow, StopAt stopAt) {
    writePendingWrites();
    if (yieldedRow != nullptr) {
        *yieldedRow = false;
    }
    int code = SQLITE_OK;
    StatementHandle statement =
        prepareStatement(connection(), sql.c_str(), static_cast<int>(sql.size() + 1), 0, code);
    if (!statement) {
        recordStepResult(code);
        const std::string sqliteMessage = sqlite3_errmsg(connection());
        if (isNotADatabase(code)) {
            throwDatabaseError(code, "Cannot run '" + sql + "'", sqliteMessage);
        }
        return Status(code, sqliteMessage);
    }
    int stepped = sqlite3_step(statement.get());
    while (stepped == SQLITE_ROW) {
        if (yieldedRow != nullptr) {
            *yieldedRow = true;
        }
        if (stopAt == StopAt::FirstRow) {
            stepped = SQLITE_DONE;
            break;
        }
        stepped = sqlite3_step(statement.get());
    }
    code = stepped == SQLITE_DONE ? SQLITE_OK : stepped;
    const std::string sqliteMessage = code == SQLITE_OK ? std::string() : sqlite3_errmsg(connection());
    statement.reset();
    recordStepResult(code);
    if (isNotADatabase(code)) {
        throwDatabaseError(code, "Cannot run '" + sql + "'", sqliteMessage);
    }
    return Status(code, sqliteMessage);
}

Status SqliteDatabase::visitRows(
    const std::string& sql,
    const std::function<void(const std::vector<std::optional<std::string>>& columns)>& onRow,
    bool* prepared) {
    writePendingWrites();
    if (prepared != nullptr) {
        *prepared = false;
    }
    int code = SQLITE_OK;
    StatementHandle statement =
        prepareStatement(connection(), sql.c_str(), static_cast<int>(sql.size() + 1), 0, code);
    if (!statement) {
        code = sqlite3_extended_errcode(connection());
        recordStepResult(code);
        return Status(code, sqlite3_errmsg(connection()));
    }
    if (prepared != nullptr) {
        *prepared = true;
    }
    std::vector<std::optional<std::string>> columns(
        static_cast<std::size_t>(sqlite3_column_count(statement.get())));
    int stepped = SQLITE_ROW;
    while ((stepped = sqlite3_step(statement.get())) == SQLITE_ROW) {
        for (std::size_t column = 0; column < columns.size(); ++column) {
            const auto* text =
                reinterpret_cast<const char*>(sqlite3_column_text(statement.get(), static_cast<int>(column)));
            columns[column] = text ? std::optional<std::string>(text) : std::nullopt;
        }
        onRow(columns);
    }
    code = stepped == SQLITE_DONE ? SQLITE_OK : stepped;
    const std::string sqliteMessage = code == SQLITE_OK ? std::string() : sqlite3_errmsg(connection());
    recordStepResult(code);
    return Status(code, sqliteMessage);
}

std::string SqliteDatabase::filename() const {
    const char* name = sqlite3_db_filename(connection(), "main");
    return name ? name : "";
}

void SqliteDatabase::setBusyTimeout(int32_t milliseconds) {
    busyTimeoutMs_ = milliseconds;
    sqlite3_busy_timeout(connection(), milliseconds);
}

namespace {

// SQLite's progress callback: 0 lets the statement go on.
int callProgressHandler(void* handler) noexcept {
    try {
        (*static_cast<std::function<void()>*>(handler))();
    } catch (...) {
        // Reporting progress never ends the statement it reports on.
    }
    return 0;
}

}  // namespace

void SqliteDatabase::setProgressHandler(int32_t instructions, std::function<void()> handler) {
    auto installed = std::make_unique<std::function<void()>>(std::move(handler));
    sqlite3_progress_handler(connection(), instructions, callProgressHandler, installed.get());
    statements_->progressHandler = std::move(installed);
}

void SqliteDatabase::clearProgressHandler() noexcept {
    sqlite3_progress_handler(connection(), 0, nullptr, nullptr);
    statements_->progressHandler.reset();
}

bool SqliteDatabase::isReadOnly() const {
    return sqlite3_db_readonly(connection(), "main") == 1;
}

int32_t SqliteDatabase::getLastErrorCode() const {
    return lastErrorCode_.load(std::memory_order_relaxed);
}

int64_t SqliteDatabase::getLastInsertedRowId() const {
    return sqlite3_last_insert_rowid(connection());
}

std::size_t SqliteDatabase::cachedStatementCount() const {
    return statements_->freeCount();
}

bool SqliteDatabase::isInTransaction() const {
    return sqlite3_get_autocommit(connection()) == 0;
}

void SqliteDatabase::recordStepResult(int extendedCode) const {
    lastErrorCode_.store(extendedCode, std::memory_order_relaxed);
}

void SqliteDatabase::setPendingWrites(PendingWrites* writes) noexcept {
    pendingWrites_.store(writes, std::memory_order_release);
}

void SqliteDatabase::writePendingWrites() const noexcept {
    PendingWrites* pending = pendingWrites_.load(std::memory_order_acquire);
    if (pending == nullptr) {
        return;
    }
    // The statements that write the rows out step through here too.
    thread_local bool writingOut = false;
    if (writingOut) {
        return;
    }
    writingOut = true;
    pending->writeOut();
    writingOut = false;
}

}  // namespace Marivane::Database
