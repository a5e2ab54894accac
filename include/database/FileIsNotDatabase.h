#pragma once

#include <database/DatabaseAccessError.h>

namespace Marivane::Database {

// SQLite found that the file is not a database (its result code 26). Raised by
// whichever operation first reads the file's header: preparing a statement or
// running a simple statement.
class MV_DATABASE_EXPORT FileIsNotDatabase : public DatabaseAccessError {
public:
    explicit FileIsNotDatabase(const std::string& message);
};

}  // namespace Marivane::Database
