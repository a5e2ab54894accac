#pragma once

#include <database/SqliteQuery.h>

#include <cstdint>
#include <optional>
#include <utility>
#include <variant>

namespace Marivane::Database {

// The column's value only when its stored alternative is exactly T (int64_t,
// double, std::string or std::vector<std::byte>); absent for NULL or any other
// alternative. Nothing is converted.
template <typename T>
std::optional<T> getValueFromColumn(const SqliteQuery& query, int column) {
    return Detail::takeAlternative<T>(query.getValueFromColumn(column));
}

// An integer column narrowed to 32 bits (low bits kept); absent for NULL or a
// value that is not an integer.
template <>
inline std::optional<int> getValueFromColumn<int>(const SqliteQuery& query, int column) {
    std::optional<int64_t> value = getValueFromColumn<int64_t>(query, column);
    if (!value) {
        return std::nullopt;
    }
    return static_cast<int>(*value);
}

}  // namespace Marivane::Database
