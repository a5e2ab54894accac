#pragma once

#include <logging/LoggingExport.h>

#include <stdexcept>

namespace Marivane::Logging {

// The file is a log file of the legacy, pre-database format, which is
// recognised only to be refused.
class MV_LOGGING_EXPORT LegacyLogFileError : public std::runtime_error {
public:
    LegacyLogFileError();
};

}  // namespace Marivane::Logging
