#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace Marivane::Database {

// The value of one result column in its stored type: integer, real, text or
// blob, in that alternative order. Absent means SQL NULL.
using ColumnValue = std::optional<std::variant<int64_t, double, std::string, std::vector<std::byte>>>;

namespace Detail {

// The held value when an optional variant holds alternative T; absent
// otherwise. Nothing is converted.
template <typename T, typename Variant>
std::optional<T> takeAlternative(std::optional<Variant> value) {
    if (!value) {
        return std::nullopt;
    }
    if (T* held = std::get_if<T>(&*value)) {
        return std::move(*held);
    }
    return std::nullopt;
}

}  // namespace Detail

}  // namespace Marivane::Database
