#pragma once

#include <logging/Logging.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

namespace Mvlog {

// The times --start and --end give, each ISO 8601 ("2026-11-21T11:58:05.5Z",
// "2026-11-21T12:58:05+01:00"; UTC without a zone) or seconds after the
// file's first entry ("+12.5"), in milliseconds since the Unix epoch; a bound
// not given is the earliest or the latest time. Throws UsageError naming the
// option for a text that is no time, and ToolError for a relative time in a
// file without entries or a start after the end.
struct TimeWindow {
    int64_t start = std::numeric_limits<int64_t>::min();
    int64_t end = std::numeric_limits<int64_t>::max();
};
TimeWindow parseTimeWindow(const std::optional<std::string>& start, const std::optional<std::string>& end,
                           const Marivane::Logging::SqliteLogFile& file);

}  // namespace Mvlog
