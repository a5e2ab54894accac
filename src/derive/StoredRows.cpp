#include "derive/StoredRows.h"

#include "store/StoreAccess.h"

#include <stdexcept>

namespace Marivane::Logging::Algorithms {

namespace {

EntryRange rangeOf(const RowSelection& selection) {
    return EntryRange{selection.firstEntryId, selection.lastEntryId, selection.startTimestamp,
                      selection.endTimestamp};
}

}  // namespace

StoredRows::StoredRows(const SqliteLogFile& file, const RowSelection& selection, CursorOrder order)
    : file_(file), cursor_(StoreAccess::of(file), rangeOf(selection), selection.filter, order) {}

const StoredRow* StoredRows::next() {
    const StoredEntry* entry = cursor_.next();
    if (entry == nullptr) {
        if (const Outcome& read = cursor_.outcome(); !read) {
            throw std::runtime_error("Cannot read '" + file_.getFilePath().string() + "' after entry " +
                                     std::to_string(row_.entryId) + ": " + read.message());
        }
        return nullptr;
    }
    if (!entry->outOfRange.empty()) {
        throw std::runtime_error("Cannot read entry " + std::to_string(entry->entryId) + " of '" +
                                 file_.getFilePath().string() + "': " + entry->outOfRange);
    }
    row_.entryId = static_cast<int32_t>(entry->entryId);
    row_.timestamp = entry->timestamp;
    row_.type = static_cast<int32_t>(entry->type);
    row_.dataSourceId = static_cast<int8_t>(entry->dataSourceId);
    row_.payload.assign(entry->payload, entry->payload + entry->payloadSize);
    return &row_;
}

}  // namespace Marivane::Logging::Algorithms
