#pragma once

#include <logging/ByteBuffer.h>
#include <logging/SqliteLogFile.h>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace Marivane::Testing {

// A second, independent connection to a log file, for looking at (and
// tampering with) what the store wrote.
class RawDatabase {
public:
    explicit RawDatabase(const std::string& path, int flags = SQLITE_OPEN_READWRITE) {
        if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
            const std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
            sqlite3_close_v2(db_);
            throw std::runtime_error("cannot open " + path + ": " + message);
        }
    }
    ~RawDatabase() { sqlite3_close_v2(db_); }
    RawDatabase(const RawDatabase&) = delete;
    RawDatabase& operator=(const RawDatabase&) = delete;

    void exec(const std::string& sql) {
        char* error = nullptr;
        if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
            const std::string message = error ? error : "unknown";
            sqlite3_free(error);
            throw std::runtime_error("'" + sql + "' failed: " + message);
        }
    }

    // Every row, every column as text; NULL as "<null>".
    std::vector<std::vector<std::string>> rows(const std::string& sql) {
        Statement statement(db_, sql);
        std::vector<std::vector<std::string>> result;
        int code = SQLITE_OK;
        while ((code = sqlite3_step(statement.get())) == SQLITE_ROW) {
            std::vector<std::string> row;
            for (int i = 0; i < sqlite3_column_count(statement.get()); ++i) {
                const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement.get(), i));
                row.emplace_back(text ? std::string(text, static_cast<std::size_t>(
                                                              sqlite3_column_bytes(statement.get(), i)))
                                      : std::string("<null>"));
            }
            result.push_back(std::move(row));
        }
        if (code != SQLITE_DONE) {
            throw std::runtime_error("'" + sql + "' failed: " + sqlite3_errmsg(db_));
        }
        return result;
    }

    // Column 0 of the first row.
    std::string text(const std::string& sql) {
        const auto all = rows(sql);
        if (all.empty()) {
            throw std::runtime_error("'" + sql + "' yielded no row");
        }
        return all.front().front();
    }

    int64_t integer(const std::string& sql) {
        Statement statement(db_, sql);
        if (sqlite3_step(statement.get()) != SQLITE_ROW) {
            throw std::runtime_error("'" + sql + "' yielded no row");
        }
        return sqlite3_column_int64(statement.get(), 0);
    }

    Logging::ByteBuffer blob(const std::string& sql) {
        Statement statement(db_, sql);
        if (sqlite3_step(statement.get()) != SQLITE_ROW) {
            throw std::runtime_error("'" + sql + "' yielded no row");
        }
        const auto* bytes = static_cast<const std::byte*>(sqlite3_column_blob(statement.get(), 0));
        const int size = sqlite3_column_bytes(statement.get(), 0);
        return bytes ? Logging::ByteBuffer(bytes, bytes + size) : Logging::ByteBuffer();
    }

    sqlite3* handle() const { return db_; }

private:
    class Statement {
    public:
        Statement(sqlite3* db, const std::string& sql) {
            if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement_, nullptr) != SQLITE_OK) {
                throw std::runtime_error("cannot prepare '" + sql + "': " + sqlite3_errmsg(db));
            }
        }
        ~Statement() { sqlite3_finalize(statement_); }
        Statement(const Statement&) = delete;
        Statement& operator=(const Statement&) = delete;
        sqlite3_stmt* get() const { return statement_; }

    private:
        sqlite3_stmt* statement_ = nullptr;
    };

    sqlite3* db_ = nullptr;
};

// Bytes with some structure (16 distinct values), so compressed payloads are
// visibly smaller than their input.
inline Logging::ByteBuffer patternBytes(std::size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    Logging::ByteBuffer bytes(size);
    for (std::byte& b : bytes) {
        b = static_cast<std::byte>(generator() & 0x0F);
    }
    return bytes;
}

inline Logging::ByteBuffer bytesOf(const std::string& text) {
    Logging::ByteBuffer bytes(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        bytes[i] = static_cast<std::byte>(text[i]);
    }
    return bytes;
}

inline void writeFile(const std::string& path, const std::vector<unsigned char>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// A new log file as the recording side makes it.
inline Logging::SqliteLogFile createLogFile(const std::string& path, int8_t level = 0) {
    return Logging::SqliteLogFile(path, "Europe/Berlin", "store-tests", "1.2.3", level, 1700000000123);
}

inline Logging::DataEntry makeEntry(int8_t source, int32_t type, int64_t timestamp,
                                    Logging::ByteBuffer data) {
    Logging::DataEntry entry;
    entry.dataSourceId = source;
    entry.type = type;
    entry.timestamp = timestamp;
    entry.data = std::move(data);
    return entry;
}

// The nine schema objects of a log file, in creation order, as SQLite keeps
// them (the statement text without its semicolon).
struct SchemaObject {
    std::string type;
    std::string name;
    std::string table;
    std::string sql;
};

inline std::vector<SchemaObject> expectedSchema() {
    return {
        {"table", "dataSources", "dataSources",
         "CREATE TABLE dataSources(dataSourceId INTEGER PRIMARY KEY,dataSourceType INT NOT "
         "NULL,dataSourceName "
         "TEXT NOT NULL)"},
        {"table", "dataSourceProperties", "dataSourceProperties",
         "CREATE TABLE dataSourceProperties(dataSourceId INT NOT NULL REFERENCES "
         "dataSources(dataSourceId),key "
         "TEXT NOT NULL,value NOT NULL)"},
        {"index", "dataSourcePropertiesIndex", "dataSourceProperties",
         "CREATE INDEX dataSourcePropertiesIndex ON dataSourceProperties(dataSourceId)"},
        {"table", "data", "data",
         "CREATE TABLE data(entryId INTEGER PRIMARY KEY,timestamp INT NOT NULL,type INT NOT "
         "NULL,dataSourceId INT "
         "NOT NULL REFERENCES dataSources(dataSourceId),length INT NOT NULL,payload BLOB NOT NULL)"},
        {"index", "dataDataSourceIndex", "data", "CREATE INDEX dataDataSourceIndex ON data(dataSourceId)"},
        {"table", "metadata", "metadata", "CREATE TABLE metadata(key TEXT NOT NULL, value NOT NULL)"},
        {"table", "resources", "resources", "CREATE TABLE resources(name TEXT NOT NULL, payload NOT NULL)"},
        {"table", "bookmarks", "bookmarks",
         "CREATE TABLE bookmarks(entryId INT NOT NULL REFERENCES data(entryId), title TEXT NOT NULL, "
         "comments "
         "TEXT, payload BLOB)"},
        {"index", "bookmarkIndex", "bookmarks", "CREATE INDEX bookmarkIndex ON bookmarks(entryId)"},
    };
}

inline std::vector<std::vector<std::string>> schemaRows(RawDatabase& db) {
    return db.rows("SELECT type, name, tbl_name, sql FROM sqlite_master ORDER BY rowid;");
}

inline std::vector<std::vector<std::string>> expectedSchemaRows() {
    std::vector<std::vector<std::string>> rows;
    for (const SchemaObject& object : expectedSchema()) {
        rows.push_back({object.type, object.name, object.table, object.sql});
    }
    return rows;
}

}  // namespace Marivane::Testing
