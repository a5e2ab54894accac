#pragma once

#include <logging/Logging.h>

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>

#include <string>
#include <string_view>

namespace Mvlog {

// "512 B", "64.0 KiB", "12.53 MiB", "1.20 GiB".
std::string humanSize(uint64_t bytes);

// "850 ms", "19.980 s", "3 min 20.0 s", "1 h 02 min 03 s"; negative spans get
// a leading minus.
std::string humanDuration(int64_t milliseconds);
// The same for a span that may exceed what int64 holds (the distance between
// the smallest and the largest timestamp).
std::string humanSpan(uint64_t milliseconds);

// `last - first` for `first <= last`, without overflow.
uint64_t spanMilliseconds(int64_t first, int64_t last);

// UTC with milliseconds: "2024-05-01T12:00:00.250Z".
std::string isoTimestamp(int64_t millisecondsSinceEpoch);
// The same, appended to `text`.
void appendIsoTimestamp(std::string& text, int64_t millisecondsSinceEpoch);

// Appends space-separated hex of at most `maximum` leading bytes, with " ..."
// when the buffer is longer.
void appendHexPrefix(std::string& text, const Marivane::Logging::ByteBuffer& bytes, std::size_t maximum);

using Marivane::Logging::dataSourceTypeName;

// Text from a file (names, keys, titles, values) made safe for a terminal:
// control characters and DEL become escapes (\n, \t, \x1b, ...), and so does
// a backslash, so nothing in a file can move the cursor or change colours.
std::string printable(std::string_view text);

// Text for a JSON document: valid UTF-8 stays as it is; every byte that is
// not part of a valid UTF-8 sequence becomes the four characters \xNN (and a
// backslash before x... is kept as it is), so that a name the library stored
// byte for byte still prints instead of failing the whole document.
std::string utf8Escaped(std::string_view text);

// Dumps `document` with every string and key passed through utf8Escaped.
std::string dumpJson(const nlohmann::ordered_json& document, int indent = -1);

// An array of `toJson` of each element of `range`.
template <typename Range, typename ToJson>
nlohmann::ordered_json jsonArray(const Range& range, const ToJson& toJson) {
    nlohmann::ordered_json array = nlohmann::ordered_json::array();
    for (const auto& element : range) {
        array.push_back(toJson(element));
    }
    return array;
}

// 42, 2.5, "text" (texts quoted so that they stand out from numbers).
std::string propertyValueText(const Marivane::Logging::PropertyValue& value);

// "int32", "int64", "double" or "text".
std::string propertyTypeName(const Marivane::Logging::PropertyValue& value);

}  // namespace Mvlog
