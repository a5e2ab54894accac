#pragma once

#include <core/CoreExport.h>

#include <cstdint>

namespace Marivane::Chrono {

// Wall-clock time in whole milliseconds since the Unix epoch (UTC).
MV_CORE_EXPORT int64_t msSinceUnixEpoch();

}  // namespace Marivane::Chrono
