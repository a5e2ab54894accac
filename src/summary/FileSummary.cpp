#include <logging/EntryScan.h>
#include <logging/FileSummary.h>
#include <logging/MetadataValue.h>
#include <logging/SqliteLogFile.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <system_error>
#include <unordered_map>
#include <utility>

namespace Marivane::Logging {

namespace {

uint64_t sizeOnDisk(const std::filesystem::path& path) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    return error ? 0 : static_cast<uint64_t>(size);
}

void readFixedMetadata(const SqliteLogFile& file, FileSummary& summary) {
    summary.formatVersion = integerMetadata(file, "logVersion");
    summary.compressionLevel = integerMetadata(file, "compressionLevel");
    summary.createdDateTime = integerMetadata(file, "createdDateTime");
    summary.timeZone = textMetadata(file, "currentTimeZone");
    summary.applicationName = textMetadata(file, "applicationName");
    summary.applicationVersion = textMetadata(file, "applicationVersion");
    summary.oldApplicationName = textMetadata(file, "oldApplicationName");
    summary.oldApplicationVersion = textMetadata(file, "oldApplicationVersion");
    summary.metadata = file.getAllMetadata();
}

void readSources(const SqliteLogFile& file, FileSummary& summary) {
    const std::vector<DataSourceProperty> properties = file.getAllDataSourceProperties();
    for (const DataSource& source : file.getDataSources()) {
        SourceSummary sourceSummary;
        sourceSummary.source = source;
        std::copy_if(properties.begin(), properties.end(), std::back_inserter(sourceSummary.properties),
                     [&](const DataSourceProperty& property) { return property.dataSourceId == source.id; });
        summary.sources.push_back(std::move(sourceSummary));
    }
}

void noteTimestamp(std::optional<int64_t>& first, std::optional<int64_t>& last, int64_t timestamp) {
    first = first ? std::min(*first, timestamp) : timestamp;
    last = last ? std::max(*last, timestamp) : timestamp;
}

// What the entries contribute to a summary.
class EntryTally {
public:
    explicit EntryTally(FileSummary& summary) : summary_(summary) {
        for (SourceSummary& source : summary_.sources) {
            byId_[source.source.id] = &source;
        }
    }

    void add(const ScannedEntry& entry) {
        // Sizes come from expanding in pieces: nothing holds a payload.
        const std::size_t size = entry.forEachPiece([](const std::byte*, std::size_t) { return true; });
        summary_.payloadBytes += size;
        noteTimestamp(summary_.firstTimestamp, summary_.lastTimestamp, entry.timestamp);
        countType(entry.type);
        if (auto found = byId_.find(entry.dataSourceId); found != byId_.end()) {
            SourceSummary& source = *found->second;
            ++source.entryCount;
            source.payloadBytes += size;
            noteTimestamp(source.firstTimestamp, source.lastTimestamp, entry.timestamp);
        }
    }
    void addDamaged(const DamagedEntry& damaged) { summary_.damagedEntries.push_back(damaged); }

private:
    // Entries of one type usually come in long runs: the last type's count
    // is at hand.
    void countType(int32_t type) {
        if (lastTypeCount_ == nullptr || lastType_ != type) {
            lastType_ = type;
            lastTypeCount_ = &summary_.entryTypes[type];
        }
        ++*lastTypeCount_;
    }

    FileSummary& summary_;
    std::unordered_map<int8_t, SourceSummary*> byId_;
    int32_t lastType_ = 0;
    int64_t* lastTypeCount_ = nullptr;
};

// A file in good order is read once; anything else (damage, a writer adding
// entries, entries of missing data sources) goes through the listed scan,
// which names it, from a clean start.
bool tallyInOneRead(const SqliteLogFile& file, FileSummary& summary) {
    FileSummary unlisted = summary;
    EntryTally tally(unlisted);
    if (!EntryScan::runWholeFileUnlisted(
            file, summary.entryCount, [&](const ScannedEntry& entry) { tally.add(entry); },
            [&](const DamagedEntry& damaged) { tally.addDamaged(damaged); })) {
        return false;
    }
    summary = std::move(unlisted);
    return true;
}

void tallyEntries(const SqliteLogFile& file, FileSummary& summary) {
    if (tallyInOneRead(file, summary)) {
        return;
    }
    EntryTally tally(summary);
    EntryScan scan(file, EntrySelection{});
    scan.run([&](const ScannedEntry& entry) { tally.add(entry); },
             [&](const DamagedEntry& damaged) { tally.addDamaged(damaged); });
    // The scan covers the whole file: what it did not meet is hidden.
    if (summary.entryCount >= 0) {
        summary.entriesMissingFromIndex =
            std::max<int64_t>(0, summary.entryCount - static_cast<int64_t>(scan.metCount()));
    }
}

void readResources(const SqliteLogFile& file, FileSummary& summary) {
    try {
        for (const LogResourceEntry& resource : file.getAllResources()) {
            summary.resources.push_back({resource.name, resource.data.size()});
        }
    } catch (const std::exception& error) {
        summary.resourceError = error.what();
    }
}

void readBookmarks(const SqliteLogFile& file, FileSummary& summary) {
    try {
        summary.bookmarks = file.getBookmarks();
    } catch (const std::exception& error) {
        summary.bookmarkError = error.what();
    }
}

}  // namespace

std::optional<uint64_t> FileSummary::durationMs() const {
    if (!firstTimestamp || !lastTimestamp) {
        return std::nullopt;
    }
    // Two's complement wraps back into range: the difference of any two
    // int64 values fits in 64 unsigned bits.
    return static_cast<uint64_t>(*lastTimestamp) - static_cast<uint64_t>(*firstTimestamp);
}

FileSummary summarizeLogFile(const SqliteLogFile& file) {
    FileSummary summary;
    summary.path = file.getFilePath();
    summary.sizeOnDisk = sizeOnDisk(summary.path);
    summary.durability = file.getDurability();
    readFixedMetadata(file, summary);
    summary.entryCount = file.getEntryCount();
    summary.firstEntryId = file.getFirstEntryId();
    summary.lastEntryId = file.getLastEntryId();
    readSources(file, summary);
    tallyEntries(file, summary);
    readResources(file, summary);
    readBookmarks(file, summary);
    return summary;
}

}  // namespace Marivane::Logging
