#include <logging/DataSourceTypeName.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <string_view>

namespace Marivane::Logging {

namespace {

struct NamedType {
    MV_LogDataSourceType type;
    // A literal: commonDataSourceTypeName hands it out as C text.
    const char* name;
};

// Ascending value: commonDataSourceTypes hands the table out in this order.
constexpr std::array<NamedType, 10> kNamedTypes = {{
    {MV_LogDataSourceType_Invalid, "Invalid"},
    {MV_LogDataSourceType_Generic, "Generic"},
    {MV_LogDataSourceType_Camera, "Camera"},
    {MV_LogDataSourceType_Lidar, "Lidar"},
    {MV_LogDataSourceType_Radar, "Radar"},
    {MV_LogDataSourceType_Navigation, "Navigation"},
    {MV_LogDataSourceType_Inertial, "Inertial"},
    {MV_LogDataSourceType_VehicleBus, "VehicleBus"},
    {MV_LogDataSourceType_Environment, "Environment"},
    {MV_LogDataSourceType_Text, "Text"},
}};

bool equalsIgnoringCase(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    });
}

std::optional<MV_LogDataSourceType> typeFromNumber(const std::string& text) {
    int32_t number = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (text.empty() || error != std::errc() || rest != end) {
        return std::nullopt;
    }
    return static_cast<MV_LogDataSourceType>(number);
}

}  // namespace

const char* commonDataSourceTypeName(MV_LogDataSourceType type) {
    for (const NamedType& named : kNamedTypes) {
        if (named.type == type) {
            return named.name;
        }
    }
    return nullptr;
}

std::string dataSourceTypeName(MV_LogDataSourceType type) {
    const char* name = commonDataSourceTypeName(type);
    return name != nullptr ? std::string(name) : std::to_string(static_cast<int32_t>(type));
}

std::optional<MV_LogDataSourceType> dataSourceTypeFromName(const std::string& name) {
    for (const NamedType& named : kNamedTypes) {
        if (equalsIgnoringCase(name, named.name)) {
            return named.type;
        }
    }
    return typeFromNumber(name);
}

std::vector<std::pair<MV_LogDataSourceType, std::string>> commonDataSourceTypes() {
    std::vector<std::pair<MV_LogDataSourceType, std::string>> types;
    types.reserve(kNamedTypes.size());
    for (const NamedType& named : kNamedTypes) {
        types.emplace_back(named.type, named.name);
    }
    return types;
}

}  // namespace Marivane::Logging
