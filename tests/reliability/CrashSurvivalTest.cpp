// Records in a child process and kills it (SIGKILL) at random moments, then
// reopens every file. The connection trades durability for speed on purpose
// (no synchronous writes, journal in memory), so losses and even damaged files
// are possible; what must hold is that every file either opens and reads
// consistently or is refused with a clear error, and that the parent never
// crashes. The figures are printed for the record, not asserted.
#include <logging/LegacyLogFileError.h>
#include <logging/NotALogFileError.h>
#include <logging/SqliteLogFile.h>

#include <core/Compression.h>
#include <database/DatabaseAccessError.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <optional>
#include <random>

using namespace Marivane::Logging;

namespace {

constexpr int kRuns = 50;

ByteBuffer payloadFor(int64_t index) {
    ByteBuffer bytes(static_cast<std::size_t>(200 + index % 1800));
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::byte>((static_cast<std::size_t>(index) * 31 + i / 3) & 0xFF);
    }
    return bytes;
}

void acknowledge(int ackFd, int64_t index) {
    if (write(ackFd, &index, sizeof index) != static_cast<ssize_t>(sizeof index)) {
        _exit(4);
    }
}

// Child: records entries as fast as it can and reports each acknowledged one
// on the pipe: at once without batches, after its batch's commit with them.
// Never returns.
[[noreturn]] void recordUntilKilled(const std::string& path, int ackFd, int batchSize) {
    SqliteLogFile file(path, "UTC", "crash", "1", -1, 0);
    DataSource source{-1, MV_LogDataSourceType_Generic, "source"};
    file.addDataSource(source);
    acknowledge(ackFd, -1);
    std::optional<SqliteLogFile::WriteBatch> batch;
    for (int64_t index = 0;; ++index) {
        if (batchSize > 0 && !batch) {
            batch.emplace(file.beginBatch());
        }
        DataEntry entry;
        entry.dataSourceId = source.id;
        entry.type = static_cast<int32_t>(index % 4);
        entry.timestamp = index;
        entry.data = payloadFor(index);
        if (!file.logData(entry)) {
            _exit(3);
        }
        if (batchSize == 0) {
            acknowledge(ackFd, index);
        } else if ((index + 1) % batchSize == 0) {
            if (!batch->commit()) {
                _exit(5);
            }
            batch.reset();
            acknowledge(ackFd, index);
        }
    }
}

struct RunResult {
    int64_t acknowledged = 0;
    bool opened = false;
    bool integrityOk = false;
    bool entriesConsistent = false;
    int64_t lost = 0;
    std::string error;
};

bool integrityCheckPasses(const std::string& path) {
    sqlite3* db = nullptr;
    bool ok = false;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db, "PRAGMA integrity_check;", -1, &statement, nullptr) == SQLITE_OK &&
            sqlite3_step(statement) == SQLITE_ROW) {
            ok = std::string(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0))) == "ok";
        }
        sqlite3_finalize(statement);
    }
    sqlite3_close(db);
    return ok;
}

// Every surviving entry must be one the child wrote, with its exact bytes,
// in order with no gaps: entry k holds recording index k - 1.
bool entriesAreConsistent(const SqliteLogFile& file, int64_t& count) {
    const std::vector<DataEntry> entries = file.readEntries(-1, -1, EntryIndexFilter{}, -1);
    count = static_cast<int64_t>(entries.size());
    for (std::size_t k = 0; k < entries.size(); ++k) {
        const int64_t index = static_cast<int64_t>(k);
        if (entries[k].entryId != static_cast<int32_t>(k + 1) || entries[k].timestamp != index ||
            entries[k].data != payloadFor(index)) {
            return false;
        }
    }
    return true;
}

RunResult inspect(const std::string& path, int64_t acknowledged) {
    RunResult result;
    result.acknowledged = acknowledged;
    result.integrityOk = integrityCheckPasses(path);
    try {
        SqliteLogFile file{std::filesystem::path(path)};
        result.opened = true;
        int64_t count = 0;
        result.entriesConsistent = entriesAreConsistent(file, count);
        result.lost = std::max<int64_t>(0, acknowledged - count);
    } catch (const NotALogFileError& error) {
        result.error = error.what();
    } catch (const LegacyLogFileError& error) {
        result.error = error.what();
    } catch (const Marivane::Database::DatabaseAccessError& error) {
        result.error = error.what();
    } catch (const Marivane::Compression::CompressionError& error) {
        result.opened = true;
        result.error = error.what();
    }
    return result;
}

RunResult recordAndKill(const std::string& path, std::mt19937& random, int batchSize) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    if (child == 0) {
        close(fds[0]);
        recordUntilKilled(path, fds[1], batchSize);
    }
    close(fds[1]);
    // The kill is meant for the recording, not the file's creation: wait until
    // the recorder says it is ready.
    int64_t index = 0;
    pollfd ready{fds[0], POLLIN, 0};
    EXPECT_GT(poll(&ready, 1, 30000), 0);
    EXPECT_EQ(read(fds[0], &index, sizeof index), static_cast<ssize_t>(sizeof index));
    EXPECT_EQ(index, -1);
    // Keep draining the acknowledgements so the recorder never blocks on a
    // full pipe: the kill must land while it is writing the file.
    std::uniform_int_distribution<int> delayMs(5, 150);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(delayMs(random));
    int64_t last = -1;
    while (std::chrono::steady_clock::now() < deadline) {
        const auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd readable{fds[0], POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(remaining.count()) + 1) > 0 &&
            read(fds[0], &index, sizeof index) == static_cast<ssize_t>(sizeof index)) {
            last = index;
        }
    }
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    while (read(fds[0], &index, sizeof index) == static_cast<ssize_t>(sizeof index)) {
        last = index;
    }
    close(fds[0]);
    EXPECT_TRUE(WIFSIGNALED(status)) << "the recorder ended by itself with status " << status;
    return inspect(path, last + 1);
}

void killRecordersAndReport(int batchSize) {
    Marivane::Testing::TempDir dir;
    std::mt19937 random(20261121 + static_cast<unsigned>(batchSize));
    int opened = 0;
    int intact = 0;
    int consistent = 0;
    int64_t acknowledged = 0;
    int64_t lost = 0;
    int64_t worstLoss = 0;
    for (int run = 0; run < kRuns; ++run) {
        const RunResult result =
            recordAndKill(dir.file("run-" + std::to_string(run) + ".mvlog"), random, batchSize);
        opened += result.opened ? 1 : 0;
        intact += result.integrityOk ? 1 : 0;
        consistent += result.entriesConsistent ? 1 : 0;
        acknowledged += result.acknowledged;
        lost += result.lost;
        worstLoss = std::max(worstLoss, result.lost);
        if (!result.opened || !result.entriesConsistent) {
            // A damaged file must still say what is wrong.
            EXPECT_FALSE(result.error.empty()) << "run " << run << " was damaged without an error";
        }
    }
    std::printf(
        "crash survival (%s): %d runs, %d files opened, %d passed integrity_check, %d read back "
        "consistently; "
        "%lld entries acknowledged, %lld lost (at most %lld in one run)\n",
        batchSize == 0 ? "no batches" : ("batches of " + std::to_string(batchSize)).c_str(), kRuns, opened,
        intact, consistent, static_cast<long long>(acknowledged), static_cast<long long>(lost),
        static_cast<long long>(worstLoss));
    EXPECT_GT(acknowledged, 0);
}

}  // namespace

TEST(CrashSurvival, KilledRecordersLeaveFilesThatOpenOrAreRefusedClearly) {
    killRecordersAndReport(0);
}

TEST(CrashSurvival, KilledBatchedRecordersLeaveFilesThatOpenOrAreRefusedClearly) {
    killRecordersAndReport(100);
}
