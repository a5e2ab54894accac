#include <database/Transaction.h>

#include <database/DatabaseAccessError.h>

#include "SqliteErrors.h"

#include <chrono>
#include <thread>

namespace Marivane::Database {

Transaction::Transaction(SqliteDatabase& database) : database_(&database) {
    const Status begun = database.execute("BEGIN IMMEDIATE;");
    if (!begun.ok()) {
        throwDatabaseError(begun.resultCode(), "Cannot begin a write transaction", begun.message());
    }
}

Transaction::~Transaction() {
    rollback();
}

Transaction::Transaction(Transaction&& other) noexcept : database_(other.database_) {
    other.database_ = nullptr;
}

bool Transaction::isOpen() const {
    return database_ != nullptr && database_->isInTransaction();
}

Status Transaction::commit(int32_t maxWaitMs) {
    if (!isOpen()) {
        database_ = nullptr;
        return Status::success();
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(maxWaitMs);
    for (;;) {
        Status committed = database_->execute("COMMIT;");
        if (committed.ok()) {
            database_ = nullptr;
            return committed;
        }
        if (!committed.isBusy()) {
            rollback();
            return committed;
        }
        // SQLite keeps the transaction open after a busy COMMIT; the readers
        // in the way finish their reads eventually.
        if (std::chrono::steady_clock::now() >= deadline) {
            return committed;
        }
        if (database_->busyTimeout() == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

void Transaction::rollback() noexcept {
    if (database_ == nullptr) {
        return;
    }
    if (database_->isInTransaction()) {
        try {
            (void)database_->execute("ROLLBACK;");
        } catch (...) {
            // Closing the connection rolls back what is left.
        }
    }
    database_ = nullptr;
}

}  // namespace Marivane::Database
