#pragma once

#include <logging/LoggingExport.h>
#include <logging/NotALogFileError.h>

#include <string>

namespace Marivane::Logging {

// A read-only open found a database without any table: an empty file, or a
// log file whose creation has not committed yet (a new file's tables and
// metadata appear in one commit). Opening again later may succeed. Still a
// NotALogFileError, so code that catches that one keeps working.
class MV_LOGGING_EXPORT NotYetALogFileError : public NotALogFileError {
public:
    explicit NotYetALogFileError(const std::string& path);
};

}  // namespace Marivane::Logging
