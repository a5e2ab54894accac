#pragma once

#include <logging/Logging.h>

#include <core/Compression.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Mvlog {

// Which entries a scan visits: ids in [from, to] (-1 for the file's first or
// last) and timestamps in [startTimestamp, endTimestamp], admitted by the
// filter, at most `limit` of them (-1: all), in `order` (by time: ascending
// timestamp, ties by id; the limit keeps the earliest).
struct EntrySelection {
    int32_t from = -1;
    int32_t to = -1;
    int64_t startTimestamp = std::numeric_limits<int64_t>::min();
    int64_t endTimestamp = std::numeric_limits<int64_t>::max();
    Marivane::Logging::EntryIndexFilter filter;
    int64_t limit = -1;
    Marivane::Logging::EntryOrder order = Marivane::Logging::EntryOrder::Id;
};

// An entry whose payload could not be read or expanded, or whose stored
// values no record can carry (an id beyond 32 bits, say).
struct DamagedEntry {
    int64_t entryId = 0;
    std::string reason;
    // The reason reads on from "entry N" as a sentence ("refers to data
    // source 9, ...") instead of following it after a colon.
    bool readsOn = false;
};

// "entry 7: payload cannot be expanded: ..." or "entry 7 refers to ...".
std::string describe(const DamagedEntry& entry);

// One entry as a scan hands it out: the library's view, whose payload is as
// the file stores it (`compressed` says whether it is a frame). Borrowed:
// valid only during the handler's call.
struct ScannedEntry : Marivane::Logging::EntryView {
    // Hands the payload to `onPiece` piece by piece, expanding a compressed
    // one 128 KiB at a time: memory never depends on the size a frame
    // declares. Returns the payload's size (up to where `onPiece` stopped).
    // Throws Marivane::Compression::CompressionError for a payload that does
    // not expand; the scan reports that entry as damaged.
    std::size_t forEachPiece(const Marivane::Compression::PieceHandler& onPiece) const;
    // The payload's size as logged: a compressed frame's declared size,
    // without expanding it (a frame that declares none is expanded in pieces
    // to count). Throws as forEachPiece does.
    uint64_t loggedSize() const;
    // The payload's size, and up to `prefixLength` of its first bytes.
    std::size_t sizeAndPrefix(std::size_t prefixLength, Marivane::Logging::ByteBuffer& prefix) const;
    // The whole payload, for output that holds all of it.
    Marivane::Logging::ByteBuffer payload() const;
};

ScannedEntry scannedFrom(const Marivane::Logging::EntryView& view);

// Why a payload that reads hand out as stored is not what was logged: a
// compressed frame in a file whose level says payloads are stored
// uncompressed. Nothing when the payload is as the file says.
std::optional<std::string> storedFormProblem(const ScannedEntry& entry);

// Visits the entries that the file's index lists for a selection, in the
// selection's order, through the library's streaming read: payloads stay as stored until
// a handler asks for them. An entry that the read cannot hand out is reported
// as damaged and the scan goes on; after a database failure (a damaged page)
// the remaining listed entries are read one by one, which names the ones
// behind the damage and still delivers the rest. Rows that the index cannot
// list are reported too: ids beyond 32 bits (the index narrows them) and
// entries whose data source the file does not have (the index leaves them
// out).
class EntryScanner {
public:
    using EntryHandler = std::function<void(const ScannedEntry&)>;
    using DamageHandler = std::function<void(const DamagedEntry&)>;

    EntryScanner(const Marivane::Logging::SqliteLogFile& file, EntrySelection selection);

    // Number of entries the selection names (from the index, before reading).
    std::size_t selectedCount() const { return ids_.size(); }
    // In the selection's order.
    const std::vector<int32_t>& selectedIds() const { return ids_; }

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
    static bool runWholeFileUnlisted(const Marivane::Logging::SqliteLogFile& file, int64_t countedEntries,
                                     const EntryHandler& onEntry, const DamageHandler& onDamaged,
                                     bool verifyChecksums = false,
                                     const std::function<bool()>& stillWanted = {});

private:
    void runInTimeOrder(const EntryHandler& onEntry, const DamageHandler& onDamaged);
    void deliver(const Marivane::Logging::EntryView& view, const EntryHandler& onEntry,
                 const DamageHandler& onDamaged);
    void readSingle(int32_t entryId, bool mayBeNarrowed, const EntryHandler& onEntry,
                    const DamageHandler& onDamaged);
    void report(const DamageHandler& onDamaged, const DamagedEntry& entry);
    bool fileHasSource(int8_t dataSourceId);
    Marivane::Logging::VisitOptions optionsReportingTo(const DamageHandler& onDamaged);

    const Marivane::Logging::SqliteLogFile& file_;
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

}  // namespace Mvlog
