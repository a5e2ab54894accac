#include "SqliteErrors.h"

#include <database/FileIsNotDatabase.h>

namespace Marivane::Database {

void throwDatabaseError(int code, const std::string& context, const std::string& sqliteMessage) {
    const std::string message = context + ": " + sqliteMessage;
    if (isNotADatabase(code)) {
        throw FileIsNotDatabase(message);
    }
    throw DatabaseAccessError(message);
}

}  // namespace Marivane::Database
