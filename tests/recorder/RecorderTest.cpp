// The recorder: entries in acceptance order across threads with the same
// stored bytes as logData, each overflow policy, flush and close, operations
// in queue order, and failures of the file that never reach a capture thread.

#include <logging/Recorder.h>
#include <logging/SqliteLogFile.h>

#include <database/UnfinishedCommit.h>

#include "FaultInjectingVfs.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

namespace {

using namespace Marivane::Logging;
using Marivane::Testing::FaultInjectingVfs;
using Marivane::Testing::TempDir;

ByteBuffer bytesOf(const std::string& text) {
    ByteBuffer bytes(text.size());
    std::memcpy(bytes.data(), text.data(), text.size());
    return bytes;
}

std::string textOf(const ByteBuffer& bytes) {
    return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// A payload that names its place in acceptance order, padded so that
// compression has work to do.
std::string payloadFor(uint64_t order) {
    return "entry-" + std::to_string(order) + "-" +
           std::string(200 + order % 300, static_cast<char>('a' + order % 26));
}

RecorderOptions optionsAt(int8_t level) {
    RecorderOptions options;
    options.compressionLevel = level;
    options.applicationName = "recorder-tests";
    options.applicationVersion = "1.0";
    return options;
}

std::vector<std::string> storedPayloads(const std::string& path) {
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db, "SELECT payload FROM data ORDER BY entryId;", -1, &statement, nullptr),
              SQLITE_OK);
    std::vector<std::string> payloads;
    while (sqlite3_step(statement) == SQLITE_ROW) {
        payloads.emplace_back(static_cast<const char*>(sqlite3_column_blob(statement, 0)),
                              static_cast<std::size_t>(sqlite3_column_bytes(statement, 0)));
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return payloads;
}

class RecorderOrder : public ::testing::TestWithParam<int> {};

// Four threads record at once; a lock around record() fixes the acceptance
// order, which the payloads carry. The file must hold them in that order,
// whatever order the compression threads finished in.
TEST_P(RecorderOrder, EntriesFollowAcceptanceOrderAcrossFourThreads) {
    TempDir dir;
    const std::string path = dir.file("order.mvlog");
    const auto level = static_cast<int8_t>(GetParam());
    RecorderOptions options = optionsAt(level);
    options.compressionThreads = 3;
    options.maxCommitDelay = std::chrono::milliseconds(5);
    constexpr int kThreads = 4;
    constexpr int kPerThread = 500;
    {
        Recorder recorder(path, options);
        DataSource source{-1, MV_LogDataSourceType_Lidar, "lidar"};
        ASSERT_TRUE(recorder.addDataSource(source));
        std::mutex order;
        uint64_t next = 0;
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < kPerThread; ++i) {
                    std::lock_guard lock(order);
                    const uint64_t mine = next++;
                    EXPECT_TRUE(
                        recorder.record(source.id, t, static_cast<int64_t>(mine), bytesOf(payloadFor(mine))));
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_TRUE(recorder.close());
        const RecorderStats stats = recorder.stats();
        EXPECT_EQ(stats.accepted, uint64_t{kThreads * kPerThread});
        EXPECT_EQ(stats.written, uint64_t{kThreads * kPerThread});
        EXPECT_EQ(stats.failed + stats.dropped + stats.refused, 0u);
        EXPECT_EQ(stats.lastError, "");
    }
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    ASSERT_EQ(file.getEntryCount(), kThreads * kPerThread);
    int32_t expected = 1;
    EXPECT_TRUE(file.visitEntries(EntryRange::all(), EntryIndexFilter(), [&](const EntryView& entry) {
        EXPECT_EQ(entry.entryId, expected);
        EXPECT_EQ(entry.timestamp, expected - 1);
        const std::string payload(reinterpret_cast<const char*>(entry.data), entry.size);
        EXPECT_EQ(payload, payloadFor(static_cast<uint64_t>(expected - 1)));
        ++expected;
        return true;
    }));
}

INSTANTIATE_TEST_SUITE_P(Levels, RecorderOrder, ::testing::Values(0, -1, 1));

TEST(Recorder, StoresTheBytesLogDataStores) {
    TempDir dir;
    const std::string recorded = dir.file("recorded.mvlog");
    const std::string logged = dir.file("logged.mvlog");
    {
        Recorder recorder(recorded, optionsAt(3));
        SqliteLogFile file(logged, "Etc/UTC", "recorder-tests", "1.0", 3, 0);
        DataSource a{-1, MV_LogDataSourceType_Camera, "camera"};
        DataSource b{-1, MV_LogDataSourceType_Camera, "camera"};
        ASSERT_TRUE(recorder.addDataSource(a));
        ASSERT_TRUE(file.addDataSource(b));
        EXPECT_EQ(a.id, b.id);
        for (uint64_t i = 0; i < 50; ++i) {
            ASSERT_TRUE(recorder.record(a.id, 1, static_cast<int64_t>(i), payloadFor(i).data(),
                                        payloadFor(i).size()));
            ASSERT_TRUE(file.logData(DataEntry{0, b.id, 1, bytesOf(payloadFor(i)), static_cast<int64_t>(i)}));
        }
        ASSERT_TRUE(recorder.close());
    }
    EXPECT_EQ(storedPayloads(recorded), storedPayloads(logged));
}

TEST(Recorder, OperationsKeepTheirPlaceAmongTheEntries) {
    TempDir dir;
    const std::string path = dir.file("operations.mvlog");
    {
        Recorder recorder(path, optionsAt(-1));
        DataSource camera{-1, MV_LogDataSourceType_Camera, "camera"};
        ASSERT_TRUE(recorder.addDataSource(camera));
        for (uint64_t i = 0; i < 10; ++i) {
            ASSERT_TRUE(recorder.record(camera.id, 1, 100 + static_cast<int64_t>(i), bytesOf(payloadFor(i))));
        }
        // A data source added mid-recording: the entries before it cannot
        // refer to it, the ones after can.
        DataSource gnss{-1, MV_LogDataSourceType_Navigation, "gnss"};
        ASSERT_TRUE(recorder.addDataSource(gnss));
        EXPECT_NE(gnss.id, camera.id);
        ASSERT_TRUE(recorder.addDataSourceProperty({gnss.id, "rate", PropertyValue(int32_t{5})}));
        ASSERT_TRUE(recorder.record(gnss.id, 2, 200, bytesOf("fix")));
        ASSERT_TRUE(recorder.addMetadata("site", PropertyValue(std::string("harbour"))));
        EXPECT_FALSE(recorder.addMetadata("site", PropertyValue(std::string("again"))));
        ASSERT_TRUE(recorder.addResource("notes.txt", bytesOf("calm sea")));
        ASSERT_TRUE(recorder.addBookmark({11, "fix", "first fix", {}}));
        // An entry for a data source the file does not have is refused by the
        // file and counted; recording goes on.
        ASSERT_TRUE(recorder.record(99, 3, 300, bytesOf("nobody")));
        ASSERT_TRUE(recorder.record(camera.id, 1, 400, bytesOf("after")));
        EXPECT_TRUE(recorder.flush());
        const RecorderStats stats = recorder.stats();
        EXPECT_EQ(stats.accepted, 13u);
        EXPECT_EQ(stats.written, 12u);
        EXPECT_EQ(stats.failed, 1u);
        EXPECT_EQ(stats.lastError,
                  "Attempted to log data against a data source that did not exist in the file.");
        EXPECT_FALSE(recorder.close());
        EXPECT_FALSE(recorder.close());
        EXPECT_FALSE(recorder.record(camera.id, 1, 500, bytesOf("late")));
        EXPECT_EQ(recorder.stats().refused, 1u);
    }
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    EXPECT_EQ(file.getEntryCount(), 12);
    EXPECT_EQ(textOf(file.readEntry(11)->data), "fix");
    EXPECT_EQ(file.readEntry(11)->dataSourceId, 1 + 1);
    EXPECT_EQ(textOf(file.readEntry(12)->data), "after");
    EXPECT_EQ(std::get<std::string>(*file.getMetadataValue("site")), "harbour");
    EXPECT_EQ(textOf(*file.getResource("notes.txt")), "calm sea");
    ASSERT_EQ(file.getBookmarks().size(), 1u);
    EXPECT_EQ(file.getBookmarks()[0].entryId, 11);
    const std::optional<PropertyValue> rate = file.getDataSourceProperty(2, "rate");
    ASSERT_TRUE(rate.has_value());
    EXPECT_EQ(std::visit([](const auto& value) { return PropertyValue(value); }, *rate), *rate);
    EXPECT_TRUE(std::holds_alternative<int64_t>(*rate) ? std::get<int64_t>(*rate) == 5
                                                       : std::get<int32_t>(*rate) == 5);
}

TEST(Recorder, RefusesAnExistingPathAndNamesIt) {
    TempDir dir;
    const std::string path = dir.file("exists.mvlog");
    { SqliteLogFile file(path, "Etc/UTC", "recorder-tests", "1.0", 0, 0); }
    try {
        Recorder recorder(path);
        FAIL() << "an existing file was taken";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()), "Cannot record into '" + path + "': the file already exists.");
    }
}

TEST(Recorder, FlushMakesEverythingAcceptedVisibleToReaders) {
    TempDir dir;
    const std::string path = dir.file("flush.mvlog");
    RecorderOptions options = optionsAt(-1);
    options.maxCommitDelay = std::chrono::hours(1);
    options.durability = Durability::Safe;
    Recorder recorder(path, options);
    DataSource source{-1, MV_LogDataSourceType_Generic, "generic"};
    ASSERT_TRUE(recorder.addDataSource(source));
    for (int round = 1; round <= 3; ++round) {
        for (int i = 0; i < 100; ++i) {
            ASSERT_TRUE(recorder.record(source.id, 0, i, bytesOf(payloadFor(static_cast<uint64_t>(i)))));
        }
        ASSERT_TRUE(recorder.flush());
        const SqliteLogFile reader = SqliteLogFile::openReadOnly(path);
        EXPECT_EQ(reader.getEntryCount(), 100 * round);
    }
    EXPECT_EQ(recorder.stats().written, 300u);
    EXPECT_GE(recorder.stats().maxLatencyMicroseconds, 0);
    EXPECT_TRUE(recorder.close());
}

// Holds an exclusive lock on the file from another connection, so that the
// writer waits and the queue fills.
class ForeignLock {
public:
    explicit ForeignLock(const std::string& path) {
        EXPECT_EQ(sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db_, "BEGIN EXCLUSIVE;", nullptr, nullptr, nullptr), SQLITE_OK);
    }
    ~ForeignLock() { release(); }
    void release() {
        if (db_ != nullptr) {
            sqlite3_exec(db_, "COMMIT;", nullptr, nullptr, nullptr);
            sqlite3_close(db_);
            db_ = nullptr;
        }
    }

private:
    sqlite3* db_ = nullptr;
};

struct OverflowRun {
    RecorderStats stats;
    std::vector<bool> answers;
    std::vector<std::string> payloads;
};

OverflowRun recordWhileLocked(const std::string& path, OverflowPolicy policy) {
    RecorderOptions options = optionsAt(0);
    options.queueBytes = 10 * 1024;
    options.overflowPolicy = policy;
    OverflowRun run;
    Recorder recorder(path, options);
    DataSource source{-1, MV_LogDataSourceType_Generic, "generic"};
    EXPECT_TRUE(recorder.addDataSource(source));
    EXPECT_TRUE(recorder.flush());
    {
        ForeignLock lock(path);
        for (int i = 0; i < 30; ++i) {
            std::string payload = std::to_string(i) + std::string(1024 - std::to_string(i).size(), '.');
            const auto started = std::chrono::steady_clock::now();
            run.answers.push_back(recorder.record(source.id, 0, i, bytesOf(payload)));
            // Never waits: the writer is stuck behind the lock.
            EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(500));
        }
        lock.release();
    }
    EXPECT_TRUE(recorder.close());
    run.stats = recorder.stats();
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    file.visitEntries(EntryRange::all(), EntryIndexFilter(), [&](const EntryView& view) {
        run.payloads.emplace_back(reinterpret_cast<const char*>(view.data), 2);
        return true;
    });
    return run;
}

TEST(RecorderOverflow, DropNewestCountsEveryDropAndKeepsTheAcceptedInOrder) {
    TempDir dir;
    const OverflowRun run = recordWhileLocked(dir.file("drop.mvlog"), OverflowPolicy::DropNewest);
    EXPECT_EQ(run.stats.accepted + run.stats.dropped, 30u);
    EXPECT_EQ(run.stats.accepted, 10u);
    EXPECT_EQ(run.stats.written, 10u);
    EXPECT_EQ(run.stats.refused, 0u);
    EXPECT_EQ(run.payloads.size(), 10u);
    for (std::size_t i = 0; i < 30; ++i) {
        EXPECT_EQ(run.answers[i], i < 10) << i;
    }
    for (std::size_t i = 0; i < run.payloads.size(); ++i) {
        EXPECT_EQ(run.payloads[i], (std::to_string(i) + ".").substr(0, 2));
    }
}

TEST(RecorderOverflow, RefuseCountsRefusalsApartFromDrops) {
    TempDir dir;
    const OverflowRun run = recordWhileLocked(dir.file("refuse.mvlog"), OverflowPolicy::Refuse);
    EXPECT_EQ(run.stats.accepted, 10u);
    EXPECT_EQ(run.stats.refused, 20u);
    EXPECT_EQ(run.stats.dropped, 0u);
    EXPECT_EQ(run.stats.written, 10u);
}

TEST(RecorderOverflow, BlockWaitsForRoomAndLosesNothing) {
    TempDir dir;
    const std::string path = dir.file("block.mvlog");
    RecorderOptions options = optionsAt(0);
    options.queueBytes = 10 * 1024;
    Recorder recorder(path, options);
    DataSource source{-1, MV_LogDataSourceType_Generic, "generic"};
    ASSERT_TRUE(recorder.addDataSource(source));
    ASSERT_TRUE(recorder.flush());
    std::atomic<int> recorded{0};
    {
        ForeignLock lock(path);
        std::thread producer([&] {
            for (int i = 0; i < 30; ++i) {
                EXPECT_TRUE(recorder.record(source.id, 0, i, bytesOf(std::string(1024, 'x'))));
                ++recorded;
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        // The producer waits for room: the queue holds ten entries.
        EXPECT_EQ(recorded.load(), 10);
        lock.release();
        producer.join();
    }
    EXPECT_TRUE(recorder.close());
    EXPECT_EQ(recorder.stats().written, 30u);
    EXPECT_LE(recorder.stats().queueHighWaterBytes, 10u * 1024u);
    EXPECT_EQ(SqliteLogFile::openReadOnly(path).getEntryCount(), 30);
}

TEST(Recorder, RefusesAnEmptyPath) {
    try {
        Recorder recorder("", optionsAt(0));
        FAIL() << "recorded into an empty path";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Cannot record: the file path is empty.");
    }
}

TEST(Recorder, RecordsWithBalancedDurabilityByDefault) {
    EXPECT_EQ(RecorderOptions().durability, Durability::Balanced);
}

// A file that cannot even be created leaves nothing behind that would block
// the next try.
TEST(RecorderFailure, ACreationThatFailsLeavesNoFile) {
    TempDir dir;
    const std::string path = dir.file("never.mvlog");
    {
        FaultInjectingVfs vfs;
        vfs.failGrowth(true);
        try {
            Recorder recorder(path, optionsAt(0));
            FAIL() << "created a file on a full disk";
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(std::string(error.what()).rfind("Cannot record into '" + path + "': ", 0), 0u)
                << error.what();
        }
        EXPECT_FALSE(std::filesystem::exists(path));
        EXPECT_FALSE(std::filesystem::exists(path + "-journal"));
    }
    Recorder recorder(path, optionsAt(0));
    EXPECT_TRUE(recorder.close());
    EXPECT_EQ(SqliteLogFile::openReadOnly(path).getEntryCount(), 0);
}

// A disk that fills up: the recorder stops accepting, says why, never blocks
// a capture thread, and what it committed before stays readable.
TEST(RecorderFailure, AFullDiskStopsAcceptingWithoutBlockingAndKeepsWhatWasCommitted) {
    TempDir dir;
    const std::string path = dir.file("full.mvlog");
    FaultInjectingVfs vfs;
    {
        RecorderOptions options = optionsAt(0);
        Recorder recorder(path, options);
        DataSource source{-1, MV_LogDataSourceType_Generic, "generic"};
        ASSERT_TRUE(recorder.addDataSource(source));
        for (int i = 0; i < 20; ++i) {
            ASSERT_TRUE(recorder.record(source.id, 0, i, bytesOf(std::string(100, 'a'))));
        }
        ASSERT_TRUE(recorder.flush());
        vfs.failGrowth(true);
        int turnedAway = 0;
        const auto started = std::chrono::steady_clock::now();
        for (int i = 0; i < 2000; ++i) {
            if (!recorder.record(source.id, 0, 100 + i, bytesOf(std::string(4000, 'b')))) {
                ++turnedAway;
            }
        }
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
        EXPECT_FALSE(recorder.flush());
        // Stopped: the capture thread hears it at once.
        EXPECT_FALSE(recorder.record(source.id, 0, 9999, bytesOf("late")));
        const RecorderStats stats = recorder.stats();
        EXPECT_EQ(stats.lastError.rfind("Cannot ", 0), 0u) << stats.lastError;
        EXPECT_NE(stats.lastError.find(path), std::string::npos) << stats.lastError;
        EXPECT_EQ(stats.refused, static_cast<uint64_t>(turnedAway) + 1);
        EXPECT_EQ(stats.accepted + stats.refused + stats.dropped, 2021u);
        EXPECT_EQ(stats.written + stats.failed, stats.accepted);
        EXPECT_FALSE(recorder.close());
        vfs.failGrowth(false);
    }
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    EXPECT_GE(file.getEntryCount(), 20);
    EXPECT_EQ(textOf(file.readEntry(20)->data), std::string(100, 'a'));
}

}  // namespace

namespace {

// A recording process killed at a random moment: every entry accepted before
// its last completed flush must be in the file, byte for byte. Safe and
// balanced files only: a kill in the middle of a fast file's commit can damage
// it (the crash-survival suite measures how often).
class RecorderKill : public ::testing::TestWithParam<Durability> {};

TEST_P(RecorderKill, EverythingFlushedBeforeAKillIsInTheFile) {
    for (int run = 0; run < 3; ++run) {
        TempDir dir;
        const std::string path = dir.file("killed.mvlog");
        int report[2];
        ASSERT_EQ(pipe(report), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(report[0]);
            RecorderOptions options = optionsAt(-1);
            options.durability = GetParam();
            options.maxCommitDelay = std::chrono::milliseconds(2);
            Recorder recorder(path, options);
            DataSource source{-1, MV_LogDataSourceType_Generic, "generic"};
            recorder.addDataSource(source);
            for (uint64_t i = 0;; ++i) {
                recorder.record(source.id, 0, static_cast<int64_t>(i), bytesOf(payloadFor(i)));
                if (i % 50 == 49 && recorder.flush()) {
                    const uint64_t flushed = i + 1;
                    if (write(report[1], &flushed, sizeof flushed) != sizeof flushed) {
                        _exit(3);
                    }
                }
            }
        }
        close(report[1]);
        uint64_t flushed = 0;
        uint64_t latest = 0;
        const int reportsBeforeKill = 5 + run * 7;
        for (int i = 0; i < reportsBeforeKill; ++i) {
            ASSERT_EQ(read(report[0], &latest, sizeof latest), static_cast<ssize_t>(sizeof latest));
            flushed = latest;
        }
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
        // Flushes reported after the last read above also count.
        while (read(report[0], &latest, sizeof latest) == static_cast<ssize_t>(sizeof latest)) {
            flushed = latest;
        }
        close(report[0]);
        if (GetParam() == Durability::Balanced) {
            // A commit the kill cut short is rolled back by the next writer.
            SqliteLogFile writer{std::filesystem::path(path)};
        }
        const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
        ASSERT_GE(file.getEntryCount(), static_cast<int32_t>(flushed));
        uint64_t checked = 0;
        EXPECT_TRUE(file.visitEntries(EntryRange{1, static_cast<int32_t>(flushed)}, EntryIndexFilter(),
                                      [&](const EntryView& entry) {
                                          EXPECT_EQ(std::string(reinterpret_cast<const char*>(entry.data),
                                                                entry.size),
                                                    payloadFor(checked));
                                          ++checked;
                                          return true;
                                      }))
            << file.getLastFailure();
        EXPECT_EQ(checked, flushed);
    }
}

INSTANTIATE_TEST_SUITE_P(Durabilities, RecorderKill,
                         ::testing::Values(Durability::Safe, Durability::Balanced),
                         [](const ::testing::TestParamInfo<Durability>& info) {
                             return info.param == Durability::Safe ? std::string("Safe")
                                                                   : std::string("Balanced");
                         });

}  // namespace

namespace {

// Another connection keeps the file locked past the library's wait: the
// writer cannot begin its transaction. The recorder stops and says so; the
// process and the capture thread go on.
TEST(RecorderFailure, AFileLockedPastTheWaitStopsTheRecorderWithoutEndingTheProcess) {
    TempDir dir;
    const std::string path = dir.file("locked.mvlog");
    Recorder recorder(path, optionsAt(0));
    DataSource source{-1, MV_LogDataSourceType_Generic, "generic"};
    ASSERT_TRUE(recorder.addDataSource(source));
    ASSERT_TRUE(recorder.flush());
    {
        ForeignLock lock(path);
        ASSERT_TRUE(recorder.record(source.id, 0, 1, bytesOf("waits")));
        EXPECT_FALSE(recorder.flush());
    }
    const RecorderStats stats = recorder.stats();
    EXPECT_EQ(stats.lastError.rfind("Cannot write to '" + path + "': The file '" + path + "' is busy", 0), 0u)
        << stats.lastError;
    EXPECT_EQ(stats.failed, 1u);
    EXPECT_FALSE(recorder.record(source.id, 0, 2, bytesOf("refused")));
    EXPECT_FALSE(recorder.close());
}

}  // namespace

namespace {

// A device error on a write: the recorder stops with the file's message and
// keeps what it had committed.
TEST(RecorderFailure, AnIoErrorStopsTheRecorderAndKeepsWhatWasCommitted) {
    TempDir dir;
    const std::string path = dir.file("ioerror.mvlog");
    FaultInjectingVfs vfs;
    {
        Recorder recorder(path, optionsAt(0));
        DataSource source{-1, MV_LogDataSourceType_Generic, "generic"};
        ASSERT_TRUE(recorder.addDataSource(source));
        for (int i = 0; i < 10; ++i) {
            ASSERT_TRUE(recorder.record(source.id, 0, i, bytesOf("kept")));
        }
        ASSERT_TRUE(recorder.flush());
        vfs.failWrites(SQLITE_IOERR_WRITE);
        ASSERT_TRUE(recorder.record(source.id, 0, 10, bytesOf(std::string(5000, 'x'))));
        EXPECT_FALSE(recorder.flush());
        const RecorderStats stats = recorder.stats();
        EXPECT_EQ(stats.written, 10u);
        EXPECT_EQ(stats.failed, 1u);
        EXPECT_NE(stats.lastError.find("IO error while reading or writing to the file."), std::string::npos)
            << stats.lastError;
        EXPECT_FALSE(recorder.record(source.id, 0, 11, bytesOf("late")));
        EXPECT_FALSE(recorder.close());
        vfs.failWrites(0);
    }
    // The failed commit's journal could not be rolled back while writes
    // failed: read-only readers are told so, and the next writer rolls back.
    try {
        (void)SqliteLogFile::openReadOnly(path);
        ADD_FAILURE() << "read a file whose commit was cut short";
    } catch (const Marivane::Database::UnfinishedCommit& error) {
        EXPECT_EQ(std::string(error.what()).rfind("Cannot read '" + path + "' yet: a writer stopped", 0), 0u)
            << error.what();
    }
    { SqliteLogFile writer{std::filesystem::path(path)}; }
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    EXPECT_EQ(file.getEntryCount(), 10);
    EXPECT_EQ(textOf(file.readEntry(10)->data), "kept");
}

}  // namespace

namespace {

TEST(Recorder, ClosingFromTwoThreadsAtOnceClosesOnce) {
    TempDir dir;
    Recorder recorder(dir.file("twice.mvlog"), optionsAt(-1));
    DataSource source{-1, MV_LogDataSourceType_Generic, "generic"};
    ASSERT_TRUE(recorder.addDataSource(source));
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(recorder.record(source.id, 0, i, bytesOf(payloadFor(static_cast<uint64_t>(i)))));
    }
    std::atomic<int> clean{0};
    std::thread first([&] { clean += recorder.close() ? 1 : 0; });
    std::thread second([&] { clean += recorder.close() ? 1 : 0; });
    first.join();
    second.join();
    EXPECT_EQ(clean.load(), 2);
    EXPECT_EQ(recorder.stats().written, 200u);
}

}  // namespace
