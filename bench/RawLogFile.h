#pragma once

// The baseline: what a careful hand-written writer and reader of the log file
// layout does with SQLite and zstd directly. Statements and codec contexts are
// prepared once and reused; everything else (schema texts, connection
// settings, payload encoding) is what the library does, so that the ratio of
// the two shows the cost of the library's own layers.

#include <logging/ByteBuffer.h>
#include <logging/DataEntry.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;
struct ZSTD_CCtx_s;
struct ZSTD_DCtx_s;

namespace Marivane::Bench::Raw {

using Logging::ByteBuffer;
using Logging::DataEntry;

class Connection {
public:
    // Opens (creating when missing) and turns foreign keys on, as the
    // library's first statement on every open does.
    explicit Connection(const std::string& path);
    ~Connection();
    Connection(Connection&& other) noexcept;
    Connection& operator=(Connection&& other) = delete;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    sqlite3* get() const { return db_; }
    // Runs a statement without results; throws with SQLite's message on failure.
    void exec(const std::string& sql);

private:
    sqlite3* db_ = nullptr;
};

class Statement {
public:
    Statement(const Connection& connection, const char* sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    sqlite3_stmt* get() const { return statement_; }

private:
    sqlite3_stmt* statement_ = nullptr;
};

// The page size of the files the library creates, found once by making one:
// the baseline lays its files out the same way, so that a ratio compares code
// rather than page sizes (the page-size sweep covers those).
int libraryPageSize();

// A new file with the library's nine schema statements and connection
// settings, nothing in it. The page size (libraryPageSize() for 0) is set
// before the tables are made, the only moment it takes effect.
Connection createSchema(const std::string& path, int pageSize = 0);
// createSchema plus what a library-created file holds before its first entry:
// the six fixed metadata keys and one data source (id kDataSourceId).
Connection createLogFile(const std::string& path, int level, int pageSize = 0);
// Opens an existing file with the library's connection settings.
Connection openLogFile(const std::string& path);

struct ZstdCompressorDeleter {
    void operator()(ZSTD_CCtx_s* context) const noexcept;
};
struct ZstdDecompressorDeleter {
    void operator()(ZSTD_DCtx_s* context) const noexcept;
};

// The library's insert statement, prepared once. At a non-zero level the
// payload goes through one reused zstd context into one reused buffer, framed
// like the library's (content size recorded, checksum on).
class EntryWriter {
public:
    EntryWriter(const Connection& connection, int level);
    ~EntryWriter();
    EntryWriter(const EntryWriter&) = delete;
    EntryWriter& operator=(const EntryWriter&) = delete;

    bool write(int64_t timestamp, int32_t type, int8_t dataSourceId, const ByteBuffer& data);

private:
    Statement insert_;
    int level_;
    std::unique_ptr<ZSTD_CCtx_s, ZstdCompressorDeleter> compressor_;
    ByteBuffer compressed_;
};

// The library's reads, each statement prepared once. Results are owned
// DataEntry records, the same thing the library hands back.
class EntryReader {
public:
    EntryReader(const Connection& connection, int level);
    ~EntryReader();
    EntryReader(const EntryReader&) = delete;
    EntryReader& operator=(const EntryReader&) = delete;

    std::optional<DataEntry> read(int32_t entryId);
    // Every entry, ascending by id.
    std::vector<DataEntry> readAll();
    // Every entry id, ascending.
    std::vector<int32_t> readIds();

private:
    ByteBuffer expand(const void* blob, int size);

    Statement byId_;
    Statement all_;
    Statement ids_;
    int level_;
    std::unique_ptr<ZSTD_DCtx_s, ZstdDecompressorDeleter> decompressor_;
};

// One view of an entry handed out by ViewScan: borrowed until the next one.
struct RawView {
    int32_t entryId;
    int8_t dataSourceId;
    int32_t type;
    int64_t timestamp;
    const std::byte* data;
    std::size_t size;
};

// The streaming baseline: one statement over the whole file in id order,
// payloads handed out where SQLite keeps them (level 0) or expanded into one
// reused buffer (level -1). No copy, no allocation per entry.
class ViewScan {
public:
    ViewScan(const Connection& connection, int level);
    ~ViewScan();
    ViewScan(const ViewScan&) = delete;
    ViewScan& operator=(const ViewScan&) = delete;

    // Calls `onEntry` for every entry; returns the number of entries.
    std::size_t run(const std::function<void(const RawView&)>& onEntry);

private:
    Statement all_;
    int level_;
    std::unique_ptr<ZSTD_DCtx_s, ZstdDecompressorDeleter> decompressor_;
    ByteBuffer expanded_;
};

// One entry's row without its payload, as SummaryScan hands it out.
struct RawSummary {
    int32_t entryId;
    int8_t dataSourceId;
    int32_t type;
    int64_t timestamp;
    int64_t storedSize;
};

// The baseline of a read without payloads: one statement over the whole file
// in id order selecting entryId, timestamp, type, dataSourceId and the stored
// length column (the payload column is never read).
class SummaryScan {
public:
    explicit SummaryScan(const Connection& connection);

    // Calls `onEntry` for every entry; returns the number of entries.
    std::size_t run(const std::function<void(const RawSummary&)>& onEntry);

private:
    Statement all_;
};

// Writes a log file of `count` entries of payload(size), 10 ms apart, in one
// transaction: the quickest way to get a large file for the read benchmarks.
void buildLogFile(const std::string& path, int level, std::size_t size, std::size_t count);
// The same in a fresh path named after `stem`, built on first use and kept
// for the rest of the run (building a file costs more than reading it): the
// path of the file built for these arguments.
const std::string& builtLogFile(const std::string& stem, int level, std::size_t size, std::size_t count);

// What slice does, by hand: a new file with the source's metadata, data
// sources and properties, and the entries firstEntryId..lastEntryId, in one
// transaction, payloads copied as stored (both files have the same level).
void copyLogFile(const std::string& source, const std::string& output, int32_t firstEntryId,
                 int32_t lastEntryId);

}  // namespace Marivane::Bench::Raw
