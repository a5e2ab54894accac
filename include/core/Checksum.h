#pragma once

#include <core/CoreExport.h>

#include <cstddef>
#include <cstdint>

namespace Marivane::Checksum {

// A 64-bit checksum of `size` bytes at `data` (XXH3, seed 0): fast enough to
// compute for every payload written and read, and stable across versions and
// machines, so it can be stored in a file. Thread-safe; no state.
MV_CORE_EXPORT uint64_t of(const std::byte* data, std::size_t size) noexcept;

}  // namespace Marivane::Checksum
