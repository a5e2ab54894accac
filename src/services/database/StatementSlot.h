#pragma once

#include <database/SqliteDatabase.h>

#include "SqliteHandles.h"

#include <sqlite3.h>

#include <string>
#include <vector>

namespace Marivane::Database {

// What the connection keeps for one SQL text: its free prepared statements,
// and the names of its parameters by number (filled once, under the cache's
// lock, before any query of this text binds; read-only afterwards). Looking a
// name up here avoids SQLite's own name search, which dominated the cost of
// binding.
struct SqliteDatabase::StatementSlot {
    std::vector<StatementHandle> free;
    std::vector<std::string> parameterNames;
    bool parameterNamesKnown = false;

    // The 1-based index of `name`, or 0 when the statement has no such
    // parameter.
    int parameterIndex(const std::string& name) const {
        for (std::size_t i = 0; i < parameterNames.size(); ++i) {
            if (parameterNames[i] == name) {
                return static_cast<int>(i + 1);
            }
        }
        return 0;
    }
};

}  // namespace Marivane::Database
