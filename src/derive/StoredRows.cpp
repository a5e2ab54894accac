#include "derive/StoredRows.h"

#include "services/database/ColumnAccess.h"
#include "sqlite/StoreAccess.h"

#include <stdexcept>
#include <utility>

namespace Marivane::Logging::Algorithms {

namespace {

std::string statementFor(const EntryIndexFilter& filter, RowOrder order) {
    std::string sql =
        "SELECT data.entryId, data.timestamp, data.type, data.dataSourceId, data.payload FROM data";
    if (!filter.dataSourceTypes.empty()) {
        sql += " INNER JOIN dataSources ON data.dataSourceId = dataSources.dataSourceId";
    }
    sql +=
        " WHERE data.entryId BETWEEN :minimumEntryId AND :maximumEntryId AND data.timestamp BETWEEN "
        ":startTimestamp "
        "AND :endTimestamp";
    const std::string filterClause = filter.toWhereClause();
    if (!filterClause.empty()) {
        // The filter's clause starts with "WHERE "; its conditions join ours.
        sql += " AND (" + filterClause.substr(6) + ")";
    }
    sql += order == RowOrder::ById ? " ORDER BY data.entryId;" : " ORDER BY data.timestamp, data.entryId;";
    return sql;
}

}  // namespace

StoredRows::StoredRows(const SqliteLogFile& file, RowSelection selection, RowOrder order)
    : file_(file),
      selection_(std::move(selection)),
      query_(StoreAccess::of(file).database, statementFor(selection_.filter, order)) {
    query_.bindParameter(":minimumEntryId", selection_.firstEntryId);
    query_.bindParameter(":maximumEntryId", selection_.lastEntryId);
    query_.bindParameter(":startTimestamp", selection_.startTimestamp);
    query_.bindParameter(":endTimestamp", selection_.endTimestamp);
    selection_.filter.bindParameters(query_);
}

const StoredRow* StoredRows::next() {
    const int32_t step = query_.executeStep();
    if (step == Database::StepDone) {
        return nullptr;
    }
    if (step != Database::StepRow) {
        const Database::Status status = query_.status();
        StoreAccess::of(file_).recordFailure("Reading entries of", status);
        throw std::runtime_error("Cannot read '" + file_.getFilePath().string() + "' after entry " +
                                 std::to_string(row_.entryId) + ": " + file_.getLastFailure());
    }
    row_.entryId = Database::getValueFromColumn<int>(query_, 0).value_or(0);
    row_.timestamp = Database::getValueFromColumn<int64_t>(query_, 1).value_or(0);
    row_.type = Database::getValueFromColumn<int>(query_, 2).value_or(0);
    row_.dataSourceId = static_cast<int8_t>(Database::getValueFromColumn<int>(query_, 3).value_or(-1));
    row_.payload = Database::getValueFromColumn<ByteBuffer>(query_, 4).value_or(ByteBuffer());
    return &row_;
}

}  // namespace Marivane::Logging::Algorithms
