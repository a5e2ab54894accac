#pragma once

#include "SqliteLogFilePrivate.h"

#include <logging/SqliteLogFile.h>

namespace Marivane::Logging {

// The one way in which the library's own components reach the private state
// of a SqliteLogFile: the public class exposes nothing beyond its interface.
class StoreAccess {
public:
    static SqliteLogFilePrivate& of(SqliteLogFile& file) { return *file.d; }
    static const SqliteLogFilePrivate& of(const SqliteLogFile& file) { return *file.d; }
};

}  // namespace Marivane::Logging
