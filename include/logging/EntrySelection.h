#pragma once

#include <logging/EntryIndexFilter.h>
#include <logging/EntryOrder.h>

#include <cstdint>
#include <limits>

namespace Marivane::Logging {

// Which entries an EntryScan visits: ids in [from, to] (-1 for the file's
// first or last) and timestamps in [startTimestamp, endTimestamp], admitted
// by the filter, at most `limit` of them (-1: all), in `order` (by time:
// ascending timestamp, ties by id; the limit keeps the earliest).
//
// A plain value: copy it freely.
struct EntrySelection {
    int32_t from = -1;
    int32_t to = -1;
    int64_t startTimestamp = std::numeric_limits<int64_t>::min();
    int64_t endTimestamp = std::numeric_limits<int64_t>::max();
    EntryIndexFilter filter;
    int64_t limit = -1;
    EntryOrder order = EntryOrder::Id;
};

}  // namespace Marivane::Logging
