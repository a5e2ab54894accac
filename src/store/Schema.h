#pragma once

#include <array>

// The statements that make a log file's schema, each named once. SQLite keeps
// the text of every CREATE statement in the file itself, so these texts are
// part of the stored bytes: a file created today must hold exactly the text a
// file created before it holds.
namespace Marivane::Logging::Schema {

// 8 KiB pages measured best over small and large payloads, batched and not
// (bench/README.md); the size must be set before the first table exists.
inline constexpr const char* kPageSize = "PRAGMA page_size = 8192;";

inline constexpr const char* kCreateDataSources =
    "CREATE TABLE dataSources(dataSourceId INTEGER PRIMARY KEY,dataSourceType INT NOT NULL,"
    "dataSourceName TEXT NOT NULL);";
inline constexpr const char* kCreateDataSourceProperties =
    "CREATE TABLE dataSourceProperties(dataSourceId INT NOT NULL REFERENCES dataSources(dataSourceId),"
    "key TEXT NOT NULL,value NOT NULL);";
inline constexpr const char* kCreateDataSourcePropertiesIndex =
    "CREATE INDEX dataSourcePropertiesIndex ON dataSourceProperties(dataSourceId);";
inline constexpr const char* kCreateData =
    "CREATE TABLE data(entryId INTEGER PRIMARY KEY,timestamp INT NOT NULL,type INT NOT NULL,"
    "dataSourceId INT NOT NULL REFERENCES dataSources(dataSourceId),length INT NOT NULL,"
    "payload BLOB NOT NULL);";
inline constexpr const char* kCreateDataSourceIndex =
    "CREATE INDEX dataDataSourceIndex ON data(dataSourceId);";
inline constexpr const char* kCreateMetadata = "CREATE TABLE metadata(key TEXT NOT NULL, value NOT NULL);";
inline constexpr const char* kCreateResources =
    "CREATE TABLE resources(name TEXT NOT NULL, payload NOT NULL);";
// Also run alone, to rebuild a bookmarks table whose references are broken.
inline constexpr const char* kCreateBookmarks =
    "CREATE TABLE bookmarks(entryId INT NOT NULL REFERENCES data(entryId), title TEXT NOT NULL, "
    "comments TEXT, payload BLOB);";
inline constexpr const char* kCreateBookmarkIndex = "CREATE INDEX bookmarkIndex ON bookmarks(entryId);";

// Every log file's tables before its bookmarks, in the order they are made.
inline constexpr std::array<const char*, 7> kTablesBeforeBookmarks = {
    kCreateDataSources, kCreateDataSourceProperties, kCreateDataSourcePropertiesIndex,
    kCreateData,        kCreateDataSourceIndex,      kCreateMetadata,
    kCreateResources};

// The six tables every log file has; a database with some of them only is
// not a log file.
inline constexpr std::array<const char*, 6> kLogTables = {
    "dataSources", "dataSourceProperties", "data", "metadata", "resources", "bookmarks"};

// Only files created with entry checksums have this table: every other file
// keeps exactly the schema it always had. One row per entry, keyed by its id,
// holding the checksum of the payload as stored.
inline constexpr const char* kCreateEntryChecksums =
    "CREATE TABLE entryChecksums(entryId INTEGER PRIMARY KEY, checksum INT NOT NULL);";

// The index on entry timestamps, built on request (createTimeIndex): files
// without it keep the schema they were created with.
inline constexpr const char* kTimeIndexName = "dataTimestampIndex";
inline constexpr const char* kCreateTimeIndex =
    "CREATE INDEX IF NOT EXISTS dataTimestampIndex ON data(timestamp);";

}  // namespace Marivane::Logging::Schema
