#include <logging/Algorithms.h>

#include "algorithms/MetadataHistory.h"
#include "store/StoreAccess.h"

#include <logging/SqliteLogFile.h>

#include <core/Chrono.h>
#include <core/Compression.h>
#include <core/Filesystem.h>
#include <database/DatabaseAccessError.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <memory>
#include <span>
#include <string_view>
#include <system_error>
#include <vector>

namespace Marivane::Logging::Algorithms {

namespace {

constexpr const char* kExportedSuffix = "_exported";

// Ids of the source entries that the new file receives, ascending. A view into
// the source's full id list.
using EntryRange = std::span<const int32_t>;

// Anything at all at the path (a file, a directory, even one whose status
// cannot be read) keeps us from writing there: an existing file is never
// overwritten.
bool somethingExistsAt(const std::string& path) {
    return Filesystem::somethingExistsAt(path, Filesystem::PathLookup::FollowLinks);
}

bool isEntryOf(const LogFileInterface& logFile, int entryId) {
    return logFile.readEntry(entryId).has_value();
}

// Both bounds -1 stand for a source without entries and need no checks; any
// other pair must name two existing entries of a non-empty file.
bool rangeIsAcceptable(const LogFileInterface& logFile, int startEntryId, int endEntryId) {
    if (endEntryId < startEntryId) {
        return false;
    }
    if (startEntryId == -1 && endEntryId == -1) {
        return true;
    }
    return logFile.getEntryCount() != 0 && logFile.getFirstEntryId() <= endEntryId &&
           logFile.getLastEntryId() >= startEntryId && isEntryOf(logFile, startEntryId) &&
           isEntryOf(logFile, endEntryId);
}

std::string derivedOutputPath(const LogFileInterface& logFile) {
    return Filesystem::makeUniqueFilePath(
               Filesystem::appendTextToFilename(logFile.getFilePath(), kExportedSuffix))
        .string();
}

// Any failure here (a time zone that is not text, a path that cannot be
// opened as a database) means there is no output to hand back, so it is
// reported as a refusal rather than as an error.
std::unique_ptr<SqliteLogFile> createOutputFile(const LogFileInterface& logFile, const std::string& path,
                                                const std::string& applicationName,
                                                const std::string& applicationVersion,
                                                signed char compressionLevel) {
    try {
        const std::string timeZone = getMetadataValue<std::string>(logFile, "currentTimeZone", std::string());
        const int64_t now = Chrono::msSinceUnixEpoch();
        return std::make_unique<SqliteLogFile>(path, timeZone, applicationName, applicationVersion,
                                               compressionLevel, now);
    } catch (...) {
        return nullptr;
    }
}

void copyResources(const LogFileInterface& logFile, LogFileInterface& output) {
    for (const LogResourceEntry& resource : logFile.getAllResources()) {
        output.addResource(resource.name, resource.data);
    }
}

// The const overload keeps each source's own id, so entries, properties and
// filters keep referring to the same ids in both files.
void copyDataSources(const LogFileInterface& logFile, LogFileInterface& output) {
    for (const DataSource& source : logFile.getDataSources()) {
        output.addDataSource(source);
    }
}

void copyDataSourceProperties(const LogFileInterface& logFile, LogFileInterface& output) {
    for (const DataSourceProperty& property : logFile.getAllDataSourceProperties()) {
        output.addDataSourceProperty(property);
    }
}

// The bounds need not be ids themselves here: the range runs from the first
// id not below the start to the last id not above the end.
EntryRange findEntryRange(const std::vector<int32_t>& allIds, int startEntryId, int endEntryId) {
    const auto first = std::lower_bound(allIds.begin(), allIds.end(), startEntryId);
    const auto pastLast = std::upper_bound(first, allIds.end(), endEntryId);
    return EntryRange(first, pastLast);
}

// Entries are written in batches of bounded size: far faster than one
// transaction per entry, and a failure part-way keeps every batch before it.
constexpr std::size_t kBatchEntries = 4096;
constexpr std::size_t kBatchBytes = 64 * 1024 * 1024;

// A batch that could not keep its writes (a full disk, an I/O error) would
// leave the output short without a word; like every other error of the
// copying steps, it reaches the caller.
void commitOrThrow(SqliteLogFile::WriteBatch& batch, const SqliteLogFile& output) {
    if (!batch.commit()) {
        throw Database::DatabaseAccessError("Cannot write '" + output.getFilePath().string() +
                                            "': " + output.getLastError());
    }
}

// Writes in batches of bounded size, committing each: a failure part-way
// keeps every batch before it and reaches the caller.
class BatchedWrites {
public:
    explicit BatchedWrites(SqliteLogFile& output) : output_(output), batch_(output.beginBatch()) {}

    void written(std::size_t bytes) {
        bytesInBatch_ += bytes;
        if (++entriesInBatch_ == kBatchEntries || bytesInBatch_ >= kBatchBytes) {
            commitOrThrow(batch_, output_);
            batch_ = output_.beginBatch();
            entriesInBatch_ = 0;
            bytesInBatch_ = 0;
        }
    }
    void finish() { commitOrThrow(batch_, output_); }

private:
    SqliteLogFile& output_;
    SqliteLogFile::WriteBatch batch_;
    std::size_t entriesInBatch_ = 0;
    std::size_t bytesInBatch_ = 0;
};

// A SqliteLogFile source is streamed entry by entry, in memory that does not
// depend on the range; the entries written are those the one read of the
// range would return. A payload whose levels match is copied as stored once
// it is known to expand (as the read would have expanded it), which spares
// compressing it again.
void streamEntries(const SqliteLogFile& source, SqliteLogFile& output, EntryRange range) {
    const bool copyStored =
        StoreAccess::of(source).compressionLevel == StoreAccess::of(output).compressionLevel;
    VisitOptions options;
    // Payloads are expanded here rather than by the read, so that a payload
    // that does not expand throws the codec's own error, as the read would.
    options.payloadForm = PayloadForm::Stored;
    std::string damage;
    options.onDamagedEntry = [&](int64_t entryId, const std::string& reason) {
        damage = "entry " + std::to_string(entryId) + ": " + reason;
        return false;
    };
    BatchedWrites writes(output);
    ByteBuffer expanded;
    DataEntry entry;
    const bool completed = source.visitEntries(
        Marivane::Logging::EntryRange{range.front(), range.back()}, EntryIndexFilter{},
        [&](const EntryView& view) {
            if (view.compressed) {
                Compression::uncompressInto(view.data, view.size, expanded);
            }
            if (copyStored) {
                entry.data.assign(view.data, view.data + view.size);
                // A failed write loses the batch, whose commit then throws.
                (void)StoreAccess::of(output).insertStoredEntry(view.timestamp, view.type, view.dataSourceId,
                                                                entry.data);
            } else {
                entry.dataSourceId = view.dataSourceId;
                entry.type = view.type;
                entry.timestamp = view.timestamp;
                if (view.compressed) {
                    entry.data.swap(expanded);
                } else {
                    entry.data.assign(view.data, view.data + view.size);
                }
                output.logData(entry);
            }
            writes.written(view.size);
            return true;
        },
        options);
    if (!completed) {
        throw Database::DatabaseAccessError("Cannot read '" + source.getFilePath().string() +
                                            "': " + (damage.empty() ? source.getLastFailure() : damage));
    }
    writes.finish();
}

// One read for the whole range: the new file numbers entries in write order,
// so they must arrive ascending, and splitting the read would only add round
// trips.
void copyEntries(const LogFileInterface& logFile, SqliteLogFile& output, EntryRange range) {
    if (range.empty()) {
        return;
    }
    if (const auto* source = dynamic_cast<const SqliteLogFile*>(&logFile)) {
        streamEntries(*source, output, range);
        return;
    }
    const std::vector<DataEntry> entries =
        logFile.readEntries(range.front(), range.back(), EntryIndexFilter{}, -1);
    BatchedWrites writes(output);
    for (const DataEntry& entry : entries) {
        output.logData(entry);
        writes.written(entry.data.size());
    }
    writes.finish();
}

// The new file numbers the copied entries 1, 2, ... in range order, so an id
// maps to one more than its position in the range.
int32_t renumberedEntryId(EntryRange range, int32_t sourceEntryId) {
    const auto position = std::lower_bound(range.begin(), range.end(), sourceEntryId) - range.begin();
    return static_cast<int32_t>(position + 1);
}

void copyBookmarks(const LogFileInterface& logFile, LogFileInterface& output, EntryRange range) {
    // Without entries there is nothing a bookmark could point at.
    if (range.empty()) {
        return;
    }
    for (Bookmark bookmark : logFile.getBookmarks()) {
        if (bookmark.entryId < range.front() || bookmark.entryId > range.back()) {
            continue;
        }
        bookmark.entryId = renumberedEntryId(range, bookmark.entryId);
        output.addBookmark(bookmark);
    }
}

}  // namespace

std::unique_ptr<LogFileInterface> slice(const LogFileInterface& logFile, int startEntryId, int endEntryId,
                                        std::string outputFilePath, const std::string& applicationName,
                                        const std::string& applicationVersion, signed char compressionLevel) {
    if (somethingExistsAt(outputFilePath)) {
        return nullptr;
    }
    if (!rangeIsAcceptable(logFile, startEntryId, endEntryId)) {
        return nullptr;
    }
    if (outputFilePath.empty()) {
        outputFilePath = derivedOutputPath(logFile);
    }
    std::unique_ptr<SqliteLogFile> output =
        createOutputFile(logFile, outputFilePath, applicationName, applicationVersion, compressionLevel);
    if (!output) {
        return nullptr;
    }

    // From here on the file exists; failures propagate and leave it on disk
    // for the caller to inspect or remove. Each step writes inside a batch,
    // whose guard commits what was written even when a step throws.
    {
        SqliteLogFile::WriteBatch batch = output->beginBatch();
        recordPreviousProducer(logFile, *output, "applicationName", applicationName);
        recordPreviousProducer(logFile, *output, "applicationVersion", applicationVersion);
        copyMetadata(logFile, *output);
        copyResources(logFile, *output);
        copyDataSources(logFile, *output);
        copyDataSourceProperties(logFile, *output);
        commitOrThrow(batch, *output);
    }

    const std::vector<int32_t> allIds = logFile.getEntryIndex(EntryIndexFilter{});
    const EntryRange range = findEntryRange(allIds, startEntryId, endEntryId);
    copyEntries(logFile, *output, range);
    {
        SqliteLogFile::WriteBatch batch = output->beginBatch();
        copyBookmarks(logFile, *output, range);
        commitOrThrow(batch, *output);
    }
    return output;
}

std::unique_ptr<LogFileInterface> clone(const LogFileInterface& logFile, const std::string& outputFilePath,
                                        const std::string& applicationName,
                                        const std::string& applicationVersion, signed char compressionLevel) {
    return slice(logFile, logFile.getFirstEntryId(), logFile.getLastEntryId(), outputFilePath,
                 applicationName, applicationVersion, compressionLevel);
}

}  // namespace Marivane::Logging::Algorithms
