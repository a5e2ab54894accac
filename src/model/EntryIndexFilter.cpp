#include <logging/EntryIndexFilter.h>

#include <database/SqliteQuery.h>

namespace Marivane::Logging {

bool EntryIndexFilter::addColumnFilter(std::string& clause, const std::string& column, std::size_t count,
                                       const std::string& parameterPrefix) {
    if (count == 0) {
        return false;
    }
    clause += column;
    clause += " IN (";
    clause += parameterPrefix;
    clause += "0";
    for (std::size_t i = 1; i < count; ++i) {
        clause += ", ";
        clause += parameterPrefix;
        clause += std::to_string(i);
    }
    clause += ")";
    return true;
}

std::string EntryIndexFilter::toWhereClause() const {
    if (dataTypes.empty() && dataSources.empty() && dataSourceTypes.empty()) {
        return {};
    }
    // The leading blanks of the later columns are kept even when nothing
    // precedes them ("WHERE  data..."): the text is part of the statement
    // identity and SQLite does not mind.
    std::string clause = "WHERE ";
    const bool byType = addColumnFilter(clause, "data.type", dataTypes.size(), ":type");
    const bool bySource = addColumnFilter(clause, byType ? " AND data.dataSourceId" : " data.dataSourceId",
                                          dataSources.size(), ":source");
    addColumnFilter(clause,
                    byType || bySource ? " AND dataSources.dataSourceType" : " dataSources.dataSourceType",
                    dataSourceTypes.size(), ":sourceType");
    return clause;
}

void EntryIndexFilter::bindParameters(Marivane::Database::SqliteQuery& query) const {
    for (std::size_t i = 0; i < dataTypes.size(); ++i) {
        query.bindParameter(":type" + std::to_string(i), int32_t{dataTypes[i]});
    }
    for (std::size_t i = 0; i < dataSources.size(); ++i) {
        query.bindParameter(":source" + std::to_string(i), int32_t{dataSources[i]});
    }
    for (std::size_t i = 0; i < dataSourceTypes.size(); ++i) {
        query.bindParameter(":sourceType" + std::to_string(i), static_cast<int32_t>(dataSourceTypes[i]));
    }
}

}  // namespace Marivane::Logging
