#include <logging/Recorder.h>

#include <logging/SqliteLogFile.h>

#include "model/Outcome.h"
#include "store/StoreAccess.h"

#include <core/Chrono.h>
#include <core/Compression.h>
#include <core/Filesystem.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace Marivane::Logging {

namespace {

using Clock = std::chrono::steady_clock;

// One item of the queue: an entry, or an operation on the file that must keep
// its place among the entries (a data source, a flush, ...).
struct Job {
    enum class Kind { Entry, Operation, Flush };
    Kind kind = Kind::Entry;
    uint64_t sequence = 0;
    Clock::time_point acceptedAt;
    // Entries.
    int8_t dataSourceId = 0;
    int32_t type = 0;
    int64_t timestamp = 0;
    ByteBuffer payload;
    // What the queue's budget counted for it.
    std::size_t acceptedSize = 0;
    // The payload as the file stores it; ready once compressed (at once at
    // level 0, where it is the payload itself).
    ByteBuffer stored;
    bool needsCompression = false;
    bool compressionClaimed = false;
    bool ready = false;
    std::string compressionError;
    // Operations run by the writer; their answer goes back to the waiting caller.
    std::function<bool(SqliteLogFile&)> operation;
    std::shared_ptr<std::optional<bool>> answer;
};

int32_t compressionThreadsFor(int32_t requested) {
    if (requested > 0) {
        return requested;
    }
    const auto cores = static_cast<int32_t>(std::thread::hardware_concurrency());
    return std::max(1, cores - 1);
}

// later - earlier, saturated: timestamps are whatever the application gave.
int64_t timestampDistance(int64_t later, int64_t earlier) {
    int64_t distance = 0;
    if (__builtin_sub_overflow(later, earlier, &distance)) {
        return later < earlier ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
    }
    return distance;
}

}  // namespace

class RecorderPrivate {
public:
    RecorderPrivate(const std::filesystem::path& path, const RecorderOptions& options)
        : options_(options),
          path_(path),
          file_(createFile(path, options)),
          reorders_(options.reorderWindow.count() > 0) {
        compresses_ = StoreAccess::of(*file_).compressesPayloads();
        writer_ = std::thread([this] { runWriter(); });
        if (compresses_) {
            for (int32_t i = 0; i < compressionThreadsFor(options.compressionThreads); ++i) {
                compressors_.emplace_back([this] { runCompressor(); });
            }
        }
    }

    ~RecorderPrivate() {
        try {
            close();
        } catch (...) {
            // Only allocation can throw here; the threads are joined anyway.
            std::lock_guard closing(closeMutex_);
            stopThreads();
        }
    }

    bool record(int8_t dataSourceId, int32_t type, int64_t timestamp, ByteBuffer&& payload) {
        const std::size_t size = payload.size();
        std::unique_lock lock(mutex_);
        if (!waitForRoom(lock, size)) {
            return false;
        }
        Job& job = jobs_.emplace_back();
        job.kind = Job::Kind::Entry;
        job.sequence = nextSequence_++;
        job.acceptedAt = Clock::now();
        job.dataSourceId = dataSourceId;
        job.type = type;
        job.timestamp = timestamp;
        job.payload = std::move(payload);
        job.acceptedSize = size;
        if (compresses_) {
            job.needsCompression = true;
            ++waitingForCompression_;
        } else {
            job.stored = std::move(job.payload);
            job.ready = true;
        }
        queuedBytes_ += size;
        stats_.queueHighWaterBytes = std::max<uint64_t>(stats_.queueHighWaterBytes, queuedBytes_);
        ++stats_.accepted;
        stats_.bytesIn += size;
        // The writer drains everything ready each time it wakes, so it needs a
        // wake-up only when the queue was empty (to start gathering) and when
        // it holds enough to write (to stop); notifying on every entry costs a
        // system call per entry at high rates.
        const bool wakeWriter = jobs_.size() == 1 || jobs_.size() == kGatherEntries ||
                                (queuedBytes_ >= gatherBytes() && queuedBytes_ - size < gatherBytes());
        lock.unlock();
        if (compresses_) {
            compressionWanted_.notify_one();
        } else if (wakeWriter) {
            writerWanted_.notify_one();
        }
        return true;
    }

    // Runs `operation` on the writer thread in queue order and waits for it.
    bool runInOrder(std::function<bool(SqliteLogFile&)> operation, Job::Kind kind = Job::Kind::Operation) {
        auto answer = std::make_shared<std::optional<bool>>();
        std::unique_lock lock(mutex_);
        if (stopped_) {
            waitForAcceptedEntriesToSettle(lock);
            return false;
        }
        Job& job = jobs_.emplace_back();
        job.kind = kind;
        job.sequence = nextSequence_++;
        job.acceptedAt = Clock::now();
        job.operation = std::move(operation);
        job.answer = answer;
        job.ready = true;
        ++urgentJobs_;
        writerWanted_.notify_one();
        answered_.wait(lock, [&] { return answer->has_value(); });
        return **answer;
    }

    bool flush() {
        return runInOrder([](SqliteLogFile&) { return true; }, Job::Kind::Flush);
    }

    // After a failure the writer still settles what was accepted before it
    // (each entry counted as failed); an answer given meanwhile would come
    // with counts that do not add up yet. Waits for that, a few seconds at
    // most, unless the recorder is closing.
    void waitForAcceptedEntriesToSettle(std::unique_lock<std::mutex>& lock) {
        const auto deadline = Clock::now() + std::chrono::seconds(5);
        while (!closed_ && stats_.written + stats_.failed < stats_.accepted && Clock::now() < deadline) {
            answered_.wait_for(lock, std::chrono::milliseconds(2));
        }
    }

    bool close() {
        // Two threads closing at once: the second waits for the first and
        // gets its answer, instead of joining the same threads again.
        std::lock_guard closing(closeMutex_);
        {
            std::unique_lock lock(mutex_);
            if (closed_) {
                return closedCleanly_;
            }
        }
        const bool flushed = flush();
        stopThreads();
        if (flushed && options_.buildTimeIndexOnClose && !hasFailed()) {
            buildTimeIndex();
        }
        file_.reset();
        std::lock_guard lock(mutex_);
        closedCleanly_ = flushed && stats_.failed == 0 && failure_.empty();
        return closedCleanly_;
    }

    // Stops accepting, wakes every thread and joins it; what is queued is
    // still written (the writer drains the queue before it ends).
    void stopThreads() noexcept {
        {
            std::lock_guard lock(mutex_);
            stopped_ = true;
            closed_ = true;
        }
        compressionWanted_.notify_all();
        writerWanted_.notify_all();
        roomAvailable_.notify_all();
        for (std::thread& compressor : compressors_) {
            if (compressor.joinable()) {
                compressor.join();
            }
        }
        if (writer_.joinable()) {
            writer_.join();
        }
    }

    RecorderStats stats() const {
        std::lock_guard lock(mutex_);
        RecorderStats copy = stats_;
        copy.lastError = failure_.empty() ? lastRefusal_ : failure_;
        return copy;
    }

    const std::filesystem::path& path() const { return path_; }

private:
    static std::unique_ptr<SqliteLogFile> createFile(const std::filesystem::path& path,
                                                     const RecorderOptions& options) {
        if (path.empty()) {
            throw std::runtime_error("Cannot record: the file path is empty.");
        }
        if (Filesystem::somethingExistsAt(path.string(), Filesystem::PathLookup::PathItself)) {
            throw std::runtime_error("Cannot record into '" + path.string() + "': the file already exists.");
        }
        try {
            return std::make_unique<SqliteLogFile>(path.string(), options.timeZone, options.applicationName,
                                                   options.applicationVersion, options.compressionLevel,
                                                   Chrono::msSinceUnixEpoch(), options.durability,
                                                   options.entryChecksums);
        } catch (const std::exception& error) {
            // Nothing was there before: a half-made file would only block
            // the next try.
            removeFailedCreation(path);
            throw std::runtime_error("Cannot record into '" + path.string() +
                                     "': " + creationFailure(path, error));
        }
    }

    static void removeFailedCreation(const std::filesystem::path& path) noexcept {
        std::error_code ignored;
        for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
            std::filesystem::remove(path.string() + suffix, ignored);
        }
    }

    // A full disk shows up as whatever statement failed first; say what it is.
    static std::string creationFailure(const std::filesystem::path& path, const std::exception& error) {
        constexpr std::uintmax_t kRoomForANewFile = 256 * 1024;
        std::error_code failed;
        const std::filesystem::path directory =
            path.has_parent_path() ? path.parent_path() : std::filesystem::current_path(failed);
        const std::filesystem::space_info space = std::filesystem::space(directory, failed);
        if (!failed && space.available < kRoomForANewFile) {
            return "the disk is full (" + std::to_string(space.available) + " bytes free; a new file needs " +
                   std::to_string(kRoomForANewFile / 1024) + " KiB).";
        }
        return error.what();
    }

    // On the closing thread, once the writer has ended. A file without the
    // index is still a good file: the failure is told, not fatal.
    void buildTimeIndex() noexcept {
        std::string failure;
        try {
            if (!file_->createTimeIndex()) {
                failure = file_->getLastError();
            }
        } catch (const std::exception& error) {
            failure = error.what();
        }
        if (!failure.empty()) {
            std::lock_guard lock(mutex_);
            noteRefusal("Cannot build the time index of '" + path_.string() + "': " + failure);
        }
    }

    // Under the overflow policy: true when the entry may be queued.
    bool waitForRoom(std::unique_lock<std::mutex>& lock, std::size_t size) {
        const auto fits = [&] { return queuedBytes_ == 0 || queuedBytes_ + size <= options_.queueBytes; };
        if (stopped_) {
            ++stats_.refused;
            return false;
        }
        if (fits()) {
            return true;
        }
        if (reorders_) {
            // Entries held for ordering may be what fills the queue: the
            // writer lets them go rather than hold the producers up.
            roomWanted_ = true;
            writerWanted_.notify_one();
        }
        switch (options_.overflowPolicy) {
            case OverflowPolicy::DropNewest:
                ++stats_.dropped;
                return false;
            case OverflowPolicy::Refuse:
                ++stats_.refused;
                return false;
            case OverflowPolicy::Block:
                break;
        }
        roomAvailable_.wait(lock, [&] { return stopped_ || fits(); });
        if (stopped_) {
            ++stats_.refused;
            return false;
        }
        return true;
    }

    // ---- compression threads -------------------------------------------
    void runCompressor() {
        std::unique_lock lock(mutex_);
        while (true) {
            compressionWanted_.wait(lock, [&] { return stopped_ || waitingForCompression_ > 0; });
            if (waitingForCompression_ == 0) {
                return;  // stopped, and nothing left to compress
            }
            Job* job = claimNextCompression();
            lock.unlock();
            compressJob(*job);
            lock.lock();
            job->ready = true;
            // The writer waits for the oldest entry only.
            if (&jobs_.front() == job) {
                writerWanted_.notify_one();
            }
        }
    }

    // The oldest entry nobody compresses yet. Jobs stay where they are until
    // the writer takes them, which it does only once they are ready.
    // Claims go in queue order, so the search starts where the last one ended.
    Job* claimNextCompression() {
        const uint64_t front = jobs_.front().sequence;
        for (std::size_t i = nextClaim_ > front ? static_cast<std::size_t>(nextClaim_ - front) : 0;
             i < jobs_.size(); ++i) {
            Job& job = jobs_[i];
            if (job.needsCompression && !job.compressionClaimed) {
                job.compressionClaimed = true;
                --waitingForCompression_;
                nextClaim_ = job.sequence + 1;
                return &job;
            }
        }
        throw std::logic_error("no entry waits for compression");
    }

    void compressJob(Job& job) {
        try {
            job.stored = Compression::compress(job.payload, options_.compressionLevel);
        } catch (const std::exception& error) {
            job.compressionError = error.what();
        }
        job.payload = ByteBuffer();
    }

    // ---- the writer ------------------------------------------------------
    void runWriter() {
        std::optional<SqliteLogFile::WriteBatch> batch;
        std::vector<Job> taken;
        std::vector<Clock::time_point> uncommitted;
        std::unique_lock lock(mutex_);
        while (true) {
            const auto workOrStop = [&] {
                return (!jobs_.empty() && jobs_.front().ready) || (stopped_ && jobs_.empty()) ||
                       (roomWanted_ && !held_.empty());
            };
            std::optional<Clock::time_point> deadline;
            if (!uncommitted.empty()) {
                deadline = uncommitted.front() + options_.maxCommitDelay;
                writerWanted_.wait_until(lock, *deadline, workOrStop);
            } else {
                writerWanted_.wait(lock, workOrStop);
            }
            gatherEntries(lock, deadline);
            takeReadyJobs(taken);
            const bool finished = stopped_ && jobs_.empty();
            const bool roomWanted = std::exchange(roomWanted_, false);
            lock.unlock();
            bool commitNow = finished || (deadline && Clock::now() >= *deadline);
            for (Job& job : taken) {
                if (reorders_ && job.kind == Job::Kind::Entry) {
                    hold(std::move(job));
                    continue;
                }
                // Everything accepted before an operation or a flush is
                // written before it.
                releaseHeld(true, batch, uncommitted);
                noteWriteOrder(job);
                commitNow = writeJobSafely(job, batch, uncommitted) || commitNow;
                if (uncommitted.size() >= options_.maxTransactionEntries) {
                    commitNow = true;
                }
            }
            if (reorders_) {
                releaseHeld(finished || roomWanted, batch, uncommitted);
                if (uncommitted.size() >= options_.maxTransactionEntries) {
                    commitNow = true;
                }
            }
            publishWrites();
            if (commitNow) {
                commitSafely(batch, uncommitted);
            }
            lock.lock();
            answerWaiting(taken);
            taken.clear();
            if (finished) {
                return;
            }
        }
    }

    // ---- time order (reorderWindow) ---------------------------------------
    // The writer thread's own: held_ is read under the mutex by the writer
    // only (its wake-up condition), so it needs no lock of its own.
    void hold(Job&& job) {
        newestHeld_ = newestHeld_ ? std::max(*newestHeld_, job.timestamp) : job.timestamp;
        heldBytes_ += job.acceptedSize;
        const std::pair<int64_t, uint64_t> key{job.timestamp, job.sequence};
        held_.emplace(key, std::move(job));
    }

    // Writes the held entries that are due, earliest first: those at least
    // the window older than the newest entry seen, then as many as keep the
    // held bytes within half the queue; every one when `all`.
    void releaseHeld(bool all, std::optional<SqliteLogFile::WriteBatch>& batch,
                     std::vector<Clock::time_point>& uncommitted) {
        const int64_t window = options_.reorderWindow.count();
        while (!held_.empty()) {
            auto earliest = held_.begin();
            const bool due = all || heldBytes_ > options_.queueBytes / 2 ||
                             timestampDistance(*newestHeld_, earliest->first.first) >= window;
            if (!due) {
                return;
            }
            Job job = std::move(earliest->second);
            held_.erase(earliest);
            heldBytes_ -= job.acceptedSize;
            noteWriteOrder(job);
            writeJobSafely(job, batch, uncommitted);
        }
    }

    // Counts an entry written after one with a later timestamp.
    void noteWriteOrder(const Job& job) {
        if (job.kind != Job::Kind::Entry) {
            return;
        }
        if (newestWritten_ && job.timestamp < *newestWritten_) {
            ++pendingLate_;
        } else {
            newestWritten_ = job.timestamp;
        }
    }

    // Entries handed to the writer a few at a time cost a wake-up of each
    // thread per round, which at high rates outweighs the writes: when only
    // entries wait, and few, the writer gives the capture threads a moment to
    // queue more (kGatherTime at most after the oldest arrived). Operations,
    // flushes, closing and a full queue end the wait at once.
    static constexpr std::size_t kGatherEntries = 1024;
    static constexpr std::size_t kGatherBytesAtMost = 1u << 20;
    static constexpr auto kGatherTime = std::chrono::microseconds(1000);

    std::size_t gatherBytes() const { return std::min(kGatherBytesAtMost, options_.queueBytes / 2); }

    bool gathered() const {
        return urgentJobs_ > 0 || stopped_ || roomWanted_ || jobs_.size() >= kGatherEntries ||
               queuedBytes_ >= gatherBytes();
    }

    void gatherEntries(std::unique_lock<std::mutex>& lock, std::optional<Clock::time_point> deadline) {
        if (jobs_.empty() || gathered()) {
            return;
        }
        Clock::time_point until = jobs_.front().acceptedAt + kGatherTime;
        if (deadline) {
            until = std::min(until, *deadline);
        }
        writerWanted_.wait_until(lock, until, [&] { return gathered(); });
    }

    void takeReadyJobs(std::vector<Job>& taken) {
        while (!jobs_.empty() && jobs_.front().ready && taken.size() < 4096) {
            if (jobs_.front().kind != Job::Kind::Entry) {
                --urgentJobs_;
            }
            taken.push_back(std::move(jobs_.front()));
            jobs_.pop_front();
        }
    }

    // Nothing may escape the writer thread: a transaction that cannot begin
    // (another connection holding the file past the wait) or an operation
    // that throws stops the recorder with the reason instead.
    bool writeJobSafely(Job& job, std::optional<SqliteLogFile::WriteBatch>& batch,
                        std::vector<Clock::time_point>& uncommitted) {
        try {
            return writeJob(job, batch, uncommitted);
        } catch (const std::exception& error) {
            failOnWriter("Cannot write to '" + path_.string() + "': " + error.what());
            settleAfterFailure(job);
            return false;
        }
    }

    void commitSafely(std::optional<SqliteLogFile::WriteBatch>& batch,
                      std::vector<Clock::time_point>& uncommitted) {
        try {
            commit(batch, uncommitted);
        } catch (const std::exception& error) {
            failOnWriter("Cannot commit to '" + path_.string() + "': " + error.what());
            std::lock_guard lock(mutex_);
            stats_.failed += uncommitted.size();
            uncommitted.clear();
            pendingStoredBytes_ = 0;
        }
    }

    void failOnWriter(const std::string& reason) {
        std::lock_guard lock(mutex_);
        fail(reason);
    }

    // Writes one job; true when it asks for a commit (a flush).
    bool writeJob(Job& job, std::optional<SqliteLogFile::WriteBatch>& batch,
                  std::vector<Clock::time_point>& uncommitted) {
        if (job.kind == Job::Kind::Flush) {
            return true;
        }
        if (hasFailed()) {
            settleAfterFailure(job);
            return false;
        }
        if (!batch) {
            batch.emplace(file_->beginBatch());
        }
        if (job.kind == Job::Kind::Operation) {
            const bool done = job.operation(*file_);
            std::lock_guard lock(mutex_);
            *job.answer = done;
            if (!done) {
                noteRefusal(file_->getLastError());
            }
            return false;
        }
        writeEntry(job, uncommitted);
        return false;
    }

    void writeEntry(Job& job, std::vector<Clock::time_point>& uncommitted) {
        Outcome written = Outcome::failure(FailureKind::Refused, job.compressionError);
        if (job.compressionError.empty()) {
            written = StoreAccess::of(*file_).insertStoredEntry(job.timestamp, job.type, job.dataSourceId,
                                                                job.stored);
        }
        // Counted here and published once per round (publishWrites): a lock
        // per entry would cost the capture threads as much as the insert.
        freedBytes_ += job.acceptedSize;
        if (written) {
            uncommitted.push_back(job.acceptedAt);
            pendingStoredBytes_ += job.stored.size();
            return;
        }
        std::lock_guard lock(mutex_);
        ++stats_.failed;
        if (written.kind() == FailureKind::Refused) {
            noteRefusal(written.message());
        } else {
            fail("Cannot write entry " + std::to_string(job.sequence + 1) + " to '" + path_.string() +
                 "': " + written.message());
        }
    }

    // Gives the queue back the room of the entries written this round.
    void publishWrites() {
        if (freedBytes_ == 0 && pendingLate_ == 0) {
            return;
        }
        {
            std::lock_guard lock(mutex_);
            queuedBytes_ -= std::min<uint64_t>(queuedBytes_, freedBytes_);
            stats_.late += pendingLate_;
        }
        pendingLate_ = 0;
        freedBytes_ = 0;
        roomAvailable_.notify_all();
    }

    void commit(std::optional<SqliteLogFile::WriteBatch>& batch,
                std::vector<Clock::time_point>& uncommitted) {
        if (!batch) {
            return;
        }
        const bool committed = batch->commit();
        batch.reset();
        const auto now = Clock::now();
        std::lock_guard lock(mutex_);
        if (!committed) {
            stats_.failed += uncommitted.size();
            fail("Cannot commit to '" + path_.string() + "': " + file_->getLastError());
        } else {
            stats_.written += uncommitted.size();
            stats_.bytesStored += pendingStoredBytes_;
            for (const Clock::time_point acceptedAt : uncommitted) {
                const auto latency = std::chrono::duration_cast<std::chrono::microseconds>(now - acceptedAt);
                stats_.maxLatencyMicroseconds =
                    std::max<int64_t>(stats_.maxLatencyMicroseconds, latency.count());
            }
        }
        pendingStoredBytes_ = 0;
        uncommitted.clear();
    }

    // Operations were answered when they ran; a flush is answered here, after
    // the commit it asked for, with whether everything so far was written.
    // Called with the mutex held.
    void answerWaiting(std::vector<Job>& taken) {
        bool any = false;
        for (Job& job : taken) {
            if (job.answer) {
                if (!job.answer->has_value()) {
                    *job.answer = job.kind == Job::Kind::Flush && failure_.empty();
                }
                any = true;
            }
        }
        if (any) {
            answered_.notify_all();
        }
    }

    bool hasFailed() const { return failed_.load(std::memory_order_acquire); }

    // After a failure nothing more is written: entries count as failed and
    // operations answer false.
    void settleAfterFailure(Job& job) {
        std::lock_guard lock(mutex_);
        if (job.kind == Job::Kind::Entry) {
            ++stats_.failed;
            freedBytes_ += job.acceptedSize;
        } else if (job.answer) {
            *job.answer = false;
        }
    }

    // Called with the mutex held.
    void fail(const std::string& reason) {
        if (failure_.empty()) {
            failure_ = reason;
        }
        failed_.store(true, std::memory_order_release);
        stopped_ = true;
        roomAvailable_.notify_all();
        compressionWanted_.notify_all();
    }

    void noteRefusal(const std::string& reason) { lastRefusal_ = reason; }

    const RecorderOptions options_;
    const std::filesystem::path path_;
    std::unique_ptr<SqliteLogFile> file_;
    bool compresses_ = false;
    const bool reorders_;

    mutable std::mutex mutex_;
    std::mutex closeMutex_;
    std::condition_variable compressionWanted_;
    std::condition_variable writerWanted_;
    std::condition_variable roomAvailable_;
    std::condition_variable answered_;
    std::deque<Job> jobs_;
    // Operations and flushes in jobs_: the writer takes them without
    // gathering.
    std::size_t urgentJobs_ = 0;
    uint64_t nextSequence_ = 0;
    uint64_t nextClaim_ = 0;
    std::size_t waitingForCompression_ = 0;
    uint64_t queuedBytes_ = 0;
    // Written by the writer thread only.
    uint64_t pendingStoredBytes_ = 0;
    uint64_t freedBytes_ = 0;
    uint64_t pendingLate_ = 0;
    std::optional<int64_t> newestWritten_;
    // Entries held for time order, by (timestamp, acceptance).
    std::map<std::pair<int64_t, uint64_t>, Job> held_;
    uint64_t heldBytes_ = 0;
    std::optional<int64_t> newestHeld_;
    // Set by a producer that found the queue full; guarded by mutex_.
    bool roomWanted_ = false;
    std::atomic<bool> failed_{false};
    bool stopped_ = false;
    bool closed_ = false;
    bool closedCleanly_ = false;
    RecorderStats stats_;
    std::string failure_;
    std::string lastRefusal_;

    std::vector<std::thread> compressors_;
    std::thread writer_;
};

Recorder::Recorder(const std::filesystem::path& path, const RecorderOptions& options)
    : d(std::make_unique<RecorderPrivate>(path, options)) {}

Recorder::~Recorder() = default;

bool Recorder::record(int8_t dataSourceId, int32_t type, int64_t timestamp, ByteBuffer&& payload) {
    return d->record(dataSourceId, type, timestamp, std::move(payload));
}

bool Recorder::record(int8_t dataSourceId, int32_t type, int64_t timestamp, const void* data,
                      std::size_t size) {
    const auto* bytes = static_cast<const std::byte*>(data);
    return d->record(dataSourceId, type, timestamp, ByteBuffer(bytes, bytes + size));
}

bool Recorder::addDataSource(DataSource& source) {
    DataSource added = source;
    const bool done = d->runInOrder([&added](SqliteLogFile& file) { return file.addDataSource(added); });
    if (done) {
        source.id = added.id;
    }
    return done;
}

bool Recorder::addDataSourceProperty(const DataSourceProperty& property) {
    return d->runInOrder([&property](SqliteLogFile& file) { return file.addDataSourceProperty(property); });
}

bool Recorder::addMetadata(const std::string& key, const PropertyValue& value) {
    return d->runInOrder([&](SqliteLogFile& file) { return file.addMetadata(key, value); });
}

bool Recorder::addResource(const std::string& name, const ByteBuffer& data) {
    return d->runInOrder([&](SqliteLogFile& file) { return file.addResource(name, data); });
}

bool Recorder::addBookmark(const Bookmark& bookmark) {
    return d->runInOrder([&bookmark](SqliteLogFile& file) { return file.addBookmark(bookmark); });
}

bool Recorder::flush() {
    return d->flush();
}

bool Recorder::close() {
    return d->close();
}

RecorderStats Recorder::stats() const {
    return d->stats();
}

std::filesystem::path Recorder::path() const {
    return d->path();
}

}  // namespace Marivane::Logging
