#include "EntryScanner.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace Mvlog {

using Marivane::Logging::ByteBuffer;
using Marivane::Logging::EntryRange;
using Marivane::Logging::EntryView;
using Marivane::Logging::SqliteLogFile;
using Marivane::Logging::VisitOptions;

namespace {

bool hasTimeBounds(const EntrySelection& selection) {
    return selection.startTimestamp != std::numeric_limits<int64_t>::min() ||
           selection.endTimestamp != std::numeric_limits<int64_t>::max();
}

// The ids of a time window come from the library's payload-free read, which
// uses the time index when the file has one.
std::vector<int32_t> idsInTimeWindow(const SqliteLogFile& file, const EntrySelection& selection) {
    std::vector<int32_t> ids;
    const EntryRange range{selection.from, selection.to, selection.startTimestamp, selection.endTimestamp};
    file.visitEntrySummaries(range, selection.filter, [&](const Marivane::Logging::EntrySummary& entry) {
        ids.push_back(entry.entryId);
        return selection.limit < 0 || ids.size() < static_cast<std::size_t>(selection.limit);
    });
    return ids;
}

std::vector<int32_t> selectIds(const SqliteLogFile& file, const EntrySelection& selection) {
    if (hasTimeBounds(selection)) {
        return idsInTimeWindow(file, selection);
    }
    std::vector<int32_t> ids = file.getEntryIndex(selection.filter);
    // A crafted file can list an id twice (ids beyond 32 bits narrowed onto
    // small ones); each entry is visited once.
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    auto first = ids.begin();
    auto last = ids.end();
    if (selection.from != -1) {
        first = std::lower_bound(ids.begin(), ids.end(), selection.from);
    }
    if (selection.to != -1) {
        last = std::upper_bound(first, ids.end(), selection.to);
    }
    std::vector<int32_t> selected(first, last);
    if (selection.limit >= 0 && selected.size() > static_cast<std::size_t>(selection.limit)) {
        selected.resize(static_cast<std::size_t>(selection.limit));
    }
    return selected;
}

}  // namespace

ScannedEntry scannedFrom(const EntryView& view) {
    return ScannedEntry{view};
}

std::size_t ScannedEntry::forEachPiece(const Marivane::Compression::PieceHandler& onPiece) const {
    if (!compressed) {
        onPiece(data, size);
        return size;
    }
    return Marivane::Compression::uncompressInPieces(data, size, onPiece);
}

std::size_t ScannedEntry::sizeAndPrefix(std::size_t prefixLength, ByteBuffer& prefix) const {
    prefix.clear();
    return forEachPiece([&](const std::byte* piece, std::size_t size) {
        const std::size_t wanted = std::min(size, prefixLength - std::min(prefixLength, prefix.size()));
        prefix.insert(prefix.end(), piece, piece + wanted);
        return true;
    });
}

ByteBuffer ScannedEntry::payload() const {
    ByteBuffer bytes;
    forEachPiece([&](const std::byte* piece, std::size_t size) {
        bytes.insert(bytes.end(), piece, piece + size);
        return true;
    });
    return bytes;
}

EntryScanner::EntryScanner(const SqliteLogFile& file, EntrySelection selection)
    : file_(file), selection_(std::move(selection)), ids_(selectIds(file, selection_)) {}

void EntryScanner::run(const EntryHandler& onEntry, const DamageHandler& onDamaged) {
    if (ids_.empty()) {
        return;
    }
    // Without a limit the read runs over the whole selection, so that rows the
    // index cannot list (ids beyond 32 bits) are still reported.
    const bool limited = selection_.limit >= 0;
    const EntryRange range{selection_.from, limited ? ids_.back() : selection_.to, selection_.startTimestamp,
                           selection_.endTimestamp};
    std::size_t next = 0;
    const auto readSkippedBefore = [&](int64_t entryId) {
        while (next < ids_.size() && ids_[next] < entryId) {
            readSingle(ids_[next++], onEntry, onDamaged);
        }
    };
    VisitOptions options = optionsReportingTo(onDamaged);
    options.onDamagedEntry = [&](int64_t entryId, const std::string& reason) {
        readSkippedBefore(entryId);
        if (next < ids_.size() && ids_[next] == entryId) {
            ++next;
        }
        onDamaged({entryId, reason});
        return true;
    };
    file_.visitEntries(
        range, selection_.filter,
        [&](const EntryView& view) {
            readSkippedBefore(view.entryId);
            // Only the listed entries: a writer may have added more since.
            if (next < ids_.size() && ids_[next] == view.entryId) {
                ++next;
                deliver(view, onEntry, onDamaged);
            }
            return !limited || next < ids_.size();
        },
        options);
    // After a failure inside the database: what the read did not reach.
    while (next < ids_.size()) {
        readSingle(ids_[next++], onEntry, onDamaged);
    }
}

VisitOptions EntryScanner::optionsReportingTo(const DamageHandler& onDamaged) const {
    VisitOptions options;
    options.payloadForm = Marivane::Logging::PayloadForm::Stored;
    options.onDamagedEntry = [&onDamaged](int64_t entryId, const std::string& reason) {
        onDamaged({entryId, reason});
        return true;
    };
    return options;
}

void EntryScanner::deliver(const EntryView& view, const EntryHandler& onEntry,
                           const DamageHandler& onDamaged) const {
    try {
        onEntry(scannedFrom(view));
    } catch (const Marivane::Compression::CompressionError& error) {
        onDamaged({view.entryId, fmt::format("payload cannot be expanded: {}", error.what())});
    }
}

void EntryScanner::readSingle(int32_t entryId, const EntryHandler& onEntry,
                              const DamageHandler& onDamaged) const {
    bool found = false;
    VisitOptions options = optionsReportingTo(onDamaged);
    options.onDamagedEntry = [&](int64_t damagedId, const std::string& reason) {
        found = true;
        onDamaged({damagedId, reason});
        return true;
    };
    file_.visitEntries(
        EntryRange{entryId, entryId}, Marivane::Logging::EntryIndexFilter(),
        [&](const EntryView& view) {
            found = true;
            deliver(view, onEntry, onDamaged);
            return false;
        },
        options);
    if (!found) {
        // An id from the index that yields no row sits on a page that cannot
        // be read (or had its stored values reported above).
        onDamaged({entryId, "listed in the index but its row cannot be read"});
    }
}

}  // namespace Mvlog
