#pragma once

#include <logging/Bookmark.h>
#include <logging/ByteBuffer.h>
#include <logging/DataEntry.h>
#include <logging/DataSource.h>
#include <logging/DataSourceProperty.h>
#include <logging/EntryIndexFilter.h>
#include <logging/LogMetadataEntry.h>
#include <logging/LogResourceEntry.h>
#include <logging/LoggingExport.h>
#include <logging/PropertyValue.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace Marivane::Logging {

class SqliteLogFile;

// A log file: entries of several data sources, their properties, file
// metadata, named resources and bookmarks.
//
// Operations report failure by their result (false, -1, an empty list, an
// absent value). A failing write, and a read that fails inside the storage,
// replace the text returned by getLastError ("No error" until the first
// failure; a later success does not reset it). A read that merely finds
// nothing records no text. The declaration order of the operations is fixed.
//
// Threads: an object is used by one thread at a time, except that an
// implementation must tolerate reads from one thread beside bookmark edits
// from another (the player does that).
class MV_LOGGING_EXPORT LogFileInterface {
public:
    virtual ~LogFileInterface();

    virtual std::filesystem::path getFilePath() const = 0;
    virtual std::vector<DataSource> getDataSources() const = 0;
    virtual std::optional<PropertyValue> getDataSourceProperty(int32_t dataSourceId,
                                                               std::string key) const = 0;
    virtual std::vector<DataSourceProperty> getAllDataSourceProperties() const = 0;
    // Ids of the entries the filter admits, ascending.
    virtual std::vector<int32_t> getEntryIndex(const EntryIndexFilter& filter) const = 0;
    // -1 on failure, and for an empty file.
    virtual int32_t getFirstEntryId() const = 0;
    virtual int32_t getLastEntryId() const = 0;
    // -1 on failure.
    virtual int32_t getEntryCount() const = 0;
    virtual std::optional<DataEntry> readEntry(int32_t entryId) const = 0;
    virtual std::optional<PropertyValue> getMetadataValue(std::string key) const = 0;
    virtual std::vector<LogMetadataEntry> getAllMetadata() const = 0;
    virtual std::optional<ByteBuffer> getResource(std::string name) const = 0;
    virtual std::vector<LogResourceEntry> getAllResources() const = 0;
    virtual std::optional<ByteBuffer> getThumbnail() const = 0;
    virtual std::vector<Bookmark> getBookmarks() const = 0;
    // Lets the file choose the id and writes it into `source` on success.
    virtual bool addDataSource(DataSource& source) = 0;
    // Stores the record under its own id.
    virtual bool addDataSource(const DataSource& source) = 0;
    virtual bool addDataSourceProperty(const DataSourceProperty& property) = 0;
    // The entry's own entryId is ignored; the file assigns the next one.
    virtual bool logData(const DataEntry& entry) = 0;
    // Refuses (false, last error untouched) a key that already exists.
    virtual bool addMetadata(std::string key, PropertyValue value) = 0;
    virtual bool addMetadata(const LogMetadataEntry& entry);
    // Refuses (false, last error untouched) a name that already exists.
    virtual bool addResource(const std::string& name, const ByteBuffer& data) = 0;
    virtual bool addResource(const LogResourceEntry& entry);
    virtual bool setThumbnail(const ByteBuffer& data) = 0;
    virtual bool addBookmark(const Bookmark& bookmark) = 0;
    virtual bool updateBookmark(const Bookmark& bookmark) = 0;
    virtual bool removeBookmark(const Bookmark& bookmark) = 0;
    virtual std::string getLastError() const = 0;
    // Entries the filter admits with ids in [minimumEntryId, maximumEntryId],
    // ascending; -1 as a bound stands for the file's first or last entry; at
    // most `limit` entries unless `limit` is -1.
    //
    // Not a paging interface: SqliteLogFile counts the whole range before it
    // reads (so the list is allocated once) and holds every payload of the
    // answer in memory, so reading a large file as readEntries(next, -1, filter,
    // 1000) over and over costs time quadratic in the file's size (seconds at
    // 250k entries, minutes at 2M). To walk a file, use
    // SqliteLogFile::visitEntries, which streams in constant memory.
    virtual std::vector<DataEntry> readEntries(int32_t minimumEntryId, int32_t maximumEntryId,
                                               const EntryIndexFilter& filter, int32_t limit) const = 0;

    // The SQLite store behind this interface, or nullptr for any other
    // implementation. Streaming reads, write batches and copies of stored
    // payloads are the store's own; callers that can use them ask here and
    // fall back to the operations above. The pointer is this object: it lives
    // as long as the object does and follows its threading rule.
    virtual SqliteLogFile* sqliteLogFile() noexcept;
    const SqliteLogFile* sqliteLogFile() const noexcept;
};

}  // namespace Marivane::Logging
