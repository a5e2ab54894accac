#pragma once

#include <cstdint>
#include <string>

namespace Marivane::Logging {

// A resource of a file (FileSummary::resources): its name and its size as
// stored. A plain value: copy it freely.
struct ResourceSummary {
    std::string name;
    uint64_t size = 0;
};

}  // namespace Marivane::Logging
