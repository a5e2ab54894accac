#pragma once

#include <logging/Durability.h>
#include <logging/EntryIndexFilter.h>
#include <logging/Version.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>

namespace Marivane::Logging {

// What Algorithms::copy and Algorithms::merge take from their inputs and how
// they write the new file. A plain value: copy it freely.
struct CopyOptions {
    // Entry ids to take, inclusive; -1 for the first or last entry.
    int32_t firstEntryId = -1;
    int32_t lastEntryId = -1;
    // Timestamps to take, inclusive (milliseconds since the Unix epoch).
    int64_t startTimestamp = std::numeric_limits<int64_t>::min();
    int64_t endTimestamp = std::numeric_limits<int64_t>::max();
    // Entry types, data sources and data-source types to take; empty lists
    // take everything. In a merge, data-source ids are those of the inputs.
    EntryIndexFilter filter;
    // The new file's compression level (-1 to 9); absent keeps the level of
    // the (first) input. Payloads are copied as stored, without expanding and
    // compressing again, whenever the levels are the same.
    std::optional<int8_t> compressionLevel;
    Durability durability = Durability::Fast;
    // The program that makes the new file, recorded in its metadata; the
    // input's producer goes into "oldApplicationName"/"oldApplicationVersion"
    // as a slice records it.
    std::string applicationName = "libmarivane-logging";
    std::string applicationVersion = MARIVANE_LOGGING_VERSION;
    // Called now and then on the calling thread with the entries written so
    // far and the number of entries the inputs hold (an upper bound).
    std::function<void(uint64_t written, uint64_t total)> progress;
};

}  // namespace Marivane::Logging
