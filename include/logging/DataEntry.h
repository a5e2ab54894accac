#pragma once

#include <logging/ByteBuffer.h>

#include <cstdint>

namespace Marivane::Logging {

// One logged record.
struct DataEntry {
    // Id of the entry in its file (the first entry of a file is 1); 0 in an
    // entry that was never stored. Ignored when logging.
    int32_t entryId = 0;
    // Id of the data source that produced it.
    int8_t dataSourceId = -1;
    // Application-defined kind of payload; stored, returned and filtered only.
    int32_t type = 0;
    // The payload as the application gave it.
    ByteBuffer data;
    // Milliseconds since the Unix epoch (UTC).
    int64_t timestamp = 0;
};

}  // namespace Marivane::Logging
