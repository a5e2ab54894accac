#pragma once

#include "derive/OutputWriter.h"
#include "derive/StoredRows.h"

#include <logging/LogFileInterface.h>
#include <logging/SqliteLogFile.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Marivane::Logging::Algorithms {

// The steps of a derived file of one input: copy, slice and clone are made
// of them.

struct DescriptionCounts {
    uint64_t resources = 0;
    uint64_t dataSources = 0;
};

// In one batch: the producer history, the metadata but the fixed keys, the
// resources, the data sources (with their own ids, so that entries,
// properties and filters keep meaning the same) and their properties.
DescriptionCounts writeDescription(const LogFileInterface& input, OutputWriter& writer,
                                   const std::string& applicationName, const std::string& applicationVersion);

// Entries handed out in the order the new file numbers them.
class EntrySource {
public:
    using Visitor = std::function<void(const EntryRow& row)>;

    virtual ~EntrySource() = default;
    // Throws when the entries cannot be read, after handing out those read
    // before the failure.
    virtual void forEach(const Visitor& visit) = 0;
};

// The rows of `file` that `selection` picks, in id order, as stored.
std::unique_ptr<EntrySource> storedRowsOf(const SqliteLogFile& file, const RowSelection& selection);

// Entries firstEntryId..lastEntryId of any log file, read the way a slice
// has always read them, so that it fails the same way: a SqliteLogFile in
// one streaming read, whose compressed payloads are expanded (a damaged one
// throws the codec's error, a damaged row a DatabaseAccessError); any other
// file in one readEntries call.
std::unique_ptr<EntrySource> entryRangeOf(const LogFileInterface& file, int32_t firstEntryId,
                                          int32_t lastEntryId, int8_t outputLevel);

// Told the source id and the new id of every entry written.
using EntryCopied = std::function<void(int32_t sourceEntryId, int32_t newEntryId)>;

// Writes every entry of `entries` and commits the last batch.
void copyEntries(EntrySource& entries, OutputWriter& writer, const EntryCopied& copied);

}  // namespace Marivane::Logging::Algorithms
