#pragma once

#include <logging/ByteBuffer.h>
#include <logging/EntryView.h>
#include <logging/LoggingExport.h>

#include <core/Compression.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace Marivane::Logging {

// One entry as an EntryScan hands it out: a stored-form view
// (PayloadForm::Stored), whose payload is as the file keeps it (`compressed`
// says whether it is a frame), with the ways to look at the logged bytes
// without holding all of them.
//
// Ownership: borrowed, as the view it wraps: valid only during the handler's
// call. Never shared between threads.
struct MV_LOGGING_EXPORT ScannedEntry : EntryView {
    ScannedEntry() = default;
    explicit ScannedEntry(const EntryView& view) : EntryView(view) {}

    // Hands the payload to `onPiece` piece by piece, expanding a compressed
    // one 128 KiB at a time: memory never depends on the size a frame
    // declares. Returns the payload's size (up to where `onPiece` stopped).
    // Throws Compression::CompressionError for a payload that does not
    // expand; a scan reports that entry as damaged.
    std::size_t forEachPiece(const Compression::PieceHandler& onPiece) const;
    // The payload's size as logged: a compressed frame's declared size,
    // without expanding it (a frame that declares none is expanded in pieces
    // to count). Throws as forEachPiece does.
    uint64_t loggedSize() const;
    // The payload's size, and up to `prefixLength` of its first bytes.
    std::size_t sizeAndPrefix(std::size_t prefixLength, ByteBuffer& prefix) const;
    // The whole payload, for output that holds all of it.
    ByteBuffer payload() const;
};

// Why a payload that reads hand out as stored is not what was logged: a
// compressed frame in a file whose level says payloads are stored
// uncompressed. Nothing when the payload is as the file says.
MV_LOGGING_EXPORT std::optional<std::string> storedFormProblem(const ScannedEntry& entry);

}  // namespace Marivane::Logging
