#include "cursor/EntryCursor.h"

#include "services/database/ColumnAccess.h"
#include "sqlite/SqliteLogFilePrivate.h"

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

std::string walkStatement(const std::string& conditions, CursorOrder order, CursorColumns columns) {
    // NOT INDEXED keeps the walk on the table itself: a filter on a data
    // source must not make the planner walk that index and sort the rows,
    // payloads and all, to restore id order.
    if (order == CursorOrder::ById) {
        return selectColumns(columns) + "FROM data NOT INDEXED WHERE " + conditions +
               " ORDER BY data.entryId;";
    }
    return selectColumns(columns) + "FROM data WHERE " + conditions +
           " ORDER BY data.timestamp, data.entryId;";
}

void bindRange(SqliteQuery& query, const EntryRange& range) {
    query.bindParameter(":minimumEntryId", range.minimumEntryId == -1 ? kNoLowerBound : range.minimumEntryId);
    query.bindParameter(":maximumEntryId", range.maximumEntryId == -1 ? kNoUpperBound : range.maximumEntryId);
    query.bindParameter(":startTimestamp", range.startTimestamp);
    query.bindParameter(":endTimestamp", range.endTimestamp);
}

bool useIdList(const SqliteLogFilePrivate& file, const EntryRange& range, CursorOrder order) {
    return order == CursorOrder::ById && hasTimeBounds(range) && hasTimeIndex(file);
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

bool hasTimeIndex(const SqliteLogFilePrivate& file) {
    SqliteQuery query(file.database, "SELECT 1 FROM sqlite_master WHERE type = 'index' AND name = :name;");
    query.bindParameter(":name", std::string(kTimeIndexName), Database::BindMode::Copy);
    return query.executeStep() == Database::StepRow;
}

EntryCursor::EntryCursor(const SqliteLogFilePrivate& file, const EntryRange& range,
                         const EntryIndexFilter& filter, CursorOrder order, CursorColumns columns)
    : file_(file), columns_(columns) {
    const std::optional<std::string> filtered = filterConditions(file, filter, status_);
    if (!filtered) {
        failed_ = true;
        file_.recordFailure("Reading the data sources of", status_);
        return;
    }
    const std::string conditions = rangeConditions(range) + *filtered;
    if (!useIdList(file, range, order)) {
        query_.emplace(file.database, walkStatement(conditions, order, columns));
        bindRange(*query_, range);
        return;
    }
    SqliteQuery idQuery(file.database, std::string("SELECT data.entryId FROM data INDEXED BY ") +
                                           kTimeIndexName + " WHERE " + conditions + ";");
    bindRange(idQuery, range);
    ids_.emplace();
    while (idQuery.executeStep() == Database::StepRow) {
        ids_->push_back(Database::getValueFromColumn<int>(idQuery, 0).value_or(0));
    }
    if (!idQuery.status().ok()) {
        fail(idQuery);
        return;
    }
    std::sort(ids_->begin(), ids_->end());
    query_.emplace(file.database, selectColumns(columns) + "FROM data WHERE data.entryId = :entryId;");
}

const StoredEntry* EntryCursor::next() {
    if (failed_ || finished_) {
        return nullptr;
    }
    const bool gotRow = ids_ ? stepThroughIdList() : stepMainQuery();
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
    } else {
        fail(*query_);
    }
    return false;
}

bool EntryCursor::stepThroughIdList() {
    // An id that vanished between the two steps (another connection removed
    // it) is skipped, as a walk that started later would skip it.
    while (nextId_ < ids_->size()) {
        query_->resetQuery();
        query_->bindParameter(":entryId", (*ids_)[nextId_++]);
        const int32_t step = query_->executeStep();
        if (step == Database::StepRow) {
            return true;
        }
        if (step != Database::StepDone) {
            fail(*query_);
            return false;
        }
    }
    finished_ = true;
    return false;
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
    failed_ = true;
    status_ = query.status();
    const std::string operation = "Reading entries after entry " + std::to_string(row_.entryId) + " of";
    file_.recordFailure(operation.c_str(), status_);
}

}  // namespace Marivane::Logging
