#pragma once

#include <cstdint>
#include <string>
#include <variant>

namespace Marivane::Logging {

// Value of a data-source property or a metadata entry. The alternative order is
// part of the interface (the C layer tests alternatives by index). Every
// integer read back from a file is the int64_t alternative, whatever width was
// written.
using PropertyValue = std::variant<int32_t, int64_t, double, std::string>;

}  // namespace Marivane::Logging
