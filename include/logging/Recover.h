#pragma once

#include <logging/LoggingExport.h>
#include <logging/RecoverOptions.h>
#include <logging/RecoveryReport.h>

#include <filesystem>

namespace Marivane::Logging::Algorithms {

// Salvages a damaged log file into a new, healthy one at `output`: every
// entry whose stored bytes are intact (a compressed payload must expand,
// which checks its checksum; an uncompressed one must have the length its
// row records) keeps its id, timestamp, type, data source and stored bytes,
// at the damaged file's compression level, without compressing again. Every
// readable data source, property, metadata entry, resource and bookmark comes
// along. What SQLite can no longer reach (a damaged schema page, interior
// pages that hide whole subtrees, a file cut short) is searched for in the
// file's pages directly.
//
// The damaged file is never written: its bytes (and those of its journal or
// write-ahead log, which SQLite may have to apply) are copied into a private
// directory beside `output`, which is removed afterwards; the side files of
// the damaged file are neither changed nor removed. The output is written
// under a temporary name and renamed only when complete.
//
// Throws std::runtime_error, with a message naming the path, when something
// exists at `output`, when the damaged file cannot be read at all (missing,
// too short to hold a page) and when writing the output fails; when the disk
// is full, the message says so and how much room the salvage needs (copies
// of the damaged file and its side files, and a new file about as large as
// the damaged one). A file with nothing left to salvage still gives a
// (possibly empty) output and a report saying so.
//
// A file cut short (shorter than its header says, or ending inside a page)
// is missing those pages: entries whose bytes were on them are lost, never
// recovered with the bytes that are not there.
//
// Threads: any thread; the call uses only its own connections.
MV_LOGGING_EXPORT RecoveryReport recover(const std::filesystem::path& damaged,
                                         const std::filesystem::path& output,
                                         const RecoverOptions& options = {});

}  // namespace Marivane::Logging::Algorithms
