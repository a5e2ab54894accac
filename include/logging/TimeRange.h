#pragma once

#include <cstdint>

namespace Marivane::Logging {

// The first and the last timestamp of a set of entries (milliseconds since the
// Unix epoch, inclusive). A plain value.
struct TimeRange {
    int64_t first = 0;
    int64_t last = 0;

    int64_t durationMs() const { return last - first; }
};

}  // namespace Marivane::Logging
