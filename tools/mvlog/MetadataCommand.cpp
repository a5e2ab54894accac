#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>

namespace Mvlog {

using Marivane::Logging::PropertyValue;
using Marivane::Logging::SqliteLogFile;

namespace {

nlohmann::ordered_json valueJson(const PropertyValue& value) {
    return std::visit([](const auto& alternative) { return nlohmann::ordered_json(alternative); }, value);
}

nlohmann::ordered_json entryJson(const std::string& key, const PropertyValue& value) {
    return {{"key", key}, {"value", valueJson(value)}, {"type", propertyTypeName(value)}};
}

int64_t wholeNumber(const std::string& text, int64_t minimum, int64_t maximum, const char* type) {
    errno = 0;
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || end != text.c_str() + text.size() || errno == ERANGE || value < minimum ||
        value > maximum) {
        throw UsageError(fmt::format("{}: not an {} (a whole number from {} to {})", printable(text), type,
                                     minimum, maximum));
    }
    return value;
}

PropertyValue parseValue(const std::string& text, MetadataType type) {
    switch (type) {
        case MetadataType::Int32:
            return static_cast<int32_t>(wholeNumber(text, std::numeric_limits<int32_t>::min(),
                                                    std::numeric_limits<int32_t>::max(), "int32"));
        case MetadataType::Int64:
            return wholeNumber(text, std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max(),
                               "int64");
        case MetadataType::Double: {
            char* end = nullptr;
            const double value = std::strtod(text.c_str(), &end);
            if (text.empty() || end != text.c_str() + text.size() || !std::isfinite(value)) {
                throw UsageError(
                    fmt::format("{}: not a double (a finite number such as 12.5)", printable(text)));
            }
            return value;
        }
        case MetadataType::Text:
            break;
    }
    return text;
}

int listMetadata(const SqliteLogFile& file, const MetadataOptions& options) {
    const std::vector<LogMetadataEntry> entries = file.getAllMetadata();
    requireCompleteReads(file);
    if (options.json) {
        nlohmann::ordered_json document;
        document["file"] = options.file;
        document["metadata"] = nlohmann::ordered_json::array();
        for (const LogMetadataEntry& entry : entries) {
            document["metadata"].push_back(entryJson(entry.key, entry.value));
        }
        fmt::print("{}\n", dumpJson(document, 2));
        return 0;
    }
    for (const LogMetadataEntry& entry : entries) {
        fmt::print("{:<22} {} ({})\n", printable(entry.key), propertyValueText(entry.value),
                   propertyTypeName(entry.value));
    }
    return 0;
}

// The value alone (text without quotes), so that scripts can take it as it
// is; --json adds the type.
int getMetadata(const SqliteLogFile& file, const MetadataOptions& options) {
    const std::optional<PropertyValue> value = file.getMetadataValue(options.key);
    requireCompleteReads(file);
    if (!value) {
        throw ToolError(fmt::format("{} has no metadata key '{}'", options.file, printable(options.key)));
    }
    if (options.json) {
        fmt::print("{}\n", dumpJson(entryJson(options.key, *value), 2));
    } else if (const auto* text = std::get_if<std::string>(&*value)) {
        fmt::print("{}\n", printable(*text));
    } else {
        fmt::print("{}\n", propertyValueText(*value));
    }
    return 0;
}

int setMetadata(SqliteLogFile& file, const MetadataOptions& options) {
    const PropertyValue value = parseValue(options.value, options.type);
    requireWritten(file.setMetadata(options.key, value), file, "set the metadata key");
    if (options.json) {
        nlohmann::ordered_json document;
        document["file"] = options.file;
        document["action"] = "set";
        document["metadata"] = entryJson(options.key, value);
        fmt::print("{}\n", dumpJson(document, 2));
    } else {
        fmt::print("Set {} = {} ({}) in {}\n", printable(options.key), propertyValueText(value),
                   propertyTypeName(value), options.file);
    }
    return 0;
}

int removeMetadata(SqliteLogFile& file, const MetadataOptions& options) {
    requireWritten(file.removeMetadata(options.key), file, "remove the metadata key");
    if (options.json) {
        nlohmann::ordered_json document;
        document["file"] = options.file;
        document["action"] = "removed";
        document["key"] = options.key;
        fmt::print("{}\n", dumpJson(document, 2));
    } else {
        fmt::print("Removed {} from {}\n", printable(options.key), options.file);
    }
    return 0;
}

}  // namespace

int runMetadata(const MetadataOptions& options) {
    const bool writes = options.action == EditAction::Set || options.action == EditAction::Remove;
    const auto file = openExistingLogFile(options.file, writes ? Access::ReadWrite : Access::ReadOnly);
    switch (options.action) {
        case EditAction::List:
            return listMetadata(*file, options);
        case EditAction::Get:
            return getMetadata(*file, options);
        case EditAction::Set:
            return setMetadata(*file, options);
        case EditAction::Remove:
            return removeMetadata(*file, options);
    }
    return 1;
}

}  // namespace Mvlog
