#pragma once

#include <logging/LoggingExport.h>

#include <stdexcept>
#include <string>

namespace Marivane::Logging {

// The file is neither a log file nor a legacy log file, or is a database that
// lacks some of the log tables.
class MV_LOGGING_EXPORT NotALogFileError : public std::runtime_error {
public:
    NotALogFileError();

protected:
    // For the more precise errors below, which are still this one.
    explicit NotALogFileError(const std::string& message);
};

}  // namespace Marivane::Logging
