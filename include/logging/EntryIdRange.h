#pragma once

#include <cstdint>

namespace Marivane::Logging {

// An inclusive run of entry ids. A plain value: copy it freely.
struct EntryIdRange {
    int64_t first = 0;
    int64_t last = 0;
};

}  // namespace Marivane::Logging
