#include "algorithms/MetadataHistory.h"

#include "model/FixedMetadataKeys.h"

#include <logging/Algorithms.h>

#include <algorithm>
#include <cctype>

namespace Marivane::Logging::Algorithms {

namespace {

// "applicationName" -> "oldApplicationName".
std::string historyKeyFor(const std::string& key) {
    std::string history = "old" + key;
    history[3] = static_cast<char>(std::toupper(static_cast<unsigned char>(history[3])));
    return history;
}

}  // namespace

bool isFixedMetadataKey(const std::string& key) {
    return std::find(kFixedMetadataKeys.begin(), kFixedMetadataKeys.end(), key) != kFixedMetadataKeys.end();
}

void recordPreviousProducer(const LogFileInterface& source, LogFileInterface& output, const std::string& key,
                            const std::string& newValue) {
    const std::string oldValue = getMetadataValue<std::string>(source, key, std::string());
    if (oldValue == newValue) {
        return;
    }
    const std::string historyKey = historyKeyFor(key);
    if (!source.getMetadataValue(historyKey)) {
        output.addMetadata(historyKey, oldValue);
    }
}

void copyMetadata(const LogFileInterface& source, LogFileInterface& output) {
    for (const LogMetadataEntry& entry : source.getAllMetadata()) {
        if (!isFixedMetadataKey(entry.key)) {
            output.addMetadata(entry.key, entry.value);
        }
    }
}

}  // namespace Marivane::Logging::Algorithms
