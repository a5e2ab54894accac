#include <logging/LegacyLogFileError.h>
#include <logging/NotALogFileError.h>
#include <logging/NotYetALogFileError.h>

namespace Marivane::Logging {

NotALogFileError::NotALogFileError()
    : std::runtime_error("This file is not in a supported log file format.") {}

NotALogFileError::NotALogFileError(const std::string& message) : std::runtime_error(message) {}

NotYetALogFileError::NotYetALogFileError(const std::string& path)
    : NotALogFileError("'" + path +
                       "' is not a log file yet: it holds no tables (it is empty, or still being created).") {
}

LegacyLogFileError::LegacyLogFileError() : std::runtime_error("Tried to open a legacy log file.") {}

}  // namespace Marivane::Logging
