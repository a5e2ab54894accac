#include "RawLogFile.h"

#include "BenchSupport.h"

#include <logging/SqliteLogFile.h>

#include <sqlite3.h>
#include <zstd.h>

#include <map>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace Marivane::Bench::Raw {

namespace {

// The library's schema, statement for statement and byte for byte.
constexpr const char* kSchema[] = {
    "CREATE TABLE dataSources(dataSourceId INTEGER PRIMARY KEY,dataSourceType INT NOT NULL,"
    "dataSourceName TEXT NOT NULL);",
    "CREATE TABLE dataSourceProperties(dataSourceId INT NOT NULL REFERENCES dataSources(dataSourceId),"
    "key TEXT NOT NULL,value NOT NULL);",
    "CREATE INDEX dataSourcePropertiesIndex ON dataSourceProperties(dataSourceId);",
    "CREATE TABLE data(entryId INTEGER PRIMARY KEY,timestamp INT NOT NULL,type INT NOT NULL,"
    "dataSourceId INT NOT NULL REFERENCES dataSources(dataSourceId),length INT NOT NULL,"
    "payload BLOB NOT NULL);",
    "CREATE INDEX dataDataSourceIndex ON data(dataSourceId);",
    "CREATE TABLE metadata(key TEXT NOT NULL, value NOT NULL);",
    "CREATE TABLE resources(name TEXT NOT NULL, payload NOT NULL);",
    "CREATE TABLE bookmarks(entryId INT NOT NULL REFERENCES data(entryId), title TEXT NOT NULL, "
    "comments TEXT, payload BLOB);",
    "CREATE INDEX bookmarkIndex ON bookmarks(entryId);",
};

constexpr const char* kInsertEntry =
    "INSERT INTO data (timestamp, type, dataSourceId, length, payload) VALUES (:timestamp, :type, "
    ":dataSourceId, :length, :payload);";

[[noreturn]] void fail(sqlite3* db, const std::string& what) {
    throw std::runtime_error(what + ": " + (db ? sqlite3_errmsg(db) : "out of memory"));
}

void applyConnectionSettings(Connection& connection) {
    connection.exec("PRAGMA synchronous = OFF;");
    connection.exec("PRAGMA journal_mode = MEMORY;");
}

}  // namespace

Connection::Connection(const std::string& path) {
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
        SQLITE_OK) {
        const std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
        sqlite3_close(db_);
        throw std::runtime_error("cannot open " + path + ": " + message);
    }
    sqlite3_extended_result_codes(db_, 1);
    exec("PRAGMA foreign_keys = on;");
}

Connection::~Connection() {
    sqlite3_close(db_);
}

Connection::Connection(Connection&& other) noexcept : db_(std::exchange(other.db_, nullptr)) {}

void Connection::exec(const std::string& sql) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
        const std::string text = message ? message : "unknown error";
        sqlite3_free(message);
        throw std::runtime_error(sql + ": " + text);
    }
}

Statement::Statement(const Connection& connection, const char* sql) {
    if (sqlite3_prepare_v2(connection.get(), sql, -1, &statement_, nullptr) != SQLITE_OK) {
        fail(connection.get(), std::string("cannot prepare ") + sql);
    }
}

Statement::~Statement() {
    sqlite3_finalize(statement_);
}

int libraryPageSize() {
    static const int pageSize = [] {
        const std::string path = freshPath("page-size-probe");
        { Logging::SqliteLogFile file(path, "UTC", "marivane_bench", "1", 0, kFirstTimestamp); }
        int found = 0;
        {
            Connection connection(path);
            Statement query(connection, "PRAGMA page_size;");
            if (sqlite3_step(query.get()) == SQLITE_ROW) {
                found = sqlite3_column_int(query.get(), 0);
            }
        }
        removeLogFile(path);
        if (found <= 0) {
            throw std::runtime_error("cannot read the page size of a library-made file");
        }
        return found;
    }();
    return pageSize;
}

Connection createSchema(const std::string& path, int pageSize) {
    Connection connection(path);
    connection.exec("PRAGMA page_size = " + std::to_string(pageSize != 0 ? pageSize : libraryPageSize()) +
                    ";");
    for (const char* statement : kSchema) {
        connection.exec(statement);
    }
    applyConnectionSettings(connection);
    return connection;
}

Connection createLogFile(const std::string& path, int level, int pageSize) {
    Connection connection = createSchema(path, pageSize);
    connection.exec("BEGIN;");
    connection.exec("INSERT INTO metadata (key, value) VALUES ('createdDateTime', " +
                    std::to_string(kFirstTimestamp) + ");");
    connection.exec("INSERT INTO metadata (key, value) VALUES ('applicationName', 'marivane_bench');");
    connection.exec("INSERT INTO metadata (key, value) VALUES ('applicationVersion', '1');");
    connection.exec("INSERT INTO metadata (key, value) VALUES ('currentTimeZone', 'UTC');");
    connection.exec("INSERT INTO metadata (key, value) VALUES ('logVersion', 4);");
    connection.exec("INSERT INTO metadata (key, value) VALUES ('compressionLevel', " + std::to_string(level) +
                    ");");
    connection.exec("INSERT INTO dataSources (dataSourceId, dataSourceType, dataSourceName) VALUES (" +
                    std::to_string(kDataSourceId) + ", 0, 'bench');");
    connection.exec("COMMIT;");
    return connection;
}

Connection openLogFile(const std::string& path) {
    Connection connection(path);
    applyConnectionSettings(connection);
    return connection;
}

void ZstdCompressorDeleter::operator()(ZSTD_CCtx_s* context) const noexcept {
    ZSTD_freeCCtx(context);
}
void ZstdDecompressorDeleter::operator()(ZSTD_DCtx_s* context) const noexcept {
    ZSTD_freeDCtx(context);
}

EntryWriter::EntryWriter(const Connection& connection, int level)
    : insert_(connection, kInsertEntry), level_(level) {
    if (level_ != 0) {
        compressor_.reset(ZSTD_createCCtx());
        ZSTD_CCtx_setParameter(compressor_.get(), ZSTD_c_compressionLevel,
                               level_ == -1 ? ZSTD_CLEVEL_DEFAULT : level_);
        ZSTD_CCtx_setParameter(compressor_.get(), ZSTD_c_contentSizeFlag, 1);
        ZSTD_CCtx_setParameter(compressor_.get(), ZSTD_c_checksumFlag, 1);
    }
}

EntryWriter::~EntryWriter() = default;

bool EntryWriter::write(int64_t timestamp, int32_t type, int8_t dataSourceId, const ByteBuffer& data) {
    const void* stored = data.data();
    std::size_t storedSize = data.size();
    if (level_ != 0) {
        const std::size_t bound = ZSTD_compressBound(data.size());
        if (compressed_.size() < bound) {
            compressed_.resize(bound);
        }
        storedSize = ZSTD_compress2(compressor_.get(), compressed_.data(), compressed_.size(), data.data(),
                                    data.size());
        if (ZSTD_isError(storedSize)) {
            throw std::runtime_error(std::string("zstd: ") + ZSTD_getErrorName(storedSize));
        }
        stored = compressed_.data();
    }
    sqlite3_stmt* insert = insert_.get();
    sqlite3_reset(insert);
    sqlite3_bind_int64(insert, 1, timestamp);
    sqlite3_bind_int(insert, 2, type);
    sqlite3_bind_int(insert, 3, dataSourceId);
    sqlite3_bind_int(insert, 4, static_cast<int>(storedSize));
    sqlite3_bind_blob(insert, 5, stored, static_cast<int>(storedSize), SQLITE_STATIC);
    return sqlite3_step(insert) == SQLITE_DONE;
}

EntryReader::EntryReader(const Connection& connection, int level)
    : byId_(connection, "SELECT timestamp, type, dataSourceId, payload FROM data WHERE entryId = :entryId;"),
      all_(connection, "SELECT entryId, timestamp, type, dataSourceId, payload FROM data ORDER BY entryId;"),
      ids_(connection, "SELECT entryId FROM data ORDER BY entryId;"),
      level_(level),
      decompressor_(ZSTD_createDCtx()) {}

EntryReader::~EntryReader() = default;

ByteBuffer EntryReader::expand(const void* blob, int size) {
    const auto* bytes = static_cast<const std::byte*>(blob);
    if (level_ == 0) {
        return ByteBuffer(bytes, bytes + size);
    }
    const unsigned long long contentSize = ZSTD_getFrameContentSize(blob, static_cast<std::size_t>(size));
    if (contentSize == ZSTD_CONTENTSIZE_ERROR || contentSize == ZSTD_CONTENTSIZE_UNKNOWN) {
        throw std::runtime_error("zstd: a stored payload has no content size");
    }
    ByteBuffer data(static_cast<std::size_t>(contentSize));
    const std::size_t written = ZSTD_decompressDCtx(decompressor_.get(), data.data(), data.size(), blob,
                                                    static_cast<std::size_t>(size));
    if (ZSTD_isError(written) || written != data.size()) {
        throw std::runtime_error("zstd: cannot expand a stored payload");
    }
    return data;
}

std::optional<DataEntry> EntryReader::read(int32_t entryId) {
    sqlite3_stmt* query = byId_.get();
    sqlite3_reset(query);
    sqlite3_bind_int(query, 1, entryId);
    if (sqlite3_step(query) != SQLITE_ROW) {
        return std::nullopt;
    }
    DataEntry entry;
    entry.entryId = entryId;
    entry.timestamp = sqlite3_column_int64(query, 0);
    entry.type = sqlite3_column_int(query, 1);
    entry.dataSourceId = static_cast<int8_t>(sqlite3_column_int(query, 2));
    const void* blob = sqlite3_column_blob(query, 3);
    entry.data = expand(blob, sqlite3_column_bytes(query, 3));
    return entry;
}

std::vector<DataEntry> EntryReader::readAll() {
    sqlite3_stmt* query = all_.get();
    sqlite3_reset(query);
    std::vector<DataEntry> entries;
    while (sqlite3_step(query) == SQLITE_ROW) {
        DataEntry& entry = entries.emplace_back();
        entry.entryId = sqlite3_column_int(query, 0);
        entry.timestamp = sqlite3_column_int64(query, 1);
        entry.type = sqlite3_column_int(query, 2);
        entry.dataSourceId = static_cast<int8_t>(sqlite3_column_int(query, 3));
        const void* blob = sqlite3_column_blob(query, 4);
        entry.data = expand(blob, sqlite3_column_bytes(query, 4));
    }
    return entries;
}

std::vector<int32_t> EntryReader::readIds() {
    sqlite3_stmt* query = ids_.get();
    sqlite3_reset(query);
    std::vector<int32_t> ids;
    while (sqlite3_step(query) == SQLITE_ROW) {
        ids.push_back(sqlite3_column_int(query, 0));
    }
    return ids;
}

ViewScan::ViewScan(const Connection& connection, int level)
    : all_(connection, "SELECT entryId, timestamp, type, dataSourceId, payload FROM data ORDER BY entryId;"),
      level_(level),
      decompressor_(ZSTD_createDCtx()) {}

ViewScan::~ViewScan() = default;

std::size_t ViewScan::run(const std::function<void(const RawView&)>& onEntry) {
    sqlite3_stmt* query = all_.get();
    sqlite3_reset(query);
    std::size_t count = 0;
    while (sqlite3_step(query) == SQLITE_ROW) {
        RawView view{sqlite3_column_int(query, 0),
                     static_cast<int8_t>(sqlite3_column_int(query, 3)),
                     sqlite3_column_int(query, 2),
                     sqlite3_column_int64(query, 1),
                     nullptr,
                     0};
        const auto* blob = static_cast<const std::byte*>(sqlite3_column_blob(query, 4));
        const auto size = static_cast<std::size_t>(sqlite3_column_bytes(query, 4));
        if (level_ == 0) {
            view.data = blob;
            view.size = size;
        } else {
            const unsigned long long contentSize = ZSTD_getFrameContentSize(blob, size);
            if (contentSize == ZSTD_CONTENTSIZE_ERROR || contentSize == ZSTD_CONTENTSIZE_UNKNOWN) {
                throw std::runtime_error("zstd: a stored payload has no content size");
            }
            expanded_.resize(static_cast<std::size_t>(contentSize));
            const std::size_t written =
                ZSTD_decompressDCtx(decompressor_.get(), expanded_.data(), expanded_.size(), blob, size);
            if (ZSTD_isError(written) || written != expanded_.size()) {
                throw std::runtime_error("zstd: cannot expand a stored payload");
            }
            view.data = expanded_.data();
            view.size = expanded_.size();
        }
        onEntry(view);
        ++count;
    }
    return count;
}

SummaryScan::SummaryScan(const Connection& connection)
    : all_(connection, "SELECT entryId, timestamp, type, dataSourceId, length FROM data ORDER BY entryId;") {}

std::size_t SummaryScan::run(const std::function<void(const RawSummary&)>& onEntry) {
    sqlite3_stmt* query = all_.get();
    sqlite3_reset(query);
    std::size_t count = 0;
    while (sqlite3_step(query) == SQLITE_ROW) {
        onEntry(RawSummary{sqlite3_column_int(query, 0), static_cast<int8_t>(sqlite3_column_int(query, 3)),
                           sqlite3_column_int(query, 2), sqlite3_column_int64(query, 1),
                           sqlite3_column_int64(query, 4)});
        ++count;
    }
    return count;
}

void buildLogFile(const std::string& path, int level, std::size_t size, std::size_t count) {
    Connection connection = createLogFile(path, level);
    const ByteBuffer& data = payload(size);
    connection.exec("BEGIN;");
    {
        EntryWriter writer(connection, level);
        for (std::size_t i = 0; i < count; ++i) {
            const int64_t timestamp = kFirstTimestamp + static_cast<int64_t>(i) * kEntryPeriodMs;
            if (!writer.write(timestamp, kEntryType, kDataSourceId, data)) {
                fail(connection.get(), "cannot write " + path);
            }
        }
    }
    connection.exec("COMMIT;");
}

const std::string& builtLogFile(const std::string& stem, int level, std::size_t size, std::size_t count) {
    static std::map<std::tuple<std::string, int, std::size_t, std::size_t>, std::string> files;
    std::string& path = files[{stem, level, size, count}];
    if (path.empty()) {
        const std::string candidate = freshPath(stem);
        buildLogFile(candidate, level, size, count);
        path = candidate;
    }
    return path;
}

void copyLogFile(const std::string& source, const std::string& output, int32_t firstEntryId,
                 int32_t lastEntryId) {
    Connection in = openLogFile(source);
    Connection out = createSchema(output);
    out.exec("BEGIN;");
    {
        // Small tables: copied row by row with their values untouched.
        Statement metadata(in, "SELECT key, value FROM metadata;");
        Statement insertMetadata(out, "INSERT INTO metadata (key, value) VALUES (:key, :value);");
        while (sqlite3_step(metadata.get()) == SQLITE_ROW) {
            sqlite3_reset(insertMetadata.get());
            sqlite3_bind_value(insertMetadata.get(), 1, sqlite3_column_value(metadata.get(), 0));
            sqlite3_bind_value(insertMetadata.get(), 2, sqlite3_column_value(metadata.get(), 1));
            sqlite3_step(insertMetadata.get());
        }
        Statement sources(in, "SELECT dataSourceId, dataSourceType, dataSourceName FROM dataSources;");
        Statement insertSource(
            out,
            "INSERT INTO dataSources (dataSourceId, dataSourceType, dataSourceName) VALUES "
            "(:dataSourceId, :dataSourceType, :dataSourceName);");
        while (sqlite3_step(sources.get()) == SQLITE_ROW) {
            sqlite3_reset(insertSource.get());
            for (int column = 0; column < 3; ++column) {
                sqlite3_bind_value(insertSource.get(), column + 1,
                                   sqlite3_column_value(sources.get(), column));
            }
            if (sqlite3_step(insertSource.get()) != SQLITE_DONE) {
                fail(out.get(), "cannot copy a data source");
            }
        }
        Statement properties(in, "SELECT dataSourceId, key, value FROM dataSourceProperties;");
        Statement insertProperty(out,
                                 "INSERT INTO dataSourceProperties (dataSourceId, key, value) VALUES "
                                 "(:dataSourceId, :key, :value);");
        while (sqlite3_step(properties.get()) == SQLITE_ROW) {
            sqlite3_reset(insertProperty.get());
            for (int column = 0; column < 3; ++column) {
                sqlite3_bind_value(insertProperty.get(), column + 1,
                                   sqlite3_column_value(properties.get(), column));
            }
            sqlite3_step(insertProperty.get());
        }

        Statement entries(in,
                          "SELECT timestamp, type, dataSourceId, length, payload FROM data WHERE entryId "
                          "BETWEEN :first AND :last ORDER BY entryId;");
        Statement insertEntry(out, kInsertEntry);
        sqlite3_bind_int(entries.get(), 1, firstEntryId);
        sqlite3_bind_int(entries.get(), 2, lastEntryId);
        sqlite3_stmt* insert = insertEntry.get();
        while (sqlite3_step(entries.get()) == SQLITE_ROW) {
            sqlite3_reset(insert);
            sqlite3_bind_int64(insert, 1, sqlite3_column_int64(entries.get(), 0));
            sqlite3_bind_int(insert, 2, sqlite3_column_int(entries.get(), 1));
            sqlite3_bind_int(insert, 3, sqlite3_column_int(entries.get(), 2));
            sqlite3_bind_int(insert, 4, sqlite3_column_int(entries.get(), 3));
            // The source row stays current until the next step, after this insert.
            const void* blob = sqlite3_column_blob(entries.get(), 4);
            sqlite3_bind_blob(insert, 5, blob, sqlite3_column_bytes(entries.get(), 4), SQLITE_STATIC);
            if (sqlite3_step(insert) != SQLITE_DONE) {
                fail(out.get(), "cannot copy an entry");
            }
        }
    }
    out.exec("COMMIT;");
}

}  // namespace Marivane::Bench::Raw
