#include "store/EntryCursor.h"

#include "services/database/ColumnAccess.h"
#include "store/Schema.h"
#include "store/SqliteLogFilePrivate.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <limits>
#include <set>
#include <string>

namespace Marivane::Logging {

namespace {

using Database::SqliteQuery;

constexpr int64_t kNoLowerBound = std::numeric_limits<int64_t>::min();
constexpr int64_t kNoUpperBound = std::numeric_limits<int64_t>::max();

bool hasTimeBounds(const EntryRange& range) {
    return range.startTimestamp != kNoLowerBound || range.endTimestamp != kNoUpperBound;
}

std::string integerList(const std::set<int64_t>& values) {
    std::string list;
    for (const int64_t value : values) {
        if (!list.empty()) {
            list += ',';
        }
        list += std::to_string(value);
    }
    return list;
}

// The data sources whose types the filter names, looked up once so that the
// walk itself never joins: an id list is all the rows need.
std::optional<std::set<int64_t>> sourcesOfTypes(const SqliteLogFilePrivate& file,
                                                const EntryIndexFilter& filter, Database::Status& status) {
    std::set<int64_t> types(filter.dataSourceTypes.begin(), filter.dataSourceTypes.end());
    std::set<int64_t> sources;
    SqliteQuery query(file.database, "SELECT dataSourceId, dataSourceType FROM dataSources;");
    while (query.executeStep() == Database::StepRow) {
        const auto id = Database::getValueFromColumn<int64_t>(query, 0);
        const auto type = Database::getValueFromColumn<int64_t>(query, 1);
        if (id && type && types.count(*type) != 0) {
            sources.insert(*id);
        }
    }
    if (!query.status().ok()) {
        status = query.status();
        return std::nullopt;
    }
    return sources;
}

// The filter as conditions on data's own columns, values written out (they
// are integers), so that the statement needs no parameters of its own.
// Fails (leaving `status` set) only when the data sources cannot be read.
std::optional<std::string> filterConditions(const SqliteLogFilePrivate& file, const EntryIndexFilter& filter,
                                            Database::Status& status) {
    std::string conditions;
    if (!filter.dataTypes.empty()) {
        conditions += " AND data.type IN (" +
                      integerList(std::set<int64_t>(filter.dataTypes.begin(), filter.dataTypes.end())) + ")";
    }
    std::optional<std::set<int64_t>> sources;
    if (!filter.dataSources.empty()) {
        sources.emplace(filter.dataSources.begin(), filter.dataSources.end());
    }
    if (!filter.dataSourceTypes.empty()) {
        const std::optional<std::set<int64_t>> found = sourcesOfTypes(file, filter, status);
        if (!found) {
            return std::nullopt;
        }
        const std::set<int64_t>& ofTypes = *found;
        if (!sources) {
            sources = ofTypes;
        } else {
            std::set<int64_t> both;
            std::set_intersection(sources->begin(), sources->end(), ofTypes.begin(), ofTypes.end(),
                                  std::inserter(both, both.begin()));
            sources = both;
        }
    }
    if (sources) {
        conditions +=
            sources->empty() ? " AND 0" : " AND data.dataSourceId IN (" + integerList(*sources) + ")";
    }
    return conditions;
}

// Only the bounds that are set: a condition costs every row a comparison.
std::string rangeConditions(const EntryRange& range) {
    std::string conditions = "1";
    if (range.minimumEntryId != -1) {
        conditions += " AND data.entryId >= :minimumEntryId";
    }
    if (range.maximumEntryId != -1) {
        conditions += " AND data.entryId <= :maximumEntryId";
    }
    if (hasTimeBounds(range)) {
        conditions += " AND data.timestamp BETWEEN :startTimestamp AND :endTimestamp";
    }
    return conditions;
}

std::string selectColumns(CursorColumns columns) {
    switch (columns) {
        case CursorColumns::WithPayloads:
            return "SELECT data.entryId, data.timestamp, data.type, data.dataSourceId, data.payload ";
        case CursorColumns::WithoutPayloads:
            return "SELECT data.entryId, data.timestamp, data.type, data.dataSourceId, data.length ";
        case CursorColumns::WithPayloadsAndChecksums:
            break;
    }
    return "SELECT data.entryId, data.timestamp, data.type, data.dataSourceId, data.payload, "
           "(SELECT checksum FROM entryChecksums WHERE entryChecksums.entryId = data.entryId) ";
}

std::string idWalkStatement(const std::string& conditions, CursorColumns columns) {
    // NOT INDEXED keeps the walk on the table itself: a filter on a data
    // source must not make the planner walk that index and sort the rows,
    // payloads and all, to restore id order.
    return selectColumns(columns) + "FROM data NOT INDEXED WHERE " + conditions + " ORDER BY data.entryId;";
}

// The rows in id order whose ids the time index finds: one statement, so one
// read of the index and one walk of the table in a single transaction. SQLite
// keeps the ids in a temporary b-tree (spilled to disk when large), which it
// walks in order, so no sort of the rows is needed.
std::string idsThroughTimeIndexStatement(const std::string& conditions, CursorColumns columns) {
    return selectColumns(columns) +
           "FROM data WHERE data.entryId IN (SELECT data.entryId FROM data INDEXED BY " +
           Schema::kTimeIndexName + " WHERE " + conditions + ") ORDER BY data.entryId;";
}

// The index holds (timestamp, entryId), which is the order asked for: no sort.
std::string timeIndexWalkStatement(const std::string& conditions, CursorColumns columns) {
    return selectColumns(columns) + "FROM data INDEXED BY " + Schema::kTimeIndexName + " WHERE " +
           conditions + " ORDER BY data.timestamp, data.entryId;";
}

void bindRange(SqliteQuery& query, const EntryRange& range) {
    query.bindParameter(":minimumEntryId", range.minimumEntryId == -1 ? kNoLowerBound : range.minimumEntryId);
    query.bindParameter(":maximumEntryId", range.maximumEntryId == -1 ? kNoUpperBound : range.maximumEntryId);
    query.bindParameter(":startTimestamp", range.startTimestamp);
    query.bindParameter(":endTimestamp", range.endTimestamp);
}

std::optional<int64_t> aggregate(const SqliteLogFilePrivate& file, const char* sql) {
    SqliteQuery query(file.database, sql);
    if (query.executeStep() != Database::StepRow) {
        return std::nullopt;
    }
    return query.getIntegerFromColumn(0);
}

// Rows up to this size (on average, as stored) are sorted whole.
constexpr int64_t kSortWholeRowsUpTo = 2048;

// The file's bytes per entry id, from its page count: no row is read.
int64_t averageRowBytes(const SqliteLogFilePrivate& file) {
    const std::optional<int64_t> pages = aggregate(file, "PRAGMA page_count;");
    const std::optional<int64_t> pageSize = aggregate(file, "PRAGMA page_size;");
    const std::optional<int64_t> firstId = aggregate(file, "SELECT min(entryId) FROM data;");
    const std::optional<int64_t> lastId = aggregate(file, "SELECT max(entryId) FROM data;");
    if (!pages || !pageSize || !firstId || !lastId) {
        return 0;
    }
    return bytesPerEntryId(*pages, *pageSize, *firstId, *lastId);
}

// Whether walking the time index would pass many more entries than the id
// range holds: then the id range is read and sorted instead. The part of the
// index walked is estimated from the time bounds as if entries were spread
// evenly over the file's time span; each end is a lookup of one b-tree edge.
bool idRangeIsNarrowForTheIndex(const SqliteLogFilePrivate& file, const EntryRange& range) {
    if (range.minimumEntryId == -1 && range.maximumEntryId == -1) {
        return false;
    }
    const std::optional<int64_t> firstId = aggregate(file, "SELECT min(entryId) FROM data;");
    const std::optional<int64_t> lastId = aggregate(file, "SELECT max(entryId) FROM data;");
    if (!firstId || !lastId) {
        return false;
    }
    using Real = long double;
    const Real low =
        range.minimumEntryId == -1 ? *firstId : std::max<int64_t>(*firstId, range.minimumEntryId);
    const Real high = range.maximumEntryId == -1 ? *lastId : std::min<int64_t>(*lastId, range.maximumEntryId);
    const Real idSpan = std::max<Real>(0, high - low + 1);
    Real walked = static_cast<Real>(*lastId) - static_cast<Real>(*firstId) + 1;
    if (hasTimeBounds(range)) {
        const std::optional<int64_t> firstTime = aggregate(file, "SELECT min(timestamp) FROM data;");
        const std::optional<int64_t> lastTime = aggregate(file, "SELECT max(timestamp) FROM data;");
        if (firstTime && lastTime) {
            const Real start = std::max(range.startTimestamp, *firstTime);
            const Real end = std::min(range.endTimestamp, *lastTime);
            const Real span = static_cast<Real>(*lastTime) - static_cast<Real>(*firstTime) + 1;
            if (span >= 1) {
                walked *= std::clamp<Real>((end - start + 1) / span, 0, 1);
            }
        }
    }
    return idSpan * 4 < walked;
}

bool fitsRecordTypes(const StoredEntry& row) {
    return row.entryId >= std::numeric_limits<int32_t>::min() &&
           row.entryId <= std::numeric_limits<int32_t>::max() &&
           row.type >= std::numeric_limits<int32_t>::min() &&
           row.type <= std::numeric_limits<int32_t>::max() &&
           row.dataSourceId >= std::numeric_limits<int8_t>::min() &&
           row.dataSourceId <= std::numeric_limits<int8_t>::max();
}

std::string describeOutOfRange(int64_t entryId, bool timestampIsInteger, int64_t type, int64_t dataSourceId) {
    std::string reasons;
    const auto add = [&reasons](const std::string& reason) {
        if (!reasons.empty()) {
            reasons += "; ";
        }
        reasons += reason;
    };
    if (entryId < std::numeric_limits<int32_t>::min() || entryId > std::numeric_limits<int32_t>::max()) {
        add("its id " + std::to_string(entryId) + " does not fit in 32 bits");
    }
    if (!timestampIsInteger) {
        add("its timestamp is not an integer");
    }
    if (type < std::numeric_limits<int32_t>::min() || type > std::numeric_limits<int32_t>::max()) {
        add("its type " + std::to_string(type) + " does not fit in 32 bits");
    }
    if (dataSourceId < std::numeric_limits<int8_t>::min() ||
        dataSourceId > std::numeric_limits<int8_t>::max()) {
        add("its data-source id " + std::to_string(dataSourceId) + " does not fit in 8 bits");
    }
    return reasons;
}

}  // namespace

int64_t bytesPerEntryId(int64_t pageCount, int64_t pageSize, int64_t firstId, int64_t lastId) {
    using Real = long double;
    const Real ids = static_cast<Real>(lastId) - static_cast<Real>(firstId) + 1;
    if (!(ids >= 1)) {
        return 0;
    }
    const Real bytes = static_cast<Real>(pageCount) * static_cast<Real>(pageSize) / ids;
    if (!(bytes >= 0)) {
        return 0;
    }
    return static_cast<int64_t>(std::min(bytes, static_cast<Real>(std::numeric_limits<int32_t>::max())));
}

bool hasTimeIndex(const SqliteLogFilePrivate& file) {
    SqliteQuery query(file.database, "SELECT 1 FROM sqlite_master WHERE type = 'index' AND name = :name;");
    query.bindParameter(":name", std::string(Schema::kTimeIndexName), Database::BindMode::Copy);
    return query.executeStep() == Database::StepRow;
}

EntryCursor::EntryCursor(const SqliteLogFilePrivate& file, const EntryRange& range,
                         const EntryIndexFilter& filter, CursorOrder order, CursorColumns columns)
    : file_(file), columns_(columns) {
    if ((order == CursorOrder::ByTimestamp || hasTimeBounds(range)) && !pinReadTransaction()) {
        return;
    }
    Database::Status sourcesRead;
    const std::optional<std::string> filtered = filterConditions(file, filter, sourcesRead);
    if (!filtered) {
        failure_ = file_.recordFailure("Reading the data sources of", sourcesRead);
        release();
        return;
    }
    const std::string conditions = rangeConditions(range) + *filtered;
    if (order == CursorOrder::ByTimestamp) {
        planTimeOrder(range, conditions);
        return;
    }
    if (hasTimeBounds(range) && hasTimeIndex(file)) {
        query_.emplace(file.database, idsThroughTimeIndexStatement(conditions, columns));
    } else {
        query_.emplace(file.database, idWalkStatement(conditions, columns));
    }
    bindRange(*query_, range);
}

bool EntryCursor::pinReadTransaction() {
    // A statement that has yielded a row and is not yet reset keeps the
    // connection's read transaction open, and the statements stepped meanwhile
    // join it; inside a write batch the batch's transaction already does.
    pin_.emplace(file_.database, "SELECT count(*) FROM sqlite_master;");
    if (pin_->executeStep() == Database::StepRow) {
        return true;
    }
    fail(*pin_);
    return false;
}

void EntryCursor::planTimeOrder(const EntryRange& range, const std::string& conditions) {
    if (hasTimeIndex(file_) && !idRangeIsNarrowForTheIndex(file_, range)) {
        query_.emplace(file_.database, timeIndexWalkStatement(conditions, columns_));
        bindRange(*query_, range);
        return;
    }
    const std::optional<bool> followIds = timestampsFollowIds(range, conditions);
    if (!followIds) {
        return;
    }
    if (*followIds) {
        query_.emplace(file_.database, idWalkStatement(conditions, columns_));
        bindRange(*query_, range);
        return;
    }
    // SQLite's sorter keeps a few MiB in memory and spills the rest to
    // temporary files. Small rows go through it whole, which is cheaper than a
    // lookup per row; large ones would be copied to disk and back, so only
    // their keys are sorted and each row is then read by id.
    if (columns_ == CursorColumns::WithoutPayloads || averageRowBytes(file_) <= kSortWholeRowsUpTo) {
        query_.emplace(file_.database, selectColumns(columns_) + "FROM data NOT INDEXED WHERE " + conditions +
                                           " ORDER BY data.timestamp, data.entryId;");
        bindRange(*query_, range);
        return;
    }
    sortedKeys_.emplace(file_.database, "SELECT data.entryId FROM data NOT INDEXED WHERE " + conditions +
                                            " ORDER BY data.timestamp, data.entryId;");
    bindRange(*sortedKeys_, range);
    query_.emplace(file_.database, selectColumns(columns_) + "FROM data WHERE data.entryId = :entryId;");
}

std::optional<bool> EntryCursor::timestampsFollowIds(const EntryRange& range, const std::string& conditions) {
    SqliteQuery timestamps(file_.database, "SELECT data.timestamp FROM data NOT INDEXED WHERE " + conditions +
                                               " ORDER BY data.entryId;");
    bindRange(timestamps, range);
    bool first = true;
    int64_t previous = 0;
    int32_t step = Database::StepFailed;
    while ((step = timestamps.executeStep()) == Database::StepRow) {
        SqliteQuery::RawColumn timestamp;  // NOLINT(cppcoreguidelines-pro-type-member-init)
        timestamps.readColumns(&timestamp, 1);
        // A stored value that is not an integer is ordered as SQLite orders
        // it, which only the sort knows.
        if (!timestamp.isInteger || (!first && timestamp.integer < previous)) {
            return false;
        }
        previous = timestamp.integer;
        first = false;
    }
    if (step != Database::StepDone) {
        fail(timestamps);
        return std::nullopt;
    }
    return true;
}

const StoredEntry* EntryCursor::next() {
    if (failed() || finished_) {
        return nullptr;
    }
    const bool gotRow = sortedKeys_ ? stepThroughSortedKeys() : stepMainQuery();
    if (!gotRow) {
        return nullptr;
    }
    takeRow(*query_);
    return &row_;
}

bool EntryCursor::stepMainQuery() {
    const int32_t step = query_->executeStep();
    if (step == Database::StepRow) {
        return true;
    }
    if (step == Database::StepDone) {
        finished_ = true;
        release();
    } else {
        fail(*query_);
    }
    return false;
}

bool EntryCursor::stepThroughSortedKeys() {
    while (true) {
        const int32_t keyStep = sortedKeys_->executeStep();
        if (keyStep == Database::StepDone) {
            finished_ = true;
            release();
            return false;
        }
        if (keyStep != Database::StepRow) {
            fail(*sortedKeys_);
            return false;
        }
        static const std::string kEntryId = ":entryId";
        query_->resetQuery();
        query_->bindParameter(kEntryId, sortedKeys_->getIntegerFromColumn(0).value_or(0));
        const int32_t step = query_->executeStep();
        if (step == Database::StepRow) {
            return true;
        }
        // The transaction is held, so the row is there; should it be gone all
        // the same, it is skipped, as a walk that began later would skip it.
        if (step != Database::StepDone) {
            fail(*query_);
            return false;
        }
    }
}

void EntryCursor::release() {
    // After the end or a failure there is no current row to keep: every
    // statement goes back to the connection's cache, the pin last, and with it
    // the read transaction.
    query_.reset();
    sortedKeys_.reset();
    pin_.reset();
}

void EntryCursor::takeRow(const SqliteQuery& query) {
    // Filled by readColumns; not initialised here, which would cost as much.
    std::array<SqliteQuery::RawColumn, 6> columns;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    const bool withChecksums = columns_ == CursorColumns::WithPayloadsAndChecksums;
    query.readColumns(columns.data(), withChecksums ? 6 : 5);
    row_.entryId = columns[0].integer;
    row_.timestamp = columns[1].integer;
    row_.type = columns[2].integer;
    row_.dataSourceId = columns[3].integer;
    row_.outOfRange.clear();
    if (!columns[1].isInteger || !fitsRecordTypes(row_)) {
        row_.outOfRange =
            describeOutOfRange(row_.entryId, columns[1].isInteger, row_.type, row_.dataSourceId);
    }
    if (withChecksums) {
        row_.checksum = columns[5].isInteger ? std::optional<int64_t>(columns[5].integer) : std::nullopt;
    }
    if (columns_ != CursorColumns::WithoutPayloads) {
        row_.payload = columns[4].bytes.data;
        row_.payloadSize = columns[4].bytes.size;
        if (!columns[4].isBytes) {
            row_.outOfRange +=
                row_.outOfRange.empty() ? "its payload is not a blob" : "; its payload is not a blob";
        }
    } else {
        row_.payload = nullptr;
        row_.payloadSize = static_cast<std::size_t>(std::max<int64_t>(0, columns[4].integer));
    }
}

void EntryCursor::fail(const SqliteQuery& query) {
    const std::string operation = "Reading entries after entry " + std::to_string(row_.entryId) + " of";
    failure_ = file_.recordFailure(operation.c_str(), query.status());
    release();
}

}  // namespace Marivane::Logging
