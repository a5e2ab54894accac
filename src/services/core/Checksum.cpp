#include <core/Checksum.h>

#include <xxhash.h>

namespace Marivane::Checksum {

uint64_t of(const std::byte* data, std::size_t size) noexcept {
    return XXH3_64bits(data, size);
}

}  // namespace Marivane::Checksum
