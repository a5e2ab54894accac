// Expands arbitrary bytes: either a CompressionError or bytes that compress
// and expand back to themselves; never a crash or garbage.
#include "FuzzSupport.h"

#include <cstdlib>

using Marivane::Compression::ByteBuffer;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const ByteBuffer input(reinterpret_cast<const std::byte*>(data),
                           reinterpret_cast<const std::byte*>(data) + size);
    try {
        const ByteBuffer expanded = Marivane::Compression::uncompress(input);
        if (Marivane::Compression::uncompress(Marivane::Compression::compress(expanded, 1)) != expanded) {
            std::abort();
        }
    } catch (const Marivane::Compression::CompressionError&) {
    }
    if (Marivane::Compression::uncompress(Marivane::Compression::compress(input, -1)) != input) {
        std::abort();
    }
    return 0;
}
