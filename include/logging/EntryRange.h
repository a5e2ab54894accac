#pragma once

#include <cstdint>
#include <limits>

namespace Marivane::Logging {

// The entries a streaming read visits: an id range and a time range, both
// inclusive; an entry must lie in both. A plain value: copy it freely.
struct EntryRange {
    // -1 stands for the first or the last entry of the file.
    int32_t minimumEntryId = -1;
    int32_t maximumEntryId = -1;
    // Milliseconds since the Unix epoch; the extremes stand for no bound.
    int64_t startTimestamp = std::numeric_limits<int64_t>::min();
    int64_t endTimestamp = std::numeric_limits<int64_t>::max();

    // Every entry of the file.
    static EntryRange all() { return EntryRange{}; }
    // The entries whose timestamps lie in [start, end].
    static EntryRange between(int64_t start, int64_t end) { return EntryRange{-1, -1, start, end}; }
};

}  // namespace Marivane::Logging
