#pragma once

#include <logging/LogFileInterface.h>
#include <logging/LogFilePlayer.h>
#include <logging/SqliteLogFile.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Marivane::Testing {

using Marivane::Logging::Bookmark;
using Marivane::Logging::ByteBuffer;
using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::LogFileInterface;
using Marivane::Logging::SqliteLogFile;
using Marivane::Logging::Playback::FrameCallback;
using Marivane::Logging::Playback::LogFilePlayer;
using SteadyClock = std::chrono::steady_clock;

// Payload bytes that identify an entry by its timestamp, so that a delivered
// entry can be checked byte for byte.
inline ByteBuffer payloadFor(int64_t timestamp) {
    return {std::byte{0xA5}, static_cast<std::byte>(timestamp & 0xFF),
            static_cast<std::byte>((timestamp >> 8) & 0xFF), std::byte{0x5A}};
}

inline int64_t millisecondsBetween(SteadyClock::time_point from, SteadyClock::time_point to) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count();
}

// Writes a real log file; entry ids run from 1 in the order entries are added.
class LogFileBuilder {
public:
    explicit LogFileBuilder(const std::string& path)
        : file_(std::make_unique<SqliteLogFile>(path, "UTC", "playback-tests", "1.0", -1, 1700000000000)) {}

    int8_t addSource(MV_LogDataSourceType type, const std::string& name) {
        DataSource source{-1, type, name};
        EXPECT_TRUE(file_->addDataSource(source)) << file_->getLastError();
        return source.id;
    }

    // Returns the new entry's id.
    int32_t addEntry(int8_t sourceId, int64_t timestamp, int32_t type = 7) {
        DataEntry entry;
        entry.dataSourceId = sourceId;
        entry.type = type;
        entry.timestamp = timestamp;
        entry.data = payloadFor(timestamp);
        EXPECT_TRUE(file_->logData(entry)) << file_->getLastError();
        return ++lastEntryId_;
    }

    void addEntries(int8_t sourceId, const std::vector<int64_t>& timestamps) {
        for (int64_t timestamp : timestamps) {
            addEntry(sourceId, timestamp);
        }
    }

    void addBookmark(int32_t entryId, const std::string& title, const std::string& comments,
                     ByteBuffer payload = {}) {
        EXPECT_TRUE(file_->addBookmark(Bookmark{entryId, title, comments, std::move(payload)}))
            << file_->getLastError();
    }

    SqliteLogFile& file() { return *file_; }
    std::unique_ptr<LogFileInterface> take() { return std::move(file_); }

private:
    std::unique_ptr<SqliteLogFile> file_;
    int32_t lastEntryId_ = 0;
};

// One file with a single camera source and entries at the given timestamps
// (ids 1, 2, ...).
inline std::unique_ptr<LogFileInterface> makeSingleSourceFile(const std::string& path,
                                                              const std::vector<int64_t>& timestamps) {
    LogFileBuilder builder(path);
    const int8_t source = builder.addSource(MV_LogDataSourceType_Camera, "camera");
    builder.addEntries(source, timestamps);
    return builder.take();
}

// Collects deliveries from any thread and lets the test wait for them.
class FrameRecorder {
public:
    struct Delivery {
        int32_t frame;
        DataEntry entry;
        SteadyClock::time_point at;
        std::thread::id thread;
    };

    // Runs on the delivering thread after the delivery was recorded.
    std::function<void(int32_t frame)> afterDelivery;

    FrameCallback callback() {
        return [this](int32_t frame, DataEntry entry) { record(frame, std::move(entry)); };
    }

    void record(int32_t frame, DataEntry entry) {
        {
            std::lock_guard lock(mutex_);
            deliveries_.push_back(
                Delivery{frame, std::move(entry), SteadyClock::now(), std::this_thread::get_id()});
        }
        changed_.notify_all();
        if (afterDelivery) {
            afterDelivery(frame);
        }
    }

    bool waitForCount(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return deliveries_.size() >= count; });
    }

    std::vector<Delivery> deliveries() {
        std::lock_guard lock(mutex_);
        return deliveries_;
    }

    std::vector<int32_t> frames() {
        std::lock_guard lock(mutex_);
        std::vector<int32_t> numbers;
        for (const Delivery& delivery : deliveries_) {
            numbers.push_back(delivery.frame);
        }
        return numbers;
    }

    std::size_t count() {
        std::lock_guard lock(mutex_);
        return deliveries_.size();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Delivery> deliveries_;
};

// A log file in memory whose answers the test sets directly: data sources, the
// entry index (which need not match the entries), entries and bookmarks.
class FakeLogFile final : public LogFileInterface {
public:
    std::vector<DataSource> sources;
    std::vector<int32_t> index;
    std::map<int32_t, DataEntry> entries;
    std::vector<Bookmark> bookmarks;
    std::atomic<bool>* destroyed = nullptr;
    bool throwOnBookmarkEdit = false;
    mutable std::vector<Marivane::Logging::EntryIndexFilter> filtersSeen;
    mutable std::vector<int32_t> entriesRead;
    std::vector<Bookmark> addedBookmarks;
    std::vector<Bookmark> updatedBookmarks;
    std::vector<Bookmark> removedBookmarks;

    ~FakeLogFile() override {
        if (destroyed != nullptr) {
            destroyed->store(true);
        }
    }

    std::filesystem::path getFilePath() const override { return "fake.mvlog"; }
    std::vector<DataSource> getDataSources() const override { return sources; }
    std::optional<Marivane::Logging::PropertyValue> getDataSourceProperty(int32_t,
                                                                          std::string) const override {
        return std::nullopt;
    }
    std::vector<Marivane::Logging::DataSourceProperty> getAllDataSourceProperties() const override {
        return {};
    }
    std::vector<int32_t> getEntryIndex(const Marivane::Logging::EntryIndexFilter& filter) const override {
        filtersSeen.push_back(filter);
        return index;
    }
    int32_t getFirstEntryId() const override { return -1; }
    int32_t getLastEntryId() const override { return -1; }
    int32_t getEntryCount() const override { return static_cast<int32_t>(entries.size()); }
    std::optional<DataEntry> readEntry(int32_t entryId) const override {
        entriesRead.push_back(entryId);
        const auto found = entries.find(entryId);
        if (found == entries.end()) {
            return std::nullopt;
        }
        return found->second;
    }
    std::optional<Marivane::Logging::PropertyValue> getMetadataValue(std::string) const override {
        return std::nullopt;
    }
    std::vector<LogMetadataEntry> getAllMetadata() const override { return {}; }
    std::optional<ByteBuffer> getResource(std::string) const override { return std::nullopt; }
    std::vector<LogResourceEntry> getAllResources() const override { return {}; }
    std::optional<ByteBuffer> getThumbnail() const override { return std::nullopt; }
    std::vector<Bookmark> getBookmarks() const override { return bookmarks; }
    bool addDataSource(DataSource&) override { return false; }
    bool addDataSource(const DataSource&) override { return false; }
    bool addDataSourceProperty(const Marivane::Logging::DataSourceProperty&) override { return false; }
    bool logData(const DataEntry&) override { return false; }
    bool addMetadata(std::string, Marivane::Logging::PropertyValue) override { return false; }
    bool addResource(const std::string&, const ByteBuffer&) override { return false; }
    bool setThumbnail(const ByteBuffer&) override { return false; }
    bool addBookmark(const Bookmark& bookmark) override {
        throwIfAsked();
        addedBookmarks.push_back(bookmark);
        bookmarks.push_back(bookmark);
        return true;
    }
    bool updateBookmark(const Bookmark& bookmark) override {
        throwIfAsked();
        updatedBookmarks.push_back(bookmark);
        return true;
    }
    bool removeBookmark(const Bookmark& bookmark) override {
        throwIfAsked();
        removedBookmarks.push_back(bookmark);
        return true;
    }
    std::string getLastError() const override { return "No error"; }
    std::vector<DataEntry> readEntries(int32_t, int32_t, const Marivane::Logging::EntryIndexFilter&,
                                       int32_t) const override {
        return {};
    }

private:
    void throwIfAsked() const {
        if (throwOnBookmarkEdit) {
            throw std::runtime_error("bookmark edit refused");
        }
    }
};

inline DataEntry makeEntry(int32_t entryId, int8_t sourceId, int32_t type, int64_t timestamp) {
    return DataEntry{entryId, sourceId, type, payloadFor(timestamp), timestamp};
}

// Holds a player that may be moved from and is then never destroyed: a
// moved-from player must not be destroyed. The storage lives on the stack, and a
// moved-from player owns nothing, so nothing leaks.
class UndestroyedPlayer {
public:
    template <typename... Args>
    explicit UndestroyedPlayer(Args&&... args) {
        player_ = new (storage_) LogFilePlayer(std::forward<Args>(args)...);
    }
    ~UndestroyedPlayer() {
        if (!movedFrom_) {
            player_->~LogFilePlayer();
        }
    }
    UndestroyedPlayer(const UndestroyedPlayer&) = delete;
    UndestroyedPlayer& operator=(const UndestroyedPlayer&) = delete;

    LogFilePlayer& get() { return *player_; }
    LogFilePlayer&& release() {
        movedFrom_ = true;
        return std::move(*player_);
    }

private:
    alignas(LogFilePlayer) std::byte storage_[sizeof(LogFilePlayer)];
    LogFilePlayer* player_ = nullptr;
    bool movedFrom_ = false;
};

}  // namespace Marivane::Testing
