#pragma once

#include <logging/LoggingExport.h>

#include <cstdint>
#include <string>

namespace Marivane::Logging {

// An entry that a scan met but could not hand out: its payload could not be
// read or expanded, it no longer matches its checksum, or its stored values
// are ones no record can carry (an id beyond 32 bits, a data source the file
// does not have).
//
// A plain value: copy it freely.
struct DamagedEntry {
    int64_t entryId = 0;
    std::string reason;
    // The reason reads on from "entry N" as a sentence ("refers to data
    // source 9, ...") instead of following it after a colon.
    bool readsOn = false;
};

// "entry 7: payload cannot be expanded: ..." or "entry 7 refers to ...".
MV_LOGGING_EXPORT std::string describe(const DamagedEntry& entry);

}  // namespace Marivane::Logging
