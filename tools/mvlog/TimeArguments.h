#pragma once

#include <logging/Logging.h>

#include <cstdint>
#include <string>

namespace Mvlog {

// A time given on the command line: ISO 8601 ("2026-11-21T11:58:05.5Z",
// "2026-11-21T12:58:05+01:00"; UTC without a zone) or seconds after the
// file's first entry ("+12.5"). Milliseconds since the Unix epoch. Throws
// UsageError naming `option` for anything else, and ToolError for a relative
// time in a file without entries.
int64_t parseTime(const std::string& option, const std::string& text,
                  const Marivane::Logging::SqliteLogFile& file);

}  // namespace Mvlog
