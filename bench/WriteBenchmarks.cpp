// Entry writes: one entry per statement in autocommit mode, and many entries
// per transaction, through the library's class and C interfaces and through
// the raw baseline. Every run of a benchmark function writes a new file and
// removes it afterwards, so all writers start from the same empty file.

#include "BenchSupport.h"
#include "Benchmarks.h"
#include "RawLogFile.h"

#include <logging/Logging.h>

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <ctime>
#include <stdexcept>
#include <string>
#include <vector>

namespace Marivane::Bench {

namespace {

using Logging::DataEntry;
using Logging::DataSource;
using Logging::SqliteLogFile;

int64_t timestampOf(int64_t index) {
    return kFirstTimestamp + index * kEntryPeriodMs;
}

SqliteLogFile createLibraryFile(const std::string& path, int level,
                                Logging::Durability durability = Logging::Durability::Fast,
                                bool entryChecksums = false) {
    SqliteLogFile file(path, "UTC", "marivane_bench", "1", static_cast<int8_t>(level), kFirstTimestamp,
                       durability, entryChecksums);
    DataSource source;
    source.name = "bench";
    if (!file.addDataSource(source) || source.id != kDataSourceId) {
        throw std::runtime_error("cannot add the data source: " + file.getLastError());
    }
    return file;
}

DataEntry makeEntry(std::size_t size) {
    DataEntry entry;
    entry.dataSourceId = kDataSourceId;
    entry.type = kEntryType;
    entry.data = payload(size);
    return entry;
}

}  // namespace

void rawAutocommitWrites(benchmark::State& state, int level, std::size_t size, int pageSize) {
    const std::string path = freshPath("raw-autocommit");
    {
        Raw::Connection connection = Raw::createLogFile(path, level, pageSize);
        Raw::EntryWriter writer(connection, level);
        const ByteBuffer& data = payload(size);
        int64_t index = 0;
        for (auto _ : state) {
            if (!writer.write(timestampOf(index++), kEntryType, kDataSourceId, data)) {
                state.SkipWithError("raw insert failed");
                break;
            }
        }
    }
    setThroughput(state, 1, size);
    removeLogFile(path);
}

void rawTransactionWrites(benchmark::State& state, int level, std::size_t size, int pageSize) {
    const std::string path = freshPath("raw-transaction");
    const std::size_t perTransaction = entriesPerTransaction(size);
    {
        Raw::Connection connection = Raw::createLogFile(path, level, pageSize);
        Raw::EntryWriter writer(connection, level);
        const ByteBuffer& data = payload(size);
        int64_t index = 0;
        for (auto _ : state) {
            connection.exec("BEGIN;");
            for (std::size_t i = 0; i < perTransaction; ++i) {
                if (!writer.write(timestampOf(index++), kEntryType, kDataSourceId, data)) {
                    state.SkipWithError("raw insert failed");
                    break;
                }
            }
            connection.exec("COMMIT;");
        }
    }
    setThroughput(state, perTransaction, size);
    removeLogFile(path);
}

namespace {

// The raw loop at its best: the same rows, 64 per INSERT statement (what a
// write batch does with small entries), for the floor SQLite itself sets.
constexpr std::size_t kRowsPerInsert = 64;

std::string manyRowsInsertText() {
    std::string sql = "INSERT INTO data (timestamp, type, dataSourceId, length, payload) VALUES ";
    for (std::size_t row = 0; row < kRowsPerInsert; ++row) {
        sql += row == 0 ? "(?,?,?,?,?)" : ",(?,?,?,?,?)";
    }
    return sql + ";";
}

void rawManyRowsTransaction(benchmark::State& state, int level, std::size_t size) {
    const std::string path = freshPath("raw-many-rows");
    const std::size_t perTransaction = entriesPerTransaction(size);
    {
        Raw::Connection connection = Raw::createLogFile(path, level);
        const std::string sql = manyRowsInsertText();
        Raw::Statement insert(connection, sql.c_str());
        const ByteBuffer& data = payload(size);
        int64_t index = 0;
        const std::clock_t cpuStart = std::clock();
        for (auto _ : state) {
            connection.exec("BEGIN;");
            for (std::size_t written = 0; written < perTransaction; written += kRowsPerInsert) {
                sqlite3_stmt* statement = insert.get();
                sqlite3_reset(statement);
                int place = 1;
                for (std::size_t row = 0; row < kRowsPerInsert; ++row) {
                    sqlite3_bind_int64(statement, place++, timestampOf(index++));
                    sqlite3_bind_int(statement, place++, kEntryType);
                    sqlite3_bind_int(statement, place++, kDataSourceId);
                    sqlite3_bind_int(statement, place++, static_cast<int>(data.size()));
                    sqlite3_bind_blob(statement, place++, data.data(), static_cast<int>(data.size()),
                                      SQLITE_STATIC);
                }
                if (sqlite3_step(statement) != SQLITE_DONE) {
                    state.SkipWithError("raw insert failed");
                    break;
                }
            }
            connection.exec("COMMIT;");
        }
        const double cpuSeconds = static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC;
        const double entries = static_cast<double>(state.iterations()) * static_cast<double>(perTransaction);
        if (entries > 0) {
            state.counters["cpu_us_per_entry"] = cpuSeconds * 1e6 / entries;
        }
    }
    setThroughput(state, perTransaction, size);
    removeLogFile(path);
}

void rawAutocommit(benchmark::State& state, int level, std::size_t size) {
    rawAutocommitWrites(state, level, size, 0);
}

void rawTransaction(benchmark::State& state, int level, std::size_t size) {
    rawTransactionWrites(state, level, size, 0);
}

void libraryLogDataIn(benchmark::State& state, int level, std::size_t size, Logging::Durability durability) {
    const std::string path = freshPath("logdata");
    {
        SqliteLogFile file = createLibraryFile(path, level, durability);
        DataEntry entry = makeEntry(size);
        int64_t index = 0;
        for (auto _ : state) {
            entry.timestamp = timestampOf(index++);
            if (!file.logData(entry)) {
                state.SkipWithError(file.getLastError().c_str());
                break;
            }
        }
    }
    setThroughput(state, 1, size);
    removeLogFile(path);
}

void libraryBatchWith(benchmark::State& state, int level, std::size_t size, Logging::Durability durability,
                      bool entryChecksums) {
    const std::string path = freshPath("batch");
    const std::size_t perTransaction = entriesPerTransaction(size);
    {
        SqliteLogFile file = createLibraryFile(path, level, durability, entryChecksums);
        DataEntry entry = makeEntry(size);
        int64_t index = 0;
        // Process CPU time over the whole loop, commits included, for the
        // CPU time per entry (the rate counts the benchmark thread's alone).
        const std::clock_t cpuStart = std::clock();
        for (auto _ : state) {
            SqliteLogFile::WriteBatch batch = file.beginBatch();
            for (std::size_t i = 0; i < perTransaction; ++i) {
                entry.timestamp = timestampOf(index++);
                if (!file.logData(entry)) {
                    state.SkipWithError(file.getLastError().c_str());
                    break;
                }
            }
            if (!batch.commit()) {
                state.SkipWithError(file.getLastError().c_str());
                break;
            }
        }
        const double cpuSeconds = static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC;
        const double entries = static_cast<double>(state.iterations()) * static_cast<double>(perTransaction);
        if (entries > 0) {
            state.counters["cpu_us_per_entry"] = cpuSeconds * 1e6 / entries;
        }
    }
    setThroughput(state, perTransaction, size);
    removeLogFile(path);
}

void cInterfaceLogData(benchmark::State& state, int level, std::size_t size) {
    const std::string path = freshPath("capi");
    MV_LogConfig_p config = MV_LogConfig_Create("marivane_bench", "1", "UTC");
    MV_LogConfig_SetCompressionLevel(config, static_cast<int8_t>(level), nullptr);
    MV_LogFile_p file = MV_LogFile_Create(path.c_str(), config, nullptr);
    MV_LogConfig_Destroy(config);
    MV_LogDataSource_p source = MV_LogDataSource_Create(MV_LogDataSourceType_Generic, "bench");
    if (file == nullptr || !MV_LogFile_AddDataSource(file, source, nullptr)) {
        state.SkipWithError("cannot create the file through the C interface");
    }
    int8_t sourceId = -1;
    MV_LogDataSource_GetId(source, &sourceId);
    MV_LogDataSource_Destroy(source);
    const ByteBuffer& data = payload(size);
    MV_LogDataEntry_p entry =
        MV_LogDataEntry_Create(&sourceId, kEntryType, reinterpret_cast<const uint8_t*>(data.data()),
                               static_cast<int64_t>(data.size()));
    int64_t index = 0;
    for (auto _ : state) {
        MV_LogDataEntry_SetTimestamp(entry, timestampOf(index++));
        if (!MV_LogFile_LogData(file, entry, nullptr)) {
            state.SkipWithError("MV_LogFile_LogData failed");
            break;
        }
    }
    MV_LogDataEntry_Destroy(entry);
    MV_LogFile_Destroy(file);
    setThroughput(state, 1, size);
    removeLogFile(path);
}

void libraryLogData(benchmark::State& state, int level, std::size_t size) {
    libraryLogDataIn(state, level, size, Logging::Durability::Fast);
}

void libraryBatchIn(benchmark::State& state, int level, std::size_t size, Logging::Durability durability) {
    libraryBatchWith(state, level, size, durability, false);
}

void libraryBatch(benchmark::State& state, int level, std::size_t size) {
    libraryBatchIn(state, level, size, Logging::Durability::Fast);
}

}  // namespace

void registerWriteBenchmarks(int round) {
    for (int level : kCompressionLevels) {
        for (std::size_t size : kPayloadSizes) {
            auto member = [level, size](const std::string& mode, const std::string& writer,
                                        void (*function)(benchmark::State&, int, std::size_t)) {
                return Member{writeName(mode, writer, level, size),
                              [=](benchmark::State& state) { function(state, level, size); }};
            };
            registerRound(
                {member("autocommit", "raw", rawAutocommit), member("autocommit", "logData", libraryLogData),
                 member("autocommit", "capi", cInterfaceLogData)},
                round, throughputSettings);
            std::vector<Member> transaction = {member("transaction", "raw", rawTransaction),
                                               member("transaction", "batch", libraryBatch)};
            if (level == 0 && size <= 1024) {
                transaction.push_back(member("transaction", "rawManyRows", rawManyRowsTransaction));
            }
            registerRound(transaction, round, throughputSettings);
        }
    }
    // Safe against fast, in wall time: a safe file's cost is waiting for the
    // disk, which CPU time does not see. Level -1, every payload size.
    for (std::size_t size : kPayloadSizes) {
        constexpr int kLevel = -1;
        const auto durable = [size](
                                 const std::string& mode, const std::string& writer,
                                 void (*function)(benchmark::State&, int, std::size_t, Logging::Durability),
                                 Logging::Durability durability) {
            return Member{writeName(mode, writer, kLevel, size),
                          [=](benchmark::State& state) { function(state, kLevel, size, durability); }};
        };
        const auto wallClock = [](benchmark::internal::Benchmark* benchmark) {
            benchmark->MinTime(kMinTime)->UseRealTime()->Unit(benchmark::kMicrosecond);
        };
        registerRound({durable("durability", "logDataFast", libraryLogDataIn, Logging::Durability::Fast),
                       durable("durability", "logDataSafe", libraryLogDataIn, Logging::Durability::Safe)},
                      round, wallClock);
        registerRound({durable("durability", "batchFast", libraryBatchIn, Logging::Durability::Fast),
                       durable("durability", "batchSafe", libraryBatchIn, Logging::Durability::Safe)},
                      round, wallClock);
    }
    // Entry checksums against none: write batches, CPU time (hashing is CPU).
    for (int level : {0, -1}) {
        for (std::size_t size : {std::size_t{1024}, std::size_t{16 * 1024}, std::size_t{256 * 1024}}) {
            const auto batch = [level, size](const std::string& writer, bool checksums) {
                return Member{writeName("checksums", writer, level, size), [=](benchmark::State& state) {
                                  libraryBatchWith(state, level, size, Logging::Durability::Fast, checksums);
                              }};
            };
            registerRound({batch("batch", false), batch("batchChecked", true)}, round, throughputSettings);
        }
    }
}

}  // namespace Marivane::Bench
