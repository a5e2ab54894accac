// The recorder's default durability against a kill of the process: a child
// records with default options and reports every completed flush; it is
// killed with SIGKILL at a random moment. The file must then open, pass the
// integrity check and hold every flushed entry byte for byte, in order.

#include <logging/EntryIndexFilter.h>
#include <logging/EntryRange.h>
#include <logging/EntryView.h>
#include <logging/Recorder.h>
#include <logging/SqliteLogFile.h>

#include "support/IntegrityCheck.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>

namespace {

using Marivane::Testing::integrityCheckPasses;

using namespace Marivane::Logging;
using Marivane::Testing::TempDir;

constexpr int kKills = 50;

struct Workload {
    const char* name;
    std::size_t fixedSize;  // 0: 200 B to 2 KiB, varying
    int8_t level;
    int flushEvery;
};

ByteBuffer payloadFor(uint64_t index, std::size_t fixedSize) {
    ByteBuffer bytes(fixedSize != 0 ? fixedSize : static_cast<std::size_t>(200 + index % 1800));
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::byte>((index * 31 + i / 3 + i % 7) & 0xFF);
    }
    return bytes;
}

[[noreturn]] void recordUntilKilled(const std::string& path, int reportFd, const Workload& workload) {
    RecorderOptions options;  // the default durability is what is under test
    options.compressionLevel = workload.level;
    options.maxCommitDelay = std::chrono::milliseconds(5);
    Recorder recorder(path, options);
    DataSource source{-1, MV_LogDataSourceType_Generic, "generic"};
    if (!recorder.addDataSource(source) || !recorder.flush()) {
        _exit(3);
    }
    uint64_t ready = 0;
    if (write(reportFd, &ready, sizeof ready) != sizeof ready) {
        _exit(4);
    }
    for (uint64_t i = 0;; ++i) {
        if (!recorder.record(source.id, 0, static_cast<int64_t>(i), payloadFor(i, workload.fixedSize))) {
            _exit(5);
        }
        if ((i + 1) % static_cast<uint64_t>(workload.flushEvery) == 0 && recorder.flush()) {
            const uint64_t flushed = i + 1;
            if (write(reportFd, &flushed, sizeof flushed) != sizeof flushed) {
                _exit(6);
            }
        }
    }
}

struct Outcome {
    uint64_t flushed = 0;
    bool opened = false;
    bool intact = false;
    uint64_t matching = 0;  // leading entries equal to what was recorded
    int64_t count = 0;
    std::string error;
};

Outcome killOnce(const std::string& path, const Workload& workload, std::mt19937& random) {
    int report[2];
    EXPECT_EQ(pipe(report), 0);
    const pid_t child = fork();
    if (child == 0) {
        close(report[0]);
        recordUntilKilled(path, report[1], workload);
    }
    close(report[1]);
    Outcome outcome;
    uint64_t value = 0;
    pollfd ready{report[0], POLLIN, 0};
    EXPECT_GT(poll(&ready, 1, 30000), 0);
    EXPECT_EQ(read(report[0], &value, sizeof value), static_cast<ssize_t>(sizeof value));
    // Drain the reports so the child never waits on the pipe: the kill must
    // land while it records, commits or flushes.
    std::uniform_int_distribution<int> delayMs(5, 150);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(delayMs(random));
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd readable{report[0], POLLIN, 0};
        if (poll(&readable, 1, 1) > 0 && read(report[0], &value, sizeof value) == sizeof value) {
            outcome.flushed = value;
        }
    }
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    while (read(report[0], &value, sizeof value) == static_cast<ssize_t>(sizeof value)) {
        outcome.flushed = value;
    }
    close(report[0]);
    EXPECT_TRUE(WIFSIGNALED(status)) << "the child ended by itself with status " << status;
    try {
        // The next program that opens the file for writing rolls back a commit
        // the kill cut short; afterwards every reader sees the committed file.
        { SqliteLogFile writer{std::filesystem::path(path)}; }
        outcome.intact = integrityCheckPasses(path);
        const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
        outcome.opened = true;
        outcome.count = file.getEntryCount();
        bool inOrder = true;
        const bool read = file.visitEntries(EntryRange{}, EntryIndexFilter(), [&](const EntryView& entry) {
            const ByteBuffer expected = payloadFor(outcome.matching, workload.fixedSize);
            inOrder = entry.entryId == static_cast<int32_t>(outcome.matching + 1) &&
                      entry.timestamp == static_cast<int64_t>(outcome.matching) &&
                      entry.size == expected.size() &&
                      std::memcmp(entry.data, expected.data(), expected.size()) == 0;
            if (inOrder) {
                ++outcome.matching;
            }
            return inOrder;
        });
        if (!read) {
            outcome.error = file.getLastFailure();
        }
    } catch (const std::exception& error) {
        outcome.error = error.what();
    }
    return outcome;
}

class RecorderDefaultKill : public ::testing::TestWithParam<Workload> {};

TEST_P(RecorderDefaultKill, KeepsEveryFlushedEntryAndNeverDamagesTheFile) {
    const Workload& workload = GetParam();
    TempDir dir;
    std::mt19937 random(20261125u + static_cast<unsigned>(workload.fixedSize));
    int damaged = 0;
    int withLoss = 0;
    uint64_t flushedTotal = 0;
    uint64_t lostTotal = 0;
    for (int run = 0; run < kKills; ++run) {
        const std::string path = dir.file("killed-" + std::to_string(run) + ".mvlog");
        const Outcome outcome = killOnce(path, workload, random);
        flushedTotal += outcome.flushed;
        if (!outcome.opened || !outcome.intact || outcome.matching != static_cast<uint64_t>(outcome.count)) {
            ++damaged;
            ADD_FAILURE() << "run " << run << ": opened " << outcome.opened << ", intact " << outcome.intact
                          << ", " << outcome.matching << " of " << outcome.count << " entries as recorded "
                          << outcome.error;
        }
        if (outcome.matching < outcome.flushed) {
            ++withLoss;
            lostTotal += outcome.flushed - outcome.matching;
            ADD_FAILURE() << "run " << run << ": " << outcome.flushed - outcome.matching << " of "
                          << outcome.flushed << " flushed entries lost";
        }
        for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
            std::filesystem::remove(path + suffix);
        }
    }
    std::printf(
        "recorder default, %s: %d kills, %d damaged files, %llu flushed entries, %llu lost in %d runs\n",
        workload.name, kKills, damaged, static_cast<unsigned long long>(flushedTotal),
        static_cast<unsigned long long>(lostTotal), withLoss);
    EXPECT_GT(flushedTotal, 0u);
}

INSTANTIATE_TEST_SUITE_P(PayloadSizes, RecorderDefaultKill,
                         ::testing::Values(Workload{"200 B-2 KiB level -1", 0, -1, 50},
                                           Workload{"64 KiB uncompressed", 64 * 1024, 0, 8}),
                         [](const ::testing::TestParamInfo<Workload>& info) {
                             return info.param.fixedSize == 0 ? std::string("SmallCompressed")
                                                              : std::string("LargeUncompressed");
                         });

}  // namespace
