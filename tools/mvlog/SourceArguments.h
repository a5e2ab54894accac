#pragma once

#include <logging/Logging.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

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
// read numbers; an id the file lacks
// selects nothing, as a filter does), anything else the exact name of one of
// the file's data sources. Throws UsageError naming `option` for an id out of
// range, for a name no data source has (listing the file's data sources) and
// for a name several share (listing their ids).
std::vector<int8_t> resolveDataSources(const std::string& option, const std::vector<std::string>& values,
                                       const std::vector<Marivane::Logging::DataSource>& sources);

}  // namespace Mvlog
