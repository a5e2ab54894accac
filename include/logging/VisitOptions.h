#pragma once

#include <logging/EntryOrder.h>

#include <cstdint>
#include <functional>
#include <string>

namespace Marivane::Logging {

// The form in which a streaming read hands out payloads.
enum class PayloadForm {
    // The bytes that were logged: compressed payloads are expanded into a
    // buffer that the read reuses.
    Expanded,
    // The bytes as the file stores them, compressed or not
    // (EntryView::compressed says which): nothing is expanded, so memory
    // never depends on what a compressed frame declares. For tools that
    // expand in pieces, copy payloads unchanged or only look at sizes.
    Stored,
};

// How SqliteLogFile::visitEntries reads. A plain value: copy it freely.
struct VisitOptions {
    PayloadForm payloadForm = PayloadForm::Expanded;
    // Called for an entry that cannot be handed out (its payload does not
    // expand, or a stored value is outside its type's range) with the
    // entry's id and the reason; return true to go on with the next entry,
    // false to end the read as failed. Without a handler, the first such
    // entry ends the read as failed.
    std::function<bool(int64_t entryId, const std::string& reason)> onDamagedEntry;
    // In a file created with entry checksums, compare each stored payload
    // with the checksum written with it; an entry that does not match (or
    // has none) is a damaged entry as above. Files without checksums read
    // as they always do.
    bool verifyChecksums = false;
    // The order of the visit. In time order the file's time index, when it
    // has one, is walked; without it a file whose ids already follow time is
    // walked by id after a pass over its timestamps, and any other file goes
    // through SQLite's sorter, which spills to temporary files: memory stays
    // flat whatever the size of the file.
    EntryOrder order = EntryOrder::Id;
    // Threads that expand compressed payloads while the caller's thread
    // reads and visits: 1 expands on the caller's thread (as before this
    // option), 0 one per core, N that many. Entries are still handed out in
    // order, on the caller's thread, each failure naming its entry as
    // before; what is read ahead is bounded (a few batches of at most 256
    // entries or 256 KiB each per thread). A read of fewer entries than one
    // batch starts no thread. Applies to PayloadForm::Expanded reads of
    // compressed files; negative values read as 1.
    int decompressionThreads = 1;
};

}  // namespace Marivane::Logging
