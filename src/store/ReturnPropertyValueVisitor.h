#pragma once

#include <logging/PropertyValue.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Marivane::Database {

// Turns a stored column value into a PropertyValue: every integer becomes the
// 64-bit alternative, a real the double, text the text. A blob (never written
// by the log store into a value column) becomes the text of its bytes.
class ReturnPropertyValueVisitor {
public:
    Logging::PropertyValue operator()(int64_t value) const { return value; }
    Logging::PropertyValue operator()(double value) const { return value; }
    Logging::PropertyValue operator()(const std::string& value) const { return value; }
    Logging::PropertyValue operator()(const std::vector<std::byte>& value) const {
        return std::string(reinterpret_cast<const char*>(value.data()), value.size());
    }
};

}  // namespace Marivane::Database
