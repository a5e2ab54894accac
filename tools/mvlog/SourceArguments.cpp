#include "SourceArguments.h"

#include "Format.h"
#include "LogFileAccess.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

namespace Mvlog {

using Marivane::Logging::DataSource;

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

}  // namespace Mvlog
