#pragma once

#include <logging/Logging.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace Mvlog {

// Entry ids whose payload could not be read; shared between a file wrapper
// (written on the player's worker thread) and whoever reports afterwards.
class DamageLog {
public:
    void record(int32_t entryId);
    bool contains(int32_t entryId) const;
    std::size_t size() const;

private:
    mutable std::mutex mutex_;
    std::set<int32_t> entryIds_;
};

// Hands every call to the wrapped file, except that a readEntry which throws
// (a payload that does not expand) answers "absent" instead and is logged.
// The player reads one entry per frame on its worker thread, where an
// exception would end the process; an absent entry it replaces by an empty
// placeholder frame and goes on.
class DamageTolerantLogFile final : public Marivane::Logging::LogFileInterface {
public:
    DamageTolerantLogFile(std::unique_ptr<Marivane::Logging::LogFileInterface> file,
                          std::shared_ptr<DamageLog> damage);

    std::filesystem::path getFilePath() const override;
    std::vector<Marivane::Logging::DataSource> getDataSources() const override;
    std::optional<Marivane::Logging::PropertyValue> getDataSourceProperty(int32_t dataSourceId,
                                                                          std::string key) const override;
    std::vector<Marivane::Logging::DataSourceProperty> getAllDataSourceProperties() const override;
    std::vector<int32_t> getEntryIndex(const Marivane::Logging::EntryIndexFilter& filter) const override;
    int32_t getFirstEntryId() const override;
    int32_t getLastEntryId() const override;
    int32_t getEntryCount() const override;
    std::optional<Marivane::Logging::DataEntry> readEntry(int32_t entryId) const override;
    std::optional<Marivane::Logging::PropertyValue> getMetadataValue(std::string key) const override;
    std::vector<LogMetadataEntry> getAllMetadata() const override;
    std::optional<Marivane::Logging::ByteBuffer> getResource(std::string name) const override;
    std::vector<LogResourceEntry> getAllResources() const override;
    std::optional<Marivane::Logging::ByteBuffer> getThumbnail() const override;
    std::vector<Marivane::Logging::Bookmark> getBookmarks() const override;
    bool addDataSource(Marivane::Logging::DataSource& source) override;
    bool addDataSource(const Marivane::Logging::DataSource& source) override;
    bool addDataSourceProperty(const Marivane::Logging::DataSourceProperty& property) override;
    bool logData(const Marivane::Logging::DataEntry& entry) override;
    using LogFileInterface::addMetadata;
    bool addMetadata(std::string key, Marivane::Logging::PropertyValue value) override;
    using LogFileInterface::addResource;
    bool addResource(const std::string& name, const Marivane::Logging::ByteBuffer& data) override;
    bool setThumbnail(const Marivane::Logging::ByteBuffer& data) override;
    bool addBookmark(const Marivane::Logging::Bookmark& bookmark) override;
    bool updateBookmark(const Marivane::Logging::Bookmark& bookmark) override;
    bool removeBookmark(const Marivane::Logging::Bookmark& bookmark) override;
    std::string getLastError() const override;
    std::vector<Marivane::Logging::DataEntry> readEntries(int32_t minimumEntryId, int32_t maximumEntryId,
                                                          const Marivane::Logging::EntryIndexFilter& filter,
                                                          int32_t limit) const override;

private:
    std::unique_ptr<Marivane::Logging::LogFileInterface> file_;
    std::shared_ptr<DamageLog> damage_;
};

}  // namespace Mvlog
