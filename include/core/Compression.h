#pragma once

#include <core/CoreExport.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Marivane::Compression {

using ByteBuffer = std::vector<std::byte>;

// The codec's own default level; 1 to 9 trade speed for size as usual.
inline constexpr int DefaultCompressionLevel = -1;

// The most bytes one expansion hands out: SQLite's default limit on the
// length of a stored value, so no payload, resource or thumbnail a log file
// can hold expands beyond it. A frame that declares more is damage (or a
// crafted bomb) and is refused before anything is allocated; a frame without
// a declared size is refused as soon as it passes the limit.
inline constexpr std::size_t MaxExpandedSize = 1000000000;

// Thrown when a buffer cannot be compressed or expanded: corrupt or truncated
// input, or a frame that would expand beyond what can be allocated.
class MV_CORE_EXPORT CompressionError : public std::runtime_error {
public:
    explicit CompressionError(const std::string& message);
};

// Returns a self-contained compressed frame of `data`. The frame records the
// uncompressed size, so expanding it allocates its output once, and a checksum
// of the content, so that damage is reported rather than expanded. Level -1 is the
// codec's default level; any other value is passed to the codec as it is.
// Thread-safe: each thread reuses its own codec context.
MV_CORE_EXPORT ByteBuffer compress(const ByteBuffer& data, int level);
// As `compress`, for `size` bytes at `data`, into the front of `output`;
// returns the frame's size. `output` grows to the worst case when it is
// smaller and never shrinks: a writer that passes the same buffer for every
// payload allocates and zero-fills it once.
MV_CORE_EXPORT std::size_t compressInto(const std::byte* data, std::size_t size, int level,
                                        ByteBuffer& output);

// Expands one or more concatenated frames made by `compress` (or by any
// streaming writer of the same codec, which may omit the content size).
// Throws CompressionError on corrupt or truncated input; never returns partial
// data. Thread-safe: each thread reuses its own codec context.
MV_CORE_EXPORT ByteBuffer uncompress(const ByteBuffer& data);

// As `uncompress`, for `size` bytes at `data`, into `output`, whose capacity
// is reused: a reader expanding many payloads allocates only when one is
// larger than every earlier one. On failure `output` is left empty.
MV_CORE_EXPORT void uncompressInto(const std::byte* data, std::size_t size, ByteBuffer& output);

// Receives consecutive pieces of an expansion; returns false to stop it.
using PieceHandler = std::function<bool(const std::byte* piece, std::size_t size)>;

// Expands the frames at `data` piece by piece (each piece at most 128 KiB,
// the same buffer each time): memory stays flat whatever size the frames
// declare. Returns the number of bytes handed out (all of them unless the
// handler stopped early). Throws CompressionError on corrupt or truncated
// input, after handing out the pieces that preceded the damage.
MV_CORE_EXPORT std::size_t uncompressInPieces(const std::byte* data, std::size_t size,
                                              const PieceHandler& onPiece);

// The number of bytes the frames at `data` expand to, as their headers
// declare it, without expanding them: absent when a frame does not declare
// its size (a streaming writer's), or the bytes are not whole frames.
MV_CORE_EXPORT std::optional<uint64_t> declaredExpandedSize(const std::byte* data, std::size_t size);

// True when `data` starts with a frame of the codec (the 4-byte magic of a
// data frame or of a skippable frame): what a compressed payload looks like.
MV_CORE_EXPORT bool startsWithFrame(const std::byte* data, std::size_t size);

}  // namespace Marivane::Compression
