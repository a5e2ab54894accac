#include "store/ParallelExpansion.h"

#include <core/Checksum.h>
#include <core/Compression.h>

#include <algorithm>

namespace Marivane::Logging {

namespace {

// A batch ends at this many entries or once its stored bytes reach this
// size: large enough that handing it over costs nothing per entry, small
// enough that a few per worker stay a few MiB.
constexpr std::size_t kBatchEntries = 256;
constexpr std::size_t kBatchBytes = 256 * 1024;
// Below this mean stored size a payload expands faster than it is handed to
// another thread and back (measured: 64 B entries read slower with workers,
// 1 KiB ones, about 500 bytes stored, 1.8 times faster on two cores).
constexpr std::size_t kWorthThreadsBytes = 256;

}  // namespace

std::optional<std::string> checksumMismatch(const std::byte* payload, std::size_t size,
                                            const std::optional<int64_t>& checksum) {
    if (!checksum) {
        return std::string("it has no checksum");
    }
    if (static_cast<int64_t>(Checksum::of(payload, size)) != *checksum) {
        return std::string("its payload does not match its checksum");
    }
    return std::nullopt;
}

ParallelExpansion::ParallelExpansion(EntryCursor& cursor, std::size_t threads, bool verifyChecksums)
    : cursor_(cursor), threads_(std::max<std::size_t>(1, threads)), verifyChecksums_(verifyChecksums) {}

ParallelExpansion::~ParallelExpansion() {
    {
        const std::lock_guard guard(lock_);
        stopping_ = true;
    }
    workToDo_.notify_all();
    for (std::thread& worker : workers_) {
        worker.join();
    }
}

std::unique_ptr<PendingBatch> ParallelExpansion::freshBatch() {
    if (spare_.empty()) {
        return std::make_unique<PendingBatch>();
    }
    std::unique_ptr<PendingBatch> batch = std::move(spare_.back());
    spare_.pop_back();
    batch->stored.clear();
    batch->count = 0;
    batch->expanded = false;
    return batch;
}

bool ParallelExpansion::fill() {
    std::unique_ptr<PendingBatch> batch = freshBatch();
    while (batch->count < kBatchEntries && batch->stored.size() < kBatchBytes) {
        const StoredEntry* row = cursor_.next();
        if (row == nullptr) {
            cursorEnded_ = true;
            break;
        }
        if (batch->count == batch->entries.size()) {
            batch->entries.emplace_back();
        }
        PendingEntry& entry = batch->entries[batch->count++];
        entry.view = EntryView{};
        entry.view.entryId = static_cast<int32_t>(row->entryId);
        entry.view.dataSourceId = static_cast<int8_t>(row->dataSourceId);
        entry.view.type = static_cast<int32_t>(row->type);
        entry.view.timestamp = row->timestamp;
        entry.problem = row->outOfRange;
        entry.thrown = nullptr;
        entry.checksum = row->checksum;
        entry.offset = batch->stored.size();
        entry.storedSize = entry.problem.empty() ? row->payloadSize : 0;
        if (entry.storedSize > 0) {
            batch->stored.insert(batch->stored.end(), row->payload, row->payload + row->payloadSize);
        }
    }
    if (batch->count == 0) {
        spare_.push_back(std::move(batch));
        return false;
    }
    PendingBatch* filled = batch.get();
    inFlight_.push_back(std::move(batch));
    if (!workers_.empty()) {
        {
            const std::lock_guard guard(lock_);
            queue_.push_back(filled);
        }
        workToDo_.notify_one();
    }
    return true;
}

void ParallelExpansion::startWorkers() {
    {
        const std::lock_guard guard(lock_);
        for (const auto& batch : inFlight_) {
            queue_.push_back(batch.get());
        }
    }
    workers_.reserve(threads_);
    for (std::size_t i = 0; i < threads_; ++i) {
        workers_.emplace_back([this] { work(); });
    }
}

void ParallelExpansion::work() {
    for (;;) {
        PendingBatch* batch = nullptr;
        {
            std::unique_lock guard(lock_);
            workToDo_.wait(guard, [this] { return stopping_ || !queue_.empty(); });
            if (stopping_) {
                return;
            }
            batch = queue_.front();
            queue_.pop_front();
        }
        expand(*batch);
        {
            const std::lock_guard guard(lock_);
            batch->expanded = true;
        }
        workDone_.notify_all();
    }
}

// Checks and expands in the order a read on one thread does: a stored
// value out of range first, then the checksum, then the frame.
void ParallelExpansion::expand(PendingBatch& batch) const {
    for (std::size_t i = 0; i < batch.count; ++i) {
        PendingEntry& entry = batch.entries[i];
        if (!entry.problem.empty()) {
            continue;
        }
        const std::byte* stored = batch.stored.data() + entry.offset;
        if (verifyChecksums_) {
            if (std::optional<std::string> mismatch =
                    checksumMismatch(stored, entry.storedSize, entry.checksum)) {
                entry.problem = std::move(*mismatch);
                continue;
            }
        }
        try {
            Compression::uncompressInto(stored, entry.storedSize, entry.expanded);
        } catch (const Compression::CompressionError& error) {
            entry.problem = error.what();
        } catch (...) {
            entry.thrown = std::current_exception();
        }
    }
}

PendingBatch* ParallelExpansion::takeNext() {
    if (returned_) {
        spare_.push_back(std::move(returned_));
    }
    if (!decided_) {
        decided_ = true;
        if (fill()) {
            const PendingBatch& first = *inFlight_.front();
            readAhead_ = !cursorEnded_ && first.stored.size() >= kWorthThreadsBytes * first.count;
        } else {
            readAhead_ = false;
        }
    }
    // Keep a few batches per worker ahead of the one handed out.
    const std::size_t ahead = 2 * threads_ + 1;
    while (readAhead_ && !cursorEnded_ && inFlight_.size() < ahead && fill()) {
        if (workers_.empty() && inFlight_.size() >= 2) {
            startWorkers();
        }
    }
    if (inFlight_.empty()) {
        return nullptr;
    }
    PendingBatch& front = *inFlight_.front();
    if (workers_.empty()) {
        expand(front);
    } else {
        std::unique_lock guard(lock_);
        workDone_.wait(guard, [&front] { return front.expanded; });
    }
    returned_ = std::move(inFlight_.front());
    inFlight_.pop_front();
    return returned_.get();
}

}  // namespace Marivane::Logging
