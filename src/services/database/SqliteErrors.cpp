#include "SqliteErrors.h"

#include <database/DatabaseBusy.h>
#include <database/FileIsNotDatabase.h>
#include <database/Status.h>
#include <database/UnfinishedCommit.h>

namespace Marivane::Database {

namespace {

// SQLite's own numbers, checked here so that a change of library would fail
// the build instead of misclassifying.
static_assert(SQLITE_OK == 0 && SQLITE_BUSY == 5 && SQLITE_LOCKED == 6 && SQLITE_READONLY == 8);
static_assert(SQLITE_IOERR == 10 && SQLITE_CORRUPT == 11 && SQLITE_FULL == 13 && SQLITE_NOTADB == 26);
static_assert(SQLITE_CONSTRAINT_FOREIGNKEY == 787 && SQLITE_IOERR_READ == 266 && SQLITE_IOERR_WRITE == 778);

}  // namespace

StatusCode classifyResultCode(int32_t resultCode) noexcept {
    if (resultCode == SQLITE_CONSTRAINT_FOREIGNKEY) {
        return StatusCode::ForeignKey;
    }
    switch (resultCode & 0xFF) {
        case SQLITE_OK:
        case SQLITE_ROW:
        case SQLITE_DONE:
            return StatusCode::Ok;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return StatusCode::Busy;
        case SQLITE_CORRUPT:
            return StatusCode::Corrupt;
        case SQLITE_NOTADB:
            return StatusCode::NotADatabase;
        case SQLITE_IOERR:
        case SQLITE_CANTOPEN:
            return StatusCode::IoError;
        case SQLITE_FULL:
            return StatusCode::Full;
        case SQLITE_CONSTRAINT:
            return StatusCode::Constraint;
        case SQLITE_READONLY:
            return StatusCode::ReadOnly;
        case SQLITE_MISUSE:
            return StatusCode::Misuse;
        default:
            return StatusCode::Other;
    }
}

bool isUnfinishedCommit(int32_t resultCode) noexcept {
    return resultCode == SQLITE_READONLY_ROLLBACK || resultCode == SQLITE_READONLY_RECOVERY;
}

bool isReadOrWriteFailure(int32_t resultCode) noexcept {
    return resultCode == SQLITE_IOERR_READ || resultCode == SQLITE_IOERR_WRITE;
}

void throwDatabaseError(int code, const std::string& context, const std::string& sqliteMessage) {
    const std::string message = context + ": " + sqliteMessage;
    switch (classifyResultCode(code)) {
        case StatusCode::NotADatabase:
            throw FileIsNotDatabase(message);
        case StatusCode::Busy:
            throw DatabaseBusy(message);
        case StatusCode::ReadOnly:
            if (isUnfinishedCommit(code)) {
                throw UnfinishedCommit(message);
            }
            throw DatabaseAccessError(message);
        default:
            throw DatabaseAccessError(message);
    }
}

}  // namespace Marivane::Database
