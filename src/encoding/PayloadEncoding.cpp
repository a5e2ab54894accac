#include <logging/PayloadEncoding.h>

#include <logging/LogFileInterface.h>

#include <nlohmann/json.hpp>

#include <array>
#include <cstring>
#include <exception>
#include <utility>

namespace Marivane::Logging {

namespace {

bool startsWith(const std::byte* data, std::size_t size, std::string_view magic) {
    return size >= magic.size() && std::memcmp(data, magic.data(), magic.size()) == 0;
}

// "P5" and the like followed by whitespace, as the netpbm formats begin.
bool isNetpbm(const std::byte* data, std::size_t size, char binary, char plain) {
    if (size < 3 || static_cast<char>(data[0]) != 'P') {
        return false;
    }
    const char kind = static_cast<char>(data[1]);
    const char next = static_cast<char>(data[2]);
    const bool whitespace = next == ' ' || next == '\t' || next == '\n' || next == '\r';
    return (kind == binary || kind == plain) && whitespace;
}

// Length of the UTF-8 sequence that starts with `lead`, 0 when it cannot
// start one.
std::size_t sequenceLength(unsigned char lead) {
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        return 2;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        return 3;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        return 4;
    }
    return 0;
}

bool isContinuation(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

// Valid UTF-8 (no overlong forms, surrogates or values past U+10FFFF)
// without control characters other than tab, line feed and carriage return.
bool isPrintableUtf8(const std::byte* data, std::size_t size) {
    std::size_t i = 0;
    while (i < size) {
        const auto lead = static_cast<unsigned char>(data[i]);
        const std::size_t length = sequenceLength(lead);
        if (length == 0 || i + length > size) {
            return false;
        }
        if (length == 1) {
            if ((lead < 0x20 && lead != '\t' && lead != '\n' && lead != '\r') || lead == 0x7F) {
                return false;
            }
            ++i;
            continue;
        }
        const auto second = static_cast<unsigned char>(data[i + 1]);
        if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
            (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F)) {
            return false;
        }
        for (std::size_t k = 1; k < length; ++k) {
            if (!isContinuation(static_cast<unsigned char>(data[i + k]))) {
                return false;
            }
        }
        i += length;
    }
    return true;
}

// An object or an array, after leading whitespace, that parses whole.
bool isJson(const std::byte* data, std::size_t size) {
    std::size_t first = 0;
    while (first < size) {
        const char c = static_cast<char>(data[first]);
        if (c != ' ' && c != '\t' && c != '\n' && c != '\r') {
            break;
        }
        ++first;
    }
    if (first == size || (static_cast<char>(data[first]) != '{' && static_cast<char>(data[first]) != '[')) {
        return false;
    }
    const auto* begin = reinterpret_cast<const char*>(data);
    return nlohmann::json::accept(begin, begin + size);
}

}  // namespace

DataSourceProperty PayloadEncoding::property(int8_t dataSourceId, std::string mediaType) {
    return DataSourceProperty{dataSourceId, std::string(kPropertyName), PropertyValue(std::move(mediaType))};
}

std::optional<std::string> PayloadEncoding::declared(const LogFileInterface& file, int32_t dataSourceId) {
    try {
        const std::optional<PropertyValue> value =
            file.getDataSourceProperty(dataSourceId, std::string(kPropertyName));
        if (value) {
            if (const auto* text = std::get_if<std::string>(&*value); text && !text->empty()) {
                return *text;
            }
        }
    } catch (const std::exception&) {
        // Absent, as documented: the next read reports what is wrong.
    }
    return std::nullopt;
}

std::string_view PayloadEncoding::sniff(const std::byte* data, std::size_t size) {
    if (size == 0 || data == nullptr) {
        return kOctetStream;
    }
    if (startsWith(data, size, std::string_view("\x89PNG\r\n\x1a\n", 8))) {
        return kPng;
    }
    if (startsWith(data, size, std::string_view("\xff\xd8\xff", 3))) {
        return kJpeg;
    }
    if (isNetpbm(data, size, '5', '2')) {
        return kGraymap;
    }
    if (isNetpbm(data, size, '6', '3')) {
        return kPixmap;
    }
    if (!isPrintableUtf8(data, size)) {
        return kOctetStream;
    }
    return isJson(data, size) ? kJson : kText;
}

bool PayloadEncoding::isText(std::string_view mediaType) {
    return mediaType == kJson || mediaType.substr(0, 5) == "text/" ||
           (mediaType.size() > 5 && mediaType.substr(mediaType.size() - 5) == "+json");
}

}  // namespace Marivane::Logging
