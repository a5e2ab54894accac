#pragma once

#include <logging/ByteBuffer.h>
#include <logging/EntryIndexFilter.h>
#include <logging/SqliteLogFile.h>

#include "store/EntryCursor.h"

#include <cstdint>
#include <string>

namespace Marivane::Logging::Algorithms {

// One entry as the file stores it: the payload in its stored (possibly
// compressed) form.
struct StoredRow {
    int32_t entryId = 0;
    int64_t timestamp = 0;
    int32_t type = 0;
    int8_t dataSourceId = 0;
    ByteBuffer payload;
};

// Which entries: an id range and a time range (both inclusive) and a filter.
struct RowSelection {
    int32_t firstEntryId;
    int32_t lastEntryId;
    int64_t startTimestamp;
    int64_t endTimestamp;
    EntryIndexFilter filter;
};

// The selected rows of a file, one at a time, through the file's entry
// cursor: memory holds one row whatever the size of the file. The file must
// outlive the rows.
class StoredRows {
public:
    StoredRows(const SqliteLogFile& file, const RowSelection& selection, CursorOrder order);

    // The next row, or null after the last. A failing read, or a row whose
    // stored values do not fit the record types, throws std::runtime_error
    // naming the file and the row: a failure is never taken for the end, and
    // nothing is narrowed into a wrong copy.
    const StoredRow* next();
    const StoredRow* current() const { return &row_; }

private:
    const SqliteLogFile& file_;
    EntryCursor cursor_;
    StoredRow row_;
};

}  // namespace Marivane::Logging::Algorithms
