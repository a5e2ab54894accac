#pragma once

#include <cstdint>

namespace Marivane::Logging {

// What a file knows about an entry without reading its payload. A plain value.
struct EntrySummary {
    int32_t entryId = 0;
    int8_t dataSourceId = 0;
    int32_t type = 0;
    int64_t timestamp = 0;
    // The payload's size as the file stores it: compressed when the file
    // compresses. Known without reading the payload.
    int64_t storedSize = 0;
};

}  // namespace Marivane::Logging
