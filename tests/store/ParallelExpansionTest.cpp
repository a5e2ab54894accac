// Streaming reads that expand payloads on other threads hand out exactly what
// a read on the caller's thread does: the same entries and bytes in the same
// order, the same failures for damaged entries, early stops and exceptions.

#include "StoreTestSupport.h"

#include <logging/SqliteLogFile.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace Marivane::Logging {
namespace {

using Marivane::Testing::RawDatabase;
using Marivane::Testing::TempDir;

// Payloads that barely compress, of varied sizes from a few hundred bytes
// (`small`: a few dozen) to several batches' worth.
ByteBuffer payloadOf(int32_t id, std::size_t large, bool small = false) {
    std::size_t size =
        small ? 20 + static_cast<std::size_t>(id % 50) : 300 + static_cast<std::size_t>(id % 1000);
    if (large > 0 && id % 97 == 0) {
        size = large;
    }
    ByteBuffer payload(size);
    uint32_t state = static_cast<uint32_t>(id) * 2654435761u;
    for (std::size_t i = 0; i < size; ++i) {
        state = state * 1664525u + 1013904223u;
        payload[i] = static_cast<std::byte>(state >> 24);
    }
    return payload;
}

void writeFile(const std::string& path, int32_t count, std::size_t large = 0, bool checksums = false,
               bool small = false) {
    SqliteLogFile file(path, "Etc/UTC", "parallel-tests", "1.0", -1, 1700000000000, Durability::Fast,
                       checksums);
    DataSource camera{0, MV_LogDataSourceType_Camera, "camera"};
    DataSource gnss{0, MV_LogDataSourceType_Navigation, "gnss"};
    ASSERT_TRUE(file.addDataSource(camera));
    ASSERT_TRUE(file.addDataSource(gnss));
    auto batch = file.beginBatch();
    for (int32_t id = 1; id <= count; ++id) {
        // Timestamps out of id order in places, for the reads in time order.
        const int64_t timestamp = 1000 + 10 * int64_t{id} - (id % 5 == 0 ? 25 : 0);
        ASSERT_TRUE(file.logData(
            DataEntry{0, id % 2 == 1 ? camera.id : gnss.id, id % 4, payloadOf(id, large, small), timestamp}));
    }
    ASSERT_TRUE(batch.commit());
}

// What a read hands out and reports, for comparing two reads.
struct ReadRecord {
    std::vector<int32_t> ids;
    std::vector<int64_t> timestamps;
    std::vector<ByteBuffer> payloads;
    std::vector<std::pair<int64_t, std::string>> damaged;
    bool completed = false;
    std::string lastFailure;
    uint64_t failures = 0;

    bool operator==(const ReadRecord&) const = default;
};

ReadRecord read(const std::string& path, int threads, EntryOrder order = EntryOrder::Id,
                bool skipDamaged = true, bool verify = false, std::size_t stopAfter = 0) {
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    ReadRecord record;
    VisitOptions options;
    options.decompressionThreads = threads;
    options.order = order;
    options.verifyChecksums = verify;
    if (skipDamaged) {
        options.onDamagedEntry = [&record](int64_t entryId, const std::string& reason) {
            record.damaged.emplace_back(entryId, reason);
            return true;
        };
    }
    record.completed = file.visitEntries(
        EntryRange::all(), EntryIndexFilter(),
        [&](const EntryView& view) {
            record.ids.push_back(view.entryId);
            record.timestamps.push_back(view.timestamp);
            record.payloads.emplace_back(view.data, view.data + view.size);
            return stopAfter == 0 || record.ids.size() < stopAfter;
        },
        options);
    record.failures = file.getFailureCount();
    record.lastFailure = file.getLastFailure();
    return record;
}

class ParallelExpansion : public ::testing::Test {
protected:
    TempDir directory;
    std::string path = directory.file("parallel.mvlog");
};

TEST_F(ParallelExpansion, EveryEntryInOrderWithItsBytes) {
    writeFile(path, 5000);
    const ReadRecord alone = read(path, 1);
    ASSERT_EQ(alone.ids.size(), 5000u);
    EXPECT_TRUE(alone.completed);
    for (int id = 1; id <= 5000; id += 499) {
        EXPECT_EQ(alone.payloads[static_cast<std::size_t>(id - 1)], payloadOf(id, 0));
    }
    for (const int threads : {0, 2, 3, 8}) {
        EXPECT_EQ(read(path, threads), alone) << threads << " threads";
        EXPECT_EQ(read(path, threads, EntryOrder::Time), read(path, 1, EntryOrder::Time))
            << threads << " threads";
    }
}

// Small payloads are expanded on the caller's thread after the first batch:
// the same read all the same.
TEST_F(ParallelExpansion, SmallPayloadsGoOnWithoutThreads) {
    writeFile(path, 3000, 0, false, true);
    {
        RawDatabase raw(path);
        raw.exec("UPDATE data SET payload = x'28b52ffd0000' WHERE entryId IN (100, 2000);");
    }
    const ReadRecord alone = read(path, 1);
    ASSERT_EQ(alone.damaged.size(), 2u);
    EXPECT_EQ(alone.ids.size(), 2998u);
    EXPECT_EQ(alone.payloads[2997], payloadOf(3000, 0, true));
    EXPECT_EQ(read(path, 2), alone);
    EXPECT_EQ(read(path, 2, EntryOrder::Time, false), read(path, 1, EntryOrder::Time, false));
    EXPECT_EQ(read(path, 2, EntryOrder::Id, true, false, 1500),
              read(path, 1, EntryOrder::Id, true, false, 1500));
}

TEST_F(ParallelExpansion, LargePayloadsAndReadsShorterThanABatch) {
    writeFile(path, 400, 600 * 1024);
    EXPECT_EQ(read(path, 2), read(path, 1));
    const std::string small = directory.file("small.mvlog");
    writeFile(small, 30);
    EXPECT_EQ(read(small, 4), read(small, 1));
    EXPECT_EQ(read(small, 4).ids.size(), 30u);
}

TEST_F(ParallelExpansion, DamagedEntriesAreReportedInOrderWithTheSameReasons) {
    writeFile(path, 3000);
    {
        RawDatabase raw(path);
        raw.exec("UPDATE data SET payload = x'28b52ffd0000' WHERE entryId IN (4, 700, 2999);");
    }
    const ReadRecord alone = read(path, 1);
    ASSERT_EQ(alone.damaged.size(), 3u);
    EXPECT_EQ(alone.damaged[1].first, 700);
    EXPECT_EQ(alone.ids.size(), 2997u);
    EXPECT_EQ(read(path, 2), alone);
    EXPECT_EQ(read(path, 0), alone);
    // Without a handler the first damaged entry ends the read, naming it.
    const ReadRecord stopped = read(path, 2, EntryOrder::Id, false);
    EXPECT_EQ(stopped, read(path, 1, EntryOrder::Id, false));
    EXPECT_FALSE(stopped.completed);
    EXPECT_EQ(stopped.ids.size(), 3u);
    EXPECT_EQ(
        stopped.lastFailure.rfind("Entry 4 of '" + path + "' cannot be read: Cannot uncompress data: ", 0),
        0u)
        << stopped.lastFailure;
}

TEST_F(ParallelExpansion, ChecksumsAreComparedOnTheWorkers) {
    writeFile(path, 2000, 0, true);
    {
        RawDatabase raw(path);
        raw.exec("UPDATE entryChecksums SET checksum = checksum + 1 WHERE entryId = 1500;");
    }
    const ReadRecord alone = read(path, 1, EntryOrder::Id, true, true);
    ASSERT_EQ(alone.damaged.size(), 1u);
    EXPECT_EQ(alone.damaged[0],
              (std::pair<int64_t, std::string>{1500, "its payload does not match its checksum"}));
    EXPECT_EQ(read(path, 2, EntryOrder::Id, true, true), alone);
}

TEST_F(ParallelExpansion, AVisitorThatStopsOrThrowsEndsTheRead) {
    writeFile(path, 4000);
    const ReadRecord stopped = read(path, 2, EntryOrder::Id, true, false, 1234);
    EXPECT_TRUE(stopped.completed);
    EXPECT_EQ(stopped.ids.size(), 1234u);
    EXPECT_EQ(stopped, read(path, 1, EntryOrder::Id, true, false, 1234));

    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    VisitOptions options;
    options.decompressionThreads = 3;
    int visited = 0;
    EXPECT_THROW(file.visitEntries(
                     EntryRange::all(), EntryIndexFilter(),
                     [&visited](const EntryView&) -> bool {
                         if (++visited == 900) {
                             throw std::runtime_error("enough");
                         }
                         return true;
                     },
                     options),
                 std::runtime_error);
    EXPECT_EQ(visited, 900);
    // The file reads on.
    visited = 0;
    EXPECT_TRUE(file.visitEntries(
        EntryRange::all(), EntryIndexFilter(),
        [&visited](const EntryView&) {
            ++visited;
            return true;
        },
        options));
    EXPECT_EQ(visited, 4000);
}

}  // namespace
}  // namespace Marivane::Logging
