#pragma once

#include "check/Findings.h"

#include <cstddef>

namespace Marivane::Logging {
class SqliteLogFile;
}

namespace Marivane::Logging::Check {

// Reads every entry, payload included; returns the number that could be
// read in full.
std::size_t checkEntries(const SqliteLogFile& file, Findings& findings);

}  // namespace Marivane::Logging::Check
