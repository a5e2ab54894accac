#include <logging/SqliteLogFile.h>

#include <core/Compression.h>

#include "StoreTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <limits>
#include <string>
#include <vector>

using namespace Marivane::Logging;
using Marivane::Testing::bytesOf;
using Marivane::Testing::createLogFile;
using Marivane::Testing::makeEntry;
using Marivane::Testing::patternBytes;
using Marivane::Testing::RawDatabase;
using Marivane::Testing::TempDir;
namespace fs = std::filesystem;

namespace {

using Rows = std::vector<std::vector<std::string>>;
constexpr std::size_t kMiB = 1024 * 1024;

const char* const kMissingSourceForEntry =
    "Attempted to log data against a data source that did not exist in the file.";
const char* const kMissingSourceForProperty =
    "Attempted to add a data source property for a data source that did not exist in the file.";

int8_t addSource(SqliteLogFile& file, const std::string& name,
                 MV_LogDataSourceType type = MV_LogDataSourceType_Camera) {
    DataSource source{-1, type, name};
    EXPECT_TRUE(file.addDataSource(source)) << file.getLastError();
    return source.id;
}

void expectSameEntry(const DataEntry& actual, const DataEntry& expected) {
    EXPECT_EQ(actual.entryId, expected.entryId);
    EXPECT_EQ(actual.dataSourceId, expected.dataSourceId);
    EXPECT_EQ(actual.type, expected.type);
    EXPECT_EQ(actual.timestamp, expected.timestamp);
    EXPECT_EQ(actual.data, expected.data);
}

void expectSameSources(const std::vector<DataSource>& actual, const std::vector<DataSource>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        EXPECT_EQ(actual[i].id, expected[i].id) << i;
        EXPECT_EQ(actual[i].type, expected[i].type) << i;
        EXPECT_EQ(actual[i].name, expected[i].name) << i;
    }
}

void expectSameProperties(const std::vector<DataSourceProperty>& actual,
                          const std::vector<DataSourceProperty>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        EXPECT_EQ(actual[i].dataSourceId, expected[i].dataSourceId) << i;
        EXPECT_EQ(actual[i].propertyName, expected[i].propertyName) << i;
        EXPECT_EQ(actual[i].value, expected[i].value) << i;
    }
}

}  // namespace

// ---- data sources ---------------------------------------------------------------

TEST(AddDataSource, FirstIdsAreOneThenTwoAndWrittenBack) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("ids.mvlog"));
    DataSource camera{-1, MV_LogDataSourceType_Camera, "front camera"};
    DataSource gnss{-1, MV_LogDataSourceType_Navigation, "gnss"};
    ASSERT_TRUE(file.addDataSource(camera));
    ASSERT_TRUE(file.addDataSource(gnss));
    EXPECT_EQ(camera.id, 1);
    EXPECT_EQ(gnss.id, 2);
    expectSameSources(file.getDataSources(), {camera, gnss});
    EXPECT_EQ(file.getLastError(), "No error");
}

TEST(AddDataSource, IdsWrapAfter127WhileRowKeysKeepCounting) {
    TempDir dir;
    const std::string path = dir.file("wrap.mvlog");
    SqliteLogFile file = createLogFile(path);
    std::vector<int8_t> ids;
    for (int i = 1; i <= 129; ++i) {
        ids.push_back(addSource(file, "source " + std::to_string(i)));
    }
    EXPECT_EQ(ids[0], 1);
    EXPECT_EQ(ids[126], 127);
    EXPECT_EQ(ids[127], -128);
    EXPECT_EQ(ids[128], -127);

    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.integer("SELECT dataSourceId FROM dataSources WHERE dataSourceName = 'source 128';"), 128);
    const std::vector<DataSource> sources = file.getDataSources();
    ASSERT_EQ(sources.size(), 129u);
    EXPECT_EQ(sources[127].id, -128);
    EXPECT_EQ(sources[127].name, "source 128");
}

TEST(AddDataSource, ConstFormKeepsTheCallersId) {
    TempDir dir;
    const std::string path = dir.file("const.mvlog");
    SqliteLogFile file = createLogFile(path);
    const DataSource fixed{42, MV_LogDataSourceType_Radar, "radar"};
    const DataSource negative{-5, MV_LogDataSourceType_Lidar, "lidar"};
    ASSERT_TRUE(file.addDataSource(fixed));
    ASSERT_TRUE(file.addDataSource(negative));
    EXPECT_EQ(fixed.id, 42);
    expectSameSources(file.getDataSources(), {negative, fixed});

    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(
        raw.rows("SELECT dataSourceId, dataSourceType, dataSourceName FROM dataSources ORDER BY rowid;"),
        (Rows{{"-5", "2", "lidar"}, {"42", "3", "radar"}}));
    // The file chooses the next id after the highest one.
    EXPECT_EQ(addSource(file, "next"), 43);
}

TEST(AddDataSource, DuplicateIdIsRefusedWithTheGenericMessage) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("dup.mvlog"));
    const DataSource first{7, MV_LogDataSourceType_Radar, "first"};
    const DataSource again{7, MV_LogDataSourceType_Camera, "again"};
    ASSERT_TRUE(file.addDataSource(first));
    EXPECT_FALSE(file.addDataSource(again));
    EXPECT_EQ(file.getLastError(), "Unknown internal error");
    expectSameSources(file.getDataSources(), {first});
}

TEST(AddDataSource, EntriesOfANegativeSourceIdKeepTheSign) {
    TempDir dir;
    const std::string path = dir.file("negative.mvlog");
    SqliteLogFile file = createLogFile(path);
    ASSERT_TRUE(
        file.addDataSource(static_cast<const DataSource&>(DataSource{-5, MV_LogDataSourceType_Text, "t"})));
    ASSERT_TRUE(file.logData(makeEntry(-5, 1, 1, bytesOf("neg"))));
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.integer("SELECT dataSourceId FROM data;"), -5);
    ASSERT_TRUE(file.readEntry(1));
    EXPECT_EQ(file.readEntry(1)->dataSourceId, -5);
}

// ---- logging entries -------------------------------------------------------------

TEST(LogData, MissingDataSourceIsRefused) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("missing.mvlog"));
    const int8_t source = addSource(file, "cam");
    ASSERT_TRUE(file.logData(makeEntry(source, 1, 1, bytesOf("fine"))));
    EXPECT_FALSE(file.logData(makeEntry(static_cast<int8_t>(source + 1), 1, 2, bytesOf("orphan"))));
    EXPECT_EQ(file.getLastError(), kMissingSourceForEntry);
    EXPECT_EQ(file.getEntryCount(), 1);
    EXPECT_EQ(file.getLastEntryId(), 1);
}

TEST(LogData, EntryIdsAreAssignedByTheFile) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("ids.mvlog"));
    const int8_t source = addSource(file, "cam");
    DataEntry entry = makeEntry(source, 1, 1, bytesOf("a"));
    entry.entryId = 77;
    ASSERT_TRUE(file.logData(entry));
    ASSERT_TRUE(file.logData(entry));
    EXPECT_EQ(file.getFirstEntryId(), 1);
    EXPECT_EQ(file.getLastEntryId(), 2);
    EXPECT_FALSE(file.readEntry(77));
}

TEST(LogData, LengthColumnIsTheStoredSize) {
    const ByteBuffer payload = patternBytes(50000, 4);
    for (int8_t level : {int8_t{0}, int8_t{-1}, int8_t{1}, int8_t{9}}) {
        TempDir dir;
        const std::string path = dir.file("length.mvlog");
        SqliteLogFile file = createLogFile(path, level);
        ASSERT_TRUE(file.logData(makeEntry(addSource(file, "cam"), 1, 1, payload)));
        RawDatabase raw(path, SQLITE_OPEN_READONLY);
        const ByteBuffer stored = raw.blob("SELECT payload FROM data;");
        EXPECT_EQ(raw.integer("SELECT length FROM data;"), static_cast<int64_t>(stored.size())) << int{level};
        if (level == 0) {
            EXPECT_EQ(stored, payload);
            EXPECT_EQ(raw.integer("SELECT length FROM data;"), 50000);
        } else {
            EXPECT_NE(stored, payload) << int{level};
            EXPECT_LT(stored.size(), payload.size()) << int{level};
            EXPECT_EQ(stored, Marivane::Compression::compress(payload, level)) << int{level};
        }
    }
}

TEST(LogData, EmptyPayloadIsStoredAsAnEmptyBlobOrAnEmptyFrame) {
    for (int8_t level : {int8_t{0}, int8_t{3}}) {
        TempDir dir;
        const std::string path = dir.file("empty.mvlog");
        SqliteLogFile file = createLogFile(path, level);
        ASSERT_TRUE(file.logData(makeEntry(addSource(file, "cam"), 1, 1, {})));
        RawDatabase raw(path, SQLITE_OPEN_READONLY);
        EXPECT_EQ(raw.text("SELECT typeof(payload) FROM data;"), "blob");
        const int64_t expectedLength =
            level == 0 ? 0 : static_cast<int64_t>(Marivane::Compression::compress({}, level).size());
        EXPECT_EQ(raw.integer("SELECT length FROM data;"), expectedLength);
        ASSERT_TRUE(file.readEntry(1));
        EXPECT_TRUE(file.readEntry(1)->data.empty());
    }
}

namespace {

struct PayloadCase {
    int8_t level;
    std::size_t size;
};

class PayloadRoundTrip : public ::testing::TestWithParam<PayloadCase> {};

}  // namespace

TEST_P(PayloadRoundTrip, ReadEntryReturnsWhatWasLogged) {
    const PayloadCase param = GetParam();
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("roundtrip.mvlog"), param.level);
    const int8_t source = addSource(file, "lidar", MV_LogDataSourceType_Lidar);
    DataEntry expected = makeEntry(source, -17, 1700000000999, patternBytes(param.size, 99));
    ASSERT_TRUE(file.logData(expected));
    expected.entryId = 1;
    const std::optional<DataEntry> read = file.readEntry(1);
    ASSERT_TRUE(read);
    expectSameEntry(*read, expected);
}

INSTANTIATE_TEST_SUITE_P(LevelsAndSizes, PayloadRoundTrip,
                         ::testing::Values(PayloadCase{0, 0}, PayloadCase{0, 1}, PayloadCase{0, kMiB},
                                           PayloadCase{0, 16 * kMiB}, PayloadCase{-1, 0}, PayloadCase{-1, 1},
                                           PayloadCase{-1, kMiB}, PayloadCase{-1, 16 * kMiB},
                                           PayloadCase{1, 0}, PayloadCase{1, 1}, PayloadCase{1, kMiB},
                                           PayloadCase{1, 16 * kMiB}, PayloadCase{9, 0}, PayloadCase{9, 1},
                                           PayloadCase{9, kMiB}, PayloadCase{9, 16 * kMiB}),
                         [](const ::testing::TestParamInfo<PayloadCase>& info) {
                             const std::string level = info.param.level < 0
                                                           ? "Default"
                                                           : "Level" + std::to_string(info.param.level);
                             return level + "_" + std::to_string(info.param.size) + "Bytes";
                         });

// ---- reading entries -------------------------------------------------------------

TEST(ReadEntry, UnknownZeroAndNegativeIdsAreAbsentWithoutAMessage) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("absent.mvlog"), 2);
    ASSERT_TRUE(file.logData(makeEntry(addSource(file, "cam"), 1, 1, bytesOf("one"))));
    EXPECT_FALSE(file.addDataSourceProperty(DataSourceProperty{99, "k", int32_t{1}}));
    ASSERT_EQ(file.getLastError(), kMissingSourceForProperty);
    for (int32_t id : {2, 1000, 0, -1, -2, std::numeric_limits<int32_t>::min()}) {
        EXPECT_FALSE(file.readEntry(id)) << id;
    }
    EXPECT_EQ(file.getLastError(), kMissingSourceForProperty);
}

TEST(EntryRange, EmptyFileHasNoFirstOrLastEntry) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("empty.mvlog"));
    ASSERT_EQ(file.getLastError(), "No error");
    EXPECT_EQ(file.getEntryCount(), 0);
    EXPECT_EQ(file.getLastError(), "No error");
    EXPECT_EQ(file.getFirstEntryId(), -1);
    EXPECT_EQ(file.getLastError(), "Unknown internal error");

    SqliteLogFile other = createLogFile(dir.file("other.mvlog"));
    EXPECT_EQ(other.getLastEntryId(), -1);
    EXPECT_EQ(other.getLastError(), "Unknown internal error");
}

TEST(EntryRange, FirstLastAndCountFollowTheEntries) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("range.mvlog"));
    const int8_t source = addSource(file, "cam");
    ASSERT_TRUE(file.logData(makeEntry(source, 1, 1, bytesOf("1"))));
    EXPECT_EQ(file.getFirstEntryId(), 1);
    EXPECT_EQ(file.getLastEntryId(), 1);
    EXPECT_EQ(file.getEntryCount(), 1);
    ASSERT_TRUE(file.logData(makeEntry(source, 1, 2, bytesOf("2"))));
    ASSERT_TRUE(file.logData(makeEntry(source, 1, 3, bytesOf("3"))));
    EXPECT_EQ(file.getFirstEntryId(), 1);
    EXPECT_EQ(file.getLastEntryId(), 3);
    EXPECT_EQ(file.getEntryCount(), 3);
    EXPECT_EQ(file.getLastError(), "No error");
}

// ---- properties -------------------------------------------------------------------

TEST(Properties, ValuesComeBackInTheirAlternativesWithIntegersWidened) {
    TempDir dir;
    const std::string path = dir.file("props.mvlog");
    SqliteLogFile file = createLogFile(path);
    const int8_t source = addSource(file, "cam");
    ASSERT_TRUE(file.addDataSourceProperty({source, "width", int32_t{7}}));
    ASSERT_TRUE(file.addDataSourceProperty({source, "serial", int64_t{1} << 40}));
    ASSERT_TRUE(file.addDataSourceProperty({source, "fov", 92.5}));
    ASSERT_TRUE(file.addDataSourceProperty({source, "model", std::string("XC-7")}));

    const std::optional<PropertyValue> width = file.getDataSourceProperty(source, "width");
    ASSERT_TRUE(width);
    EXPECT_EQ(width->index(), 1u);
    EXPECT_EQ(std::get<int64_t>(*width), 7);
    EXPECT_EQ(file.getDataSourceProperty(source, "serial"), PropertyValue{int64_t{1} << 40});
    EXPECT_EQ(file.getDataSourceProperty(source, "fov"), PropertyValue{92.5});
    EXPECT_EQ(file.getDataSourceProperty(source, "model"), PropertyValue{std::string("XC-7")});

    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(
        raw.rows("SELECT dataSourceId, key, typeof(value), value FROM dataSourceProperties ORDER BY rowid;"),
        (Rows{{"1", "width", "integer", "7"},
              {"1", "serial", "integer", "1099511627776"},
              {"1", "fov", "real", "92.5"},
              {"1", "model", "text", "XC-7"}}));
}

TEST(Properties, MissingDataSourceIsRefused) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("props.mvlog"));
    const int8_t source = addSource(file, "cam");
    EXPECT_FALSE(file.addDataSourceProperty({static_cast<int8_t>(source + 1), "k", std::string("v")}));
    EXPECT_EQ(file.getLastError(), kMissingSourceForProperty);
    EXPECT_TRUE(file.getAllDataSourceProperties().empty());
}

TEST(Properties, DuplicateKeysAreBothStoredAndTheFirstIsRead) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("dup.mvlog"));
    const int8_t source = addSource(file, "cam");
    ASSERT_TRUE(file.addDataSourceProperty({source, "gain", int32_t{1}}));
    ASSERT_TRUE(file.addDataSourceProperty({source, "gain", int32_t{2}}));
    expectSameProperties(file.getAllDataSourceProperties(),
                         {{source, "gain", int64_t{1}}, {source, "gain", int64_t{2}}});
    EXPECT_EQ(file.getDataSourceProperty(source, "gain"), PropertyValue{int64_t{1}});
}

TEST(Properties, UnknownKeyOrSourceIsAbsentWithoutAMessage) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("unknown.mvlog"));
    const int8_t source = addSource(file, "cam");
    ASSERT_TRUE(file.addDataSourceProperty({source, "gain", int32_t{1}}));
    EXPECT_FALSE(file.getDataSourceProperty(source, "Gain"));
    EXPECT_FALSE(file.getDataSourceProperty(source + 1, "gain"));
    EXPECT_FALSE(file.getDataSourceProperty(-1, "gain"));
    EXPECT_EQ(file.getLastError(), "No error");
}

TEST(Properties, AllPropertiesInRowOrderAcrossSources) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("all.mvlog"));
    const int8_t a = addSource(file, "a");
    const int8_t b = addSource(file, "b");
    const std::vector<DataSourceProperty> written{
        {b, "x", int32_t{-3}}, {a, "y", std::string("why")}, {b, "z", 0.25}, {a, "x", int64_t{9}}};
    for (const DataSourceProperty& property : written) {
        ASSERT_TRUE(file.addDataSourceProperty(property));
    }
    expectSameProperties(
        file.getAllDataSourceProperties(),
        {{b, "x", int64_t{-3}}, {a, "y", std::string("why")}, {b, "z", 0.25}, {a, "x", int64_t{9}}});
}

TEST(EmptyLists, NoPropertiesAndNoSources) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("empty.mvlog"));
    EXPECT_TRUE(file.getAllDataSourceProperties().empty());
    EXPECT_TRUE(file.getDataSources().empty());
    addSource(file, "without properties");
    EXPECT_TRUE(file.getAllDataSourceProperties().empty());
    EXPECT_EQ(file.getLastError(), "No error");
}

// ---- a second reader ---------------------------------------------------------------

TEST(IndependentReader, SeesExactlyWhatTheWriterWrote) {
    TempDir dir;
    const std::string path = dir.file("shared.mvlog");
    SqliteLogFile writer = createLogFile(path, 3);
    const int8_t camera = addSource(writer, "camera", MV_LogDataSourceType_Camera);
    const int8_t radar = addSource(writer, "radar", MV_LogDataSourceType_Radar);
    ASSERT_TRUE(writer.addDataSourceProperty({camera, "fps", int32_t{30}}));
    ASSERT_TRUE(writer.addDataSourceProperty({radar, "band", std::string("77GHz")}));
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(writer.logData(
            makeEntry(i % 2 ? radar : camera, i % 3, 1000 + i * 10,
                      patternBytes(static_cast<std::size_t>(i) * 37, static_cast<unsigned>(i)))));
    }
    ASSERT_TRUE(writer.addResource("calibration", patternBytes(999, 5)));
    ASSERT_TRUE(writer.addBookmark(Bookmark{4, "look", "here", bytesOf("p")}));

    auto expectSame = [&](const SqliteLogFile& reader) {
        expectSameSources(reader.getDataSources(), writer.getDataSources());
        expectSameProperties(reader.getAllDataSourceProperties(), writer.getAllDataSourceProperties());
        const std::vector<DataEntry> expected = writer.readEntries(-1, -1, EntryIndexFilter{}, -1);
        const std::vector<DataEntry> actual = reader.readEntries(-1, -1, EntryIndexFilter{}, -1);
        ASSERT_EQ(actual.size(), 20u);
        ASSERT_EQ(actual.size(), expected.size());
        for (std::size_t i = 0; i < actual.size(); ++i) {
            expectSameEntry(actual[i], expected[i]);
        }
        const auto metadata = reader.getAllMetadata();
        const auto writerMetadata = writer.getAllMetadata();
        ASSERT_EQ(metadata.size(), writerMetadata.size());
        for (std::size_t i = 0; i < metadata.size(); ++i) {
            EXPECT_EQ(metadata[i].key, writerMetadata[i].key);
            EXPECT_EQ(metadata[i].value, writerMetadata[i].value);
        }
        EXPECT_EQ(reader.getResource("calibration"), patternBytes(999, 5));
        const auto bookmarks = reader.getBookmarks();
        ASSERT_EQ(bookmarks.size(), 1u);
        EXPECT_EQ(bookmarks[0].payload, bytesOf("p"));
    };

    {
        SqliteLogFile concurrent{fs::path(path)};
        expectSame(concurrent);
    }
    SqliteLogFile later{fs::path(path)};
    expectSame(later);
}
