#pragma once

#include <database/DatabaseExport.h>

#include <stdexcept>
#include <string>

namespace Marivane::Database {

// A database cannot be opened, or a statement cannot be prepared. The message
// carries SQLite's own explanation.
class MV_DATABASE_EXPORT DatabaseAccessError : public std::runtime_error {
public:
    explicit DatabaseAccessError(const std::string& message);
};

}  // namespace Marivane::Database
