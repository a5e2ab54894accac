#pragma once

#include <logging/ByteBuffer.h>
#include <logging/CheckOptions.h>
#include <logging/CheckReport.h>
#include <logging/LoggingExport.h>

#include <filesystem>
#include <optional>
#include <string>

namespace Marivane::Logging {

class SqliteLogFile;

// Checks the log file at `path` without changing it: SQLite's integrity and
// foreign-key checks (on a connection of its own, before the file is opened
// as a log file, which may repair it), the file's length against its pages,
// the fixed metadata keys, every entry (its payload expands, matches its
// checksum when the file keeps them, holds values a record can carry) and
// the entries a damaged page hides from the index, the bookmarks, the
// resources and the thumbnail.
//
// Throws Database::DatabaseBusy when another connection keeps the file
// locked past the busy timeout: that says nothing about the file's health.
// Every other finding is a problem in the report.
//
// Threads: any thread; the check opens its own connections, and handlers run
// on the calling thread.
MV_LOGGING_EXPORT CheckReport checkLogFile(const std::filesystem::path& path,
                                           const CheckOptions& options = {});

// Why a resource's stored bytes are not what was logged: a compressed frame
// in a file whose format version or compression level says resources are
// stored uncompressed. Nothing when the bytes are as the file says.
MV_LOGGING_EXPORT std::optional<std::string> resourceFormProblem(const SqliteLogFile& file,
                                                                 const ByteBuffer& bytes);

}  // namespace Marivane::Logging
