#include "Format.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <ctime>
#include <limits>
#include <utility>

namespace Mvlog {

namespace {

constexpr std::array<std::pair<MV_LogDataSourceType, const char*>, 10> kTypeNames = {{
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

bool equalsIgnoringCase(const std::string& left, const std::string& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    });
}

// Floor division, so that instants before 1970 still split into a whole
// second and a non-negative millisecond part.
std::pair<int64_t, int64_t> splitMilliseconds(int64_t milliseconds) {
    int64_t seconds = milliseconds / 1000;
    int64_t rest = milliseconds % 1000;
    if (rest < 0) {
        rest += 1000;
        --seconds;
    }
    return {seconds, rest};
}

}  // namespace

std::string humanSize(uint64_t bytes) {
    constexpr double kKiB = 1024.0;
    if (bytes < 1024) {
        return fmt::format("{} B", bytes);
    }
    const double value = static_cast<double>(bytes);
    if (value < kKiB * kKiB) {
        return fmt::format("{:.1f} KiB", value / kKiB);
    }
    if (value < kKiB * kKiB * kKiB) {
        return fmt::format("{:.2f} MiB", value / (kKiB * kKiB));
    }
    return fmt::format("{:.2f} GiB", value / (kKiB * kKiB * kKiB));
}

std::string humanDuration(int64_t milliseconds) {
    if (milliseconds < 0) {
        // The negation of the smallest value does not exist; such a span is
        // nonsense anyway.
        if (milliseconds == std::numeric_limits<int64_t>::min()) {
            milliseconds = -std::numeric_limits<int64_t>::max();
        }
        return fmt::format("-{}", humanDuration(-milliseconds));
    }
    if (milliseconds < 1000) {
        return fmt::format("{} ms", milliseconds);
    }
    if (milliseconds < 60'000) {
        return fmt::format("{}.{:03} s", milliseconds / 1000, milliseconds % 1000);
    }
    if (milliseconds < 3'600'000) {
        return fmt::format("{} min {:.1f} s", milliseconds / 60'000,
                           static_cast<double>(milliseconds % 60'000) / 1000.0);
    }
    const int64_t seconds = milliseconds / 1000;
    return fmt::format("{} h {:02} min {:02} s", seconds / 3600, (seconds / 60) % 60, seconds % 60);
}

std::string isoTimestamp(int64_t millisecondsSinceEpoch) {
    const auto [seconds, rest] = splitMilliseconds(millisecondsSinceEpoch);
    const std::time_t time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    if (gmtime_r(&time, &parts) == nullptr) {
        return fmt::format("@{} ms", millisecondsSinceEpoch);
    }
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", parts.tm_year + 1900, parts.tm_mon + 1,
                       parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, rest);
}

std::string hexPrefix(const Marivane::Logging::ByteBuffer& bytes, std::size_t maximum) {
    std::string text;
    const std::size_t shown = std::min(bytes.size(), maximum);
    text.reserve(shown * 3 + 4);
    for (std::size_t i = 0; i < shown; ++i) {
        if (i != 0) {
            text += ' ';
        }
        text += fmt::format("{:02x}", std::to_integer<unsigned>(bytes[i]));
    }
    if (bytes.size() > shown) {
        text += " ...";
    }
    return text;
}

std::string dataSourceTypeName(MV_LogDataSourceType type) {
    for (const auto& [value, name] : kTypeNames) {
        if (value == type) {
            return name;
        }
    }
    return std::to_string(static_cast<int32_t>(type));
}

std::optional<MV_LogDataSourceType> parseDataSourceType(const std::string& text) {
    for (const auto& [value, name] : kTypeNames) {
        if (equalsIgnoringCase(text, name)) {
            return value;
        }
    }
    int32_t number = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (text.empty() || error != std::errc() || rest != end) {
        return std::nullopt;
    }
    return static_cast<MV_LogDataSourceType>(number);
}

std::string propertyValueText(const Marivane::Logging::PropertyValue& value) {
    if (const auto* text = std::get_if<std::string>(&value)) {
        return fmt::format("\"{}\"", *text);
    }
    if (const auto* real = std::get_if<double>(&value)) {
        return fmt::format("{}", *real);
    }
    if (const auto* wide = std::get_if<int64_t>(&value)) {
        return std::to_string(*wide);
    }
    return std::to_string(std::get<int32_t>(value));
}

std::string propertyTypeName(const Marivane::Logging::PropertyValue& value) {
    constexpr std::array<const char*, 4> kNames = {"int32", "int64", "double", "text"};
    return kNames.at(value.index());
}

std::optional<double> meanRateHz(int64_t entryCount, int64_t spanMilliseconds) {
    if (entryCount < 2 || spanMilliseconds <= 0) {
        return std::nullopt;
    }
    return static_cast<double>(entryCount - 1) * 1000.0 / static_cast<double>(spanMilliseconds);
}

}  // namespace Mvlog
