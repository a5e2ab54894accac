#include <logging/SqliteLogFile.h>

#include "SqliteLogFilePrivate.h"
#include "model/FixedMetadataKeys.h"

#include <core/Compression.h>
#include "services/database/ColumnAccess.h"
#include "store/BindParameterVisitor.h"
#include "store/ReturnPropertyValueVisitor.h"

#include <algorithm>
#include <array>
#include <utility>
#include <variant>

namespace Marivane::Logging {

using Database::BindMode;
using Database::getValueFromColumn;
using Database::SqliteQuery;
using Database::StepRow;

namespace {

constexpr int8_t kCurrentLogVersion = 4;
constexpr const char* kThumbnailName = "thumbnail";

int8_t lowEightBits(int value) {
    return static_cast<int8_t>(value);
}

// A copy of the column as a PropertyValue, or absent for NULL.
std::optional<PropertyValue> readPropertyValue(const SqliteQuery& query, int column) {
    Database::ColumnValue value = query.getValueFromColumn(column);
    if (!value) {
        return std::nullopt;
    }
    return std::visit(Database::ReturnPropertyValueVisitor{}, *value);
}

}  // namespace

// ---- life ---------------------------------------------------------------

SqliteLogFile::SqliteLogFile(const std::filesystem::path& path)
    : d(std::make_unique<SqliteLogFilePrivate>(path, OpenPolicy::OpenOrCreate)) {}

SqliteLogFile::SqliteLogFile(std::unique_ptr<SqliteLogFilePrivate> state) : d(std::move(state)) {}

SqliteLogFile SqliteLogFile::openReadOnly(const std::filesystem::path& path) {
    return SqliteLogFile(std::make_unique<SqliteLogFilePrivate>(path, OpenPolicy::ReadOnly));
}

SqliteLogFile::SqliteLogFile(const std::string& path, const std::string& timeZone,
                             const std::string& applicationName, const std::string& applicationVersion,
                             int8_t compressionLevel, int64_t createdDateTime)
    : SqliteLogFile(path, timeZone, applicationName, applicationVersion, compressionLevel, createdDateTime,
                    Durability::Fast) {}

SqliteLogFile::SqliteLogFile(const std::string& path, const std::string& timeZone,
                             const std::string& applicationName, const std::string& applicationVersion,
                             int8_t compressionLevel, int64_t createdDateTime, Durability durability)
    : SqliteLogFile(path, timeZone, applicationName, applicationVersion, compressionLevel, createdDateTime,
                    durability, false) {}

SqliteLogFile::SqliteLogFile(const std::string& path, const std::string& timeZone,
                             const std::string& applicationName, const std::string& applicationVersion,
                             int8_t compressionLevel, int64_t createdDateTime, Durability durability,
                             bool entryChecksums)
    : d(nullptr) {
    // In the order of kFixedMetadataKeys.
    const std::array<PropertyValue, kFixedMetadataKeys.size()> values = {
        createdDateTime,          applicationName, applicationVersion, timeZone, int32_t{kCurrentLogVersion},
        int32_t{compressionLevel}};
    CreationMetadata metadata;
    for (std::size_t i = 0; i < values.size(); ++i) {
        metadata.emplace_back(std::string(kFixedMetadataKeys[i]), values[i]);
    }
    // A new file gets its tables and metadata in one commit: a reader never
    // sees a log file whose compression level is not written yet.
    d = std::make_unique<SqliteLogFilePrivate>(std::filesystem::path(path), OpenPolicy::OpenOrCreate,
                                               durability, &metadata, entryChecksums);
    if (!d->creationMetadataWritten) {
        // An existing log file keeps its own keys (addMetadata refuses them);
        // where creation failed, the writes fail as they would have.
        WriteBatch batch = beginBatch();
        for (const auto& [key, value] : metadata) {
            // A key that cannot be written is the file's last error; creation goes on.
            (void)addMetadata(key, value);
        }
        (void)batch.commit();
    }
    d->compressionLevel = compressionLevel;
    d->logVersion = kCurrentLogVersion;
}

SqliteLogFile::~SqliteLogFile() = default;
SqliteLogFile::SqliteLogFile(SqliteLogFile&& other) noexcept = default;
SqliteLogFile& SqliteLogFile::operator=(SqliteLogFile&& other) noexcept = default;

SqliteLogFile::WriteBatch SqliteLogFile::beginBatch() {
    return WriteBatch(d->beginBatch());
}

bool SqliteLogFile::isBatchOpen() const {
    return d->batchOpen();
}

SqliteLogFile::WriteBatch::WriteBatch(WriteBatch&& other) noexcept : file_(std::move(other.file_)) {}

SqliteLogFile::WriteBatch& SqliteLogFile::WriteBatch::operator=(WriteBatch&& other) noexcept {
    if (this != &other) {
        commitIgnoringErrors();
        file_ = std::move(other.file_);
    }
    return *this;
}

SqliteLogFile::WriteBatch::~WriteBatch() {
    commitIgnoringErrors();
}

bool SqliteLogFile::WriteBatch::isOpen() const {
    return file_ && *file_;
}

bool SqliteLogFile::WriteBatch::commit() {
    const std::shared_ptr<SqliteLogFilePrivate*> file = std::move(file_);
    return file && *file && (*file)->endBatch().ok();
}

void SqliteLogFile::WriteBatch::commitIgnoringErrors() noexcept {
    try {
        commit();
    } catch (...) {
        // A failed commit is recorded as the file's last error.
    }
}

bool SqliteLogFile::isReadOnly() const {
    return d->isReadOnly();
}

Durability SqliteLogFile::getDurability() const {
    return d->durability;
}

bool SqliteLogFile::hasEntryChecksums() const {
    return d->entryChecksums;
}

uint64_t SqliteLogFile::getFailureCount() const {
    return d->failureCount();
}

std::string SqliteLogFile::getLastFailure() const {
    return d->lastFailure();
}

FailureKind SqliteLogFile::getLastFailureKind() const {
    return d->lastFailureKind();
}

bool SqliteLogFile::isResourceCompressionSupported() const {
    return d->isResourceCompressionSupported();
}

bool SqliteLogFile::isBookmarkPayloadsSupported() const {
    return d->isBookmarkPayloadsSupported();
}

std::filesystem::path SqliteLogFile::getFilePath() const {
    return d->filePath;
}

std::string SqliteLogFile::getLastError() const {
    return d->lastError;
}

FailureKind SqliteLogFile::getLastErrorKind() const {
    return d->lastErrorKind;
}

// ---- data sources, properties, entries ---------------------------------------

bool SqliteLogFile::addDataSource(DataSource& source) {
    SqliteQuery query(d->database,
                      "INSERT INTO dataSources (dataSourceType, dataSourceName) VALUES (:dataSourceType, "
                      ":dataSourceName);");
    query.bindParameter(":dataSourceType", int32_t{source.type});
    query.bindParameter(":dataSourceName", source.name, BindMode::NoCopy);
    if (!d->executeWrite(query)) {
        return false;
    }
    source.id = lowEightBits(static_cast<int>(d->database.getLastInsertedRowId()));
    return true;
}

bool SqliteLogFile::addDataSource(const DataSource& source) {
    SqliteQuery query(d->database,
                      "INSERT INTO dataSources (dataSourceId, dataSourceType, dataSourceName) VALUES "
                      "(:dataSourceId, :dataSourceType, :dataSourceName);");
    query.bindParameter(":dataSourceId", int32_t{source.id});
    query.bindParameter(":dataSourceType", int32_t{source.type});
    query.bindParameter(":dataSourceName", source.name, BindMode::NoCopy);
    return d->executeWrite(query).ok();
}

bool SqliteLogFile::addDataSourceProperty(const DataSourceProperty& property) {
    SqliteQuery query(
        d->database,
        "INSERT INTO dataSourceProperties (dataSourceId, key, value) VALUES (:dataSourceId, :key, "
        ":value);");
    query.bindParameter(":dataSourceId", int32_t{property.dataSourceId});
    query.bindParameter(":key", property.propertyName, BindMode::NoCopy);
    std::visit(Database::BindParameterVisitor(query, ":value"), property.value);
    return d
        ->executeWrite(
            query,
            "Attempted to add a data source property for a data source that did not exist in the file.")
        .ok();
}

bool SqliteLogFile::logData(const DataEntry& entry) {
    if (!d->compressesPayloads()) {
        return d->insertStoredEntry(entry.timestamp, entry.type, entry.dataSourceId, entry.data).ok();
    }
    const std::size_t size = Compression::compressInto(entry.data.data(), entry.data.size(),
                                                       d->compressionLevel, d->compressionBuffer);
    return d
        ->insertStoredBytes(entry.timestamp, entry.type, entry.dataSourceId, d->compressionBuffer.data(),
                            size)
        .ok();
}

std::vector<DataSource> SqliteLogFile::getDataSources() const {
    SqliteQuery query(d->database, "SELECT dataSourceId, dataSourceType, dataSourceName FROM dataSources;");
    std::vector<DataSource> sources;
    while (query.executeStep() == StepRow) {
        DataSource source;
        source.name = getValueFromColumn<std::string>(query, 2).value_or(std::string());
        source.type = static_cast<MV_LogDataSourceType>(getValueFromColumn<int>(query, 1).value_or(0));
        source.id = lowEightBits(getValueFromColumn<int>(query, 0).value_or(-1));
        sources.push_back(std::move(source));
    }
    return answered(std::move(sources), d->finishRead(query, "Reading the data sources of"));
}

std::optional<PropertyValue> SqliteLogFile::getDataSourceProperty(int32_t dataSourceId,
                                                                  std::string key) const {
    SqliteQuery query(d->database,
                      "SELECT value FROM dataSourceProperties WHERE dataSourceId = :id AND key = :key;");
    query.bindParameter(":id", dataSourceId);
    query.bindParameter(":key", key, BindMode::NoCopy);
    query.executeStep();
    const Outcome read = d->finishRead(query, "Reading a data-source property of");
    return answered(readPropertyValue(query, 0), read);
}

std::vector<DataSourceProperty> SqliteLogFile::getAllDataSourceProperties() const {
    std::vector<DataSourceProperty> properties;
    {
        SqliteQuery count(d->database, "SELECT COUNT(*) FROM dataSourceProperties;");
        count.executeStep();
        const Outcome counted = d->finishRead(count, "Counting the data-source properties of");
        properties.reserve(
            static_cast<std::size_t>(answered(getValueFromColumn<int>(count, 0).value_or(0), counted)));
    }
    if (properties.capacity() == 0) {
        return properties;
    }
    SqliteQuery query(d->database, "SELECT dataSourceId, key, value FROM dataSourceProperties;");
    while (query.executeStep() == StepRow) {
        DataSourceProperty property;
        if (std::optional<PropertyValue> value = readPropertyValue(query, 2)) {
            property.value = std::move(*value);
        }
        property.dataSourceId = lowEightBits(getValueFromColumn<int>(query, 0).value_or(-1));
        property.propertyName = getValueFromColumn<std::string>(query, 1).value_or(std::string());
        properties.push_back(std::move(property));
    }
    return answered(std::move(properties), d->finishRead(query, "Reading the data-source properties of"));
}

int32_t SqliteLogFile::getFirstEntryId() const {
    int32_t id = -1;
    const Outcome read = d->readFirstEntryId(id);
    return answered(id, read);
}

int32_t SqliteLogFile::getLastEntryId() const {
    int32_t id = -1;
    const Outcome read = d->readLastEntryId(id);
    return answered(id, read);
}

int32_t SqliteLogFile::getEntryCount() const {
    int32_t count = -1;
    const Outcome read = d->readSingleInteger("SELECT COUNT(*) FROM data;", count);
    return answered(count, read);
}

std::optional<DataEntry> SqliteLogFile::readEntry(int32_t entryId) const {
    SqliteQuery query(d->database,
                      "SELECT timestamp, type, dataSourceId, payload FROM data WHERE entryId = :entryId;");
    query.bindParameter(":entryId", entryId);
    if (query.executeStep() != StepRow) {
        return answered(std::optional<DataEntry>(), d->finishRead(query, "Reading an entry of"));
    }
    DataEntry entry;
    entry.entryId = entryId;
    entry.timestamp = getValueFromColumn<int64_t>(query, 0).value_or(0);
    entry.data = d->expandPayload(getValueFromColumn<ByteBuffer>(query, 3).value_or(ByteBuffer()));
    entry.type = getValueFromColumn<int>(query, 1).value_or(0);
    entry.dataSourceId = lowEightBits(getValueFromColumn<int>(query, 2).value_or(-1));
    return entry;
}

// ---- metadata, resources, thumbnail ---------------------------------------------

bool SqliteLogFile::addMetadata(std::string key, PropertyValue value) {
    {
        SqliteQuery existing(d->database, "SELECT * FROM metadata WHERE key = :key;");
        existing.bindParameter(":key", key, BindMode::NoCopy);
        if (existing.executeStep() == StepRow) {
            return false;
        }
        if (!d->finishRead(existing, "Looking up a metadata key of")) {
            d->setLastErrorFor(existing.status());
            return false;
        }
    }
    SqliteQuery insert(d->database, "INSERT INTO metadata (key, value) VALUES (:key, :value);");
    insert.bindParameter(":key", key, BindMode::NoCopy);
    std::visit(Database::BindParameterVisitor(insert, ":value"), value);
    return d->executeWrite(insert).ok();
}

std::optional<PropertyValue> SqliteLogFile::getMetadataValue(std::string key) const {
    SqliteQuery query(d->database, "SELECT value FROM metadata WHERE key = :key;");
    query.bindParameter(":key", key, BindMode::NoCopy);
    query.executeStep();
    const Outcome read = d->finishRead(query, "Reading metadata of");
    return answered(readPropertyValue(query, 0), read);
}

std::vector<LogMetadataEntry> SqliteLogFile::getAllMetadata() const {
    SqliteQuery query(d->database, "SELECT key, value FROM metadata;");
    std::vector<LogMetadataEntry> entries;
    while (query.executeStep() == StepRow) {
        if (std::optional<PropertyValue> value = readPropertyValue(query, 1)) {
            entries.push_back(
                {getValueFromColumn<std::string>(query, 0).value_or(std::string()), std::move(*value)});
        }
    }
    return answered(std::move(entries), d->finishRead(query, "Reading the metadata of"));
}

bool SqliteLogFile::addResource(const std::string& name, const ByteBuffer& data) {
    {
        SqliteQuery existing(d->database, "SELECT * FROM resources WHERE name = :name;");
        existing.bindParameter(":name", name, BindMode::NoCopy);
        if (existing.executeStep() == StepRow) {
            return false;
        }
        if (!d->finishRead(existing, "Looking up a resource name of")) {
            d->setLastErrorFor(existing.status());
            return false;
        }
    }
    const bool compress = d->isResourceCompressionSupported() && d->compressesPayloads();
    ByteBuffer compressed;
    if (compress) {
        compressed = Compression::compress(data, d->compressionLevel);
    }
    SqliteQuery insert(d->database, "INSERT INTO resources (name, payload) VALUES (:name, :payload);");
    insert.bindParameter(":name", name, BindMode::NoCopy);
    insert.bindParameter(":payload", compress ? compressed : data, BindMode::NoCopy);
    return d->executeWrite(insert).ok();
}

namespace {

// Resources are compressed only when the format allows it and the file
// compresses at all.
ByteBuffer expandResource(const SqliteLogFilePrivate& file, ByteBuffer stored) {
    if (file.isResourceCompressionSupported() && file.compressesPayloads()) {
        return Compression::uncompress(stored);
    }
    return stored;
}

}  // namespace

std::optional<ByteBuffer> SqliteLogFile::getResource(std::string name) const {
    SqliteQuery query(d->database, "SELECT payload FROM resources WHERE name = :name;");
    query.bindParameter(":name", name, BindMode::NoCopy);
    if (query.executeStep() != StepRow) {
        return answered(std::optional<ByteBuffer>(), d->finishRead(query, "Reading a resource of"));
    }
    return expandResource(*d, getValueFromColumn<ByteBuffer>(query, 0).value_or(ByteBuffer()));
}

std::vector<LogResourceEntry> SqliteLogFile::getAllResources() const {
    SqliteQuery query(d->database, "SELECT name, payload FROM resources;");
    std::vector<LogResourceEntry> resources;
    while (query.executeStep() == StepRow) {
        ByteBuffer data = expandResource(*d, getValueFromColumn<ByteBuffer>(query, 1).value_or(ByteBuffer()));
        resources.push_back(
            {getValueFromColumn<std::string>(query, 0).value_or(std::string()), std::move(data)});
    }
    return answered(std::move(resources), d->finishRead(query, "Reading the resources of"));
}

std::optional<ByteBuffer> SqliteLogFile::getThumbnail() const {
    return getResource(kThumbnailName);
}

// ---- editing metadata and resources ------------------------------------------------

namespace {

// The keys every log file gets when it is created: readers rely on them.
bool isFixedMetadataKey(const std::string& key) {
    return std::find(kFixedMetadataKeys.begin(), kFixedMetadataKeys.end(), key) != kFixedMetadataKeys.end();
}

// A refusal answers false with its message as the last error.
bool refuse(const SqliteLogFilePrivate& file, std::string message) {
    file.setLastError(FailureKind::Refused, message);
    return answered(false, file.recordFailureMessage(FailureKind::Refused, std::move(message)));
}

bool refuseFixedKey(const SqliteLogFilePrivate& file, const std::string& key) {
    return refuse(file, "The metadata key '" + key + "' of '" + file.filePath.string() +
                            "' is set when a log file is created and cannot be changed or removed.");
}

// Whether a row with `value` in `column` exists; absent when the read failed
// (recorded).
std::optional<bool> rowExists(const SqliteLogFilePrivate& file, const char* sql, const std::string& value,
                              const char* operation) {
    SqliteQuery query(file.database, sql);
    query.bindParameter(":value", value, BindMode::NoCopy);
    if (query.executeStep() == StepRow) {
        return true;
    }
    if (!file.finishRead(query, operation)) {
        file.setLastErrorFor(query.status());
        return std::nullopt;
    }
    return false;
}

bool deleteRows(SqliteLogFilePrivate& file, const char* sql, const std::string& value) {
    SqliteQuery remove(file.database, sql);
    remove.bindParameter(":value", value, BindMode::NoCopy);
    return file.executeWrite(remove).ok();
}

constexpr const char* kMetadataKeyExists = "SELECT 1 FROM metadata WHERE key = :value;";
constexpr const char* kRemoveMetadataKey = "DELETE FROM metadata WHERE key = :value;";
constexpr const char* kResourceExists = "SELECT 1 FROM resources WHERE name = :value;";
constexpr const char* kRemoveResource = "DELETE FROM resources WHERE name = :value;";

}  // namespace

bool SqliteLogFile::setMetadata(const std::string& key, const PropertyValue& value) {
    if (isFixedMetadataKey(key)) {
        return refuseFixedKey(*d, key);
    }
    return d->writeTogether(
        [&] { return deleteRows(*d, kRemoveMetadataKey, key) && addMetadata(key, value); });
}

bool SqliteLogFile::removeMetadata(const std::string& key) {
    if (isFixedMetadataKey(key)) {
        return refuseFixedKey(*d, key);
    }
    const std::optional<bool> exists = rowExists(*d, kMetadataKeyExists, key, "Looking up a metadata key of");
    if (!exists) {
        return false;
    }
    if (!*exists) {
        return refuse(*d, "The file '" + d->filePath.string() + "' has no metadata key '" + key + "'.");
    }
    return deleteRows(*d, kRemoveMetadataKey, key);
}

bool SqliteLogFile::replaceResource(const std::string& name, const ByteBuffer& data) {
    return d->writeTogether([&] { return deleteRows(*d, kRemoveResource, name) && addResource(name, data); });
}

bool SqliteLogFile::removeResource(const std::string& name) {
    const std::optional<bool> exists = rowExists(*d, kResourceExists, name, "Looking up a resource name of");
    if (!exists) {
        return false;
    }
    if (!*exists) {
        return refuse(*d, "The file '" + d->filePath.string() + "' has no resource '" + name + "'.");
    }
    return deleteRows(*d, kRemoveResource, name);
}

bool SqliteLogFile::setThumbnail(const ByteBuffer& data) {
    std::optional<int> count;
    {
        SqliteQuery query(d->database, "SELECT COUNT(*) FROM resources WHERE name = 'thumbnail';");
        query.executeStep();
        count = getValueFromColumn<int>(query, 0);
        if (!count) {
            const Outcome counted = d->finishRead(query, "Counting the thumbnails of");
            d->setLastErrorFor(query.status());
            return answered(false, counted);
        }
    }
    if (*count == 0) {
        return addResource(kThumbnailName, data);
    }
    // Replacing keeps the bytes as they are, even where inserts compress.
    SqliteQuery update(d->database, "UPDATE resources SET payload = :payload WHERE name = 'thumbnail';");
    update.bindParameter(":payload", data, BindMode::NoCopy);
    return d->executeWrite(update).ok();
}

// ---- bookmarks -------------------------------------------------------------------

namespace {

// Binds the payload column, compressed when the file compresses. `compressed`
// receives the compressed bytes and must live until the statement is stepped.
void bindBookmarkPayload(const SqliteLogFilePrivate& file, SqliteQuery& query, const ByteBuffer& payload,
                         ByteBuffer& compressed) {
    if (file.compressesPayloads()) {
        compressed = Compression::compress(payload, file.compressionLevel);
        query.bindParameter(":payload", compressed, BindMode::NoCopy);
    } else {
        query.bindParameter(":payload", payload, BindMode::NoCopy);
    }
}

}  // namespace

bool SqliteLogFile::addBookmark(const Bookmark& bookmark) {
    const bool withPayload = d->isBookmarkPayloadsSupported();
    SqliteQuery query(d->database,
                      withPayload
                          ? "INSERT INTO bookmarks (entryId, title, comments, payload) VALUES (:entryId, "
                            ":title, :comments, :payload);"
                          : "INSERT INTO bookmarks (entryId, title, comments) VALUES (:entryId, :title, "
                            ":comments);");
    query.bindParameter(":entryId", bookmark.entryId);
    query.bindParameter(":title", bookmark.title, BindMode::NoCopy);
    query.bindParameter(":comments", bookmark.comments, BindMode::NoCopy);
    ByteBuffer compressed;
    if (withPayload) {
        bindBookmarkPayload(*d, query, bookmark.payload, compressed);
    }
    return d->executeWrite(query).ok();
}

bool SqliteLogFile::updateBookmark(const Bookmark& bookmark) {
    const bool withPayload = d->isBookmarkPayloadsSupported();
    SqliteQuery query(d->database,
                      withPayload
                          ? "UPDATE bookmarks SET title = :title, comments = :comments, payload = :payload "
                            "WHERE entryId = :entryId;"
                          : "UPDATE bookmarks SET title = :title, comments = :comments WHERE entryId = "
                            ":entryId;");
    query.bindParameter(":title", bookmark.title, BindMode::NoCopy);
    query.bindParameter(":comments", bookmark.comments, BindMode::NoCopy);
    query.bindParameter(":entryId", bookmark.entryId);
    ByteBuffer compressed;
    if (withPayload) {
        bindBookmarkPayload(*d, query, bookmark.payload, compressed);
    }
    return d->executeWrite(query).ok();
}

bool SqliteLogFile::removeBookmark(const Bookmark& bookmark) {
    SqliteQuery query(d->database, "DELETE FROM bookmarks WHERE entryId = :entryId;");
    query.bindParameter(":entryId", bookmark.entryId);
    return d->executeWrite(query).ok();
}

std::vector<Bookmark> SqliteLogFile::getBookmarks() const {
    const bool withPayload = d->isBookmarkPayloadsSupported();
    SqliteQuery query(d->database, withPayload ? "SELECT entryId, title, comments, payload FROM bookmarks;"
                                               : "SELECT entryId, title, comments FROM bookmarks;");
    std::vector<Bookmark> bookmarks;
    while (query.executeStep() == StepRow) {
        Bookmark bookmark;
        if (withPayload) {
            // NULL means no payload; only other writers store it.
            if (std::optional<ByteBuffer> stored = getValueFromColumn<ByteBuffer>(query, 3)) {
                bookmark.payload = d->expandPayload(std::move(*stored));
            }
        }
        // The library always stores a text, but the column allows NULL.
        bookmark.comments = getValueFromColumn<std::string>(query, 2).value_or(std::string());
        bookmark.title = getValueFromColumn<std::string>(query, 1).value_or(std::string());
        bookmark.entryId = getValueFromColumn<int>(query, 0).value_or(0);
        bookmarks.push_back(std::move(bookmark));
    }
    return answered(std::move(bookmarks), d->finishRead(query, "Reading the bookmarks of"));
}

// ---- filtered reads ---------------------------------------------------------------

namespace {

constexpr const char* kJoinedData =
    "FROM data INNER JOIN dataSources ON data.dataSourceId = dataSources.dataSourceId ";

// The count statement only sizes the result; a read that yields no row (a
// LIMIT 0 clause) counts as 0.
int readCount(const SqliteLogFilePrivate& file, SqliteQuery& query) {
    query.executeStep();
    const Outcome counted = file.finishRead(query, "Counting entries of");
    return answered(getValueFromColumn<int>(query, 0).value_or(0), counted);
}

}  // namespace

std::vector<int32_t> SqliteLogFile::getEntryIndex(const EntryIndexFilter& filter) const {
    const std::string clause = filter.toWhereClause();
    std::vector<int32_t> ids;
    int count = 0;
    {
        SqliteQuery query(d->database, std::string("SELECT COUNT(*) ") + kJoinedData + clause + ";");
        filter.bindParameters(query);
        count = readCount(*d, query);
    }
    ids.reserve(static_cast<std::size_t>(count));
    if (count == 0) {
        return ids;
    }
    SqliteQuery query(d->database,
                      std::string("SELECT entryId ") + kJoinedData + clause + " ORDER BY entryId;");
    filter.bindParameters(query);
    while (query.executeStep() == StepRow) {
        ids.push_back(getValueFromColumn<int>(query, 0).value_or(0));
    }
    return answered(std::move(ids), d->finishRead(query, "Reading the entry index of"));
}

SqliteLogFile* SqliteLogFile::sqliteLogFile() noexcept {
    return this;
}

std::vector<DataEntry> SqliteLogFile::readEntries(int32_t minimumEntryId, int32_t maximumEntryId,
                                                  const EntryIndexFilter& filter, int32_t limit) const {
    if (minimumEntryId == -1 || maximumEntryId == -1) {
        if (minimumEntryId == -1) {
            minimumEntryId = getFirstEntryId();
        }
        if (maximumEntryId == -1) {
            maximumEntryId = getLastEntryId();
        }
        if (minimumEntryId == -1 || maximumEntryId == -1) {
            return {};
        }
    }
    const std::string filterClause = filter.toWhereClause();
    const std::string range = " (data.entryId BETWEEN :minimumEntryId AND :maximumEntryId)";
    const std::string rangeClause = filterClause.empty() ? "WHERE" + range : filterClause + " AND" + range;
    const std::string limitText = limit != -1 ? "LIMIT :limit" : "";

    auto bindAll = [&](SqliteQuery& query) {
        query.bindParameter(":minimumEntryId", minimumEntryId);
        query.bindParameter(":maximumEntryId", maximumEntryId);
        query.bindParameter(":limit", limit);
        filter.bindParameters(query);
    };

    std::vector<DataEntry> entries;
    int count = 0;
    {
        SqliteQuery query(
            d->database, std::string("SELECT COUNT(*) ") + kJoinedData + rangeClause + " " + limitText + ";");
        bindAll(query);
        count = readCount(*d, query);
    }
    entries.reserve(static_cast<std::size_t>(count));
    if (count == 0) {
        return entries;
    }
    SqliteQuery query(
        d->database,
        std::string("SELECT data.entryId, data.timestamp, data.type, data.dataSourceId, data.payload ") +
            kJoinedData + rangeClause + " ORDER BY entryId " + limitText + ";");
    bindAll(query);
    while (query.executeStep() == StepRow) {
        DataEntry entry;
        entry.entryId = getValueFromColumn<int>(query, 0).value_or(0);
        entry.timestamp = getValueFromColumn<int64_t>(query, 1).value_or(0);
        entry.type = getValueFromColumn<int>(query, 2).value_or(0);
        entry.dataSourceId = lowEightBits(getValueFromColumn<int>(query, 3).value_or(-1));
        entry.data = d->expandPayload(getValueFromColumn<ByteBuffer>(query, 4).value_or(ByteBuffer()));
        entries.push_back(std::move(entry));
    }
    return answered(std::move(entries), d->finishRead(query, "Reading entries of"));
}

}  // namespace Marivane::Logging
