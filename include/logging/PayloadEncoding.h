#pragma once

#include <logging/DataSourceProperty.h>
#include <logging/LoggingExport.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Marivane::Logging {

class LogFileInterface;

// What a data source's payloads are: a media type kept as the source's text
// property "encoding" ("image/png", "application/json", ...). Nothing in the
// file format is special about it: writers add it like any property (before
// the first entry of a new file, or through the recorder), and files without
// it read as they always did. Readers use the declared type, or sniff a
// payload's first bytes when a source declares none.
//
// Stateless: every function may be called from any thread.
class MV_LOGGING_EXPORT PayloadEncoding {
public:
    // The property's name.
    static constexpr std::string_view kPropertyName = "encoding";

    // The media types readers know; any other text is allowed and kept.
    static constexpr std::string_view kPng = "image/png";
    static constexpr std::string_view kJpeg = "image/jpeg";
    static constexpr std::string_view kGraymap = "image/x-portable-graymap";
    static constexpr std::string_view kPixmap = "image/x-portable-pixmap";
    static constexpr std::string_view kJson = "application/json";
    static constexpr std::string_view kText = "text/plain";
    // Bytes of no known kind: what a source without the property holds.
    static constexpr std::string_view kOctetStream = "application/octet-stream";

    // The property that declares `mediaType` for a data source, to add with
    // SqliteLogFile::addDataSourceProperty or Recorder::addDataSourceProperty.
    static DataSourceProperty property(int8_t dataSourceId, std::string mediaType);

    // The media type a data source declares: its "encoding" property when
    // that holds non-empty text; absent when it has none (or a number
    // there). A file that cannot be read answers absent too: the caller's
    // next read reports the failure.
    static std::optional<std::string> declared(const LogFileInterface& file, int32_t dataSourceId);

    // The media type of one payload from its first bytes: PNG, JPEG, binary
    // or plain graymaps and pixmaps (P5/P2, P6/P3), JSON (an object or an
    // array that parses), text (valid UTF-8 without control characters other
    // than tab, line feed and carriage return), otherwise kOctetStream. An
    // empty payload is kOctetStream.
    static std::string_view sniff(const std::byte* data, std::size_t size);

    // True for the types whose payloads print as text (JSON and text/*).
    static bool isText(std::string_view mediaType);
};

}  // namespace Marivane::Logging
