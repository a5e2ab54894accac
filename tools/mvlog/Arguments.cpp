#include "Arguments.h"

#include "Format.h"
#include "LogFileAccess.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>
#include <optional>

namespace Mvlog {

using Marivane::Logging::DataSource;
using Marivane::Logging::SqliteLogFile;

std::optional<int64_t> wholeNumber(const std::string& text) {
    std::size_t used = 0;
    long long value = 0;
    try {
        value = std::stoll(text, &used, 0);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    if (used != text.size()) {
        return std::nullopt;
    }
    return value;
}

std::optional<double> finiteNumber(const std::string& text) {
    std::size_t used = 0;
    double value = 0;
    try {
        value = std::stod(text, &used);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    if (used != text.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

namespace {

int8_t idOf(const std::string& option, const std::string& text) {
    const std::optional<int64_t> value = wholeNumber(text);
    if (!value || *value < std::numeric_limits<int8_t>::min() ||
        *value > std::numeric_limits<int8_t>::max()) {
        throw UsageError(fmt::format("{} {}: a data-source id is a whole number from -128 to 127", option,
                                     printable(text)));
    }
    return static_cast<int8_t>(*value);
}

int8_t idNamed(const std::string& option, const std::string& name, const std::vector<DataSource>& sources) {
    std::vector<const DataSource*> matches;
    for (const DataSource& source : sources) {
        if (source.name == name) {
            matches.push_back(&source);
        }
    }
    if (matches.size() == 1) {
        return matches.front()->id;
    }
    if (matches.empty()) {
        std::vector<std::string> candidates;
        for (const DataSource& source : sources) {
            candidates.push_back(fmt::format("{} ({})", printable(source.name), source.id));
        }
        throw UsageError(
            candidates.empty()
                ? fmt::format("{} {}: no data source has that name (the file has no data sources)", option,
                              printable(name))
                : fmt::format("{} {}: no data source has that name; the file has {}", option, printable(name),
                              fmt::join(candidates, ", ")));
    }
    std::vector<std::string> ids;
    for (const DataSource* source : matches) {
        ids.push_back(std::to_string(source->id));
    }
    throw UsageError(fmt::format("{} {}: {} data sources have that name (ids {}); give the id instead",
                                 option, printable(name), matches.size(), fmt::join(ids, ", ")));
}

// "+12.5": seconds after the file's first entry.
std::optional<int64_t> parseRelativeTime(const std::string& text, const SqliteLogFile& file) {
    if (text.empty() || text[0] != '+') {
        return std::nullopt;
    }
    const std::optional<double> seconds = finiteNumber(text.substr(1));
    if (!seconds) {
        return std::nullopt;
    }
    // The first entry's timestamp alone: no payload is read.
    const std::optional<int64_t> first = file.getEntryTimestamp(file.getFirstEntryId());
    if (!first) {
        throw ToolError("refused: a time relative to the first entry needs a file with entries");
    }
    return *first + std::llround(*seconds * 1000.0);
}

// "2026-11-21T11:58:05.5Z", "2026-11-21T12:58:05+01:00" or without a zone (UTC).
std::optional<int64_t> parseIsoTime(const std::string& text) {
    std::tm parts{};
    int consumed = 0;
    if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &parts.tm_year, &parts.tm_mon, &parts.tm_mday,
                    &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &consumed) != 6) {
        return std::nullopt;
    }
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    int64_t milliseconds = 0;
    std::size_t at = static_cast<std::size_t>(consumed);
    if (at < text.size() && text[at] == '.') {
        int64_t scale = 100;
        for (++at; at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]));
             ++at, scale /= 10) {
            milliseconds += (text[at] - '0') * scale;
        }
    }
    int64_t offsetMinutes = 0;
    if (at < text.size() && text[at] == 'Z') {
        ++at;
    } else if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
        int hours = 0;
        int minutes = 0;
        if (std::sscanf(text.c_str() + at + 1, "%2d:%2d", &hours, &minutes) != 2) {
            return std::nullopt;
        }
        offsetMinutes = (text[at] == '-' ? -1 : 1) * (hours * 60 + minutes);
        at += 6;
    }
    if (at != text.size()) {
        return std::nullopt;
    }
    return (static_cast<int64_t>(timegm(&parts)) - offsetMinutes * 60) * 1000 + milliseconds;
}

int64_t parseTime(const std::string& option, const std::string& text, const SqliteLogFile& file) {
    if (std::optional<int64_t> relative = parseRelativeTime(text, file)) {
        return *relative;
    }
    if (std::optional<int64_t> absolute = parseIsoTime(text)) {
        return *absolute;
    }
    throw UsageError(
        fmt::format("{} {}: not a time (use ISO 8601 such as 2026-11-21T11:58:05.5Z, or seconds "
                    "after the first entry such as +12.5)",
                    option, text));
}

}  // namespace

bool isDataSourceIdText(const std::string& text) {
    const std::size_t sign = !text.empty() && (text.front() == '-' || text.front() == '+') ? 1 : 0;
    return text.size() > sign && text[sign] >= '0' && text[sign] <= '9';
}

std::vector<int8_t> resolveDataSources(const std::string& option, const std::vector<std::string>& values,
                                       const std::vector<DataSource>& sources) {
    std::vector<int8_t> ids;
    for (const std::string& value : values) {
        const int8_t id = isDataSourceIdText(value) ? idOf(option, value) : idNamed(option, value, sources);
        if (std::find(ids.begin(), ids.end(), id) == ids.end()) {
            ids.push_back(id);
        }
    }
    return ids;
}

TimeWindow parseTimeWindow(const std::optional<std::string>& start, const std::optional<std::string>& end,
                           const SqliteLogFile& file) {
    TimeWindow window;
    if (start) {
        window.start = parseTime("--start", *start, file);
    }
    if (end) {
        window.end = parseTime("--end", *end, file);
    }
    if (window.end < window.start) {
        throw ToolError("refused: the time range is reversed (--start is after --end)");
    }
    return window;
}

}  // namespace Mvlog
