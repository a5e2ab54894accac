#include <logging/LogFileInterface.h>
#include <logging/MetadataValue.h>

#include <variant>

namespace Marivane::Logging {

std::optional<int64_t> integerMetadata(const LogFileInterface& file, const std::string& key) {
    const std::optional<PropertyValue> value = file.getMetadataValue(key);
    if (!value) {
        return std::nullopt;
    }
    if (const auto* wide = std::get_if<int64_t>(&*value)) {
        return *wide;
    }
    if (const auto* narrow = std::get_if<int32_t>(&*value)) {
        return *narrow;
    }
    return std::nullopt;
}

std::optional<std::string> textMetadata(const LogFileInterface& file, const std::string& key) {
    const std::optional<PropertyValue> value = file.getMetadataValue(key);
    if (const auto* text = value ? std::get_if<std::string>(&*value) : nullptr) {
        return *text;
    }
    return std::nullopt;
}

}  // namespace Marivane::Logging
