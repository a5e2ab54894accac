#pragma once

#include <logging/PropertyValue.h>

#include <database/ColumnValue.h>

#include <cstdint>
#include <optional>
#include <utility>
#include <variant>

namespace Marivane::Database {

// The value when it holds T; absent otherwise (or when `value` is absent).
template <typename T>
std::optional<T> requireType(std::optional<Logging::PropertyValue> value) {
    return Detail::takeAlternative<T>(std::move(value));
}

// Every integer read back from a file is 64-bit, so a 32-bit request accepts
// either integer alternative and narrows the 64-bit one (low bits kept).
template <>
inline std::optional<int32_t> requireType<int32_t>(std::optional<Logging::PropertyValue> value) {
    if (!value) {
        return std::nullopt;
    }
    if (const int32_t* narrow = std::get_if<int32_t>(&*value)) {
        return *narrow;
    }
    if (const int64_t* wide = std::get_if<int64_t>(&*value)) {
        return static_cast<int32_t>(*wide);
    }
    return std::nullopt;
}

}  // namespace Marivane::Database
