#include <logging/EntryIndexFilter.h>
#include <logging/SqliteLogFile.h>

#include <database/SqliteDatabase.h>
#include <database/SqliteQuery.h>
#include "services/database/ColumnAccess.h"

#include "StoreTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

using namespace Marivane::Logging;
using Marivane::Testing::createLogFile;
using Marivane::Testing::makeEntry;
using Marivane::Testing::patternBytes;
using Marivane::Testing::TempDir;

namespace {

EntryIndexFilter makeFilter(std::vector<int32_t> types, std::vector<int8_t> sources,
                            std::vector<MV_LogDataSourceType> sourceTypes) {
    EntryIndexFilter filter;
    filter.dataTypes = std::move(types);
    filter.dataSources = std::move(sources);
    filter.dataSourceTypes = std::move(sourceTypes);
    return filter;
}

// What the file should hold, kept beside it to derive expected answers.
struct LoggedEntry {
    int32_t id;
    int8_t source;
    MV_LogDataSourceType sourceType;
    int32_t type;
    int64_t timestamp;
    ByteBuffer data;
};

// Three sources (two cameras and a lidar) and `count` entries spread over
// them round-robin, with entry types cycling through `typeCycle` values.
class FilteredFile {
public:
    FilteredFile(const std::string& path, int8_t level, int count, int typeCycle)
        : file(createLogFile(path, level)) {
        const std::vector<std::pair<std::string, MV_LogDataSourceType>> sources{
            {"front", MV_LogDataSourceType_Camera},
            {"roof", MV_LogDataSourceType_Lidar},
            {"rear", MV_LogDataSourceType_Camera}};
        for (const auto& [name, type] : sources) {
            DataSource source{-1, type, name};
            EXPECT_TRUE(file.addDataSource(source));
            ids.push_back(source.id);
            types.push_back(type);
        }
        for (int i = 1; i <= count; ++i) {
            const std::size_t which = static_cast<std::size_t>(i % 3);
            LoggedEntry entry{i,
                              ids[which],
                              types[which],
                              i % typeCycle,
                              1000 + int64_t{i} * 33,
                              patternBytes(static_cast<std::size_t>(i) * 50, static_cast<unsigned>(i))};
            EXPECT_TRUE(file.logData(makeEntry(entry.source, entry.type, entry.timestamp, entry.data)));
            logged.push_back(std::move(entry));
        }
    }

    std::vector<int32_t> idsWhere(const std::function<bool(const LoggedEntry&)>& keep) const {
        std::vector<int32_t> result;
        for (const LoggedEntry& entry : logged) {
            if (keep(entry)) {
                result.push_back(entry.id);
            }
        }
        return result;
    }

    SqliteLogFile file;
    std::vector<int8_t> ids;
    std::vector<MV_LogDataSourceType> types;
    std::vector<LoggedEntry> logged;
};

std::vector<int32_t> idsOf(const std::vector<DataEntry>& entries) {
    std::vector<int32_t> ids;
    for (const DataEntry& entry : entries) {
        ids.push_back(entry.entryId);
    }
    return ids;
}

std::vector<int32_t> range(int32_t from, int32_t to) {
    std::vector<int32_t> ids;
    for (int32_t id = from; id <= to; ++id) {
        ids.push_back(id);
    }
    return ids;
}

}  // namespace

// ---- the clause -----------------------------------------------------------------

TEST(EntryIndexFilterClause, EmptyFilterHasNoClause) {
    EXPECT_EQ(EntryIndexFilter{}.toWhereClause(), "");
}

TEST(EntryIndexFilterClause, EveryCombinationOfTheTable) {
    const MV_LogDataSourceType camera = MV_LogDataSourceType_Camera;
    EXPECT_EQ(makeFilter({4}, {}, {}).toWhereClause(), "WHERE data.type IN (:type0)");
    EXPECT_EQ(makeFilter({4, 5}, {}, {}).toWhereClause(), "WHERE data.type IN (:type0, :type1)");
    EXPECT_EQ(makeFilter({}, {1}, {}).toWhereClause(), "WHERE  data.dataSourceId IN (:source0)");
    EXPECT_EQ(
        makeFilter({}, {1, 2}, {camera}).toWhereClause(),
        "WHERE  data.dataSourceId IN (:source0, :source1) AND dataSources.dataSourceType IN (:sourceType0)");
    EXPECT_EQ(
        makeFilter({4}, {1}, {camera, MV_LogDataSourceType_Lidar}).toWhereClause(),
        "WHERE data.type IN (:type0) AND data.dataSourceId IN (:source0) AND dataSources.dataSourceType IN "
        "(:sourceType0, :sourceType1)");
    EXPECT_EQ(makeFilter({}, {}, {camera}).toWhereClause(),
              "WHERE  dataSources.dataSourceType IN (:sourceType0)");
    EXPECT_EQ(makeFilter({4}, {}, {camera}).toWhereClause(),
              "WHERE data.type IN (:type0) AND dataSources.dataSourceType IN (:sourceType0)");
    EXPECT_EQ(makeFilter({4, 5, 6}, {1}, {}).toWhereClause(),
              "WHERE data.type IN (:type0, :type1, :type2) AND data.dataSourceId IN (:source0)");
}

TEST(EntryIndexFilterClause, NumbersRunPastNineWithoutPadding) {
    EntryIndexFilter filter;
    for (int8_t id = 1; id <= 11; ++id) {
        filter.dataSources.push_back(id);
    }
    EXPECT_EQ(
        filter.toWhereClause(),
        "WHERE  data.dataSourceId IN (:source0, :source1, :source2, :source3, :source4, :source5, :source6, "
        ":source7, :source8, :source9, :source10)");
}

TEST(EntryIndexFilterClause, DuplicatesAreKeptAndTheTextDependsOnlyOnLengths) {
    EXPECT_EQ(makeFilter({3, 3}, {}, {}).toWhereClause(), "WHERE data.type IN (:type0, :type1)");
    EXPECT_EQ(makeFilter({3, 3}, {2}, {}).toWhereClause(), makeFilter({-8, 100}, {-1}, {}).toWhereClause());
    const EntryIndexFilter original = makeFilter({1}, {2, 2}, {MV_LogDataSourceType_Text});
    const EntryIndexFilter copy = original;
    EXPECT_EQ(copy.toWhereClause(), original.toWhereClause());
    EXPECT_EQ(copy.dataSources, original.dataSources);
}

// ---- binding -------------------------------------------------------------------

TEST(EntryIndexFilterBind, BindsEveryParameterAsAnInteger) {
    TempDir dir;
    Marivane::Database::SqliteDatabase db(dir.file("bind.sqlite"), 6);
    Marivane::Database::SqliteQuery query(
        db, "SELECT :type0, :type1, :source0, :source1, :sourceType0, :sourceType1, typeof(:source0);");
    const EntryIndexFilter filter = makeFilter(
        {5, 5}, {-3, 127},
        {static_cast<MV_LogDataSourceType>(std::numeric_limits<int32_t>::min()), MV_LogDataSourceType_Radar});
    filter.bindParameters(query);
    ASSERT_EQ(query.executeStep(), Marivane::Database::StepRow);
    using Marivane::Database::getValueFromColumn;
    EXPECT_EQ(getValueFromColumn<int64_t>(query, 0), int64_t{5});
    EXPECT_EQ(getValueFromColumn<int64_t>(query, 1), int64_t{5});
    EXPECT_EQ(getValueFromColumn<int64_t>(query, 2), int64_t{-3});
    EXPECT_EQ(getValueFromColumn<int64_t>(query, 3), int64_t{127});
    EXPECT_EQ(getValueFromColumn<int64_t>(query, 4), int64_t{std::numeric_limits<int32_t>::min()});
    EXPECT_EQ(getValueFromColumn<int64_t>(query, 5), int64_t{MV_LogDataSourceType_Radar});
    EXPECT_EQ(getValueFromColumn<std::string>(query, 6), "integer");
}

TEST(EntryIndexFilterBind, EmptyFilterBindsNothing) {
    TempDir dir;
    Marivane::Database::SqliteDatabase db(dir.file("bind.sqlite"), 6);
    Marivane::Database::SqliteQuery query(db, "SELECT :type0, :source0, :sourceType0;");
    EntryIndexFilter{}.bindParameters(query);
    ASSERT_EQ(query.executeStep(), Marivane::Database::StepRow);
    EXPECT_FALSE(query.getValueFromColumn(0));
    EXPECT_FALSE(query.getValueFromColumn(1));
    EXPECT_FALSE(query.getValueFromColumn(2));
}

// ---- getEntryIndex --------------------------------------------------------------

TEST(GetEntryIndex, EmptyFilterListsEveryEntryAscending) {
    TempDir dir;
    FilteredFile f(dir.file("index.mvlog"), 0, 30, 4);
    EXPECT_EQ(f.file.getEntryIndex(EntryIndexFilter{}), range(1, 30));
}

TEST(GetEntryIndex, ByEntryType) {
    TempDir dir;
    FilteredFile f(dir.file("index.mvlog"), 0, 30, 4);
    EXPECT_EQ(f.file.getEntryIndex(makeFilter({2}, {}, {})), f.idsWhere([](auto& e) { return e.type == 2; }));
    EXPECT_EQ(f.file.getEntryIndex(makeFilter({3, 1}, {}, {})),
              f.idsWhere([](auto& e) { return e.type == 1 || e.type == 3; }));
    // A type listed twice still yields each entry once.
    EXPECT_EQ(f.file.getEntryIndex(makeFilter({2, 2}, {}, {})),
              f.idsWhere([](auto& e) { return e.type == 2; }));
    EXPECT_TRUE(f.file.getEntryIndex(makeFilter({99}, {}, {})).empty());
}

TEST(GetEntryIndex, ByDataSource) {
    TempDir dir;
    FilteredFile f(dir.file("index.mvlog"), 0, 30, 4);
    const int8_t roof = f.ids[1];
    EXPECT_EQ(f.file.getEntryIndex(makeFilter({}, {roof}, {})),
              f.idsWhere([roof](auto& e) { return e.source == roof; }));
    EXPECT_EQ(f.file.getEntryIndex(makeFilter({}, {f.ids[2], f.ids[0]}, {})),
              f.idsWhere([roof](auto& e) { return e.source != roof; }));
}

TEST(GetEntryIndex, ByDataSourceType) {
    TempDir dir;
    FilteredFile f(dir.file("index.mvlog"), 0, 30, 4);
    const std::vector<int32_t> cameras =
        f.idsWhere([](auto& e) { return e.sourceType == MV_LogDataSourceType_Camera; });
    EXPECT_EQ(cameras.size(), 20u);
    EXPECT_EQ(f.file.getEntryIndex(makeFilter({}, {}, {MV_LogDataSourceType_Camera})), cameras);
    EXPECT_EQ(f.file.getEntryIndex(makeFilter({}, {}, {MV_LogDataSourceType_Lidar})),
              f.idsWhere([](auto& e) { return e.sourceType == MV_LogDataSourceType_Lidar; }));
    EXPECT_TRUE(f.file.getEntryIndex(makeFilter({}, {}, {MV_LogDataSourceType_Radar})).empty());
}

TEST(GetEntryIndex, ListsCombineWithAnd) {
    TempDir dir;
    FilteredFile f(dir.file("index.mvlog"), 0, 30, 4);
    const int8_t front = f.ids[0];
    const int8_t roof = f.ids[1];
    EXPECT_EQ(f.file.getEntryIndex(makeFilter({0}, {front, roof}, {})),
              f.idsWhere([&](auto& e) { return e.type == 0 && (e.source == front || e.source == roof); }));
    EXPECT_EQ(f.file.getEntryIndex(makeFilter({1}, {}, {MV_LogDataSourceType_Camera})),
              f.idsWhere([](auto& e) { return e.type == 1 && e.sourceType == MV_LogDataSourceType_Camera; }));
    EXPECT_TRUE(f.file.getEntryIndex(makeFilter({}, {roof}, {MV_LogDataSourceType_Camera})).empty());
    EXPECT_EQ(f.file.getEntryIndex(makeFilter({2, 3}, {front, roof}, {MV_LogDataSourceType_Camera})),
              f.idsWhere([&](auto& e) { return (e.type == 2 || e.type == 3) && e.source == front; }));
}

TEST(GetEntryIndex, NegativeSourceIdMatchesItsEntries) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("negative.mvlog"));
    const DataSource negative{-3, MV_LogDataSourceType_Text, "negative"};
    const DataSource positive{3, MV_LogDataSourceType_Text, "positive"};
    ASSERT_TRUE(file.addDataSource(negative));
    ASSERT_TRUE(file.addDataSource(positive));
    ASSERT_TRUE(file.logData(makeEntry(3, 0, 0, {})));
    ASSERT_TRUE(file.logData(makeEntry(-3, 0, 0, {})));
    ASSERT_TRUE(file.logData(makeEntry(-3, 0, 0, {})));
    EXPECT_EQ(file.getEntryIndex(makeFilter({}, {-3}, {})), (std::vector<int32_t>{2, 3}));
    EXPECT_EQ(file.getEntryIndex(makeFilter({}, {3}, {})), (std::vector<int32_t>{1}));
}

TEST(GetEntryIndex, EmptyFileGivesAnEmptyList) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("empty.mvlog"));
    EXPECT_TRUE(file.getEntryIndex(EntryIndexFilter{}).empty());
    EXPECT_TRUE(file.getEntryIndex(makeFilter({1}, {1}, {MV_LogDataSourceType_Camera})).empty());
    EXPECT_EQ(file.getLastError(), "No error");
}

// ---- readEntries ----------------------------------------------------------------

TEST(ReadEntries, WholeFileWithBothBoundsOpenDecompressed) {
    TempDir dir;
    FilteredFile f(dir.file("read.mvlog"), 5, 60, 5);
    const std::vector<DataEntry> entries = f.file.readEntries(-1, -1, EntryIndexFilter{}, -1);
    ASSERT_EQ(entries.size(), f.logged.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const LoggedEntry& expected = f.logged[i];
        EXPECT_EQ(entries[i].entryId, expected.id);
        EXPECT_EQ(entries[i].dataSourceId, expected.source);
        EXPECT_EQ(entries[i].type, expected.type);
        EXPECT_EQ(entries[i].timestamp, expected.timestamp);
        EXPECT_EQ(entries[i].data, expected.data) << "entry " << expected.id;
    }
}

TEST(ReadEntries, UncompressedFileReturnsTheStoredBytes) {
    TempDir dir;
    FilteredFile f(dir.file("read.mvlog"), 0, 10, 5);
    const std::vector<DataEntry> entries = f.file.readEntries(3, 4, EntryIndexFilter{}, -1);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].data, f.logged[2].data);
    EXPECT_EQ(entries[1].data, f.logged[3].data);
}

TEST(ReadEntries, OneOpenBoundStandsForTheFirstOrLastEntry) {
    TempDir dir;
    FilteredFile f(dir.file("read.mvlog"), 1, 60, 5);
    EXPECT_EQ(idsOf(f.file.readEntries(-1, 50, EntryIndexFilter{}, -1)), range(1, 50));
    EXPECT_EQ(idsOf(f.file.readEntries(50, -1, EntryIndexFilter{}, -1)), range(50, 60));
    EXPECT_EQ(idsOf(f.file.readEntries(10, 20, EntryIndexFilter{}, -1)), range(10, 20));
    EXPECT_EQ(idsOf(f.file.readEntries(60, 60, EntryIndexFilter{}, -1)), range(60, 60));
}

TEST(ReadEntries, GivenBoundsGoToTheDatabaseAsTheyAre) {
    TempDir dir;
    FilteredFile f(dir.file("read.mvlog"), 0, 20, 5);
    EXPECT_TRUE(f.file.readEntries(15, 5, EntryIndexFilter{}, -1).empty());
    EXPECT_EQ(idsOf(f.file.readEntries(-5, 3, EntryIndexFilter{}, -1)), range(1, 3));
    EXPECT_EQ(idsOf(f.file.readEntries(18, 1000, EntryIndexFilter{}, -1)), range(18, 20));
    EXPECT_TRUE(f.file.readEntries(21, 1000, EntryIndexFilter{}, -1).empty());
    EXPECT_EQ(f.file.getLastError(), "No error");
}

TEST(ReadEntries, LimitZeroGivesNothing) {
    TempDir dir;
    FilteredFile f(dir.file("read.mvlog"), 0, 20, 5);
    EXPECT_TRUE(f.file.readEntries(1, 20, EntryIndexFilter{}, 0).empty());
    EXPECT_TRUE(f.file.readEntries(-1, -1, makeFilter({0}, {}, {}), 0).empty());
}

TEST(ReadEntries, LimitKeepsTheLowestMatches) {
    TempDir dir;
    FilteredFile f(dir.file("read.mvlog"), 3, 60, 5);
    const EntryIndexFilter filter = makeFilter({0}, {}, {});
    const std::vector<int32_t> matches = f.idsWhere([](auto& e) { return e.type == 0; });
    ASSERT_EQ(matches.size(), 12u);
    const std::vector<DataEntry> limited = f.file.readEntries(-1, -1, filter, 5);
    EXPECT_EQ(idsOf(limited), std::vector<int32_t>(matches.begin(), matches.begin() + 5));
    for (const DataEntry& entry : limited) {
        EXPECT_EQ(entry.data, f.logged[static_cast<std::size_t>(entry.entryId) - 1].data);
    }
    EXPECT_EQ(idsOf(f.file.readEntries(-1, -1, filter, 100)), matches);
    EXPECT_EQ(idsOf(f.file.readEntries(-1, -1, filter, -1)), matches);
}

TEST(ReadEntries, OtherNegativeLimitsMeanNoLimitToTheDatabase) {
    TempDir dir;
    FilteredFile f(dir.file("read.mvlog"), 0, 20, 5);
    EXPECT_EQ(idsOf(f.file.readEntries(-1, -1, EntryIndexFilter{}, -2)), range(1, 20));
    EXPECT_EQ(idsOf(f.file.readEntries(4, 9, makeFilter({}, {f.ids[0]}, {}), -100)),
              f.idsWhere([&](auto& e) { return e.id >= 4 && e.id <= 9 && e.source == f.ids[0]; }));
}

TEST(ReadEntries, FilterAndBoundsTogether) {
    TempDir dir;
    FilteredFile f(dir.file("read.mvlog"), 0, 60, 5);
    const int8_t roof = f.ids[1];
    const std::vector<DataEntry> entries =
        f.file.readEntries(10, 40, makeFilter({1, 2}, {roof}, {MV_LogDataSourceType_Lidar}), -1);
    EXPECT_EQ(idsOf(entries), f.idsWhere([roof](auto& e) {
        return e.id >= 10 && e.id <= 40 && (e.type == 1 || e.type == 2) && e.source == roof;
    }));
    EXPECT_FALSE(entries.empty());
    EXPECT_EQ(idsOf(f.file.readEntries(-1, -1, makeFilter({}, {}, {MV_LogDataSourceType_Camera}), -1)),
              f.idsWhere([](auto& e) { return e.sourceType == MV_LogDataSourceType_Camera; }));
}

TEST(ReadEntries, EmptyFileGivesNothing) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("empty.mvlog"), 4);
    EXPECT_TRUE(file.readEntries(-1, -1, EntryIndexFilter{}, -1).empty());
    EXPECT_TRUE(file.readEntries(-1, 10, EntryIndexFilter{}, -1).empty());
    EXPECT_TRUE(file.readEntries(1, 10, EntryIndexFilter{}, -1).empty());
    EXPECT_TRUE(file.readEntries(1, 10, makeFilter({1}, {}, {}), 3).empty());
}

TEST(ReadEntries, EveryIdOfTheIndexIsReadable) {
    TempDir dir;
    FilteredFile f(dir.file("read.mvlog"), 2, 30, 4);
    const EntryIndexFilter filter = makeFilter({1, 2}, {f.ids[0], f.ids[1]}, {});
    const std::vector<int32_t> index = f.file.getEntryIndex(filter);
    const std::vector<DataEntry> entries = f.file.readEntries(-1, -1, filter, -1);
    EXPECT_FALSE(index.empty());
    EXPECT_EQ(idsOf(entries), index);
}
