#pragma once

#include <array>
#include <string_view>

namespace Marivane::Logging {

// The metadata keys that every new log file carries, in the order in which
// they are written: creation time (int64), application name and version
// (text), time zone (text), format version (int32) and compression level
// (int32). Derived files rewrite these and keep every other key.
inline constexpr std::array<std::string_view, 6> kFixedMetadataKeys = {
    "createdDateTime", "applicationName", "applicationVersion",
    "currentTimeZone", "logVersion",      "compressionLevel"};

}  // namespace Marivane::Logging
