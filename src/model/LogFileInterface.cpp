#include <logging/LogFileInterface.h>

namespace Marivane::Logging {

LogFileInterface::~LogFileInterface() = default;

bool LogFileInterface::addMetadata(const LogMetadataEntry& entry) {
    return addMetadata(entry.key, entry.value);
}

bool LogFileInterface::addResource(const LogResourceEntry& entry) {
    return addResource(entry.name, entry.data);
}

SqliteLogFile* LogFileInterface::sqliteLogFile() noexcept {
    return nullptr;
}

const SqliteLogFile* LogFileInterface::sqliteLogFile() const noexcept {
    // The same answer as the mutable form, which implementations override.
    return const_cast<LogFileInterface*>(this)->sqliteLogFile();
}

}  // namespace Marivane::Logging
