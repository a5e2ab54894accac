#include <logging/Copy.h>

#include "algorithms/MetadataHistory.h"
#include "derive/CopySteps.h"
#include "derive/OutputWriter.h"
#include "derive/PendingOutput.h"
#include "derive/StoredRows.h"
#include "store/StoreAccess.h"

#include <logging/Algorithms.h>
#include <logging/CompressionLevel.h>
#include <logging/SqliteLogFile.h>

#include <core/Chrono.h>

#include <algorithm>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <queue>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Marivane::Logging::Algorithms {

namespace {

constexpr uint64_t kProgressEvery = 4096;

std::string quoted(const std::filesystem::path& path) {
    std::string text(1, '\'');
    text += path.string();
    text += '\'';
    return text;
}

// The bounds of the options with -1 resolved against one input; nullopt when
// the input has no entry in them.
struct IdBounds {
    int32_t first;
    int32_t last;
};

std::optional<IdBounds> resolveIdBounds(const SqliteLogFile& input, const CopyOptions& options) {
    const SqliteLogFilePrivate& stored = StoreAccess::of(input);
    int32_t first = options.firstEntryId;
    int32_t last = options.lastEntryId;
    const Outcome firstRead = first == -1 ? stored.readFirstEntryId(first) : Outcome::success();
    const Outcome lastRead = last == -1 ? stored.readLastEntryId(last) : Outcome::success();
    if (const Outcome& failure = lastRead ? firstRead : lastRead; !failure) {
        // An empty answer that is really a failure would make an empty copy.
        throw std::runtime_error("Cannot copy the entries of '" + input.getFilePath().string() +
                                 "': " + failure.message());
    }
    if (first == -1 || last == -1 || last < first) {
        return std::nullopt;
    }
    return IdBounds{first, last};
}

SqliteLogFile openInput(const std::filesystem::path& path) {
    try {
        return SqliteLogFile::openReadOnly(path);
    } catch (const std::exception& error) {
        throw std::runtime_error("Cannot read '" + path.string() + "': " + error.what());
    }
}

// The new file, under the pending output's temporary name.
SqliteLogFile createOutput(const PendingOutput& pending, const SqliteLogFile& firstInput,
                           const CopyOptions& options) {
    const int8_t level = options.compressionLevel.value_or(StoreAccess::of(firstInput).compressionLevel);
    if (!isValidCompressionLevel(level)) {
        throw std::runtime_error("Cannot write '" + pending.finalPath().string() + "': compression level " +
                                 std::to_string(level) + " is outside -1 to 9.");
    }
    try {
        return SqliteLogFile(pending.temporaryPath().string(),
                             getMetadataValue<std::string>(firstInput, "currentTimeZone", std::string()),
                             options.applicationName, options.applicationVersion, level,
                             Chrono::msSinceUnixEpoch(), options.durability);
    } catch (const std::exception& error) {
        throw std::runtime_error("Cannot write '" + pending.finalPath().string() + "': " + error.what());
    }
}

void reportProgress(const CopyOptions& options, uint64_t written, uint64_t total) {
    if (options.progress && (written % kProgressEvery == 0 || written == total)) {
        options.progress(written, total);
    }
}

uint64_t entryCountOf(const SqliteLogFile& input) {
    const int32_t count = input.getEntryCount();
    return count > 0 ? static_cast<uint64_t>(count) : 0;
}

// Bookmarks of one input, waiting for the copied entry they will point at.
class BookmarkMapper {
public:
    // With a time range, a bookmark whose entry lies outside it is not
    // copied: moved to the next copied entry it would mark a moment it does
    // not belong to. (One on an entry a type or source filter leaves out
    // still moves to the next copied entry, as a slice moves one on a
    // missing id.)
    BookmarkMapper(const SqliteLogFile& input, std::optional<IdBounds> bounds, int64_t startTimestamp,
                   int64_t endTimestamp) {
        const bool timeBounded = startTimestamp != std::numeric_limits<int64_t>::min() ||
                                 endTimestamp != std::numeric_limits<int64_t>::max();
        for (Bookmark& bookmark : input.getBookmarks()) {
            if (!bounds || bookmark.entryId < bounds->first || bookmark.entryId > bounds->last) {
                ++outside_;
                continue;
            }
            if (timeBounded) {
                const std::optional<int64_t> timestamp = input.getEntryTimestamp(bookmark.entryId);
                if (timestamp && (*timestamp < startTimestamp || *timestamp > endTimestamp)) {
                    ++outsideTime_;
                    continue;
                }
            }
            pending_.push_back(std::move(bookmark));
        }
        std::stable_sort(pending_.begin(), pending_.end(),
                         [](const Bookmark& a, const Bookmark& b) { return a.entryId < b.entryId; });
    }

    // In ascending id order: every bookmark at or before the copied entry
    // `sourceId` moves to `newId`.
    void entryCopied(int32_t sourceId, int32_t newId) {
        while (next_ < pending_.size() && pending_[next_].entryId <= sourceId) {
            pending_[next_].entryId = newId;
            mapped_.push_back(std::move(pending_[next_]));
            ++next_;
        }
    }

    // In any order: only a bookmark on exactly this entry follows it.
    void entryCopiedExactly(int32_t sourceId, int32_t newId) {
        auto found =
            std::lower_bound(pending_.begin(), pending_.end(), sourceId,
                             [](const Bookmark& bookmark, int32_t id) { return bookmark.entryId < id; });
        for (; found != pending_.end() && found->entryId == sourceId; ++found) {
            Bookmark copy = *found;
            copy.entryId = newId;
            mapped_.push_back(std::move(copy));
            ++exactlyMapped_;
        }
    }

    void writeTo(OutputWriter& output, CopyReport& report, const std::string& inputName, bool exact) {
        for (const Bookmark& bookmark : mapped_) {
            output.require(output.file().addBookmark(bookmark), "adding a bookmark");
            ++report.bookmarks;
        }
        const std::size_t unplaced = (exact ? pending_.size() - exactlyMapped_ : pending_.size() - next_);
        if (unplaced > 0) {
            report.notes.push_back(std::to_string(unplaced) + " bookmark(s) of " + inputName +
                                   " point at entries that were not copied and were dropped.");
        }
        if (outside_ > 0) {
            report.notes.push_back(std::to_string(outside_) + " bookmark(s) of " + inputName +
                                   " lie outside the selected id range and were not copied.");
        }
        if (outsideTime_ > 0) {
            report.notes.push_back(std::to_string(outsideTime_) + " bookmark(s) of " + inputName +
                                   " mark entries outside the selected time range and were not copied.");
        }
    }

private:
    std::vector<Bookmark> pending_;
    std::vector<Bookmark> mapped_;
    std::size_t next_ = 0;
    std::size_t exactlyMapped_ = 0;
    std::size_t outside_ = 0;
    std::size_t outsideTime_ = 0;
};

RowSelection selectionFor(const CopyOptions& options, IdBounds bounds) {
    return RowSelection{bounds.first, bounds.last, options.startTimestamp, options.endTimestamp,
                        options.filter};
}

}  // namespace

CopyReport copy(const std::filesystem::path& source, const std::filesystem::path& output,
                const CopyOptions& options) {
    PendingOutput pending(output);
    const SqliteLogFile input = openInput(source);
    CopyReport report;
    {
        SqliteLogFile file = createOutput(pending, input, options);
        OutputWriter writer(file, pending.finalPath(), WriteChecks::EachWrite);
        const DescriptionCounts counts =
            writeDescription(input, writer, options.applicationName, options.applicationVersion);
        report.resources = counts.resources;
        report.dataSources = counts.dataSources;

        const std::optional<IdBounds> bounds = resolveIdBounds(input, options);
        BookmarkMapper bookmarks(input, bounds, options.startTimestamp, options.endTimestamp);
        if (bounds) {
            const uint64_t total = entryCountOf(input);
            const std::unique_ptr<EntrySource> rows = storedRowsOf(input, selectionFor(options, *bounds));
            copyEntries(*rows, writer, [&](int32_t sourceId, int32_t newId) {
                bookmarks.entryCopied(sourceId, newId);
                reportProgress(options, writer.entriesWritten(), total);
            });
        }
        report.entries = writer.entriesWritten();
        report.payloadsCopiedAsStored = writer.payloadsCopiedAsStored();
        writer.beginBatch();
        bookmarks.writeTo(writer, report, quoted(source), false);
        writer.commitBatch();
        pending.checkEntryCount(file, report.entries);
    }
    pending.commit();
    return report;
}

namespace {

// One input of a merge with its data-source ids as the new file knows them.
struct MergeInput {
    std::filesystem::path path;
    SqliteLogFile file;
    std::map<int8_t, int8_t> newSourceIds;
    std::optional<IdBounds> bounds;
    std::unique_ptr<StoredRows> rows;
    std::unique_ptr<BookmarkMapper> bookmarks;
};

std::string describe(const MergeInput& input) {
    return quoted(input.path);
}

void mergeDataSources(std::vector<MergeInput>& inputs, OutputWriter& writer, CopyReport& report) {
    std::map<int8_t, DataSource> taken;
    auto freeId = [&taken]() -> int8_t {
        for (int id = 1; id <= 127; ++id) {
            if (!taken.count(static_cast<int8_t>(id))) {
                return static_cast<int8_t>(id);
            }
        }
        throw std::runtime_error("Cannot merge: the inputs hold more than 127 distinct data sources.");
    };
    for (MergeInput& input : inputs) {
        for (DataSource source : input.file.getDataSources()) {
            const auto existing = taken.find(source.id);
            if (existing != taken.end() && existing->second.type == source.type &&
                existing->second.name == source.name) {
                input.newSourceIds[source.id] = source.id;
                continue;
            }
            const int8_t oldId = source.id;
            if (existing != taken.end()) {
                source.id = freeId();
                report.notes.push_back("Data source " + std::to_string(oldId) + " (\"" + source.name +
                                       "\") of " + describe(input) + " became data source " +
                                       std::to_string(source.id) + ": its id was taken by an earlier input.");
            }
            writer.require(writer.file().addDataSource(std::as_const(source)),
                           "adding data source '" + source.name + "'");
            ++report.dataSources;
            taken.emplace(source.id, source);
            input.newSourceIds[oldId] = source.id;
        }
    }
    // Properties follow their data source; a source shared by several inputs
    // takes each input's properties that it does not have yet.
    std::set<std::pair<int8_t, std::string>> written;
    for (MergeInput& input : inputs) {
        for (DataSourceProperty property : input.file.getAllDataSourceProperties()) {
            property.dataSourceId = input.newSourceIds.at(property.dataSourceId);
            if (!written.emplace(property.dataSourceId, property.propertyName).second) {
                continue;
            }
            writer.require(writer.file().addDataSourceProperty(property),
                           "adding property '" + property.propertyName + "'");
        }
    }
}

void mergeMetadataAndResources(std::vector<MergeInput>& inputs, OutputWriter& writer,
                               const CopyOptions& options, CopyReport& report) {
    SqliteLogFile& file = writer.file();
    recordPreviousProducer(inputs.front().file, file, "applicationName", options.applicationName);
    recordPreviousProducer(inputs.front().file, file, "applicationVersion", options.applicationVersion);
    // The merge's own keys come first: an input that is itself a merge holds
    // keys of the same names, which then differ and are noted, not clash.
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        const SqliteLogFile& input = inputs[i].file;
        const std::string prefix = "mergedInput" + std::to_string(i + 1);
        writer.require(file.addMetadata(prefix + "Path", inputs[i].path.string()), "adding metadata");
        for (const char* key : {"applicationName", "applicationVersion", "createdDateTime"}) {
            if (std::optional<PropertyValue> value = input.getMetadataValue(key)) {
                std::string suffix = key;
                suffix[0] = static_cast<char>(suffix[0] - 'a' + 'A');
                writer.require(file.addMetadata(prefix + suffix, *value), "adding metadata");
            }
        }
    }
    std::set<std::string> resourceNames;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        const SqliteLogFile& input = inputs[i].file;
        for (const LogMetadataEntry& entry : input.getAllMetadata()) {
            if (isFixedMetadataKey(entry.key)) {
                continue;
            }
            const std::optional<PropertyValue> held = file.getMetadataValue(entry.key);
            if (!held) {
                writer.require(file.addMetadata(entry.key, entry.value),
                               "adding metadata '" + entry.key + "'");
            } else if (*held != entry.value) {
                report.notes.push_back("Metadata \"" + entry.key + "\" of " + describe(inputs[i]) +
                                       " differs from an earlier input's and was not copied.");
            }
        }
        for (const LogResourceEntry& resource : input.getAllResources()) {
            if (!resourceNames.insert(resource.name).second) {
                report.notes.push_back("Resource \"" + resource.name + "\" of " + describe(inputs[i]) +
                                       " has the name of an earlier input's resource and was not copied.");
                continue;
            }
            writer.require(file.addResource(resource.name, resource.data),
                           "adding resource '" + resource.name + "'");
            ++report.resources;
        }
    }
}

// A row of one input with its data source as the new file numbers it.
EntryRow mergedRow(const MergeInput& input, const StoredRow& row) {
    return EntryRow{row.entryId,
                    row.timestamp,
                    row.type,
                    input.newSourceIds.at(row.dataSourceId),
                    row.payload.data(),
                    row.payload.size(),
                    StoreAccess::of(input.file).compressionLevel,
                    row.payload.size()};
}

// The next entry to write: the earliest timestamp, ties in input order.
struct Head {
    int64_t timestamp;
    std::size_t input;
    bool operator>(const Head& other) const {
        return timestamp != other.timestamp ? timestamp > other.timestamp : input > other.input;
    }
};

}  // namespace

CopyReport merge(const std::vector<std::filesystem::path>& inputPaths, const std::filesystem::path& output,
                 const CopyOptions& options) {
    if (inputPaths.empty()) {
        throw std::runtime_error("Cannot merge into '" + output.string() + "': no input files were given.");
    }
    PendingOutput pending(output);
    std::vector<MergeInput> inputs;
    inputs.reserve(inputPaths.size());
    for (const std::filesystem::path& path : inputPaths) {
        inputs.push_back(MergeInput{path, openInput(path), {}, std::nullopt, nullptr, nullptr});
    }
    CopyReport report;
    {
        SqliteLogFile file = createOutput(pending, inputs.front().file, options);
        OutputWriter writer(file, pending.finalPath(), WriteChecks::EachWrite);
        writer.beginBatch();
        mergeMetadataAndResources(inputs, writer, options, report);
        mergeDataSources(inputs, writer, report);
        writer.commitBatch();

        uint64_t total = 0;
        std::priority_queue<Head, std::vector<Head>, std::greater<>> heads;
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            MergeInput& input = inputs[i];
            input.bounds = resolveIdBounds(input.file, options);
            // A merge maps bookmarks exactly: one whose entry is not copied is
            // dropped, whatever left it out.
            input.bookmarks = std::make_unique<BookmarkMapper>(input.file, input.bounds,
                                                               std::numeric_limits<int64_t>::min(),
                                                               std::numeric_limits<int64_t>::max());
            if (!input.bounds) {
                continue;
            }
            total += entryCountOf(input.file);
            input.rows = std::make_unique<StoredRows>(input.file, selectionFor(options, *input.bounds),
                                                      CursorOrder::ByTimestamp);
            if (const StoredRow* row = input.rows->next()) {
                heads.push(Head{row->timestamp, i});
            }
        }
        while (!heads.empty()) {
            const Head head = heads.top();
            heads.pop();
            MergeInput& input = inputs[head.input];
            const StoredRow& row = *input.rows->current();
            const int32_t newId = writer.writeEntry(mergedRow(input, row));
            input.bookmarks->entryCopiedExactly(row.entryId, newId);
            reportProgress(options, writer.entriesWritten(), total);
            if (const StoredRow* next = input.rows->next()) {
                heads.push(Head{next->timestamp, head.input});
            }
        }
        writer.commitBatch();
        report.entries = writer.entriesWritten();
        report.payloadsCopiedAsStored = writer.payloadsCopiedAsStored();
        writer.beginBatch();
        for (MergeInput& input : inputs) {
            input.bookmarks->writeTo(writer, report, describe(input), true);
        }
        writer.commitBatch();
        pending.checkEntryCount(writer.file(), report.entries);
    }
    pending.commit();
    return report;
}

}  // namespace Marivane::Logging::Algorithms
