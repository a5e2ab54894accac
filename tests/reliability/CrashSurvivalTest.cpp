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

#include "support/IntegrityCheck.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <random>
#include <string>

using namespace Marivane::Logging;

namespace {

using Marivane::Testing::integrityCheckPasses;

constexpr int kRuns = 50;

// What one recording does: how many entries per batch (0: none), how large
// each payload is (0: 200 to 2000 bytes, varying), in which durability mode.
struct Recording {
    int batchSize = 0;
    std::size_t payloadSize = 0;
    Durability durability = Durability::Fast;
    int runs = kRuns;

    std::string describe() const {
        std::string text = durability == Durability::Safe       ? "safe, "
                           : durability == Durability::Balanced ? "balanced, "
                                                                : "fast, ";
        if (batchSize == 0) {
            text += "no batches";
        } else {
            text += "batches of ";
            text += std::to_string(batchSize);
        }
        if (payloadSize == 0) {
            text += " x 200 B-2 KiB";
        } else {
            text += " x ";
            text += std::to_string(payloadSize / 1024);
            text += " KiB";
        }
        return text;
    }
};

ByteBuffer payloadFor(int64_t index, std::size_t fixedSize = 0) {
    ByteBuffer bytes(fixedSize != 0 ? fixedSize : static_cast<std::size_t>(200 + index % 1800));
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
[[noreturn]] void recordUntilKilled(const std::string& path, int ackFd, const Recording& recording) {
    const int batchSize = recording.batchSize;
    SqliteLogFile file(path, "UTC", "crash", "1", -1, 0, recording.durability);
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
        entry.data = payloadFor(index, recording.payloadSize);
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

// Every surviving entry must be one the child wrote, with its exact bytes,
// in order with no gaps: entry k holds recording index k - 1.
bool entriesAreConsistent(const SqliteLogFile& file, int64_t& count, std::size_t payloadSize) {
    const std::vector<DataEntry> entries = file.readEntries(-1, -1, EntryIndexFilter{}, -1);
    count = static_cast<int64_t>(entries.size());
    for (std::size_t k = 0; k < entries.size(); ++k) {
        const int64_t index = static_cast<int64_t>(k);
        if (entries[k].entryId != static_cast<int32_t>(k + 1) || entries[k].timestamp != index ||
            entries[k].data != payloadFor(index, payloadSize)) {
            return false;
        }
    }
    return true;
}

RunResult inspect(const std::string& path, int64_t acknowledged, std::size_t payloadSize,
                  Durability durability) {
    RunResult result;
    result.acknowledged = acknowledged;
    if (durability == Durability::Balanced) {
        // The next writer rolls back a commit that the kill cut short; only
        // then is the file what its last finished commit made it.
        try {
            SqliteLogFile writer{std::filesystem::path(path)};
        } catch (const std::exception& error) {
            result.error = error.what();
            return result;
        }
    }
    result.integrityOk = integrityCheckPasses(path);
    try {
        SqliteLogFile file{std::filesystem::path(path)};
        result.opened = true;
        int64_t count = 0;
        result.entriesConsistent = entriesAreConsistent(file, count, payloadSize);
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

RunResult recordAndKill(const std::string& path, std::mt19937& random, const Recording& recording) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    if (child == 0) {
        close(fds[0]);
        recordUntilKilled(path, fds[1], recording);
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
    return inspect(path, last + 1, recording.payloadSize, recording.durability);
}

// Appends one line of figures to the file named by MVLOG_KILL_FIGURES, when
// set, so that a run can be turned into the README's table.
void recordFigures(const std::string& line) {
    if (const char* target = std::getenv("MVLOG_KILL_FIGURES")) {
        if (std::FILE* file = std::fopen(target, "a")) {
            std::fputs(line.c_str(), file);
            std::fclose(file);
        }
    }
}

struct Figures {
    int opened = 0;
    int intact = 0;
    int consistent = 0;
    int64_t acknowledged = 0;
    int64_t lost = 0;
    int64_t worstLoss = 0;
    int runsWithLoss = 0;
};

Figures killRecordersAndReport(const Recording& recording) {
    Marivane::Testing::TempDir dir;
    std::mt19937 random(20261121 + static_cast<unsigned>(recording.batchSize) +
                        static_cast<unsigned>(recording.payloadSize) +
                        static_cast<unsigned>(recording.durability) * 7u);
    Figures figures;
    for (int run = 0; run < recording.runs; ++run) {
        const RunResult result =
            recordAndKill(dir.file("run-" + std::to_string(run) + ".mvlog"), random, recording);
        figures.opened += result.opened ? 1 : 0;
        figures.intact += result.integrityOk ? 1 : 0;
        figures.consistent += result.entriesConsistent ? 1 : 0;
        figures.acknowledged += result.acknowledged;
        figures.lost += result.lost;
        figures.worstLoss = std::max(figures.worstLoss, result.lost);
        figures.runsWithLoss += result.lost > 0 ? 1 : 0;
        if (!result.opened || !result.entriesConsistent) {
            // A damaged file must still say what is wrong.
            EXPECT_FALSE(result.error.empty()) << "run " << run << " was damaged without an error";
        }
        std::filesystem::remove(dir.file("run-" + std::to_string(run) + ".mvlog"));
    }
    char line[512];
    std::snprintf(line, sizeof line,
                  "| %s | %d / %d | %d / %d | %d / %d | %lld | %lld in %d runs (at most %lld) |\n",
                  recording.describe().c_str(), figures.opened, recording.runs, figures.intact,
                  recording.runs, figures.consistent, recording.runs,
                  static_cast<long long>(figures.acknowledged), static_cast<long long>(figures.lost),
                  figures.runsWithLoss, static_cast<long long>(figures.worstLoss));
    std::printf("crash survival %s", line);
    recordFigures(line);
    EXPECT_GT(figures.acknowledged, 0);
    return figures;
}

// What safe mode promises: a killed process loses nothing that was
// committed, and the file always opens intact.
void expectNothingLost(const Recording& recording, const Figures& figures) {
    EXPECT_EQ(figures.opened, recording.runs);
    EXPECT_EQ(figures.intact, recording.runs);
    EXPECT_EQ(figures.consistent, recording.runs);
    EXPECT_EQ(figures.lost, 0);
}

}  // namespace

TEST(CrashSurvival, KilledRecordersLeaveFilesThatOpenOrAreRefusedClearly) {
    killRecordersAndReport(Recording{0, 0, Durability::Fast});
}

TEST(CrashSurvival, KilledBatchedRecordersLeaveFilesThatOpenOrAreRefusedClearly) {
    killRecordersAndReport(Recording{100, 0, Durability::Fast});
}

TEST(CrashSurvival, KilledRecordersOfLargeBatchesLeaveFilesThatOpenOrAreRefusedClearly) {
    killRecordersAndReport(Recording{64, 64 * 1024, Durability::Fast, 20});
}

TEST(CrashSurvival, SafeFilesLoseNothingCommittedWhenTheRecorderIsKilled) {
    for (const Recording recording :
         {Recording{0, 0, Durability::Safe, 20}, Recording{100, 0, Durability::Safe, 20},
          Recording{64, 64 * 1024, Durability::Safe, 20}}) {
        expectNothingLost(recording, killRecordersAndReport(recording));
    }
}

TEST(CrashSurvival, BalancedFilesLoseNothingCommittedWhenTheRecorderIsKilled) {
    for (const Recording recording :
         {Recording{0, 0, Durability::Balanced, 20}, Recording{100, 0, Durability::Balanced, 20},
          Recording{64, 64 * 1024, Durability::Balanced, 50}}) {
        expectNothingLost(recording, killRecordersAndReport(recording));
    }
}
