#pragma once

#include <logging/LoggingExport.h>

#include <stdexcept>

namespace Marivane::Logging {

// The file is neither a log file nor a legacy log file, or is a database that
// lacks some of the log tables.
class MV_LOGGING_EXPORT NotALogFileError : public std::runtime_error {
public:
    NotALogFileError();
};

}  // namespace Marivane::Logging
