// The recorder's reorder window (entries written in timestamp order when
// sources lag each other by less than it, later arrivals counted as late)
// and the time index it builds when it closes.

#include <logging/EntryIndexFilter.h>
#include <logging/EntryRange.h>
#include <logging/EntryView.h>
#include <logging/Recorder.h>
#include <logging/SqliteLogFile.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <barrier>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace Marivane::Logging;
using Marivane::Testing::TempDir;
using std::chrono::milliseconds;

RecorderOptions optionsWithWindow(int64_t windowMs) {
    RecorderOptions options;
    options.applicationName = "recorder-time-order-tests";
    options.applicationVersion = "1.0";
    options.maxCommitDelay = milliseconds(5);
    options.reorderWindow = milliseconds(windowMs);
    return options;
}

ByteBuffer bytesOf(const std::string& text) {
    ByteBuffer bytes(text.size());
    std::memcpy(bytes.data(), text.data(), text.size());
    return bytes;
}

struct Stored {
    int64_t timestamp;
    std::string payload;
    bool operator==(const Stored& other) const = default;
};

void PrintTo(const Stored& stored, std::ostream* out) {
    *out << "(" << stored.timestamp << ", " << stored.payload << ")";
}

// Every entry in id order.
std::vector<Stored> storedEntries(const std::string& path) {
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    std::vector<Stored> entries;
    int32_t expectedId = 1;
    EXPECT_TRUE(file.visitEntries(EntryRange::all(), EntryIndexFilter(), [&](const EntryView& entry) {
        EXPECT_EQ(entry.entryId, expectedId++);
        entries.push_back(
            Stored{entry.timestamp, std::string(reinterpret_cast<const char*>(entry.data), entry.size)});
        return true;
    }));
    return entries;
}

class Recording {
public:
    Recording(const std::string& path, const RecorderOptions& options) : recorder(path, options) {
        EXPECT_TRUE(recorder.addDataSource(source));
    }
    // Records an entry whose payload names its timestamp and its place in
    // acceptance order.
    void record(int64_t timestamp) {
        const std::string payload = std::to_string(timestamp) + "#" + std::to_string(accepted++);
        EXPECT_TRUE(recorder.record(source.id, 1, timestamp, bytesOf(payload)));
        recordedInOrder.push_back(Stored{timestamp, payload});
    }
    // What a file in time order holds: the recorded entries sorted by
    // timestamp, equal timestamps in acceptance order.
    std::vector<Stored> inTimeOrder() const {
        std::vector<Stored> sorted = recordedInOrder;
        std::stable_sort(sorted.begin(), sorted.end(),
                         [](const Stored& a, const Stored& b) { return a.timestamp < b.timestamp; });
        return sorted;
    }

    Recorder recorder;
    DataSource source{-1, MV_LogDataSourceType_Lidar, "lidar"};
    std::vector<Stored> recordedInOrder;
    int accepted = 0;
};

// Two sources on one capture thread, the second lagging by 30 ms; a few
// equal timestamps.
void recordTwoLaggingSources(Recording& recording) {
    for (int64_t step = 0; step < 100; ++step) {
        recording.record(10'000 + 10 * step);
        recording.record(10'000 + 10 * step - 30);
        if (step % 10 == 0) {
            recording.record(10'000 + 10 * step);
        }
    }
}

TEST(RecorderReorderWindow, WritesTimeOrderWhenSourcesLagLessThanTheWindow) {
    TempDir dir;
    const std::string path = dir.file("window.mvlog");
    std::vector<Stored> expected;
    {
        Recording recording(path, optionsWithWindow(50));
        recordTwoLaggingSources(recording);
        ASSERT_TRUE(recording.recorder.close());
        const RecorderStats stats = recording.recorder.stats();
        EXPECT_EQ(stats.accepted, 210u);
        EXPECT_EQ(stats.written, 210u);
        EXPECT_EQ(stats.late, 0u);
        expected = recording.inTimeOrder();
        EXPECT_NE(expected, recording.recordedInOrder);
    }
    EXPECT_EQ(storedEntries(path), expected);
}

TEST(RecorderReorderWindow, WithoutAWindowEntriesKeepAcceptanceOrderAndOutOfOrderOnesAreCounted) {
    TempDir dir;
    const std::string path = dir.file("nowindow.mvlog");
    std::vector<Stored> expected;
    {
        Recording recording(path, optionsWithWindow(0));
        recordTwoLaggingSources(recording);
        ASSERT_TRUE(recording.recorder.close());
        // Every lagging entry lies before the entry written just before it.
        EXPECT_EQ(recording.recorder.stats().late, 100u);
        expected = recording.recordedInOrder;
    }
    EXPECT_EQ(storedEntries(path), expected);
}

TEST(RecorderReorderWindow, AnEntryLaterThanTheWindowIsWrittenAnywayAndCountedLate) {
    TempDir dir;
    const std::string path = dir.file("late.mvlog");
    {
        Recording recording(path, optionsWithWindow(50));
        recording.record(1000);
        recording.record(1100);  // lets 1000 go
        ASSERT_TRUE(recording.recorder.flush());
        recording.record(1200);
        recording.record(900);  // 1000 and 1100 are written already
        recording.record(1150);
        ASSERT_TRUE(recording.recorder.close());
        EXPECT_EQ(recording.recorder.stats().late, 1u);
        EXPECT_EQ(recording.recorder.stats().written, 5u);
    }
    EXPECT_EQ(storedEntries(path),
              (std::vector<Stored>{
                  {1000, "1000#0"}, {1100, "1100#1"}, {900, "900#3"}, {1150, "1150#4"}, {1200, "1200#2"}}));
}

TEST(RecorderReorderWindow, FlushWritesEverythingHeldAndReadersSeeIt) {
    TempDir dir;
    const std::string path = dir.file("flush.mvlog");
    Recording recording(path, optionsWithWindow(60'000));
    recording.record(500);
    recording.record(300);
    recording.record(400);
    ASSERT_TRUE(recording.recorder.flush());
    EXPECT_EQ(recording.recorder.stats().written, 3u);
    EXPECT_EQ(storedEntries(path), (std::vector<Stored>{{300, "300#1"}, {400, "400#2"}, {500, "500#0"}}));
    recording.record(100);
    ASSERT_TRUE(recording.recorder.flush());
    EXPECT_EQ(recording.recorder.stats().late, 1u);
    ASSERT_TRUE(recording.recorder.close());
}

TEST(RecorderReorderWindow, OperationsWriteWhatIsHeldBeforeThemAndKeepTheirPlace) {
    TempDir dir;
    const std::string path = dir.file("operations.mvlog");
    {
        Recording recording(path, optionsWithWindow(60'000));
        recording.record(200);
        recording.record(100);
        // Entries 1 and 2 are written before the bookmark that names them.
        ASSERT_TRUE(recording.recorder.addBookmark(Bookmark{1, "first in time", "", {}}));
        DataSource later{-1, MV_LogDataSourceType_Camera, "camera"};
        ASSERT_TRUE(recording.recorder.addDataSource(later));
        ASSERT_TRUE(recording.recorder.record(later.id, 2, 50, bytesOf("camera")));
        recording.record(150);
        ASSERT_TRUE(recording.recorder.close());
        const RecorderStats stats = recording.recorder.stats();
        EXPECT_EQ(stats.written, 4u);
        EXPECT_EQ(stats.failed, 0u);
        // 50 and 150 come after 200 was written.
        EXPECT_EQ(stats.late, 2u);
    }
    EXPECT_EQ(storedEntries(path),
              (std::vector<Stored>{{100, "100#1"}, {200, "200#0"}, {50, "camera"}, {150, "150#2"}}));
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    ASSERT_EQ(file.getBookmarks().size(), 1u);
    EXPECT_EQ(file.getBookmarks()[0].entryId, 1);
    EXPECT_EQ(file.readEntry(1)->timestamp, 100);
}

// Held entries fill the queue: the writer lets them go instead of leaving
// the producer blocked (or dropping forever), whatever the window.
TEST(RecorderReorderWindow, AFullQueueReleasesHeldEntriesUnderEveryPolicy) {
    for (const OverflowPolicy policy : {OverflowPolicy::Block, OverflowPolicy::DropNewest}) {
        SCOPED_TRACE(policy == OverflowPolicy::Block ? "block" : "drop newest");
        TempDir dir;
        const std::string path = dir.file("full.mvlog");
        RecorderOptions options = optionsWithWindow(3'600'000);
        options.queueBytes = 8 * 1024;
        options.overflowPolicy = policy;
        options.compressionLevel = 0;
        Recorder recorder(path, options);
        DataSource source{-1, MV_LogDataSourceType_Generic, "generic"};
        ASSERT_TRUE(recorder.addDataSource(source));
        const auto started = std::chrono::steady_clock::now();
        int accepted = 0;
        for (int i = 0; i < 2000; ++i) {
            accepted += recorder.record(source.id, 0, 1'000'000 - i, bytesOf(std::string(500, 'x'))) ? 1 : 0;
            // Dropping: give the writer time to make room now and then.
            if (policy == OverflowPolicy::DropNewest && i % 20 == 19) {
                std::this_thread::sleep_for(milliseconds(1));
            }
        }
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));
        ASSERT_TRUE(recorder.close());
        const RecorderStats stats = recorder.stats();
        EXPECT_EQ(stats.accepted + stats.dropped, 2000u);
        EXPECT_EQ(stats.written, stats.accepted);
        EXPECT_EQ(stats.accepted, static_cast<uint64_t>(accepted));
        // The queue holds 16 such entries: held for ever, they would let no
        // more in. What was let go early made the later ones late.
        EXPECT_GT(stats.accepted, policy == OverflowPolicy::Block ? 1999u : 100u);
        EXPECT_GT(stats.late, 0u);
        EXPECT_EQ(SqliteLogFile::openReadOnly(path).getEntryCount(), static_cast<int32_t>(stats.written));
    }
}

// Three capture threads, each with its own data source whose timestamps lag
// a common clock by 0, 20 and 40 ms; the threads keep step, so no entry
// arrives more than 40 ms of timestamps behind another. The arrival order
// within a step is up to the scheduler.
std::vector<Stored> recordThreeLaggingThreads(const std::string& path, int64_t windowMs,
                                              RecorderStats& stats) {
    constexpr int kThreads = 3;
    constexpr int kSteps = 300;
    Recorder recorder(path, optionsWithWindow(windowMs));
    std::vector<DataSource> sources;
    for (int t = 0; t < kThreads; ++t) {
        DataSource source{-1, MV_LogDataSourceType_Camera, "camera-" + std::to_string(t)};
        EXPECT_TRUE(recorder.addDataSource(source));
        sources.push_back(source);
    }
    std::barrier step(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int s = 0; s < kSteps; ++s) {
                const int64_t timestamp = 100'000 + 10 * s - 20 * t;
                EXPECT_TRUE(recorder.record(sources[static_cast<std::size_t>(t)].id, t, timestamp,
                                            bytesOf(std::to_string(t) + ":" + std::to_string(s))));
                step.arrive_and_wait();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(recorder.close());
    stats = recorder.stats();
    return storedEntries(path);
}

TEST(RecorderReorderWindow, SeveralThreadsLaggingLessThanTheWindowGiveIdsThatFollowTime) {
    TempDir dir;
    RecorderStats stats;
    const std::vector<Stored> stored = recordThreeLaggingThreads(dir.file("threads.mvlog"), 100, stats);
    ASSERT_EQ(stored.size(), 900u);
    EXPECT_EQ(stats.late, 0u);
    for (std::size_t i = 1; i < stored.size(); ++i) {
        EXPECT_LE(stored[i - 1].timestamp, stored[i].timestamp) << "entry " << i + 1;
    }
    // Each thread's own entries keep their order.
    std::vector<int> nextStep(3, 0);
    for (const Stored& entry : stored) {
        const int thread = entry.payload[0] - '0';
        EXPECT_EQ(entry.payload, std::to_string(thread) + ":" + std::to_string(nextStep[thread]++));
    }

    // Without the window the same recording is out of time order.
    RecorderStats unordered;
    const std::vector<Stored> asAccepted = recordThreeLaggingThreads(dir.file("plain.mvlog"), 0, unordered);
    EXPECT_GT(unordered.late, 0u);
    EXPECT_FALSE(std::is_sorted(asAccepted.begin(), asAccepted.end(),
                                [](const Stored& a, const Stored& b) { return a.timestamp < b.timestamp; }));
}

TEST(RecorderTimeIndex, BuiltWhenTheRecorderClosesUnlessToldNotTo) {
    TempDir dir;
    for (const bool build : {true, false}) {
        SCOPED_TRACE(build ? "built" : "not built");
        const std::string path = dir.file(build ? "indexed.mvlog" : "plain.mvlog");
        {
            RecorderOptions options = optionsWithWindow(0);
            options.buildTimeIndexOnClose = build;
            Recording recording(path, options);
            for (int64_t i = 0; i < 50; ++i) {
                recording.record(1000 + i);
            }
            ASSERT_TRUE(recording.recorder.flush());
            // Only when it closes: recording does not pay for the index.
            EXPECT_FALSE(SqliteLogFile::openReadOnly(path).hasTimeIndex());
            ASSERT_TRUE(recording.recorder.close());
            EXPECT_EQ(recording.recorder.stats().lastError, "");
        }
        const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
        EXPECT_EQ(file.hasTimeIndex(), build);
        EXPECT_EQ(file.findEntryAtOrAfter(1020), std::optional<int32_t>(21));
        EXPECT_EQ(file.getEntryCount(), 50);
    }
}

TEST(RecorderTimeIndex, DefaultOptionsBuildItAndKeepTheWindowOff) {
    const RecorderOptions options;
    EXPECT_TRUE(options.buildTimeIndexOnClose);
    EXPECT_EQ(options.reorderWindow, milliseconds(0));
    TempDir dir;
    const std::string path = dir.file("default.mvlog");
    {
        Recorder recorder(path);
        DataSource source{-1, MV_LogDataSourceType_Generic, "generic"};
        ASSERT_TRUE(recorder.addDataSource(source));
        ASSERT_TRUE(recorder.record(source.id, 0, 20, bytesOf("b")));
        ASSERT_TRUE(recorder.record(source.id, 0, 10, bytesOf("a")));
    }
    EXPECT_TRUE(SqliteLogFile::openReadOnly(path).hasTimeIndex());
    EXPECT_EQ(storedEntries(path), (std::vector<Stored>{{20, "b"}, {10, "a"}}));
}

}  // namespace
