#pragma once

#include <logging/MV_LogDataSourceType.h>

#include <cstdint>
#include <string>

namespace Marivane::Logging {

// A producer of entries.
struct DataSource {
    // Assigned by the file; -1 until then. Ids are 8 bits wide, so a file that
    // assigns more than 127 of them wraps into negative ids.
    int8_t id = -1;
    MV_LogDataSourceType type = MV_LogDataSourceType_Generic;
    std::string name;
};

}  // namespace Marivane::Logging
