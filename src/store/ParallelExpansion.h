#pragma once

#include "store/EntryCursor.h"

#include <logging/ByteBuffer.h>
#include <logging/EntryView.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace Marivane::Logging {

// One entry read ahead: its record, where its stored bytes lie in its
// batch, and, once a worker is done with it, its expanded payload or why it
// cannot be handed out.
struct PendingEntry {
    EntryView view;
    std::size_t offset = 0;
    std::size_t storedSize = 0;
    std::optional<int64_t> checksum;
    // Set when the row was read (a stored value out of range) or by the
    // worker (a checksum that does not match, a frame that does not expand).
    std::string problem;
    // What expanding threw other than a codec failure (out of memory): the
    // caller rethrows it when it reaches the entry, as a read on its own
    // thread would have.
    std::exception_ptr thrown;
    ByteBuffer expanded;
};

// Entries read together and expanded by one worker: a copy of their stored
// bytes (the cursor's own are gone at its next row) and their records.
// The entries are the first `count` of `entries`; the others are kept so
// that their buffers are reused.
struct PendingBatch {
    ByteBuffer stored;
    std::vector<PendingEntry> entries;
    std::size_t count = 0;
    bool expanded = false;
};

// Why a stored payload does not match the checksum written with it, if it
// does not.
std::optional<std::string> checksumMismatch(const std::byte* payload, std::size_t size,
                                            const std::optional<int64_t>& checksum);

// Expands the compressed payloads of a streaming read on worker threads
// while the caller's thread reads rows and hands entries out in order.
//
// The caller fills batches from the cursor (fill), and takes them back in
// the order they were filled, expanded (takeNext); at most a few batches
// per worker are out at a time, so memory stays bounded whatever the read.
// Workers start with the second batch, and only when the first one's
// payloads are large enough to pay for the hand-over: a read of one batch,
// or of small payloads, gets its first batch back expanded on the caller's
// thread and nothing more (readsAhead() false), and goes on there.
//
// Owns its threads: the destructor stops and joins them (a visitor that
// throws or stops early leaves through it). Used by one caller thread.
class ParallelExpansion {
public:
    ParallelExpansion(EntryCursor& cursor, std::size_t threads, bool verifyChecksums);
    ~ParallelExpansion();
    ParallelExpansion(const ParallelExpansion&) = delete;
    ParallelExpansion& operator=(const ParallelExpansion&) = delete;

    // The next batch in read order, expanded; null once the cursor has no
    // more rows (or failed: the cursor says which). The batch stays valid
    // until the next call.
    PendingBatch* takeNext();
    // False once the expansion has decided to leave the rest of the read to
    // the caller's thread; the cursor then holds the rows after the batches
    // handed out, unless it ended.
    bool readsAhead() const { return readAhead_; }
    bool cursorEnded() const { return cursorEnded_; }

private:
    // Reads rows into a new batch; false when the cursor had none.
    bool fill();
    void work();
    void expand(PendingBatch& batch) const;
    void startWorkers();
    std::unique_ptr<PendingBatch> freshBatch();

    EntryCursor& cursor_;
    const std::size_t threads_;
    const bool verifyChecksums_;
    bool cursorEnded_ = false;
    bool decided_ = false;
    bool readAhead_ = true;

    // Batches handed out, in read order (the front was returned last), and
    // emptied ones kept for reuse.
    std::deque<std::unique_ptr<PendingBatch>> inFlight_;
    std::unique_ptr<PendingBatch> returned_;
    std::vector<std::unique_ptr<PendingBatch>> spare_;

    std::mutex lock_;
    std::condition_variable workToDo_;
    std::condition_variable workDone_;
    std::deque<PendingBatch*> queue_;
    bool stopping_ = false;
    std::vector<std::thread> workers_;
};

}  // namespace Marivane::Logging
