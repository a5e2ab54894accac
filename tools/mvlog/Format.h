#pragma once

#include <logging/Logging.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace Mvlog {

// "512 B", "64.0 KiB", "12.53 MiB", "1.20 GiB".
std::string humanSize(uint64_t bytes);

// "850 ms", "19.980 s", "3 min 20.0 s", "1 h 02 min 03 s"; negative spans get
// a leading minus.
std::string humanDuration(int64_t milliseconds);

// UTC with milliseconds: "2024-05-01T12:00:00.250Z".
std::string isoTimestamp(int64_t millisecondsSinceEpoch);

// Space-separated hex of at most `maximum` leading bytes, with " ..." when the
// buffer is longer.
std::string hexPrefix(const Marivane::Logging::ByteBuffer& bytes, std::size_t maximum);

// The enumerator's short name ("Camera") for the known values, otherwise the
// number as text.
std::string dataSourceTypeName(MV_LogDataSourceType type);

// Accepts a short enumerator name in any letter case, or any 32-bit integer.
std::optional<MV_LogDataSourceType> parseDataSourceType(const std::string& text);

// 42, 2.5, "text" (texts quoted so that they stand out from numbers).
std::string propertyValueText(const Marivane::Logging::PropertyValue& value);

// "int32", "int64", "double" or "text".
std::string propertyTypeName(const Marivane::Logging::PropertyValue& value);

// Whole entries per second over a span, or nothing when the span is empty.
std::optional<double> meanRateHz(int64_t entryCount, int64_t spanMilliseconds);

}  // namespace Mvlog
