#pragma once

#include "check/Findings.h"

#include <filesystem>

namespace Marivane::Logging::Check {

// SQLite's own checks of the file, on a read-only connection of its own
// that sees the file as it is, before the store opens (and possibly
// repairs) it. Throws Database::DatabaseBusy when a lock outlasts the wait.
void checkDatabase(const std::filesystem::path& path, Findings& findings);

}  // namespace Marivane::Logging::Check
