#include "DamageTolerantLogFile.h"

#include <exception>
#include <utility>

namespace Mvlog {

using Marivane::Logging::Bookmark;
using Marivane::Logging::ByteBuffer;
using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::DataSourceProperty;
using Marivane::Logging::EntryIndexFilter;
using Marivane::Logging::LogFileInterface;
using Marivane::Logging::PropertyValue;

void DamageLog::record(int32_t entryId) {
    std::lock_guard lock(mutex_);
    entryIds_.insert(entryId);
}

bool DamageLog::contains(int32_t entryId) const {
    std::lock_guard lock(mutex_);
    return entryIds_.count(entryId) != 0;
}

std::size_t DamageLog::size() const {
    std::lock_guard lock(mutex_);
    return entryIds_.size();
}

DamageTolerantLogFile::DamageTolerantLogFile(std::unique_ptr<LogFileInterface> file,
                                             std::shared_ptr<DamageLog> damage)
    : file_(std::move(file)), damage_(std::move(damage)) {}

std::optional<DataEntry> DamageTolerantLogFile::readEntry(int32_t entryId) const {
    try {
        return file_->readEntry(entryId);
    } catch (const std::exception&) {
        damage_->record(entryId);
        return std::nullopt;
    }
}

std::filesystem::path DamageTolerantLogFile::getFilePath() const {
    return file_->getFilePath();
}

std::vector<DataSource> DamageTolerantLogFile::getDataSources() const {
    return file_->getDataSources();
}

std::optional<PropertyValue> DamageTolerantLogFile::getDataSourceProperty(int32_t dataSourceId,
                                                                          std::string key) const {
    return file_->getDataSourceProperty(dataSourceId, std::move(key));
}

std::vector<DataSourceProperty> DamageTolerantLogFile::getAllDataSourceProperties() const {
    return file_->getAllDataSourceProperties();
}

std::vector<int32_t> DamageTolerantLogFile::getEntryIndex(const EntryIndexFilter& filter) const {
    return file_->getEntryIndex(filter);
}

int32_t DamageTolerantLogFile::getFirstEntryId() const {
    return file_->getFirstEntryId();
}

int32_t DamageTolerantLogFile::getLastEntryId() const {
    return file_->getLastEntryId();
}

int32_t DamageTolerantLogFile::getEntryCount() const {
    return file_->getEntryCount();
}

std::optional<PropertyValue> DamageTolerantLogFile::getMetadataValue(std::string key) const {
    return file_->getMetadataValue(std::move(key));
}

std::vector<LogMetadataEntry> DamageTolerantLogFile::getAllMetadata() const {
    return file_->getAllMetadata();
}

std::optional<ByteBuffer> DamageTolerantLogFile::getResource(std::string name) const {
    return file_->getResource(std::move(name));
}

std::vector<LogResourceEntry> DamageTolerantLogFile::getAllResources() const {
    return file_->getAllResources();
}

std::optional<ByteBuffer> DamageTolerantLogFile::getThumbnail() const {
    return file_->getThumbnail();
}

std::vector<Bookmark> DamageTolerantLogFile::getBookmarks() const {
    return file_->getBookmarks();
}

bool DamageTolerantLogFile::addDataSource(DataSource& source) {
    return file_->addDataSource(source);
}

bool DamageTolerantLogFile::addDataSource(const DataSource& source) {
    return file_->addDataSource(source);
}

bool DamageTolerantLogFile::addDataSourceProperty(const DataSourceProperty& property) {
    return file_->addDataSourceProperty(property);
}

bool DamageTolerantLogFile::logData(const DataEntry& entry) {
    return file_->logData(entry);
}

bool DamageTolerantLogFile::addMetadata(std::string key, PropertyValue value) {
    return file_->addMetadata(std::move(key), std::move(value));
}

bool DamageTolerantLogFile::addResource(const std::string& name, const ByteBuffer& data) {
    return file_->addResource(name, data);
}

bool DamageTolerantLogFile::setThumbnail(const ByteBuffer& data) {
    return file_->setThumbnail(data);
}

bool DamageTolerantLogFile::addBookmark(const Bookmark& bookmark) {
    return file_->addBookmark(bookmark);
}

bool DamageTolerantLogFile::updateBookmark(const Bookmark& bookmark) {
    return file_->updateBookmark(bookmark);
}

bool DamageTolerantLogFile::removeBookmark(const Bookmark& bookmark) {
    return file_->removeBookmark(bookmark);
}

std::string DamageTolerantLogFile::getLastError() const {
    return file_->getLastError();
}

std::vector<DataEntry> DamageTolerantLogFile::readEntries(int32_t minimumEntryId, int32_t maximumEntryId,
                                                          const EntryIndexFilter& filter,
                                                          int32_t limit) const {
    return file_->readEntries(minimumEntryId, maximumEntryId, filter, limit);
}

}  // namespace Mvlog
