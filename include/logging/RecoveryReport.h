#pragma once

#include <logging/EntryIdRange.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Marivane::Logging {

// What Algorithms::recover salvaged from a damaged log file and what it had
// to leave behind. A plain value: copy it freely.
struct RecoveryReport {
    uint64_t entriesRecovered = 0;
    // Ids from 1 to the highest id the damaged file still shows that did not
    // come back (their bytes were damaged or could not be found). Every trace
    // of an id counts: the entries found, bookmark targets, the data table's
    // interior pages and indexes, the sequence table.
    uint64_t entriesLost = 0;
    // True when the file's last entry id could not be found (the end of the
    // file or of the data table is gone): entries after the highest id it
    // shows may have existed, so entriesLost is the least number lost.
    bool entriesLostIsLowerBound = false;
    // The lost ids as ascending, non-overlapping runs.
    std::vector<EntryIdRange> lostEntryIds;

    uint64_t dataSourcesRecovered = 0;
    // Data sources made up for entries or properties whose own data source
    // was lost; they are named "recovered data source <id>".
    uint64_t dataSourcesRecreated = 0;
    uint64_t propertiesRecovered = 0;
    uint64_t propertiesLost = 0;
    uint64_t metadataRecovered = 0;
    // Metadata rows found damaged, plus the keys every log file holds that
    // could not be found at all.
    uint64_t metadataLost = 0;
    uint64_t resourcesRecovered = 0;
    uint64_t resourcesLost = 0;
    uint64_t bookmarksRecovered = 0;
    // Bookmarks found damaged, and bookmarks whose entry was lost.
    uint64_t bookmarksLost = 0;

    // True when SQLite could not read everything and the file's pages were
    // searched for records directly.
    bool pagesScanned = false;
    // Remarks on how the salvage went, one sentence each.
    std::vector<std::string> notes;
};

}  // namespace Marivane::Logging
