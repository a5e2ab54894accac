#include <logging/LegacyLogFileError.h>
#include <logging/NotALogFileError.h>

namespace Marivane::Logging {

NotALogFileError::NotALogFileError()
    : std::runtime_error("This file is not in a supported log file format.") {}

LegacyLogFileError::LegacyLogFileError() : std::runtime_error("Tried to open a legacy log file.") {}

}  // namespace Marivane::Logging
