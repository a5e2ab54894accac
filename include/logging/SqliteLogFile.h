#pragma once

#include <logging/Durability.h>
#include <logging/EntryIndexFilter.h>
#include <logging/EntryRange.h>
#include <logging/EntrySummary.h>
#include <logging/EntryView.h>
#include <logging/FailureKind.h>
#include <logging/LogFileInterface.h>
#include <logging/LoggingExport.h>
#include <logging/TimeRange.h>
#include <logging/VisitOptions.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace Marivane::Logging {

class SqliteLogFilePrivate;
class StoreAccess;

// A log file stored as one SQLite database (format version 4).
//
// Opening validates the file (NotALogFileError, LegacyLogFileError, or the
// database layer's DatabaseAccessError/FileIsNotDatabase) and repairs a
// damaged bookmarks table. Every operation runs its own statements: nothing
// is cached between calls but the compression level and format version.
// Writes are accepted on any file, created or opened.
//
// Ownership: the object owns its connection; moving transfers it and leaves
// the source empty (only destruction and assignment are allowed on it).
//
// Threads: one thread at a time, except that reads on one thread may run beside
// bookmark edits on another (the connection is serialized).
class MV_LOGGING_EXPORT SqliteLogFile final : public LogFileInterface {
public:
    // Opens the log file at `path`; a missing file or an empty database is
    // initialised as an empty log file (tables only, no metadata).
    explicit SqliteLogFile(const std::filesystem::path& path);

    // Creates a log file: opens `path` as above, then writes the six fixed
    // metadata keys. Does not refuse an existing file (the keys it holds are
    // then kept); callers check for existence first.
    SqliteLogFile(const std::string& path, const std::string& timeZone, const std::string& applicationName,
                  const std::string& applicationVersion, int8_t compressionLevel, int64_t createdDateTime);

    // Creates a log file like the constructor above, in the given durability
    // mode (the constructor above creates Fast files, byte for byte as it
    // always has).
    SqliteLogFile(const std::string& path, const std::string& timeZone, const std::string& applicationName,
                  const std::string& applicationVersion, int8_t compressionLevel, int64_t createdDateTime,
                  Durability durability);
    // As above; with `entryChecksums` the file also keeps a checksum of every
    // entry's stored payload, written by logData, batches and the recorder,
    // so that damage inside an uncompressed payload can be told from data
    // (VisitOptions::verifyChecksums, mvlog check, recovery). The checksums
    // live in a table of their own: a file created without them is exactly
    // what the constructors above create.
    SqliteLogFile(const std::string& path, const std::string& timeZone, const std::string& applicationName,
                  const std::string& applicationVersion, int8_t compressionLevel, int64_t createdDateTime,
                  Durability durability, bool entryChecksums);

    // Opens an existing log file for reading only: nothing is created,
    // repaired or written, so looking at a file never changes a byte of it.
    // Every write on the object fails (false, with a last error saying the
    // file was opened read-only); beginBatch throws DatabaseAccessError.
    // Throws like the open constructor (a missing path is an error, and an
    // empty database is not a log file), and Database::DatabaseBusy, naming
    // the file, when a writer keeps the file locked past the busy timeout.
    static SqliteLogFile openReadOnly(const std::filesystem::path& path);

    ~SqliteLogFile() override;
    SqliteLogFile(SqliteLogFile&& other) noexcept;
    SqliteLogFile& operator=(SqliteLogFile&& other) noexcept;
    SqliteLogFile(const SqliteLogFile&) = delete;
    SqliteLogFile& operator=(const SqliteLogFile&) = delete;

    // Groups writes into one SQLite transaction until commit() or destruction.
    // A batch is about speed, not atomicity: ending it always keeps what was
    // written, and a write refused by a constraint (an unknown data source, a
    // duplicate id) fails only itself. A full disk or an I/O error is
    // different: SQLite then may abandon the whole transaction, so the
    // batch's earlier writes are lost with the failing one; the batch goes on
    // with a new transaction for the writes that follow, and commit() answers
    // false.
    // Small entries (up to 4 KiB stored) of a data source the batch has
    // already written to wait in memory and go into the file 64 rows per
    // statement, stored exactly as one by one. Whatever runs next on the file
    // (a read, another write, the commit) writes them out first, so the file
    // reads its own writes at once. Should that meet a full disk or an I/O
    // error, the failure is counted at once (a write that wrote them out
    // answers false), and commit() answers false with it.
    // Destroying the file commits an open batch; a guard that outlives its
    // file then does nothing.
    class MV_LOGGING_EXPORT WriteBatch {
    public:
        WriteBatch(WriteBatch&& other) noexcept;
        WriteBatch& operator=(WriteBatch&& other) noexcept;
        WriteBatch(const WriteBatch&) = delete;
        WriteBatch& operator=(const WriteBatch&) = delete;
        // Commits if still open; errors are ignored here (call commit() to see
        // them).
        ~WriteBatch();

        // Ends the batch. False when it was already ended, when the commit
        // failed, or when SQLite abandoned some of its writes (the file's last
        // error then says why).
        bool commit();
        bool isOpen() const;

    private:
        friend class SqliteLogFile;
        // The file this batch belongs to, shared with the file, which clears
        // it when the batch ends or the file is destroyed.
        explicit WriteBatch(std::shared_ptr<SqliteLogFilePrivate*> file) : file_(std::move(file)) {}
        void commitIgnoringErrors() noexcept;
        std::shared_ptr<SqliteLogFilePrivate*> file_;
    };

    // Opens a write batch. Throws std::logic_error ("A write batch is already
    // open on this log file.") when one is open, and the database layer's
    // DatabaseAccessError when SQLite cannot begin a transaction.
    [[nodiscard]] WriteBatch beginBatch();
    bool isBatchOpen() const;

    // True for files opened with openReadOnly.
    bool isReadOnly() const;
    // The file's durability mode (kept by the file since its creation).
    Durability getDurability() const;
    // True when the file keeps a checksum of every entry (chosen at creation).
    bool hasEntryChecksums() const;

    // Failures inside the database, counted from opening: every failed read
    // and write adds one, also where the operation's result cannot tell (a
    // list read that stopped at a failure returns the rows read so far). A
    // caller compares the count before and after a read to know that an empty
    // or short answer is not the whole truth. Safe to call from any thread.
    uint64_t getFailureCount() const;
    // The message of the most recent counted failure, naming the file and the
    // reason (for example a lock held by another connection); empty before
    // the first.
    std::string getLastFailure() const;
    // The kind of the most recent counted failure; None before the first.
    FailureKind getLastFailureKind() const;
    // The kind of failure whose text getLastError holds: None while it holds
    // "No error", Refused for a refusal that names its reason, the database
    // failure's kind otherwise. It changes exactly when getLastError does.
    FailureKind getLastErrorKind() const;

    // ---- streaming reads and time -------------------------------------
    // Beyond the log-file interface: reads for files of any length, in memory
    // that does not grow with the file. Each counts its failures like every
    // other read (getFailureCount, getLastFailure).

    // Receives each entry of a streaming read; returns false to stop it.
    using EntryVisitor = std::function<bool(const EntryView& entry)>;
    using SummaryVisitor = std::function<bool(const EntrySummary& entry)>;

    // Hands every entry that lies in `range` and passes `filter` to `visitor`,
    // in options.order (ascending id unless told otherwise; in time order by
    // ascending timestamp, equal timestamps by ascending id), as a borrowed
    // view (valid during the call only). A read in time order or within a
    // time range sees the file as it was when the read began (one read
    // transaction, or the open write batch's).
    // No count pass, no copy per entry: payloads are expanded into one reused
    // buffer, or passed straight from the database when the file does not
    // compress. Returns true when every entry was visited or the visitor
    // stopped the read; false after a database failure or an entry that
    // cannot be handed out and that options.onDamagedEntry did not skip (the
    // last failure names the file and the entry). An exception thrown by the
    // visitor ends the read and reaches the caller.
    bool visitEntries(const EntryRange& range, const EntryIndexFilter& filter, const EntryVisitor& visitor,
                      const VisitOptions& options = VisitOptions()) const;
    // As visitEntries, without reading any payload: the ids, data sources,
    // types, timestamps and stored sizes of the matching entries.
    bool visitEntrySummaries(const EntryRange& range, const EntryIndexFilter& filter,
                             const SummaryVisitor& visitor) const;
    // As above, in options.order; options.onDamagedEntry decides about an
    // entry whose stored values cannot be handed out, as in visitEntries
    // (payloadForm and verifyChecksums do not apply: no payload is read).
    bool visitEntrySummaries(const EntryRange& range, const EntryIndexFilter& filter,
                             const SummaryVisitor& visitor, const VisitOptions& options) const;

    // The first and the last timestamp of the entries that pass `filter`;
    // absent when none does, or when the read fails (the failure count
    // grows). Fast with the time index and no filter; a scan otherwise.
    std::optional<TimeRange> getTimeRange(const EntryIndexFilter& filter = EntryIndexFilter()) const;
    // The entry with the earliest timestamp at or after `timestamp` (the
    // lowest id among equal timestamps) that passes `filter`; absent when
    // there is none or the read fails. Fast with the time index.
    std::optional<int32_t> findEntryAtOrAfter(int64_t timestamp,
                                              const EntryIndexFilter& filter = EntryIndexFilter()) const;
    // Whether entry `entryId` exists, without reading its payload.
    bool hasEntry(int32_t entryId) const;
    // The timestamp of entry `entryId`, without reading its payload; absent
    // when there is no such entry or the read fails.
    std::optional<int64_t> getEntryTimestamp(int32_t entryId) const;

    // Builds the index on entry timestamps that makes time-based reads answer
    // without scanning the file. Idempotent; false (with getLastError) on a
    // read-only file or a failure. Files get it only when asked: it costs
    // write throughput while recording and some space.
    bool createTimeIndex();
    // The same, calling `progress(built, total)` many times a second while
    // SQLite builds it: `total` is the entry count and `built` an
    // estimate of the entries indexed so far (SQLite builds an index in one
    // statement; the estimate counts the instructions it runs against those
    // its program takes per entry), never above `total` and ending at
    // `total` when the index is built. `progress` runs on this thread, must
    // not use this file, and an exception it throws is dropped.
    bool createTimeIndex(const std::function<void(uint64_t built, uint64_t total)>& progress);
    bool hasTimeIndex() const;

    // Resource payloads may be compressed (format version above 2).
    bool isResourceCompressionSupported() const;
    // Bookmarks carry payloads (format version above 3).
    bool isBookmarkPayloadsSupported() const;

    std::filesystem::path getFilePath() const override;
    std::vector<DataSource> getDataSources() const override;
    std::optional<PropertyValue> getDataSourceProperty(int32_t dataSourceId, std::string key) const override;
    std::vector<DataSourceProperty> getAllDataSourceProperties() const override;
    std::vector<int32_t> getEntryIndex(const EntryIndexFilter& filter) const override;
    int32_t getFirstEntryId() const override;
    int32_t getLastEntryId() const override;
    int32_t getEntryCount() const override;
    std::optional<DataEntry> readEntry(int32_t entryId) const override;
    std::optional<PropertyValue> getMetadataValue(std::string key) const override;
    std::vector<LogMetadataEntry> getAllMetadata() const override;
    std::optional<ByteBuffer> getResource(std::string name) const override;
    std::vector<LogResourceEntry> getAllResources() const override;
    std::optional<ByteBuffer> getThumbnail() const override;
    std::vector<Bookmark> getBookmarks() const override;
    bool addDataSource(DataSource& source) override;
    bool addDataSource(const DataSource& source) override;
    bool addDataSourceProperty(const DataSourceProperty& property) override;
    bool logData(const DataEntry& entry) override;
    using LogFileInterface::addMetadata;
    bool addMetadata(std::string key, PropertyValue value) override;
    using LogFileInterface::addResource;
    bool addResource(const std::string& name, const ByteBuffer& data) override;
    // Replaces every "thumbnail" resource with `data` stored as it is
    // (uncompressed, even in files whose resources are compressed), or adds
    // one through addResource when there is none.
    bool setThumbnail(const ByteBuffer& data) override;
    // Editing what a file says about itself, beside the insert-or-refuse
    // addMetadata and addResource. Allowed on opened files (not on read-only
    // ones); each is one transaction of its own, or part of an open write
    // batch. On false, getLastError says why.
    //
    // Gives `key` this value, replacing the one it has. The six keys set when
    // the file was created (createdDateTime, applicationName,
    // applicationVersion, currentTimeZone, logVersion, compressionLevel) are
    // refused: readers rely on them.
    bool setMetadata(const std::string& key, const PropertyValue& value);
    // Removes `key` and its value; false when the key is absent or one of the
    // six above.
    bool removeMetadata(const std::string& key);
    // Gives the resource `name` these bytes, replacing those it has, stored
    // as addResource stores them (compressed where the file compresses
    // resources), so they read back equal, the thumbnail included.
    bool replaceResource(const std::string& name, const ByteBuffer& data);
    // Removes the resource `name` (every row of that name); false when there
    // is none.
    bool removeResource(const std::string& name);
    bool addBookmark(const Bookmark& bookmark) override;
    bool updateBookmark(const Bookmark& bookmark) override;
    bool removeBookmark(const Bookmark& bookmark) override;
    std::string getLastError() const override;
    std::vector<DataEntry> readEntries(int32_t minimumEntryId, int32_t maximumEntryId,
                                       const EntryIndexFilter& filter, int32_t limit) const override;
    // This object.
    SqliteLogFile* sqliteLogFile() noexcept override;
    using LogFileInterface::sqliteLogFile;

private:
    // The library's own components (readers, the recorder, the C layer) reach
    // the private state through this internal class only.
    friend class StoreAccess;
    MV_LOGGING_HIDDEN explicit SqliteLogFile(std::unique_ptr<SqliteLogFilePrivate> state);
    std::unique_ptr<SqliteLogFilePrivate> d;
};

}  // namespace Marivane::Logging
