#pragma once

#include <logging/LogFileInterface.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace Marivane::Testing {

// An in-memory log file that only answers reads. Its contents are set through
// the public fields; every write is refused and counted, and every filtered
// read is recorded, so a test can see exactly how a reader used it.
class FakeLogFile final : public Logging::LogFileInterface {
public:
    struct ReadEntriesCall {
        int32_t minimumEntryId;
        int32_t maximumEntryId;
        bool filterIsEmpty;
        int32_t limit;
    };

    std::filesystem::path path;
    std::vector<Logging::DataSource> dataSources;
    std::vector<Logging::DataSourceProperty> properties;
    // Kept in ascending id order by the test.
    std::vector<Logging::DataEntry> entries;
    std::vector<LogMetadataEntry> metadata;
    std::vector<LogResourceEntry> resources;
    std::vector<Logging::Bookmark> bookmarks;

    mutable std::vector<ReadEntriesCall> readEntriesCalls;
    // Calls of reading operations, readEntries included.
    mutable int readCalls = 0;
    int writeAttempts = 0;

    std::filesystem::path getFilePath() const override {
        ++readCalls;
        return path;
    }
    std::vector<Logging::DataSource> getDataSources() const override {
        ++readCalls;
        return dataSources;
    }

    std::optional<Logging::PropertyValue> getDataSourceProperty(int32_t dataSourceId,
                                                                std::string key) const override {
        ++readCalls;
        for (const auto& property : properties) {
            if (property.dataSourceId == dataSourceId && property.propertyName == key) {
                return property.value;
            }
        }
        return std::nullopt;
    }

    std::vector<Logging::DataSourceProperty> getAllDataSourceProperties() const override {
        ++readCalls;
        return properties;
    }

    std::vector<int32_t> getEntryIndex(const Logging::EntryIndexFilter& filter) const override {
        ++readCalls;
        std::vector<int32_t> ids;
        for (const auto& entry : entries) {
            if (admits(filter, entry)) {
                ids.push_back(entry.entryId);
            }
        }
        return ids;
    }

    int32_t getFirstEntryId() const override {
        ++readCalls;
        return entries.empty() ? -1 : entries.front().entryId;
    }
    int32_t getLastEntryId() const override {
        ++readCalls;
        return entries.empty() ? -1 : entries.back().entryId;
    }
    int32_t getEntryCount() const override {
        ++readCalls;
        return static_cast<int32_t>(entries.size());
    }

    std::optional<Logging::DataEntry> readEntry(int32_t entryId) const override {
        ++readCalls;
        for (const auto& entry : entries) {
            if (entry.entryId == entryId) {
                return entry;
            }
        }
        return std::nullopt;
    }

    std::optional<Logging::PropertyValue> getMetadataValue(std::string key) const override {
        ++readCalls;
        for (const auto& entry : metadata) {
            if (entry.key == key) {
                return entry.value;
            }
        }
        return std::nullopt;
    }

    std::vector<LogMetadataEntry> getAllMetadata() const override {
        ++readCalls;
        return metadata;
    }

    std::optional<Logging::ByteBuffer> getResource(std::string name) const override {
        ++readCalls;
        for (const auto& resource : resources) {
            if (resource.name == name) {
                return resource.data;
            }
        }
        return std::nullopt;
    }

    std::vector<LogResourceEntry> getAllResources() const override {
        ++readCalls;
        return resources;
    }
    std::optional<Logging::ByteBuffer> getThumbnail() const override {
        ++readCalls;
        return getResource("thumbnail");
    }
    std::vector<Logging::Bookmark> getBookmarks() const override {
        ++readCalls;
        return bookmarks;
    }

    bool addDataSource(Logging::DataSource&) override { return refuseWrite(); }
    bool addDataSource(const Logging::DataSource&) override { return refuseWrite(); }
    bool addDataSourceProperty(const Logging::DataSourceProperty&) override { return refuseWrite(); }
    bool logData(const Logging::DataEntry&) override { return refuseWrite(); }
    bool addMetadata(std::string, Logging::PropertyValue) override { return refuseWrite(); }
    bool addResource(const std::string&, const Logging::ByteBuffer&) override { return refuseWrite(); }
    bool setThumbnail(const Logging::ByteBuffer&) override { return refuseWrite(); }
    bool addBookmark(const Logging::Bookmark&) override { return refuseWrite(); }
    bool updateBookmark(const Logging::Bookmark&) override { return refuseWrite(); }
    bool removeBookmark(const Logging::Bookmark&) override { return refuseWrite(); }
    std::string getLastError() const override {
        ++readCalls;
        return "No error";
    }

    std::vector<Logging::DataEntry> readEntries(int32_t minimumEntryId, int32_t maximumEntryId,
                                                const Logging::EntryIndexFilter& filter,
                                                int32_t limit) const override {
        ++readCalls;
        readEntriesCalls.push_back({minimumEntryId, maximumEntryId, isEmpty(filter), limit});
        const int32_t minimum = minimumEntryId == -1 ? getFirstEntryId() : minimumEntryId;
        const int32_t maximum = maximumEntryId == -1 ? getLastEntryId() : maximumEntryId;
        std::vector<Logging::DataEntry> result;
        for (const auto& entry : entries) {
            if (limit != -1 && static_cast<int32_t>(result.size()) >= limit) {
                break;
            }
            if (entry.entryId >= minimum && entry.entryId <= maximum && admits(filter, entry)) {
                result.push_back(entry);
            }
        }
        return result;
    }

private:
    bool refuseWrite() {
        ++writeAttempts;
        return false;
    }

    static bool isEmpty(const Logging::EntryIndexFilter& filter) {
        return filter.dataTypes.empty() && filter.dataSources.empty() && filter.dataSourceTypes.empty();
    }

    template <typename List, typename Value>
    static bool listAdmits(const List& list, const Value& value) {
        return list.empty() || std::find(list.begin(), list.end(), value) != list.end();
    }

    std::optional<MV_LogDataSourceType> typeOfSource(int8_t id) const {
        for (const auto& source : dataSources) {
            if (source.id == id) {
                return source.type;
            }
        }
        return std::nullopt;
    }

    bool admits(const Logging::EntryIndexFilter& filter, const Logging::DataEntry& entry) const {
        const std::optional<MV_LogDataSourceType> sourceType = typeOfSource(entry.dataSourceId);
        return listAdmits(filter.dataTypes, entry.type) &&
               listAdmits(filter.dataSources, entry.dataSourceId) &&
               (filter.dataSourceTypes.empty() ||
                (sourceType && listAdmits(filter.dataSourceTypes, *sourceType)));
    }
};

}  // namespace Marivane::Testing
