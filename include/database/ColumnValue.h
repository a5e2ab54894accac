#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace Marivane::Database {

// The value of one result column in its stored type: integer, real, text or
// blob, in that alternative order. Absent means SQL NULL.
using ColumnValue = std::optional<std::variant<int64_t, double, std::string, std::vector<std::byte>>>;

}  // namespace Marivane::Database
