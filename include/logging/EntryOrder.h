#pragma once

namespace Marivane::Logging {

// The order in which a streaming read hands out entries (VisitOptions::order).
enum class EntryOrder {
    // Ascending entry id: the order in which the entries were written.
    Id = 0,
    // Ascending timestamp, entries with equal timestamps by ascending id: the
    // order in which they were recorded, whatever order they were written in
    // (several capture threads, a merge, sensors whose clocks lag).
    Time = 1,
};

}  // namespace Marivane::Logging
