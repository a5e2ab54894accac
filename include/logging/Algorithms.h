#pragma once

#include <logging/LogFileInterface.h>
#include <logging/LoggingExport.h>

#include <filesystem>
#include <memory>
#include <string>
#include <variant>

namespace Marivane::Logging {

// Typed read of one metadata value: the value when the key exists, otherwise
// `defaultValue`. A value of another type than T fails with
// std::bad_variant_access. The int specialisation converts any stored integer
// and returns the default for anything else.
template <typename T>
T getMetadataValue(const LogFileInterface& logFile, const std::string& key, T defaultValue) {
    std::optional<PropertyValue> value = logFile.getMetadataValue(key);
    if (!value) {
        return defaultValue;
    }
    return std::get<T>(*value);
}

template <>
MV_LOGGING_EXPORT int getMetadataValue<int>(const LogFileInterface& logFile, const std::string& key,
                                            int defaultValue);

namespace Algorithms {

// Where a derived file of `sourcePath` goes when no path is given:
// "<source stem>_exported<ext>" beside the source, made unique (a number is
// added while something exists there). Creates nothing.
MV_LOGGING_EXPORT std::string defaultDerivedFilePath(const std::filesystem::path& sourcePath);

// Writes a new log file holding the entries startEntryId..endEntryId of
// `logFile` (both ids must exist), renumbered from 1, with the file's metadata
// (plus "oldApplicationName"/"oldApplicationVersion", which keep the earliest
// producer), resources, data sources (same ids), properties and the bookmarks
// that fall inside the range, remapped.
//
// Returns an empty pointer, creating nothing, when refused: something exists
// at `outputFilePath`, the range is reversed, or a bound is not an entry of a
// non-empty file (-1 for both bounds means a source without entries). An empty
// `outputFilePath` becomes "<source stem>_exported<ext>" beside the source,
// made unique. The result is also empty when the output cannot be created
// (the source's "currentTimeZone" is not text, or the path cannot be opened
// as a database). The overload below tells why for every refusal. Errors
// while copying propagate; the partial output then stays on disk.
//
// Reads `logFile` only through LogFileInterface; the result is open and owned
// by the caller.
MV_LOGGING_EXPORT std::unique_ptr<LogFileInterface> slice(const LogFileInterface& logFile, int startEntryId,
                                                          int endEntryId, std::string outputFilePath,
                                                          const std::string& applicationName,
                                                          const std::string& applicationVersion,
                                                          signed char compressionLevel);

// As above; when the result is empty and `whyEmpty` is not null, it receives
// the reason in the words copy uses for the same failure: "Cannot write
// '<path>': a file already exists there and is never overwritten.", "Cannot
// slice '<source>': entries <start> to <end> are not a range of its
// entries." or "Cannot write '<path>': <why the file could not be created>".
MV_LOGGING_EXPORT std::unique_ptr<LogFileInterface> slice(const LogFileInterface& logFile, int startEntryId,
                                                          int endEntryId, std::string outputFilePath,
                                                          const std::string& applicationName,
                                                          const std::string& applicationVersion,
                                                          signed char compressionLevel,
                                                          std::string* whyEmpty);

// slice over the whole file (first to last entry id). A file without entries
// gives a file with everything but entries and bookmarks.
MV_LOGGING_EXPORT std::unique_ptr<LogFileInterface> clone(const LogFileInterface& logFile,
                                                          const std::string& outputFilePath,
                                                          const std::string& applicationName,
                                                          const std::string& applicationVersion,
                                                          signed char compressionLevel);
// As above, with the reason for an empty result as slice gives it.
MV_LOGGING_EXPORT std::unique_ptr<LogFileInterface> clone(
    const LogFileInterface& logFile, const std::string& outputFilePath, const std::string& applicationName,
    const std::string& applicationVersion, signed char compressionLevel, std::string* whyEmpty);

}  // namespace Algorithms
}  // namespace Marivane::Logging
