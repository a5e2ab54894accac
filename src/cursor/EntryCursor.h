#pragma once

#include <logging/EntryIndexFilter.h>
#include <logging/EntryRange.h>

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
// pass a filter, one row at a time, in one statement: memory does not grow
// with the range. No count pass; the data sources are joined only when the
// filter names data-source types. With a time index and a bounded time range
// in id order, the matching ids are found through the index first (4 bytes an
// entry) and the rows are then read by id.
//
// Ownership: borrows the file's state, which must outlive the cursor. One
// thread at a time.
class EntryCursor {
public:
    EntryCursor(const SqliteLogFilePrivate& file, const EntryRange& range, const EntryIndexFilter& filter,
                CursorOrder order, CursorColumns columns = CursorColumns::WithPayloads);

    // The next row, or null at the end and after a failure; failed() tells
    // which. A failure is recorded with the file's failures, naming the last
    // entry read.
    const StoredEntry* next();
    bool failed() const { return failed_; }
    const Database::Status& status() const { return status_; }

private:
    bool stepMainQuery();
    bool stepThroughIdList();
    void takeRow(const Database::SqliteQuery& query);
    void fail(const Database::SqliteQuery& query);

    const SqliteLogFilePrivate& file_;
    std::optional<Database::SqliteQuery> query_;
    // Ids found through the time index, read one by one with query_.
    std::optional<std::vector<int32_t>> ids_;
    std::size_t nextId_ = 0;
    StoredEntry row_;
    CursorColumns columns_;
    bool failed_ = false;
    bool finished_ = false;
    Database::Status status_;
};

// True when the file holds the index on entry timestamps.
bool hasTimeIndex(const SqliteLogFilePrivate& file);

// The name of the index on entry timestamps.
inline constexpr const char* kTimeIndexName = "dataTimestampIndex";

}  // namespace Marivane::Logging
