#include "EntryScanner.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace Mvlog {

using Marivane::Logging::DataEntry;
using Marivane::Logging::LogFileInterface;

namespace {

// Before any payload has been seen the chunk is sized for large payloads.
constexpr std::size_t kFirstChunkLength = 16;
constexpr std::size_t kMaximumChunkLength = 4096;

std::vector<int32_t> selectIds(const LogFileInterface& file, const EntrySelection& selection) {
    std::vector<int32_t> ids = file.getEntryIndex(selection.filter);
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

EntryScanner::EntryScanner(const LogFileInterface& file, EntrySelection selection, std::size_t chunkBytes)
    : file_(file),
      selection_(std::move(selection)),
      chunkBytes_(chunkBytes),
      ids_(selectIds(file, selection_)) {}

void EntryScanner::run(const EntryHandler& onEntry, const DamageHandler& onDamaged) {
    std::size_t begin = 0;
    while (begin < ids_.size()) {
        const std::size_t end = std::min(ids_.size(), begin + nextChunkLength());
        readChunk(begin, end, onEntry, onDamaged);
        begin = end;
    }
}

std::size_t EntryScanner::nextChunkLength() const {
    if (entriesSeen_ == 0) {
        return kFirstChunkLength;
    }
    const uint64_t meanBytes = std::max<uint64_t>(1, bytesSeen_ / entriesSeen_);
    return static_cast<std::size_t>(std::clamp<uint64_t>(chunkBytes_ / meanBytes, 1, kMaximumChunkLength));
}

void EntryScanner::readChunk(std::size_t begin, std::size_t end, const EntryHandler& onEntry,
                             const DamageHandler& onDamaged) {
    std::vector<DataEntry> entries;
    try {
        entries = file_.readEntries(ids_[begin], ids_[end - 1], selection_.filter,
                                    static_cast<int32_t>(end - begin));
    } catch (const std::exception&) {
        readOneByOne(begin, end, onEntry, onDamaged);
        return;
    }
    // A read that stops early inside the database (an unreadable page) returns
    // what it had, so every id the chunk should have held is accounted for.
    auto delivered = entries.begin();
    for (std::size_t i = begin; i < end; ++i) {
        if (delivered != entries.end() && delivered->entryId == ids_[i]) {
            bytesSeen_ += delivered->data.size();
            ++entriesSeen_;
            onEntry(std::move(*delivered));
            ++delivered;
        } else {
            readSingle(ids_[i], onEntry, onDamaged);
        }
    }
}

void EntryScanner::readOneByOne(std::size_t begin, std::size_t end, const EntryHandler& onEntry,
                                const DamageHandler& onDamaged) {
    for (std::size_t i = begin; i < end; ++i) {
        readSingle(ids_[i], onEntry, onDamaged);
    }
}

void EntryScanner::readSingle(int32_t entryId, const EntryHandler& onEntry, const DamageHandler& onDamaged) {
    std::optional<DataEntry> entry;
    try {
        entry = file_.readEntry(entryId);
    } catch (const std::exception& error) {
        onDamaged({entryId, fmt::format("payload cannot be expanded: {}", error.what())});
        return;
    }
    if (!entry) {
        // The store records no error for a failing single read; an id from
        // the index that yields no row sits on a page that cannot be read.
        onDamaged({entryId, "listed in the index but its row cannot be read"});
        return;
    }
    bytesSeen_ += entry->data.size();
    ++entriesSeen_;
    // Outside the try: a failing handler is not a damaged entry.
    onEntry(std::move(*entry));
}

}  // namespace Mvlog
