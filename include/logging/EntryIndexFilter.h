#pragma once

#include <logging/LoggingExport.h>
#include <logging/MV_LogDataSourceType.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Marivane::Database {
class SqliteQuery;
}

namespace Marivane::Logging {

// Selects entries by entry type, data source and data-source type. Within one
// list the values are alternatives; the non-empty lists are combined with AND;
// an all-empty filter admits every entry. Duplicates are kept (harmless).
//
// The filter is a plain value: copy it freely; it is read-only to the reads
// that use it.
class MV_LOGGING_EXPORT EntryIndexFilter {
public:
    std::vector<int32_t> dataTypes;
    std::vector<int8_t> dataSources;
    std::vector<MV_LogDataSourceType> dataSourceTypes;

    // The WHERE clause with numbered parameters (":type0", ":source0",
    // ":sourceType0", ...), or the empty text for an empty filter. The text
    // depends only on the three list lengths.
    std::string toWhereClause() const;

    // Binds every parameter that toWhereClause names, as 32-bit integers.
    void bindParameters(Marivane::Database::SqliteQuery& query) const;

private:
    static bool addColumnFilter(std::string& clause, const std::string& column, std::size_t count,
                                const std::string& parameterPrefix);
};

}  // namespace Marivane::Logging
