#pragma once

#include <logging/Logging.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

// The values of options that mean something only against the file: data
// sources by id or name, and times.
namespace Mvlog {

// The number a whole text stands for, read as the numeric options read it:
// whole numbers in base 0 (0x10 and 010 alike), reals only when finite (nan
// and the infinities are no numbers here).
std::optional<int64_t> wholeNumber(const std::string& text);
std::optional<double> finiteNumber(const std::string& text);

// Whether a `--source` value is meant as an id: it starts with a digit, after
// an optional sign. Any other text is a name.
bool isDataSourceIdText(const std::string& text);

// The data sources that `--source` values name, in the order given, each once:
// an id text is a data-source id (-128 to 127, read as the numeric options
// read numbers; an id the file lacks selects nothing, as a filter does),
// anything else the exact name of one of the file's data sources. Throws
// UsageError naming `option` for an id out of range, for a name no data
// source has (listing the file's data sources) and for a name several share
// (listing their ids).
std::vector<int8_t> resolveDataSources(const std::string& option, const std::vector<std::string>& values,
                                       const std::vector<Marivane::Logging::DataSource>& sources);

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
