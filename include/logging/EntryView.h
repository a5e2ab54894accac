#pragma once

#include <cstddef>
#include <cstdint>

namespace Marivane::Logging {

// One entry as a streaming read hands it to its visitor.
//
// Ownership: borrowed. `data` points into the reader's own buffers and is
// valid only during the visitor's call; copy the bytes to keep them. The
// view is never shared between threads.
struct EntryView {
    int32_t entryId = 0;
    int8_t dataSourceId = 0;
    int32_t type = 0;
    int64_t timestamp = 0;
    const std::byte* data = nullptr;
    std::size_t size = 0;
    // True only when the read was asked for stored payloads
    // (PayloadForm::Stored) and this payload is a compressed frame; expanded
    // payloads are never compressed.
    bool compressed = false;
};

}  // namespace Marivane::Logging
