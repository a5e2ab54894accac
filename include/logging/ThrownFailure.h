#pragma once

#include <logging/LoggingExport.h>

#include <exception>

namespace Marivane::Logging {

// What an exception thrown by this library stands for. Opening a file, and
// preparing a statement on it, throw the classes of the layer that found the
// problem (the log file's own, the database library's, the codec's); a
// binding or a tool answers all of them through this one classification
// instead of naming each layer's classes.
enum class ThrownFailure {
    // Not one of this library's exceptions.
    Foreign,
    // Another connection held a lock past the wait.
    Busy,
    // The database library found that the file is not a database.
    NotADatabase,
    // The file is not a log file.
    NotALogFile,
    // A log file of the legacy format, which is recognised only to be refused.
    LegacyLogFile,
    // A stored payload or resource that does not expand.
    Damaged,
    // Any other failure of the database library (an unreadable path, say).
    Database,
};

// Whether the database library threw it: Busy, NotADatabase or Database.
inline bool isDatabaseFailure(ThrownFailure failure) {
    return failure == ThrownFailure::Busy || failure == ThrownFailure::NotADatabase ||
           failure == ThrownFailure::Database;
}

// Safe on any thread; never throws.
MV_LOGGING_EXPORT ThrownFailure classifyThrown(const std::exception& error) noexcept;

}  // namespace Marivane::Logging
