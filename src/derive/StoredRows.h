#pragma once

#include <logging/ByteBuffer.h>
#include <logging/EntryIndexFilter.h>
#include <logging/SqliteLogFile.h>

#include <database/SqliteQuery.h>

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

enum class RowOrder { ById, ByTimestamp };

// The selected rows of a file, one at a time, in one statement: memory holds
// one row whatever the size of the file. Joins the data sources only when
// the filter asks for data-source types. The file must outlive the rows.
class StoredRows {
public:
    StoredRows(const SqliteLogFile& file, RowSelection selection, RowOrder order);

    // The next row, or null after the last. A failing read throws
    // std::runtime_error naming the file and the last row read: a failure is
    // never taken for the end.
    const StoredRow* next();
    const StoredRow* current() const { return &row_; }

private:
    const SqliteLogFile& file_;
    RowSelection selection_;
    Database::SqliteQuery query_;
    StoredRow row_;
};

}  // namespace Marivane::Logging::Algorithms
