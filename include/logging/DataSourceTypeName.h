#pragma once

#include <logging/LoggingExport.h>
#include <logging/MV_LogDataSourceType.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Marivane::Logging {

// The names of the common data-source types, shared by every interface so
// that a type reads the same in the C layer, the tool and Python. Pure
// functions over a constant table: safe from any thread.

// The enumerator's short name ("Camera", "VehicleBus") for the common types,
// otherwise the value in decimal: any 32-bit value is a valid type.
MV_LOGGING_EXPORT std::string dataSourceTypeName(MV_LogDataSourceType type);

// The short name of a common type as static text, or nullptr for any other
// value (for interfaces that cannot hand out a string they own).
MV_LOGGING_EXPORT const char* commonDataSourceTypeName(MV_LogDataSourceType type);

// The type a name stands for: a short enumerator name in any letter case, or
// a decimal 32-bit value; nothing for other text.
MV_LOGGING_EXPORT std::optional<MV_LogDataSourceType> dataSourceTypeFromName(const std::string& name);

// The common types with their short names, in ascending value.
MV_LOGGING_EXPORT std::vector<std::pair<MV_LogDataSourceType, std::string>> commonDataSourceTypes();

}  // namespace Marivane::Logging
