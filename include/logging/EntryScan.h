#pragma once

#include <logging/DamagedEntry.h>
#include <logging/EntrySelection.h>
#include <logging/LoggingExport.h>
#include <logging/ScannedEntry.h>
#include <logging/VisitOptions.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <vector>

namespace Marivane::Logging {

class SqliteLogFile;

// A damage-tolerant read of the entries that a file's index lists for a
// selection, in the selection's order, through the streaming read: payloads
// stay as stored until a handler asks for them. An entry that the read cannot
// hand out is reported as damaged and the scan goes on; after a database
// failure (a damaged page) the remaining listed entries are read one by one,
// which names the ones behind the damage and still delivers the rest. Rows
// that the index cannot list are reported too: ids beyond 32 bits (the index
// narrows them) and entries whose data source the file does not have (the
// index leaves them out).
//
// Ownership: the scan borrows the file, which must outlive it, and owns the
// list of selected ids, taken from the index when the scan is made.
//
// Threads: as the file's reads: one thread at a time. The handlers run on
// the caller's thread during run(); they may read the same file, but must
// not write to it.
class MV_LOGGING_EXPORT EntryScan {
public:
    using EntryHandler = std::function<void(const ScannedEntry&)>;
    using DamageHandler = std::function<void(const DamagedEntry&)>;

    EntryScan(const SqliteLogFile& file, EntrySelection selection);

    // Number of entries the selection names (from the index, before reading).
    std::size_t selectedCount() const { return ids_.size(); }
    // In the selection's order.
    const std::vector<int32_t>& selectedIds() const { return ids_; }

    // A handler that throws ends the scan with its exception, except for a
    // Compression::CompressionError, which reports its entry as damaged.
    void run(const EntryHandler& onEntry, const DamageHandler& onDamaged);

    // Entries the last run delivered or reported, each once, whatever its id
    // (an index entry that only narrows an id beyond 32 bits is not one).
    std::size_t metCount() const { return met_; }
    // Whether the selection is every entry of the file.
    bool coversWholeFile() const;

    // In a file that keeps entry checksums, report an entry whose stored
    // payload no longer matches its checksum as damaged.
    void verifyChecksums(bool verify) { verifyChecksums_ = verify; }

    // The whole file in id order in one read, without listing the index
    // first (which reads the whole file too): for a file in good order, what
    // run() over EntrySelection{} would hand out, in the same order. Returns
    // true when the read met nothing that the listed scan treats otherwise:
    // it read as many entries as `countedEntries` (the file's count, taken
    // before), each of a data source the file has, with no failure and no
    // stored value out of range. Returns false as soon as it meets such a
    // thing: whatever the handlers were given is then to be discarded, and
    // run() gives the answer. A payload that does not expand is reported to
    // `onDamaged` as run() reports it. With `verifyChecksums`, a payload that
    // does not match its checksum ends the read as such a thing; so does
    // `stillWanted` answering false (asked after each entry).
    static bool runWholeFileUnlisted(const SqliteLogFile& file, int64_t countedEntries,
                                     const EntryHandler& onEntry, const DamageHandler& onDamaged,
                                     bool verifyChecksums = false,
                                     const std::function<bool()>& stillWanted = {});

private:
    MV_LOGGING_HIDDEN void runInTimeOrder(const EntryHandler& onEntry, const DamageHandler& onDamaged);
    MV_LOGGING_HIDDEN void deliver(const EntryView& view, const EntryHandler& onEntry,
                                   const DamageHandler& onDamaged);
    MV_LOGGING_HIDDEN void readSingle(int32_t entryId, bool mayBeNarrowed, const EntryHandler& onEntry,
                                      const DamageHandler& onDamaged);
    MV_LOGGING_HIDDEN void report(const DamageHandler& onDamaged, const DamagedEntry& entry);
    MV_LOGGING_HIDDEN bool fileHasSource(int8_t dataSourceId);
    MV_LOGGING_HIDDEN VisitOptions optionsReportingTo(const DamageHandler& onDamaged);

    const SqliteLogFile& file_;
    EntrySelection selection_;
    // In time order: the selection's entries are stored in time order, so
    // the ids list them in both orders. Set by the listing of ids_, hence
    // before it.
    bool storedInTimeOrder_ = false;
    std::vector<int32_t> ids_;
    std::set<int8_t> sources_;
    bool verifyChecksums_ = false;
    std::size_t met_ = 0;
};

}  // namespace Marivane::Logging
