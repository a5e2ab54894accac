#include "derive/CopySteps.h"

#include "algorithms/MetadataHistory.h"
#include "store/StoreAccess.h"

#include <core/Compression.h>
#include <database/DatabaseAccessError.h>

#include <utility>
#include <vector>

namespace Marivane::Logging::Algorithms {

DescriptionCounts writeDescription(const LogFileInterface& input, OutputWriter& writer,
                                   const std::string& applicationName,
                                   const std::string& applicationVersion) {
    SqliteLogFile& file = writer.file();
    DescriptionCounts counts;
    writer.beginBatch();
    recordPreviousProducer(input, file, "applicationName", applicationName);
    recordPreviousProducer(input, file, "applicationVersion", applicationVersion);
    copyMetadata(input, file);
    for (const LogResourceEntry& resource : input.getAllResources()) {
        writer.require(file.addResource(resource.name, resource.data),
                       "adding resource '" + resource.name + "'");
        ++counts.resources;
    }
    for (const DataSource& dataSource : input.getDataSources()) {
        writer.require(file.addDataSource(dataSource), "adding data source '" + dataSource.name + "'");
        ++counts.dataSources;
    }
    for (const DataSourceProperty& property : input.getAllDataSourceProperties()) {
        writer.require(file.addDataSourceProperty(property),
                       "adding property '" + property.propertyName + "'");
    }
    writer.commitBatch();
    return counts;
}

void copyEntries(EntrySource& entries, OutputWriter& writer, const EntryCopied& copied) {
    entries.forEach([&](const EntryRow& row) { copied(row.entryId, writer.writeEntry(row)); });
    writer.commitBatch();
}

namespace {

class StoredRowSource final : public EntrySource {
public:
    StoredRowSource(const SqliteLogFile& file, const RowSelection& selection)
        : rows_(file, selection, CursorOrder::ById), level_(StoreAccess::of(file).compressionLevel) {}

    void forEach(const Visitor& visit) override {
        while (const StoredRow* row = rows_.next()) {
            visit(EntryRow{row->entryId, row->timestamp, row->type, row->dataSourceId, row->payload.data(),
                           row->payload.size(), level_, row->payload.size()});
        }
    }

private:
    StoredRows rows_;
    int8_t level_;
};

// Payloads are expanded here rather than by the read, so that a payload that
// does not expand throws the codec's own error, as an expanding read would;
// one whose levels match then goes on as stored.
class StreamedRange final : public EntrySource {
public:
    StreamedRange(const SqliteLogFile& file, EntryRange range, int8_t outputLevel)
        : file_(file),
          range_(range),
          level_(StoreAccess::of(file).compressionLevel),
          outputLevel_(outputLevel) {}

    void forEach(const Visitor& visit) override {
        VisitOptions options;
        options.payloadForm = PayloadForm::Stored;
        std::string damage;
        options.onDamagedEntry = [&](int64_t entryId, const std::string& reason) {
            damage = "entry " + std::to_string(entryId) + ": " + reason;
            return false;
        };
        const bool completed = file_.visitEntries(
            range_, EntryIndexFilter{},
            [&](const EntryView& view) {
                visit(rowOf(view));
                return true;
            },
            options);
        if (!completed) {
            throw Database::DatabaseAccessError("Cannot read '" + file_.getFilePath().string() +
                                                "': " + (damage.empty() ? file_.getLastFailure() : damage));
        }
    }

private:
    EntryRow rowOf(const EntryView& view) {
        EntryRow row{view.entryId,
                     view.timestamp,
                     view.type,
                     view.dataSourceId,
                     view.data,
                     view.size,
                     view.compressed ? level_ : int8_t{0},
                     view.size};
        if (view.compressed) {
            Compression::uncompressInto(view.data, view.size, expanded_);
            if (level_ != outputLevel_) {
                row.payload = expanded_.data();
                row.payloadSize = expanded_.size();
                row.level = 0;
            }
        }
        return row;
    }

    const SqliteLogFile& file_;
    EntryRange range_;
    int8_t level_;
    int8_t outputLevel_;
    ByteBuffer expanded_;
};

// A file known only through its interface: one read of the whole range, as
// the new file numbers entries in write order and needs them ascending.
class ReadRange final : public EntrySource {
public:
    ReadRange(const LogFileInterface& file, int32_t firstEntryId, int32_t lastEntryId)
        : file_(file), firstEntryId_(firstEntryId), lastEntryId_(lastEntryId) {}

    void forEach(const Visitor& visit) override {
        const std::vector<DataEntry> entries =
            file_.readEntries(firstEntryId_, lastEntryId_, EntryIndexFilter{}, -1);
        for (const DataEntry& entry : entries) {
            visit(EntryRow{entry.entryId, entry.timestamp, entry.type, entry.dataSourceId, entry.data.data(),
                           entry.data.size(), 0, entry.data.size()});
        }
    }

private:
    const LogFileInterface& file_;
    int32_t firstEntryId_;
    int32_t lastEntryId_;
};

}  // namespace

std::unique_ptr<EntrySource> storedRowsOf(const SqliteLogFile& file, const RowSelection& selection) {
    return std::make_unique<StoredRowSource>(file, selection);
}

std::unique_ptr<EntrySource> entryRangeOf(const LogFileInterface& file, int32_t firstEntryId,
                                          int32_t lastEntryId, int8_t outputLevel) {
    if (const SqliteLogFile* stored = file.sqliteLogFile()) {
        return std::make_unique<StreamedRange>(*stored, EntryRange{firstEntryId, lastEntryId}, outputLevel);
    }
    return std::make_unique<ReadRange>(file, firstEntryId, lastEntryId);
}

}  // namespace Marivane::Logging::Algorithms
