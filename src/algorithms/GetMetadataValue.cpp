#include <logging/Algorithms.h>

#include "model/RequireType.h"

namespace Marivane::Logging {

template <>
int getMetadataValue<int>(const LogFileInterface& logFile, const std::string& key, int defaultValue) {
    return Database::requireType<int32_t>(logFile.getMetadataValue(key)).value_or(defaultValue);
}

}  // namespace Marivane::Logging
