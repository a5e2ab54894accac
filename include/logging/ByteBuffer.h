#pragma once

#include <cstddef>
#include <vector>

namespace Marivane::Logging {

// Raw bytes of a payload, resource, thumbnail or bookmark payload; always held
// uncompressed in memory. An empty buffer is a legal value everywhere.
using ByteBuffer = std::vector<std::byte>;

}  // namespace Marivane::Logging
