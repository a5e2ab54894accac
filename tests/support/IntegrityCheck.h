#pragma once

#include <sqlite3.h>

#include <string>

namespace Marivane::Testing {

// SQLite's own verdict on a file, through a connection of its own (read-only
// unless `flags` says otherwise): true when `PRAGMA integrity_check` says ok.
inline bool integrityCheckPasses(const std::string& path, int flags = SQLITE_OPEN_READONLY) {
    sqlite3* db = nullptr;
    bool ok = false;
    if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) == SQLITE_OK) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db, "PRAGMA integrity_check;", -1, &statement, nullptr) == SQLITE_OK &&
            sqlite3_step(statement) == SQLITE_ROW) {
            ok = std::string(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0))) == "ok";
        }
        sqlite3_finalize(statement);
    }
    sqlite3_close(db);
    return ok;
}

}  // namespace Marivane::Testing
