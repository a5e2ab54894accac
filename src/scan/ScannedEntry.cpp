#include <logging/DamagedEntry.h>
#include <logging/ScannedEntry.h>

#include <algorithm>

namespace Marivane::Logging {

std::optional<std::string> storedFormProblem(const ScannedEntry& entry) {
    if (entry.compressed || !Compression::startsWithFrame(entry.data, entry.size)) {
        return std::nullopt;
    }
    return std::string(
        "the payload is a compressed frame but the file's compression level is 0 (payloads stored "
        "uncompressed): readers hand it out compressed");
}

std::size_t ScannedEntry::forEachPiece(const Compression::PieceHandler& onPiece) const {
    if (!compressed) {
        onPiece(data, size);
        return size;
    }
    return Compression::uncompressInPieces(data, size, onPiece);
}

uint64_t ScannedEntry::loggedSize() const {
    if (!compressed) {
        return size;
    }
    if (const std::optional<uint64_t> declared = Compression::declaredExpandedSize(data, size)) {
        return *declared;
    }
    return forEachPiece([](const std::byte*, std::size_t) { return true; });
}

std::size_t ScannedEntry::sizeAndPrefix(std::size_t prefixLength, ByteBuffer& prefix) const {
    prefix.clear();
    return forEachPiece([&](const std::byte* piece, std::size_t pieceSize) {
        const std::size_t wanted = std::min(pieceSize, prefixLength - std::min(prefixLength, prefix.size()));
        prefix.insert(prefix.end(), piece, piece + wanted);
        return true;
    });
}

ByteBuffer ScannedEntry::payload() const {
    ByteBuffer bytes;
    forEachPiece([&](const std::byte* piece, std::size_t pieceSize) {
        bytes.insert(bytes.end(), piece, piece + pieceSize);
        return true;
    });
    return bytes;
}

std::string describe(const DamagedEntry& entry) {
    return "entry " + std::to_string(entry.entryId) + (entry.readsOn ? " " : ": ") + entry.reason;
}

}  // namespace Marivane::Logging
