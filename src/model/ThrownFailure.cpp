#include <logging/ThrownFailure.h>

#include <core/Compression.h>
#include <database/DatabaseAccessError.h>
#include <database/DatabaseBusy.h>
#include <database/FileIsNotDatabase.h>
#include <logging/LegacyLogFileError.h>
#include <logging/NotALogFileError.h>

namespace Marivane::Logging {

namespace {

template <typename Error>
bool is(const std::exception& error) {
    return dynamic_cast<const Error*>(&error) != nullptr;
}

}  // namespace

ThrownFailure classifyThrown(const std::exception& error) noexcept {
    // Subclasses before the classes they derive from.
    if (is<Database::DatabaseBusy>(error)) {
        return ThrownFailure::Busy;
    }
    if (is<Database::FileIsNotDatabase>(error)) {
        return ThrownFailure::NotADatabase;
    }
    if (is<NotALogFileError>(error)) {
        return ThrownFailure::NotALogFile;
    }
    if (is<Database::DatabaseAccessError>(error)) {
        return ThrownFailure::Database;
    }
    if (is<LegacyLogFileError>(error)) {
        return ThrownFailure::LegacyLogFile;
    }
    if (is<Compression::CompressionError>(error)) {
        return ThrownFailure::Damaged;
    }
    return ThrownFailure::Foreign;
}

}  // namespace Marivane::Logging
