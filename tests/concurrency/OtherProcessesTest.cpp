// Beside other processes: a writer process (autocommit, or batches) and
// readers in this one that open, list and read. Nothing a reader does may
// cost a bookmark or an entry, no file may be damaged, and every read is
// either right or reported as failed, never a silently empty or short answer.

#include <logging/NotALogFileError.h>
#include <logging/Recorder.h>
#include <logging/SqliteLogFile.h>

#include <database/DatabaseBusy.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace Marivane::Logging;
using Marivane::Database::DatabaseBusy;
using Marivane::Testing::TempDir;
using Clock = std::chrono::steady_clock;

constexpr auto kRunTime = std::chrono::milliseconds(2500);

ByteBuffer payloadFor(int32_t entryId) {
    ByteBuffer bytes(static_cast<std::size_t>(64 + entryId % 512));
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::byte>((static_cast<std::size_t>(entryId) * 17 + i) & 0xFF);
    }
    return bytes;
}

// A compressed file with one source, ten entries and two bookmarks.
void createFile(const std::string& path) {
    SqliteLogFile file(path, "Etc/UTC", "concurrency", "1", -1, 1'700'000'000'000);
    DataSource source{-1, MV_LogDataSourceType_Lidar, "lidar"};
    ASSERT_TRUE(file.addDataSource(source));
    for (int32_t id = 1; id <= 10; ++id) {
        DataEntry entry;
        entry.dataSourceId = source.id;
        entry.timestamp = id;
        entry.data = payloadFor(id);
        ASSERT_TRUE(file.logData(entry));
    }
    ASSERT_TRUE(file.addBookmark(Bookmark{2, "two", "", {}}));
    ASSERT_TRUE(file.addBookmark(Bookmark{7, "seven", "", {}}));
}

// The writer process: the library's own logData, in batches of `batchSize`
// (0: autocommit), for the run time; exits 0 when every write succeeded.
pid_t startWriter(const std::string& path, int batchSize) {
    const pid_t child = fork();
    if (child != 0) {
        return child;
    }
    int status = 0;
    try {
        SqliteLogFile file{std::filesystem::path(path)};
        const auto end = Clock::now() + kRunTime;
        int32_t id = 11;
        while (Clock::now() < end) {
            std::optional<SqliteLogFile::WriteBatch> batch;
            if (batchSize > 0) {
                batch.emplace(file.beginBatch());
            }
            for (int i = 0; i < std::max(batchSize, 1); ++i, ++id) {
                DataEntry entry;
                entry.dataSourceId = 1;
                entry.timestamp = id;
                entry.data = payloadFor(id);
                if (!file.logData(entry)) {
                    std::fprintf(stderr, "writer: entry %d: %s\n", id, file.getLastError().c_str());
                    status = 3;
                }
            }
            if (batch && !batch->commit()) {
                std::fprintf(stderr, "writer: commit: %s\n", file.getLastError().c_str());
                status = 4;
            }
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "writer: %s\n", error.what());
        status = 5;
    }
    _exit(status);
}

// A writer with the plain SQLite library: short write transactions that
// touch the bookmarks table's neighbourhood, as any other program might.
pid_t startForeignWriter(const std::string& path) {
    const pid_t child = fork();
    if (child != 0) {
        return child;
    }
    sqlite3* db = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    sqlite3_busy_timeout(db, 5000);
    sqlite3_exec(db, "CREATE TABLE IF NOT EXISTS other(v);", nullptr, nullptr, nullptr);
    const auto end = Clock::now() + kRunTime;
    int failures = 0;
    while (Clock::now() < end) {
        if (sqlite3_exec(db, "BEGIN IMMEDIATE; INSERT INTO other VALUES (randomblob(4000)); COMMIT;", nullptr,
                         nullptr, nullptr) != SQLITE_OK) {
            sqlite3_exec(db, "ROLLBACK;", nullptr, nullptr, nullptr);
            ++failures;
        }
    }
    sqlite3_close_v2(db);
    _exit(failures == 0 ? 0 : 6);
}

bool integrityOk(const std::string& path) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_stmt* statement = nullptr;
    bool ok = false;
    if (sqlite3_prepare_v2(db, "PRAGMA integrity_check;", -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
        ok = std::string(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0))) == "ok";
    }
    sqlite3_finalize(statement);
    sqlite3_close_v2(db);
    return ok;
}

struct ReaderTally {
    int opens = 0;
    int busyOpens = 0;
    int reportedFailures = 0;
};

// One look at the file: every answer is checked against what the writer
// writes (entry k holds payloadFor(k)); a wrong answer fails the test, a
// failed read must be counted by the file.
void lookOnce(const std::string& path, bool readOnly, ReaderTally& tally) {
    std::optional<SqliteLogFile> file;
    try {
        file.emplace(readOnly ? SqliteLogFile::openReadOnly(path)
                              : SqliteLogFile(std::filesystem::path(path)));
    } catch (const DatabaseBusy& error) {
        ++tally.busyOpens;
        EXPECT_NE(std::string(error.what()).find("is busy"), std::string::npos) << error.what();
        return;
    }
    ++tally.opens;
    const uint64_t failuresBefore = file->getFailureCount();
    const std::vector<Bookmark> bookmarks = file->getBookmarks();
    const std::vector<int32_t> ids = file->getEntryIndex(EntryIndexFilter{});
    const std::vector<DataEntry> last =
        file->readEntries(std::max(1, static_cast<int>(ids.size()) - 20), -1, EntryIndexFilter{}, -1);
    const std::optional<DataEntry> fifth = file->readEntry(5);
    std::vector<int32_t> visited;
    const bool visitCompleted =
        file->visitEntries(EntryRange::all(), EntryIndexFilter{}, [&](const EntryView& view) {
            if (view.size != payloadFor(view.entryId).size() ||
                !std::equal(view.data, view.data + view.size, payloadFor(view.entryId).begin())) {
                ADD_FAILURE() << "the streaming read handed out wrong bytes for entry " << view.entryId;
            }
            visited.push_back(view.entryId);
            return true;
        });
    if (!visitCompleted) {
        EXPECT_NE(file->getFailureCount(), failuresBefore) << "a failed visit must be counted";
    }
    if (file->getFailureCount() != failuresBefore) {
        ++tally.reportedFailures;
        EXPECT_NE(file->getLastFailure(), "");
        return;
    }
    EXPECT_EQ(bookmarks.size(), 2u) << "bookmarks lost or unreadable without a reported failure";
    EXPECT_GE(ids.size(), 10u);
    for (std::size_t i = 0; i < ids.size(); ++i) {
        if (ids[i] != static_cast<int32_t>(i + 1)) {
            ADD_FAILURE() << "index gap at " << i;
            break;
        }
    }
    for (const DataEntry& entry : last) {
        EXPECT_EQ(entry.data, payloadFor(entry.entryId)) << "wrong bytes for entry " << entry.entryId;
    }
    ASSERT_TRUE(fifth.has_value());
    EXPECT_EQ(fifth->data, payloadFor(5));
    // The visit ran after the index: it saw at least as many entries, in order.
    ASSERT_GE(visited.size(), ids.size());
    for (std::size_t i = 0; i < visited.size(); ++i) {
        if (visited[i] != static_cast<int32_t>(i + 1)) {
            ADD_FAILURE() << "the streaming read skipped to entry " << visited[i] << " at position " << i;
            break;
        }
    }
}

// A recorder in safe mode in another process, and a reader here that opens
// the file again and again while it grows: each look sees a prefix of what
// was recorded, exact bytes, never less than the look before.
void expectALiveRecordingReadsAsAGrowingPrefix(Durability durability) {
    TempDir dir;
    const std::string path = dir.file("live.mvlog");
    const pid_t recorderProcess = fork();
    ASSERT_GE(recorderProcess, 0);
    if (recorderProcess == 0) {
        int status = 0;
        try {
            RecorderOptions options;
            options.durability = durability;
            options.maxCommitDelay = std::chrono::milliseconds(5);
            Recorder recorder(path, options);
            DataSource source{-1, MV_LogDataSourceType_Lidar, "lidar"};
            recorder.addDataSource(source);
            const auto end = Clock::now() + std::chrono::milliseconds(1500);
            for (int32_t id = 1; Clock::now() < end; ++id) {
                if (!recorder.record(source.id, 0, id, payloadFor(id))) {
                    status = 3;
                    break;
                }
                if (id % 64 == 0) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
            }
            status = recorder.close() && status == 0 ? 0 : 4;
        } catch (const std::exception& error) {
            std::fprintf(stderr, "recorder: %s\n", error.what());
            status = 5;
        }
        _exit(status);
    }
    int looks = 0;
    std::size_t previous = 0;
    int status = 0;
    while (waitpid(recorderProcess, &status, WNOHANG) == 0) {
        if (!std::filesystem::exists(path)) {
            continue;
        }
        try {
            const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
            std::size_t seen = 0;
            const bool completed =
                file.visitEntries(EntryRange::all(), EntryIndexFilter{}, [&](const EntryView& view) {
                    const ByteBuffer expected = payloadFor(view.entryId);
                    EXPECT_EQ(view.entryId, static_cast<int32_t>(seen + 1));
                    EXPECT_TRUE(view.size == expected.size() &&
                                std::equal(expected.begin(), expected.end(), view.data))
                        << "entry " << view.entryId;
                    ++seen;
                    return true;
                });
            if (completed) {
                EXPECT_GE(seen, previous);
                previous = seen;
                ++looks;
            } else {
                EXPECT_EQ(file.getLastFailureKind(), FailureKind::Busy) << file.getLastFailure();
            }
        } catch (const NotALogFileError&) {
            // The file exists before its tables: not yet a log file.
        } catch (const DatabaseBusy&) {
        }
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_GT(looks, 3);
    EXPECT_GT(previous, 0u);
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    EXPECT_GE(static_cast<std::size_t>(file.getEntryCount()), previous);
    EXPECT_TRUE(integrityOk(path));
    std::printf("live: %d looks, last saw %zu of %d entries\n", looks, previous, file.getEntryCount());
}

TEST(OtherProcesses, ALiveSafeRecordingReadsAsAGrowingPrefix) {
    expectALiveRecordingReadsAsAGrowingPrefix(Durability::Safe);
}

// The recorder's default: readers wait out each commit instead of reading
// beside it, and still see a growing prefix.
TEST(OtherProcesses, ALiveRecordingWithTheRecordersDefaultReadsAsAGrowingPrefix) {
    expectALiveRecordingReadsAsAGrowingPrefix(RecorderOptions().durability);
}

#ifdef MVLOG_BINARY
// Runs the tool and returns its exit code, with standard output and error
// together in `output`.
int runTool(const std::string& arguments, std::string& output) {
    const std::string command = std::string(MVLOG_BINARY) + " " + arguments + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return -1;
    }
    output.clear();
    char buffer[4096];
    std::size_t read = 0;
    while ((read = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        output.append(buffer, read);
    }
    const int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

struct ToolTally {
    int runs = 0;
    int busy = 0;
};

// Every run either answers right (exit 0) or says that the file is busy
// (exit 1): never a wrong or empty answer with success.
void runToolOnce(const std::string& path, ToolTally& tally) {
    static const std::vector<std::string> kCommands = {"bookmarks", "info --json", "cat --limit 3", "check"};
    const std::string& command = kCommands[static_cast<std::size_t>(tally.runs) % kCommands.size()];
    std::string output;
    const int exitCode =
        runTool(command.substr(0, command.find(' ')) + " '" + path + "'" +
                    (command.find(' ') == std::string::npos ? "" : command.substr(command.find(' '))),
                output);
    ++tally.runs;
    if (exitCode != 0) {
        EXPECT_NE(output.find("busy"), std::string::npos) << "mvlog " << command << " failed: " << output;
        ++tally.busy;
        return;
    }
    if (command == "bookmarks") {
        EXPECT_EQ(output, "entry 2: \"two\"\nentry 7: \"seven\"\n") << output;
    } else if (command == "cat --limit 3") {
        EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 3) << output;
        EXPECT_EQ(output.rfind("#1  ", 0), 0u) << output;
    } else if (command == "check") {
        EXPECT_NE(output.find("OK\n"), std::string::npos) << output;
    } else {
        EXPECT_NE(output.find("\"lidar\""), std::string::npos) << output;
    }
}

TEST(OtherProcesses, TheToolBesideAWriterAnswersRightOrSaysBusy) {
    TempDir dir;
    const std::string path = dir.file("tool.mvlog");
    createFile(path);
    const pid_t writer = startWriter(path, 200);
    ToolTally tally;
    int status = 0;
    while (waitpid(writer, &status, WNOHANG) == 0) {
        runToolOnce(path, tally);
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the writer failed: " << status;
    // Slow builds (sanitizers) fit only a few runs into the writer's time.
    EXPECT_GT(tally.runs, 0);
    EXPECT_TRUE(integrityOk(path));
    std::printf("tool: %d runs, %d said busy\n", tally.runs, tally.busy);
}
#endif

class OtherProcesses : public ::testing::TestWithParam<int> {};

TEST_P(OtherProcesses, ReadersBesideALibraryWriterGetRightAnswersOrClearFailures) {
    TempDir dir;
    const std::string path = dir.file("shared.mvlog");
    createFile(path);
    const pid_t writer = startWriter(path, GetParam());
    ReaderTally tally;
    while (true) {
        int status = 0;
        const pid_t done = waitpid(writer, &status, WNOHANG);
        if (done == writer) {
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the writer failed: " << status;
            break;
        }
        lookOnce(path, tally.opens % 2 == 0, tally);
    }
    EXPECT_GT(tally.opens, 0);
    EXPECT_TRUE(integrityOk(path));
    SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    EXPECT_EQ(file.getBookmarks().size(), 2u);
    const std::vector<int32_t> ids = file.getEntryIndex(EntryIndexFilter{});
    ASSERT_GE(ids.size(), 10u);
    EXPECT_EQ(ids.back(), static_cast<int32_t>(ids.size()));
    EXPECT_EQ(file.readEntry(ids.back())->data, payloadFor(ids.back()));
    std::printf("%d batch: %d looks, %d opens busy, %d reads reported failed\n", GetParam(), tally.opens,
                tally.busyOpens, tally.reportedFailures);
}

INSTANTIATE_TEST_SUITE_P(AutocommitAndBatches, OtherProcesses, ::testing::Values(0, 200));

TEST(OtherProcesses, OpeningBesideAForeignWriterNeverDropsTheBookmarks) {
    TempDir dir;
    const std::string path = dir.file("foreign.mvlog");
    createFile(path);
    const pid_t writer = startForeignWriter(path);
    ReaderTally tally;
    int status = 0;
    while (waitpid(writer, &status, WNOHANG) == 0) {
        lookOnce(path, false, tally);
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the foreign writer failed: " << status;
    EXPECT_GT(tally.opens, 0);
    EXPECT_TRUE(integrityOk(path));
    SqliteLogFile file{std::filesystem::path(path)};
    EXPECT_EQ(file.getBookmarks().size(), 2u);
    EXPECT_EQ(file.getEntryCount(), 10);
}

TEST(OtherProcesses, TwoHandlesInOneProcessWriterAndReader) {
    TempDir dir;
    const std::string path = dir.file("two.mvlog");
    createFile(path);
    SqliteLogFile writer{std::filesystem::path(path)};
    ReaderTally tally;
    int32_t id = 11;
    const auto end = Clock::now() + std::chrono::milliseconds(1500);
    while (Clock::now() < end) {
        {
            auto batch = writer.beginBatch();
            for (int i = 0; i < 50; ++i, ++id) {
                DataEntry entry;
                entry.dataSourceId = 1;
                entry.timestamp = id;
                entry.data = payloadFor(id);
                ASSERT_TRUE(writer.logData(entry)) << writer.getLastError();
            }
            ASSERT_TRUE(batch.commit()) << writer.getLastError();
        }
        lookOnce(path, true, tally);
    }
    EXPECT_EQ(writer.getEntryCount(), id - 1);
    EXPECT_EQ(writer.getFailureCount(), 0u) << writer.getLastFailure();
    EXPECT_TRUE(integrityOk(path));
}

}  // namespace
