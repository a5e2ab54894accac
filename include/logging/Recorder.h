#pragma once

#include <logging/Bookmark.h>
#include <logging/ByteBuffer.h>
#include <logging/DataSource.h>
#include <logging/DataSourceProperty.h>
#include <logging/LoggingExport.h>
#include <logging/PropertyValue.h>
#include <logging/RecorderOptions.h>
#include <logging/RecorderStats.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

namespace Marivane::Logging {

class RecorderPrivate;

// Records into a new log file from any number of capture threads without
// making them wait for compression or the disk.
//
// record() only enqueues: compression runs on a pool of threads and one
// writer thread inserts the entries, in transactions committed at least every
// maxCommitDelay. Entries are stored in the order in which record() accepted
// them, across threads, so entry ids follow acceptance order, or, with a
// reorder window (RecorderOptions::reorderWindow), timestamp order; the
// stored bytes are those logData would store at the file's level. Data
// sources, properties, metadata, resources and bookmarks go through the same
// queue and keep their place relative to the entries; those calls wait for
// the writer and answer what the file answered.
//
// A failure of the writer (a full disk, an I/O error) never blocks or ends a
// capture thread: the recorder stops accepting (record answers false), stats()
// says why, and everything committed before the failure stays in the file.
//
// Ownership: the recorder owns its file and its threads; the destructor
// closes (flushes, joins every thread, closes the file) and never throws.
// Threads: every member function may be called from any thread at once.
// Not copyable, not movable.
class MV_LOGGING_EXPORT Recorder {
public:
    // Creates the file at `path`, which must not exist (std::runtime_error
    // naming the path otherwise), and starts the threads. Errors of the file
    // creation are thrown as SqliteLogFile's creating constructor throws them.
    Recorder(const std::filesystem::path& path, const RecorderOptions& options = RecorderOptions());
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // Enqueues one entry and returns: true when accepted. False when it was
    // dropped or refused under the overflow policy, or the recorder has
    // stopped (failed or closed). Under OverflowPolicy::Block it waits while
    // the queue is full, and only then.
    bool record(int8_t dataSourceId, int32_t type, int64_t timestamp, ByteBuffer&& payload);
    bool record(int8_t dataSourceId, int32_t type, int64_t timestamp, const void* data, std::size_t size);

    // As SqliteLogFile's, in queue order; they wait for the writer. The
    // assigned data-source id is written back into `source`.
    bool addDataSource(DataSource& source);
    bool addDataSourceProperty(const DataSourceProperty& property);
    bool addMetadata(const std::string& key, const PropertyValue& value);
    bool addResource(const std::string& name, const ByteBuffer& data);
    bool addBookmark(const Bookmark& bookmark);

    // Returns once everything accepted before the call is committed; false
    // when the writer has failed (stats().lastError says why).
    bool flush();
    // Flushes, stops and joins every thread, builds the time index unless
    // told not to (RecorderOptions::buildTimeIndexOnClose) and closes the
    // file. Idempotent; record() answers false afterwards. False when
    // anything accepted could not be written; an index that could not be
    // built leaves the file without it and says so in stats().lastError.
    bool close();

    RecorderStats stats() const;
    std::filesystem::path path() const;

private:
    std::unique_ptr<RecorderPrivate> d;
};

}  // namespace Marivane::Logging
