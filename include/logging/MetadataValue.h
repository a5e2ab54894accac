#pragma once

#include <logging/LoggingExport.h>

#include <cstdint>
#include <optional>
#include <string>

namespace Marivane::Logging {

class LogFileInterface;

// A metadata value read as the type a description of the file needs,
// whatever width the writer stored: nothing when the key is absent or holds
// another type. Reads the file as its own getMetadataValue does (same
// threads rule), and throws as that does.

// An integer stored in 32 or 64 bits.
MV_LOGGING_EXPORT std::optional<int64_t> integerMetadata(const LogFileInterface& file,
                                                         const std::string& key);
MV_LOGGING_EXPORT std::optional<std::string> textMetadata(const LogFileInterface& file,
                                                          const std::string& key);

}  // namespace Marivane::Logging
