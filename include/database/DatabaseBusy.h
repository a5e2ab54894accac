#pragma once

#include <database/DatabaseAccessError.h>

namespace Marivane::Database {

// Another connection held a lock on the database for longer than the
// connection's busy timeout. The database is not damaged: the same operation
// may succeed later.
class MV_DATABASE_EXPORT DatabaseBusy : public DatabaseAccessError {
public:
    explicit DatabaseBusy(const std::string& message);
};

}  // namespace Marivane::Database
