#pragma once

#include <logging/CopyOptions.h>
#include <logging/CopyReport.h>
#include <logging/LoggingExport.h>

#include <filesystem>
#include <vector>

namespace Marivane::Logging::Algorithms {

// Writes a new log file at `output` with the entries of `source` that the
// options select (an id range, a time range and a filter, all at once), in
// ascending id order, numbered from 1; the data sources and their
// properties; the resources; the bookmarks of the selected id range, each
// moved to the first copied entry at or after its own (dropped, and noted,
// when there is none); and the metadata with the producer history, as a
// slice writes them. Memory stays flat whatever the size of the file.
//
// The source is opened read-only and never changed. The output is written
// under a temporary name in its directory and renamed only when it is
// complete, so a failure leaves nothing under `output`. Throws
// std::runtime_error, with a message naming the file and the reason, when
// something exists at `output`, when the source cannot be opened or read,
// and when writing fails (a full disk, for example).
//
// Threads: any thread; the call uses only its own connections.
MV_LOGGING_EXPORT CopyReport copy(const std::filesystem::path& source, const std::filesystem::path& output,
                                  const CopyOptions& options = {});

// Writes a new log file at `output` with the selected entries of every input,
// interleaved by timestamp (ties in input order, then id order). Data sources
// keep their ids unless an earlier input already uses the id for another
// source (another type or name): they are then renumbered to the next free
// id, and their properties and entries follow. A source with the same id,
// type and name in several inputs is one source of the new file. Bookmarks
// follow their entries (a bookmark whose entry is not copied is dropped and
// noted); resources are kept, and a name that an earlier input already used
// is noted, not copied; metadata keys are taken from the first input that has
// them (clashing values are noted), and every input's producer and creation
// time are recorded under "mergedInput<n>..." keys. Refusals, temporary name,
// errors and threads as for copy; the options' id range applies to every
// input.
MV_LOGGING_EXPORT CopyReport merge(const std::vector<std::filesystem::path>& inputs,
                                   const std::filesystem::path& output, const CopyOptions& options = {});

}  // namespace Marivane::Logging::Algorithms
