#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Marivane::Logging {

// What Algorithms::copy or Algorithms::merge wrote.
struct CopyReport {
    uint64_t entries = 0;
    uint64_t dataSources = 0;
    uint64_t bookmarks = 0;
    uint64_t resources = 0;
    // Payloads copied as stored (the levels allowed it) rather than expanded
    // and compressed again.
    uint64_t payloadsCopiedAsStored = 0;
    // Things that were not carried over, one sentence each: bookmarks outside
    // the selection, resource names and metadata keys that clash between the
    // inputs of a merge, renumbered data sources.
    std::vector<std::string> notes;
};

}  // namespace Marivane::Logging
