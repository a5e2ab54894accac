#include <logging/Algorithms.h>
#include <logging/LegacyLogFileError.h>
#include <logging/LogFileInterface.h>
#include <logging/MV_LogDataSourceType.h>
#include <logging/NotALogFileError.h>
#include <logging/PropertyValue.h>
#include <logging/SqliteLogFile.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

using namespace Marivane::Logging;

namespace {

// Records what the two-argument writers receive and answers with a
// configurable result; everything else is inert.
class RecordingLogFile final : public LogFileInterface {
public:
    bool result = true;
    std::vector<std::pair<std::string, PropertyValue>> metadataCalls;
    std::vector<std::pair<std::string, ByteBuffer>> resourceCalls;
    std::optional<PropertyValue> storedMetadata;

    std::filesystem::path getFilePath() const override { return {}; }
    std::vector<DataSource> getDataSources() const override { return {}; }
    std::optional<PropertyValue> getDataSourceProperty(int32_t, std::string) const override { return {}; }
    std::vector<DataSourceProperty> getAllDataSourceProperties() const override { return {}; }
    std::vector<int32_t> getEntryIndex(const EntryIndexFilter&) const override { return {}; }
    int32_t getFirstEntryId() const override { return -1; }
    int32_t getLastEntryId() const override { return -1; }
    int32_t getEntryCount() const override { return 0; }
    std::optional<DataEntry> readEntry(int32_t) const override { return {}; }
    std::optional<PropertyValue> getMetadataValue(std::string) const override { return storedMetadata; }
    std::vector<LogMetadataEntry> getAllMetadata() const override { return {}; }
    std::optional<ByteBuffer> getResource(std::string) const override { return {}; }
    std::vector<LogResourceEntry> getAllResources() const override { return {}; }
    std::optional<ByteBuffer> getThumbnail() const override { return {}; }
    std::vector<Bookmark> getBookmarks() const override { return {}; }
    bool addDataSource(DataSource&) override { return false; }
    bool addDataSource(const DataSource&) override { return false; }
    bool addDataSourceProperty(const DataSourceProperty&) override { return false; }
    bool logData(const DataEntry&) override { return false; }
    using LogFileInterface::addMetadata;
    bool addMetadata(std::string key, PropertyValue value) override {
        metadataCalls.emplace_back(std::move(key), std::move(value));
        return result;
    }
    using LogFileInterface::addResource;
    bool addResource(const std::string& name, const ByteBuffer& data) override {
        resourceCalls.emplace_back(name, data);
        return result;
    }
    bool setThumbnail(const ByteBuffer&) override { return false; }
    bool addBookmark(const Bookmark&) override { return false; }
    bool updateBookmark(const Bookmark&) override { return false; }
    bool removeBookmark(const Bookmark&) override { return false; }
    std::string getLastError() const override { return "No error"; }
    std::vector<DataEntry> readEntries(int32_t, int32_t, const EntryIndexFilter&, int32_t) const override {
        return {};
    }
};

}  // namespace

TEST(LogFileErrors, NotALogFileErrorMessageAndBase) {
    static_assert(std::is_base_of_v<std::runtime_error, NotALogFileError>);
    const NotALogFileError error;
    EXPECT_STREQ(error.what(), "This file is not in a supported log file format.");
    try {
        throw NotALogFileError();
    } catch (const std::runtime_error& caught) {
        EXPECT_STREQ(caught.what(), "This file is not in a supported log file format.");
    }
}

TEST(LogFileErrors, LegacyLogFileErrorMessageAndBase) {
    static_assert(std::is_base_of_v<std::runtime_error, LegacyLogFileError>);
    static_assert(!std::is_base_of_v<NotALogFileError, LegacyLogFileError>);
    try {
        throw LegacyLogFileError();
    } catch (const std::runtime_error& caught) {
        EXPECT_STREQ(caught.what(), "Tried to open a legacy log file.");
    }
}

TEST(LogFileInterfaceDefaults, AddMetadataRecordForwardsKeyAndValue) {
    RecordingLogFile file;
    const LogMetadataEntry entry{"applicationName", PropertyValue{std::string("recorder")}};
    EXPECT_TRUE(file.addMetadata(entry));
    ASSERT_EQ(file.metadataCalls.size(), 1u);
    EXPECT_EQ(file.metadataCalls[0].first, "applicationName");
    EXPECT_EQ(file.metadataCalls[0].second, PropertyValue{std::string("recorder")});

    file.result = false;
    const LogMetadataEntry numeric{"frames", PropertyValue{int32_t{12}}};
    EXPECT_FALSE(file.addMetadata(numeric));
    ASSERT_EQ(file.metadataCalls.size(), 2u);
    EXPECT_EQ(file.metadataCalls[1].second.index(), 0u);
    EXPECT_EQ(std::get<int32_t>(file.metadataCalls[1].second), 12);
    // The record itself is left as it was.
    EXPECT_EQ(numeric.key, "frames");
}

TEST(LogFileInterfaceDefaults, AddResourceRecordForwardsNameAndBytes) {
    RecordingLogFile file;
    const LogResourceEntry entry{"calibration", {std::byte{1}, std::byte{0}, std::byte{0xFE}}};
    EXPECT_TRUE(file.addResource(entry));
    file.result = false;
    EXPECT_FALSE(file.addResource(LogResourceEntry{"empty", {}}));
    ASSERT_EQ(file.resourceCalls.size(), 2u);
    EXPECT_EQ(file.resourceCalls[0].first, "calibration");
    EXPECT_EQ(file.resourceCalls[0].second, entry.data);
    EXPECT_EQ(file.resourceCalls[1].first, "empty");
    EXPECT_TRUE(file.resourceCalls[1].second.empty());
}

TEST(PropertyValueTest, AlternativeOrderIsFixed) {
    static_assert(std::variant_size_v<PropertyValue> == 4);
    static_assert(std::is_same_v<std::variant_alternative_t<0, PropertyValue>, int32_t>);
    static_assert(std::is_same_v<std::variant_alternative_t<1, PropertyValue>, int64_t>);
    static_assert(std::is_same_v<std::variant_alternative_t<2, PropertyValue>, double>);
    static_assert(std::is_same_v<std::variant_alternative_t<3, PropertyValue>, std::string>);
    EXPECT_EQ(PropertyValue{int32_t{1}}.index(), 0u);
    EXPECT_EQ(PropertyValue{int64_t{1}}.index(), 1u);
    EXPECT_EQ(PropertyValue{1.0}.index(), 2u);
    EXPECT_EQ(PropertyValue{std::string("1")}.index(), 3u);
}

TEST(RecordDefaults, FreshRecordsCarryNoAssignedIds) {
    const DataSource source;
    EXPECT_EQ(source.id, -1);
    EXPECT_EQ(source.type, MV_LogDataSourceType_Generic);
    const DataEntry entry;
    EXPECT_EQ(entry.entryId, 0);
    EXPECT_TRUE(entry.data.empty());
    const Bookmark bookmark;
    EXPECT_TRUE(bookmark.payload.empty());
}

TEST(GetMetadataValueHelper, IntReadsEitherIntegerWidthAndDefaultsOtherwise) {
    RecordingLogFile file;
    EXPECT_EQ(getMetadataValue<int>(file, "logVersion", 17), 17);
    file.storedMetadata = PropertyValue{int64_t{4}};
    EXPECT_EQ(getMetadataValue<int>(file, "logVersion", 17), 4);
    file.storedMetadata = PropertyValue{int32_t{-1}};
    EXPECT_EQ(getMetadataValue<int>(file, "logVersion", 17), -1);
    file.storedMetadata = PropertyValue{std::string("4")};
    EXPECT_EQ(getMetadataValue<int>(file, "logVersion", 17), 17);
    file.storedMetadata = PropertyValue{4.0};
    EXPECT_EQ(getMetadataValue<int>(file, "logVersion", 17), 17);
}

TEST(GetMetadataValueHelper, OtherTypesWantTheirExactAlternative) {
    RecordingLogFile file;
    EXPECT_EQ(getMetadataValue<std::string>(file, "applicationName", "none"), "none");
    file.storedMetadata = PropertyValue{std::string("recorder")};
    EXPECT_EQ(getMetadataValue<std::string>(file, "applicationName", "none"), "recorder");
    file.storedMetadata = PropertyValue{int64_t{1}};
    EXPECT_THROW(getMetadataValue<std::string>(file, "applicationName", "none"), std::bad_variant_access);
}

TEST(DataSourceTypeTest, IsFourBytesAndEveryInt32SurvivesTheFile) {
    static_assert(sizeof(MV_LogDataSourceType) == 4);
    Marivane::Testing::TempDir dir;
    const std::string path = dir.file("types.mvlog");
    const std::vector<int32_t> values{std::numeric_limits<int32_t>::min(),
                                      std::numeric_limits<int32_t>::max(), -1, 12345};
    {
        SqliteLogFile file(path, "UTC", "types", "1", 0, 1);
        for (int32_t value : values) {
            DataSource source{-1, static_cast<MV_LogDataSourceType>(value),
                              std::string("s").append(std::to_string(value))};
            ASSERT_TRUE(file.addDataSource(source));
        }
    }
    SqliteLogFile reopened{std::filesystem::path(path)};
    const std::vector<DataSource> sources = reopened.getDataSources();
    ASSERT_EQ(sources.size(), values.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        EXPECT_EQ(static_cast<int32_t>(sources[i].type), values[i]);
        EXPECT_EQ(sources[i].name, "s" + std::to_string(values[i]));
    }

    // The column holds the plain integer, not some encoding of it.
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, "SELECT dataSourceType FROM dataSources ORDER BY dataSourceId;", -1,
                                 &statement, nullptr),
              SQLITE_OK);
    for (int32_t value : values) {
        ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
        EXPECT_EQ(sqlite3_column_int64(statement, 0), value);
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
}
