#pragma once

#include <logging/LogFileInterface.h>
#include <logging/SqliteLogFile.h>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Marivane::Testing {

using Logging::Bookmark;
using Logging::ByteBuffer;
using Logging::DataEntry;
using Logging::DataSource;
using Logging::DataSourceProperty;
using Logging::PropertyValue;

inline ByteBuffer bytes(std::initializer_list<int> values) {
    ByteBuffer buffer;
    for (int value : values) {
        buffer.push_back(static_cast<std::byte>(value));
    }
    return buffer;
}

// A payload that compresses well and differs for every `seed`, so a mix-up
// between entries or a missing decompression shows.
inline ByteBuffer payloadFor(int seed, std::size_t size = 96) {
    ByteBuffer buffer(size);
    for (std::size_t i = 0; i < size; ++i) {
        buffer[i] = static_cast<std::byte>((seed * 7 + static_cast<int>(i % 4)) & 0xff);
    }
    return buffer;
}

inline int32_t typeFor(int sourceEntryId) {
    return 100 + sourceEntryId;
}
inline int64_t timestampFor(int sourceEntryId) {
    return 1'700'000'000'000 + sourceEntryId * 10;
}

inline DataEntry entryFor(int sourceEntryId, int8_t dataSourceId) {
    DataEntry entry;
    entry.dataSourceId = dataSourceId;
    entry.type = typeFor(sourceEntryId);
    entry.timestamp = timestampFor(sourceEntryId);
    entry.data = payloadFor(sourceEntryId);
    return entry;
}

struct SourceSettings {
    std::string applicationName = "recorder";
    std::string applicationVersion = "1.0";
    std::string timeZone = "Europe/Oslo";
    int8_t compressionLevel = -1;
};

// A created log file with one data source (id 1) and `count` entries; entry k
// carries typeFor(k), timestampFor(k) and payloadFor(k).
inline std::unique_ptr<Logging::SqliteLogFile> createSequentialSource(const std::string& path, int count,
                                                                      const SourceSettings& settings = {}) {
    auto file = std::make_unique<Logging::SqliteLogFile>(path, settings.timeZone, settings.applicationName,
                                                         settings.applicationVersion,
                                                         settings.compressionLevel, 1'600'000'000'000);
    DataSource source{-1, MV_LogDataSourceType_Camera, "front camera"};
    if (!file->addDataSource(source)) {
        throw std::runtime_error("cannot add data source: " + file->getLastError());
    }
    for (int id = 1; id <= count; ++id) {
        if (!file->logData(entryFor(id, source.id))) {
            throw std::runtime_error("cannot log entry: " + file->getLastError());
        }
    }
    return file;
}

// Direct SQL access to a file, independent of the store's own code.
class SqlConnection {
public:
    explicit SqlConnection(const std::string& path) {
        sqlite3* raw = nullptr;
        const int result = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
        database_.reset(raw);
        if (result != SQLITE_OK) {
            throw std::runtime_error("cannot open " + path);
        }
    }

    void execute(const std::string& sql) {
        char* message = nullptr;
        if (sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
            std::string text = message ? message : "unknown";
            sqlite3_free(message);
            throw std::runtime_error(text);
        }
    }

    std::vector<int64_t> integers(const std::string& sql) {
        std::vector<int64_t> values;
        forEachRow(sql, [&](sqlite3_stmt* row) { values.push_back(sqlite3_column_int64(row, 0)); });
        return values;
    }

    std::vector<std::string> texts(const std::string& sql) {
        std::vector<std::string> values;
        forEachRow(sql, [&](sqlite3_stmt* row) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, 0));
            values.emplace_back(text ? text : "");
        });
        return values;
    }

    std::vector<ByteBuffer> blobs(const std::string& sql) {
        std::vector<ByteBuffer> values;
        forEachRow(sql, [&](sqlite3_stmt* row) {
            const auto* data = static_cast<const std::byte*>(sqlite3_column_blob(row, 0));
            const int size = sqlite3_column_bytes(row, 0);
            values.emplace_back(data, data + size);
        });
        return values;
    }

private:
    struct CloseDatabase {
        void operator()(sqlite3* database) const { sqlite3_close(database); }
    };
    struct FinalizeStatement {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };

    template <typename RowHandler>
    void forEachRow(const std::string& sql, RowHandler handle) {
        sqlite3_stmt* raw = nullptr;
        if (sqlite3_prepare_v2(database_.get(), sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) {
            throw std::runtime_error(std::string("cannot prepare: ") + sqlite3_errmsg(database_.get()));
        }
        std::unique_ptr<sqlite3_stmt, FinalizeStatement> statement(raw);
        while (sqlite3_step(statement.get()) == SQLITE_ROW) {
            handle(statement.get());
        }
    }

    std::unique_ptr<sqlite3, CloseDatabase> database_;
};

// Removes every entry of a closed file except `keep`, so the remaining ids
// have gaps the file itself would never produce.
inline void keepOnlyEntries(const std::string& path, const std::vector<int>& keep) {
    std::string list;
    for (int id : keep) {
        if (!list.empty()) {
            list += ',';
        }
        list += std::to_string(id);
    }
    SqlConnection(path).execute("DELETE FROM data WHERE entryId NOT IN (" + list + ");");
}

// A closed source file holding entries 5, 6, 8, 9 and 12 of a 12-entry
// recording (data source 1).
inline void writeGappedSource(const std::string& path, const SourceSettings& settings = {}) {
    createSequentialSource(path, 12, settings);
    keepOnlyEntries(path, {5, 6, 8, 9, 12});
}

inline std::string fileContents(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

inline std::size_t directoryEntryCount(const std::filesystem::path& path) {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator(path), std::filesystem::directory_iterator()));
}

inline void expectEntry(const DataEntry& actual, int32_t expectedId, int sourceEntryId, int8_t dataSourceId) {
    EXPECT_EQ(actual.entryId, expectedId);
    EXPECT_EQ(actual.dataSourceId, dataSourceId);
    EXPECT_EQ(actual.type, typeFor(sourceEntryId));
    EXPECT_EQ(actual.timestamp, timestampFor(sourceEntryId));
    EXPECT_EQ(actual.data, payloadFor(sourceEntryId));
}

inline void expectSameDataSources(const std::vector<DataSource>& actual,
                                  const std::vector<DataSource>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        EXPECT_EQ(actual[i].id, expected[i].id) << "data source " << i;
        EXPECT_EQ(actual[i].type, expected[i].type) << "data source " << i;
        EXPECT_EQ(actual[i].name, expected[i].name) << "data source " << i;
    }
}

inline void expectSameProperties(const std::vector<DataSourceProperty>& actual,
                                 const std::vector<DataSourceProperty>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        EXPECT_EQ(actual[i].dataSourceId, expected[i].dataSourceId) << "property " << i;
        EXPECT_EQ(actual[i].propertyName, expected[i].propertyName) << "property " << i;
        EXPECT_EQ(actual[i].value, expected[i].value) << "property " << i;
    }
}

inline void expectSameResources(const std::vector<LogResourceEntry>& actual,
                                const std::vector<LogResourceEntry>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        EXPECT_EQ(actual[i].name, expected[i].name) << "resource " << i;
        EXPECT_EQ(actual[i].data, expected[i].data) << "resource " << i;
    }
}

}  // namespace Marivane::Testing
