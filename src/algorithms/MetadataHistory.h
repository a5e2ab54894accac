#pragma once

#include <logging/LogFileInterface.h>

#include <string>

namespace Marivane::Logging::Algorithms {

// True for the six keys every new file writes itself.
bool isFixedMetadataKey(const std::string& key);

// Records the producer that `source` names under `key` ("applicationName",
// "applicationVersion") as "old<Key>" in `output`, unless it equals
// `newValue` or the source already carries such a history value (which the
// metadata copy then brings over, so the earliest producer is kept).
void recordPreviousProducer(const LogFileInterface& source, LogFileInterface& output, const std::string& key,
                            const std::string& newValue);

// Copies every metadata entry but the fixed keys, with its type.
void copyMetadata(const LogFileInterface& source, LogFileInterface& output);

}  // namespace Marivane::Logging::Algorithms
