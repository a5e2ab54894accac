#include <logging/LogFileInterface.h>

namespace Marivane::Logging {

LogFileInterface::~LogFileInterface() = default;

bool LogFileInterface::addMetadata(const LogMetadataEntry& entry) {
    return addMetadata(entry.key, entry.value);
}

bool LogFileInterface::addResource(const LogResourceEntry& entry) {
    return addResource(entry.name, entry.data);
}

}  // namespace Marivane::Logging
