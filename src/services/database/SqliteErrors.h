#pragma once

#include <sqlite3.h>

#include <string>

namespace Marivane::Database {

// Throws FileIsNotDatabase for SQLite's not-a-database code, otherwise
// DatabaseAccessError; `context` says what was being done.
[[noreturn]] void throwDatabaseError(int code, const std::string& context, const std::string& sqliteMessage);

inline bool isNotADatabase(int code) {
    return (code & 0xFF) == SQLITE_NOTADB;
}

}  // namespace Marivane::Database
