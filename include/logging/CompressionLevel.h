#pragma once

#include <cstdint>

namespace Marivane::Logging {

// The compression levels a log file accepts and keeps in its metadata. Every
// interface checks a level against these, so that the store, the C layer, the
// recorder, copies, the tool and Python agree on what a level may be.

// The codec's fastest setting (its default).
inline constexpr int kFastestCompressionLevel = -1;
// Payloads stored as they are, without compression.
inline constexpr int kUncompressedLevel = 0;
inline constexpr int kMinCompressionLevel = kFastestCompressionLevel;
inline constexpr int kMaxCompressionLevel = 9;

// True for kMinCompressionLevel to kMaxCompressionLevel. Takes 64 bits so that
// a value read from a file's metadata is checked before it is narrowed.
constexpr bool isValidCompressionLevel(int64_t level) {
    return level >= kMinCompressionLevel && level <= kMaxCompressionLevel;
}

}  // namespace Marivane::Logging
