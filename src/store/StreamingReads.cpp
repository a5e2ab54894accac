// The streaming reads and time queries of SqliteLogFile: everything here walks
// the file through EntryCursor or asks the database one small question.
#include <logging/SqliteLogFile.h>

#include "services/database/ColumnAccess.h"
#include "store/EntryCursor.h"
#include "store/ParallelExpansion.h"
#include "store/Schema.h"
#include "store/SqliteLogFilePrivate.h"

#include <core/Checksum.h>
#include <core/Compression.h>

#include <algorithm>
#include <exception>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace Marivane::Logging {

namespace {

using Database::SqliteQuery;

std::string entryFailure(const SqliteLogFilePrivate& file, int64_t entryId, const std::string& reason) {
    return "Entry " + std::to_string(entryId) + " of '" + file.filePath.string() +
           "' cannot be read: " + reason;
}

// Records an entry that cannot be handed out: success when the read goes on
// past it (the caller's onDamagedEntry says so), else the entry's failure.
Outcome skipDamaged(const SqliteLogFilePrivate& file, const VisitOptions& options, int64_t entryId,
                    const std::string& reason) {
    Outcome damage = file.recordFailureMessage(FailureKind::Damaged, entryFailure(file, entryId, reason));
    if (options.onDamagedEntry && options.onDamagedEntry(entryId, reason)) {
        return Outcome::success();
    }
    return damage;
}

CursorOrder cursorOrder(EntryOrder order) {
    return order == EntryOrder::Time ? CursorOrder::ByTimestamp : CursorOrder::ById;
}

EntryView viewOf(const StoredEntry& row) {
    EntryView view;
    view.entryId = static_cast<int32_t>(row.entryId);
    view.dataSourceId = static_cast<int8_t>(row.dataSourceId);
    view.type = static_cast<int32_t>(row.type);
    view.timestamp = row.timestamp;
    return view;
}

// The filter's condition on data's own columns for the small questions below;
// the data sources are joined only when the filter names their types.
std::string filteredFrom(const EntryIndexFilter& filter) {
    std::string from = "FROM data";
    if (!filter.dataSourceTypes.empty()) {
        from += " INNER JOIN dataSources ON data.dataSourceId = dataSources.dataSourceId";
    }
    return from;
}

std::string andFilter(const EntryIndexFilter& filter) {
    const std::string clause = filter.toWhereClause();
    // The filter's clause starts with "WHERE "; its conditions join ours.
    return clause.empty() ? std::string() : " AND (" + clause.substr(6) + ")";
}

std::optional<int64_t> singleInteger(const SqliteLogFilePrivate& file, SqliteQuery& query,
                                     const char* operation) {
    if (query.executeStep() == Database::StepRow) {
        return Database::getValueFromColumn<int64_t>(query, 0);
    }
    return answered(std::optional<int64_t>(), file.finishRead(query, operation));
}

// Hands out the cursor's rows from the next one on, expanding on this
// thread. Succeeds when the rows ran out or the visitor stopped.
Outcome visitRows(const SqliteLogFilePrivate& file, EntryCursor& cursor, bool verify, bool expand,
                  const SqliteLogFile::EntryVisitor& visitor, const VisitOptions& options) {
    ByteBuffer expanded;
    while (const StoredEntry* row = cursor.next()) {
        if (!row->outOfRange.empty()) {
            if (Outcome skipped = skipDamaged(file, options, row->entryId, row->outOfRange); !skipped) {
                return skipped;
            }
            continue;
        }
        if (verify) {
            if (const std::optional<std::string> mismatch =
                    checksumMismatch(row->payload, row->payloadSize, row->checksum)) {
                if (Outcome skipped = skipDamaged(file, options, row->entryId, *mismatch); !skipped) {
                    return skipped;
                }
                continue;
            }
        }
        EntryView view = viewOf(*row);
        if (expand) {
            try {
                Compression::uncompressInto(row->payload, row->payloadSize, expanded);
            } catch (const Compression::CompressionError& error) {
                if (Outcome skipped = skipDamaged(file, options, row->entryId, error.what()); !skipped) {
                    return skipped;
                }
                continue;
            }
            view.data = expanded.data();
            view.size = expanded.size();
        } else {
            view.data = row->payload;
            view.size = row->payloadSize;
            view.compressed = file.compressesPayloads();
        }
        if (!visitor(view)) {
            return Outcome::success();
        }
    }
    return cursor.outcome();
}

// The threads that VisitOptions::decompressionThreads asks for.
std::size_t expansionThreads(int asked) {
    if (asked == 0) {
        return std::max(1u, std::thread::hardware_concurrency());
    }
    return static_cast<std::size_t>(std::clamp(asked, 1, 256));
}

// The expanded read with payloads expanded on other threads: the same
// entries, failures and outcomes, in the same order, as visitRows. Absent
// when the expansion left the rest of the read to visitRows.
std::optional<Outcome> visitExpandedInParallel(const SqliteLogFilePrivate& file, EntryCursor& cursor,
                                               std::size_t threads, bool verify,
                                               const SqliteLogFile::EntryVisitor& visitor,
                                               const VisitOptions& options) {
    ParallelExpansion expansion(cursor, threads, verify);
    while (PendingBatch* batch = expansion.takeNext()) {
        for (std::size_t i = 0; i < batch->count; ++i) {
            const PendingEntry& entry = batch->entries[i];
            if (entry.thrown) {
                std::rethrow_exception(entry.thrown);
            }
            if (!entry.problem.empty()) {
                if (Outcome skipped = skipDamaged(file, options, entry.view.entryId, entry.problem);
                    !skipped) {
                    return skipped;
                }
                continue;
            }
            EntryView view = entry.view;
            view.data = entry.expanded.data();
            view.size = entry.expanded.size();
            if (!visitor(view)) {
                return Outcome::success();
            }
        }
    }
    if (!expansion.readsAhead() && !expansion.cursorEnded()) {
        return std::nullopt;
    }
    return cursor.outcome();
}

// A read that visits entries has no richer answer than whether it finished:
// what stopped it is recorded on the file.
bool finished(const Outcome& visit) {
    return visit.ok();
}

}  // namespace

bool SqliteLogFile::visitEntries(const EntryRange& range, const EntryIndexFilter& filter,
                                 const EntryVisitor& visitor, const VisitOptions& options) const {
    const bool verify = options.verifyChecksums && d->entryChecksums;
    EntryCursor cursor(*d, range, filter, cursorOrder(options.order),
                       verify ? CursorColumns::WithPayloadsAndChecksums : CursorColumns::WithPayloads);
    const bool expand = options.payloadForm == PayloadForm::Expanded && d->compressesPayloads();
    if (const std::size_t threads = expansionThreads(options.decompressionThreads); expand && threads > 1) {
        if (const std::optional<Outcome> visit =
                visitExpandedInParallel(*d, cursor, threads, verify, visitor, options)) {
            return finished(*visit);
        }
    }
    return finished(visitRows(*d, cursor, verify, expand, visitor, options));
}

bool SqliteLogFile::visitEntrySummaries(const EntryRange& range, const EntryIndexFilter& filter,
                                        const SummaryVisitor& visitor) const {
    return visitEntrySummaries(range, filter, visitor, VisitOptions());
}

bool SqliteLogFile::visitEntrySummaries(const EntryRange& range, const EntryIndexFilter& filter,
                                        const SummaryVisitor& visitor, const VisitOptions& options) const {
    EntryCursor cursor(*d, range, filter, cursorOrder(options.order), CursorColumns::WithoutPayloads);
    while (const StoredEntry* row = cursor.next()) {
        if (!row->outOfRange.empty()) {
            if (const Outcome skipped = skipDamaged(*d, options, row->entryId, row->outOfRange); !skipped) {
                return finished(skipped);
            }
            continue;
        }
        const EntryView view = viewOf(*row);
        const EntrySummary summary{view.entryId, view.dataSourceId, view.type, view.timestamp,
                                   static_cast<int64_t>(row->payloadSize)};
        if (!visitor(summary)) {
            return true;
        }
    }
    return finished(cursor.outcome());
}

std::optional<TimeRange> SqliteLogFile::getTimeRange(const EntryIndexFilter& filter) const {
    // Two queries of one aggregate each: SQLite answers a lone min() or max()
    // on an indexed column from the index's ends.
    const std::string where = " WHERE 1" + andFilter(filter) + ";";
    SqliteQuery first(d->database, "SELECT min(data.timestamp) " + filteredFrom(filter) + where);
    filter.bindParameters(first);
    const std::optional<int64_t> firstTimestamp = singleInteger(*d, first, "Reading the time range of");
    if (!firstTimestamp) {
        return std::nullopt;
    }
    SqliteQuery last(d->database, "SELECT max(data.timestamp) " + filteredFrom(filter) + where);
    filter.bindParameters(last);
    const std::optional<int64_t> lastTimestamp = singleInteger(*d, last, "Reading the time range of");
    if (!lastTimestamp) {
        return std::nullopt;
    }
    return TimeRange{*firstTimestamp, *lastTimestamp};
}

std::optional<int32_t> SqliteLogFile::findEntryAtOrAfter(int64_t timestamp,
                                                         const EntryIndexFilter& filter) const {
    SqliteQuery query(d->database, "SELECT data.entryId " + filteredFrom(filter) +
                                       " WHERE data.timestamp >= :timestamp" + andFilter(filter) +
                                       " ORDER BY data.timestamp, data.entryId LIMIT 1;");
    query.bindParameter(":timestamp", timestamp);
    filter.bindParameters(query);
    const std::optional<int64_t> entryId = singleInteger(*d, query, "Finding an entry by time in");
    if (!entryId) {
        return std::nullopt;
    }
    return static_cast<int32_t>(*entryId);
}

bool SqliteLogFile::hasEntry(int32_t entryId) const {
    return getEntryTimestamp(entryId).has_value();
}

std::optional<int64_t> SqliteLogFile::getEntryTimestamp(int32_t entryId) const {
    SqliteQuery query(d->database, "SELECT timestamp FROM data WHERE entryId = :entryId;");
    query.bindParameter(":entryId", entryId);
    return singleInteger(*d, query, "Reading an entry's timestamp of");
}

namespace {

// SQLite runs an index build as one program: a loop over the table's rows
// into a sorter, then a loop over the sorted keys into the index. The
// instructions of those loop bodies, read from the program itself, are what
// one entry costs; a loop ends in a backward jump to its first instruction.
constexpr uint64_t kUsualIndexInstructionsPerRow = 9;

uint64_t indexInstructionsPerRow(const Database::SqliteDatabase& database) {
    uint64_t perRow = 0;
    try {
        SqliteQuery program(database, std::string("EXPLAIN ") + Schema::kCreateTimeIndex);
        while (program.executeStep() == Database::StepRow) {
            const std::optional<int64_t> address = program.getIntegerFromColumn(0);
            const std::optional<int64_t> target = program.getIntegerFromColumn(3);
            const auto opcode = program.borrowBytesFromColumn(1);
            if (!address || !target || !opcode || *target >= *address) {
                continue;
            }
            const std::string_view name(reinterpret_cast<const char*>(opcode->data), opcode->size);
            if (name == "Next" || name == "SorterNext") {
                perRow += static_cast<uint64_t>(*address - *target + 1);
            }
        }
    } catch (const std::exception&) {
        // The usual figure below.
    }
    return perRow > 0 ? perRow : kUsualIndexInstructionsPerRow;
}

// Removes the progress handler however the build ends.
class ProgressHandlerScope {
public:
    ProgressHandlerScope(Database::SqliteDatabase& database, int32_t instructions,
                         std::function<void()> handler)
        : database_(database) {
        database_.setProgressHandler(instructions, std::move(handler));
    }
    ~ProgressHandlerScope() { database_.clearProgressHandler(); }
    ProgressHandlerScope(const ProgressHandlerScope&) = delete;
    ProgressHandlerScope& operator=(const ProgressHandlerScope&) = delete;

private:
    Database::SqliteDatabase& database_;
};

}  // namespace

bool SqliteLogFile::createTimeIndex() {
    SqliteQuery query(d->database, Schema::kCreateTimeIndex);
    return d->executeWrite(query).ok();
}

bool SqliteLogFile::createTimeIndex(const std::function<void(uint64_t built, uint64_t total)>& progress) {
    if (!progress || hasTimeIndex()) {
        return createTimeIndex();
    }
    const auto total = static_cast<uint64_t>(std::max<int32_t>(getEntryCount(), 0));
    const uint64_t perRow = indexInstructionsPerRow(d->database);
    constexpr int32_t kInstructionsPerReport = 20000;
    uint64_t instructions = 0;
    const auto report = [&progress](uint64_t built, uint64_t of) {
        try {
            progress(built, of);
        } catch (...) {
            // Progress is only reported; it never ends the build.
        }
    };
    bool built = false;
    {
        ProgressHandlerScope scope(d->database, kInstructionsPerReport, [&] {
            instructions += kInstructionsPerReport;
            report(std::min(instructions / perRow, total), total);
        });
        built = createTimeIndex();
    }
    if (built) {
        report(total, total);
    }
    return built;
}

bool SqliteLogFile::hasTimeIndex() const {
    return Logging::hasTimeIndex(*d);
}

}  // namespace Marivane::Logging
