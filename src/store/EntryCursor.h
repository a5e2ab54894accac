#pragma once

#include <logging/EntryIndexFilter.h>
#include <logging/EntryRange.h>

#include "model/Outcome.h"

#include <database/SqliteQuery.h>
#include <database/Status.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Marivane::Logging {

class SqliteLogFilePrivate;

// The order in which a cursor hands out entries.
enum class CursorOrder {
    ById,
    // Timestamp, then id: the order in which a merge interleaves files.
    ByTimestamp,
};

// What a cursor reads of each row.
enum class CursorColumns {
    // Everything, the payload included.
    WithPayloads,
    // Everything but the payload, whose stored size comes from the length
    // column: no payload page is read.
    WithoutPayloads,
    // Everything, and the entry's checksum from a file that keeps them.
    WithPayloadsAndChecksums,
};

// One stored row, borrowed from the cursor until its next step. The stored
// values are kept at full width so that a row outside the record types' ranges
// can be recognised rather than narrowed into a wrong but plausible value.
struct StoredEntry {
    int64_t entryId = 0;
    int64_t dataSourceId = 0;
    int64_t type = 0;
    int64_t timestamp = 0;
    // Null when the cursor reads no payloads; payloadSize is then the
    // stored size that the length column records.
    const std::byte* payload = nullptr;
    std::size_t payloadSize = 0;
    // Empty when every stored value fits its record type; otherwise why not.
    std::string outOfRange;
    // With CursorColumns::WithPayloadsAndChecksums: the stored checksum,
    // absent when the entry has none.
    std::optional<int64_t> checksum;
};

// Walks the entries of one file that lie in an id range and a time range and
// pass a filter, one row at a time: memory does not grow with the range. No
// count pass; the data sources are joined only when the filter names
// data-source types.
//
// In id order one statement walks the table, or, with a time index and a
// bounded time range, the rows whose ids the index finds. In time order the
// time index is walked when the file has one (unless the id range is much
// narrower than the part of the index it would walk); otherwise a pass over
// the timestamps tells whether the ids already follow time, in which case the
// table is walked by id, and if not the rows go through SQLite's external
// sorter (small rows whole; of large ones only the keys, each row then read
// by id).
//
// A read in time order or within a time range runs in one read transaction
// from the first question it asks to its last row (a statement held open
// pins it, or the open write batch's transaction holds it), so its plan and
// its rows see one state of the file.
//
// Ownership: borrows the file's state, which must outlive the cursor. One
// thread at a time.
class EntryCursor {
public:
    EntryCursor(const SqliteLogFilePrivate& file, const EntryRange& range, const EntryIndexFilter& filter,
                CursorOrder order, CursorColumns columns = CursorColumns::WithPayloads);

    // The next row, or null at the end and after a failure; failed() tells
    // which. A failure is recorded with the file's failures, naming the last
    // entry read, and is the cursor's outcome.
    const StoredEntry* next();
    bool failed() const { return !failure_.ok(); }
    const Outcome& outcome() const { return failure_; }

private:
    bool pinReadTransaction();
    void planTimeOrder(const EntryRange& range, const std::string& conditions);
    // Whether the timestamps of the selected rows never decrease with their
    // ids; absent (the cursor failed) when the pass could not finish.
    std::optional<bool> timestampsFollowIds(const EntryRange& range, const std::string& conditions);
    bool stepMainQuery();
    bool stepThroughSortedKeys();
    void takeRow(const Database::SqliteQuery& query);
    void fail(const Database::SqliteQuery& query);
    void release();

    const SqliteLogFilePrivate& file_;
    // Holds the read transaction while the cursor lives (see above).
    std::optional<Database::SqliteQuery> pin_;
    // The rows handed out: the walk itself, or the read of one row by id.
    std::optional<Database::SqliteQuery> query_;
    // In time order without the index, on a file whose ids do not follow
    // time: the ids in time order, sorted by SQLite.
    std::optional<Database::SqliteQuery> sortedKeys_;
    StoredEntry row_;
    CursorColumns columns_;
    bool finished_ = false;
    // Success until a step fails.
    Outcome failure_;
};

// True when the file holds the index on entry timestamps.
bool hasTimeIndex(const SqliteLogFilePrivate& file);

// The file's bytes per entry id (its pages over the span of its ids), which
// decides whether a time-ordered read sorts whole rows. A damaged file can
// report bounds that make no span (a first id after its last): then 0, as for
// a file of which nothing is known.
int64_t bytesPerEntryId(int64_t pageCount, int64_t pageSize, int64_t firstId, int64_t lastId);

}  // namespace Marivane::Logging
