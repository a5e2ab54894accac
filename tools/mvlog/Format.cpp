#include "Format.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>

namespace Mvlog {

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
        // Negated as unsigned: the smallest value has no signed negation.
        return fmt::format("-{}", humanSpan(0 - static_cast<uint64_t>(milliseconds)));
    }
    return humanSpan(static_cast<uint64_t>(milliseconds));
}

std::string humanSpan(uint64_t milliseconds) {
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
    const uint64_t seconds = milliseconds / 1000;
    return fmt::format("{} h {:02} min {:02} s", seconds / 3600, (seconds / 60) % 60, seconds % 60);
}

uint64_t spanMilliseconds(int64_t first, int64_t last) {
    // Two's complement wraps back into range: the difference of any two
    // int64 values fits in 64 unsigned bits.
    return static_cast<uint64_t>(last) - static_cast<uint64_t>(first);
}

std::string isoTimestamp(int64_t millisecondsSinceEpoch) {
    std::string text;
    appendIsoTimestamp(text, millisecondsSinceEpoch);
    return text;
}

void appendIsoTimestamp(std::string& text, int64_t millisecondsSinceEpoch) {
    // Floor division, so that instants before 1970 still split into a whole
    // second and a non-negative millisecond part.
    int64_t seconds = millisecondsSinceEpoch / 1000;
    int64_t rest = millisecondsSinceEpoch % 1000;
    if (rest < 0) {
        rest += 1000;
        --seconds;
    }
    // Entries come a few to thousands a second: the calendar fields of the
    // last second are kept, "2024-05-01T12:00:00" without the milliseconds.
    struct LastSecond {
        int64_t seconds = 0;
        std::string text;
    };
    thread_local LastSecond last;
    if (last.text.empty() || last.seconds != seconds) {
        const std::time_t time = static_cast<std::time_t>(seconds);
        std::tm parts{};
        if (gmtime_r(&time, &parts) == nullptr) {
            text += fmt::format("@{} ms", millisecondsSinceEpoch);
            return;
        }
        last.text = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", parts.tm_year + 1900, parts.tm_mon + 1,
                                parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
        last.seconds = seconds;
    }
    const auto milliseconds = static_cast<int>(rest);
    const std::array<char, 6> fraction = {'.',
                                          static_cast<char>('0' + milliseconds / 100),
                                          static_cast<char>('0' + milliseconds / 10 % 10),
                                          static_cast<char>('0' + milliseconds % 10),
                                          'Z',
                                          '\0'};
    text += last.text;
    text += fraction.data();
}

void appendHexPrefix(std::string& text, const Marivane::Logging::ByteBuffer& bytes, std::size_t maximum) {
    constexpr const char* kDigits = "0123456789abcdef";
    const std::size_t shown = std::min(bytes.size(), maximum);
    text.reserve(text.size() + shown * 3 + 4);
    for (std::size_t i = 0; i < shown; ++i) {
        if (i != 0) {
            text += ' ';
        }
        const auto value = std::to_integer<unsigned>(bytes[i]);
        text += kDigits[value >> 4];
        text += kDigits[value & 0x0f];
    }
    if (bytes.size() > shown) {
        text += " ...";
    }
}

namespace {

// Length of the valid UTF-8 sequence starting at `at`, or 0 when the byte
// there does not start one.
std::size_t utf8SequenceLength(std::string_view text, std::size_t at) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(at);
    const std::size_t length = lead < 0x80             ? 1
                               : (lead & 0xE0) == 0xC0 ? 2
                               : (lead & 0xF0) == 0xE0 ? 3
                               : (lead & 0xF8) == 0xF0 ? 4
                                                       : 0;
    // ASCII, or a byte that starts no sequence.
    if (length <= 1) {
        return length;
    }
    if (at + length > text.size()) {
        return 0;
    }
    // The smallest code point each length may carry: below it, overlong.
    constexpr std::array<unsigned, 5> kMinimum = {0, 0, 0x80, 0x800, 0x10000};
    unsigned codePoint = lead & (0x7F >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80) {
            return 0;
        }
        codePoint = (codePoint << 6) | (byte(at + i) & 0x3F);
    }
    const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    return codePoint < kMinimum[length] || codePoint > 0x10FFFF || surrogate ? 0 : length;
}

void escapeStrings(nlohmann::ordered_json& value) {
    if (value.is_string()) {
        value = utf8Escaped(value.get_ref<const std::string&>());
    } else if (value.is_array()) {
        for (auto& element : value) {
            escapeStrings(element);
        }
    } else if (value.is_object()) {
        nlohmann::ordered_json escaped = nlohmann::ordered_json::object();
        for (auto& [key, element] : value.items()) {
            escapeStrings(element);
            escaped[utf8Escaped(key)] = std::move(element);
        }
        value = std::move(escaped);
    }
}

}  // namespace

std::string utf8Escaped(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = utf8SequenceLength(text, at);
        if (length == 0) {
            result += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[at]));
            ++at;
            continue;
        }
        result.append(text.substr(at, length));
        at += length;
    }
    return result;
}

std::string dumpJson(const nlohmann::ordered_json& document, int indent) {
    nlohmann::ordered_json escaped = document;
    escapeStrings(escaped);
    return escaped.dump(indent);
}

std::string printable(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        const char* escape = character == '\n'   ? "\\n"
                             : character == '\t' ? "\\t"
                             : character == '\r' ? "\\r"
                             : character == '\\' ? "\\\\"
                                                 : nullptr;
        if (escape != nullptr) {
            result += escape;
        } else if (byte < 0x20 || byte == 0x7f) {
            result += fmt::format("\\x{:02x}", byte);
        } else {
            result += character;
        }
    }
    return result;
}

std::string propertyValueText(const Marivane::Logging::PropertyValue& value) {
    if (const auto* text = std::get_if<std::string>(&value)) {
        return fmt::format("\"{}\"", printable(*text));
    }
    return std::visit([](const auto& number) { return fmt::format("{}", number); }, value);
}

std::string propertyTypeName(const Marivane::Logging::PropertyValue& value) {
    constexpr std::array<const char*, 4> kNames = {"int32", "int64", "double", "text"};
    return kNames.at(value.index());
}

}  // namespace Mvlog
