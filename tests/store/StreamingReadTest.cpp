// The streaming read, the payload-free summaries and the time queries: what
// they hand out, in which order, what they refuse, and that a damaged entry
// or an impossible stored value is reported with its id instead of being
// narrowed into a plausible one.

#include "StoreTestSupport.h"

#include <logging/MV_Logging.h>
#include <logging/SqliteLogFile.h>

#include <core/Compression.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::EntryIndexFilter;
using Marivane::Logging::EntryRange;
using Marivane::Logging::EntrySummary;
using Marivane::Logging::EntryView;
using Marivane::Logging::FailureKind;
using Marivane::Logging::PayloadForm;
using Marivane::Logging::SqliteLogFile;
using Marivane::Logging::VisitOptions;
using Marivane::Testing::RawDatabase;
using Marivane::Testing::TempDir;

std::string payloadText(int32_t id) {
    return "payload-" + std::to_string(id) + std::string(static_cast<std::size_t>(id % 7) * 10, 'x');
}

Marivane::Logging::ByteBuffer bytesOf(const std::string& text) {
    Marivane::Logging::ByteBuffer bytes(text.size());
    std::memcpy(bytes.data(), text.data(), text.size());
    return bytes;
}

std::string textOf(const EntryView& view) {
    return std::string(reinterpret_cast<const char*>(view.data), view.size);
}

// Entries 1..count alternating between two sources, timestamp 1000 + 10 * id.
void makeFile(const std::string& path, int32_t count, int8_t level) {
    SqliteLogFile file(path, "Etc/UTC", "streaming-tests", "1.0", level, 1700000000000);
    DataSource camera{0, MV_LogDataSourceType_Camera, "camera"};
    DataSource gnss{0, MV_LogDataSourceType_Navigation, "gnss"};
    ASSERT_TRUE(file.addDataSource(camera));
    ASSERT_TRUE(file.addDataSource(gnss));
    auto batch = file.beginBatch();
    for (int32_t id = 1; id <= count; ++id) {
        ASSERT_TRUE(file.logData(DataEntry{0, id % 2 == 1 ? camera.id : gnss.id, id % 4,
                                           bytesOf(payloadText(id)), 1000 + 10 * int64_t{id}}));
    }
    ASSERT_TRUE(batch.commit());
}

std::vector<int32_t> visitedIds(const SqliteLogFile& file, const EntryRange& range,
                                const EntryIndexFilter& filter = EntryIndexFilter()) {
    std::vector<int32_t> ids;
    EXPECT_TRUE(file.visitEntries(range, filter, [&](const EntryView& view) {
        EXPECT_EQ(textOf(view), payloadText(view.entryId));
        EXPECT_EQ(view.timestamp, 1000 + 10 * int64_t{view.entryId});
        ids.push_back(view.entryId);
        return true;
    })) << file.getLastFailure();
    return ids;
}

std::vector<int32_t> idsFrom(int32_t first, int32_t last, int32_t step = 1) {
    std::vector<int32_t> ids;
    for (int32_t id = first; id <= last; id += step) {
        ids.push_back(id);
    }
    return ids;
}

class StreamingRead : public ::testing::TestWithParam<int> {
protected:
    TempDir directory;
    std::string path = directory.file("stream.mvlog");
};

TEST_P(StreamingRead, VisitsRangesTimesAndFiltersInIdOrder) {
    makeFile(path, 60, static_cast<int8_t>(GetParam()));
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    EXPECT_EQ(visitedIds(file, EntryRange::all()), idsFrom(1, 60));
    EXPECT_EQ(visitedIds(file, EntryRange{10, 20}), idsFrom(10, 20));
    EXPECT_EQ(visitedIds(file, EntryRange::between(1200, 1300)), idsFrom(20, 30));
    EXPECT_EQ(visitedIds(file, EntryRange{25, -1, 1200, 1300}), idsFrom(25, 30));
    EXPECT_TRUE(visitedIds(file, EntryRange{70, 80}).empty());

    EntryIndexFilter gnssOnly;
    gnssOnly.dataSourceTypes = {MV_LogDataSourceType_Navigation};
    EXPECT_EQ(visitedIds(file, EntryRange::all(), gnssOnly), idsFrom(2, 60, 2));
    EntryIndexFilter typeThree;
    typeThree.dataTypes = {3};
    typeThree.dataSourceTypes = {MV_LogDataSourceType_Camera};
    EXPECT_EQ(visitedIds(file, EntryRange::all(), typeThree), idsFrom(3, 60, 4));
    EntryIndexFilter noSuchType;
    noSuchType.dataSourceTypes = {MV_LogDataSourceType_Lidar};
    EXPECT_TRUE(visitedIds(file, EntryRange::all(), noSuchType).empty());
}

TEST_P(StreamingRead, SameAnswersWithTheTimeIndex) {
    makeFile(path, 60, static_cast<int8_t>(GetParam()));
    {
        SqliteLogFile file{std::filesystem::path(path)};
        ASSERT_FALSE(file.hasTimeIndex());
        ASSERT_TRUE(file.createTimeIndex()) << file.getLastError();
        ASSERT_TRUE(file.createTimeIndex()) << file.getLastError();
        ASSERT_TRUE(file.hasTimeIndex());
    }
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    EXPECT_EQ(visitedIds(file, EntryRange::between(1200, 1300)), idsFrom(20, 30));
    EXPECT_EQ(visitedIds(file, EntryRange{25, -1, 1200, 1300}), idsFrom(25, 30));
    EntryIndexFilter gnssOnly;
    gnssOnly.dataSourceTypes = {MV_LogDataSourceType_Navigation};
    EXPECT_EQ(visitedIds(file, EntryRange::between(1200, 1300), gnssOnly), idsFrom(20, 30, 2));
    EXPECT_EQ(file.getTimeRange()->first, 1010);
    EXPECT_EQ(file.getTimeRange()->last, 1600);
    EXPECT_EQ(file.findEntryAtOrAfter(1255), 26);
}

TEST_P(StreamingRead, TheVisitorStopsTheReadAndItsExceptionsReachTheCaller) {
    makeFile(path, 30, static_cast<int8_t>(GetParam()));
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    int visited = 0;
    EXPECT_TRUE(file.visitEntries(EntryRange::all(), EntryIndexFilter(),
                                  [&](const EntryView&) { return ++visited < 4; }));
    EXPECT_EQ(visited, 4);
    EXPECT_THROW(file.visitEntries(EntryRange::all(), EntryIndexFilter(),
                                   [](const EntryView&) -> bool { throw std::runtime_error("visitor"); }),
                 std::runtime_error);
    // The file is still usable after the aborted read.
    EXPECT_EQ(visitedIds(file, EntryRange{1, 2}), idsFrom(1, 2));
    EXPECT_EQ(file.getFailureCount(), 0u);
}

TEST_P(StreamingRead, SummariesCarryStoredSizesWithoutPayloads) {
    const auto level = static_cast<int8_t>(GetParam());
    makeFile(path, 12, level);
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    std::vector<EntrySummary> summaries;
    ASSERT_TRUE(
        file.visitEntrySummaries(EntryRange{3, 9}, EntryIndexFilter(), [&](const EntrySummary& summary) {
            summaries.push_back(summary);
            return true;
        }));
    ASSERT_EQ(summaries.size(), 7u);
    for (const EntrySummary& summary : summaries) {
        EXPECT_EQ(summary.timestamp, 1000 + 10 * int64_t{summary.entryId});
        EXPECT_EQ(summary.type, summary.entryId % 4);
        EXPECT_EQ(summary.storedSize, raw.integer("SELECT length(payload) FROM data WHERE entryId = " +
                                                  std::to_string(summary.entryId)));
        if (level == 0) {
            EXPECT_EQ(summary.storedSize, static_cast<int64_t>(payloadText(summary.entryId).size()));
        }
    }
}

TEST_P(StreamingRead, StoredFormHandsOutTheBytesAsStored) {
    const auto level = static_cast<int8_t>(GetParam());
    makeFile(path, 5, level);
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    VisitOptions options;
    options.payloadForm = PayloadForm::Stored;
    int visited = 0;
    ASSERT_TRUE(file.visitEntries(
        EntryRange::all(), EntryIndexFilter(),
        [&](const EntryView& view) {
            ++visited;
            EXPECT_EQ(view.compressed, level != 0);
            const Marivane::Logging::ByteBuffer stored(view.data, view.data + view.size);
            const Marivane::Logging::ByteBuffer expected = bytesOf(payloadText(view.entryId));
            EXPECT_EQ(level == 0 ? stored : Marivane::Compression::uncompress(stored), expected);
            return true;
        },
        options));
    EXPECT_EQ(visited, 5);
}

TEST_P(StreamingRead, TimeQueriesAnswerWithoutTheIndex) {
    makeFile(path, 40, static_cast<int8_t>(GetParam()));
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    ASSERT_TRUE(file.getTimeRange().has_value());
    EXPECT_EQ(file.getTimeRange()->first, 1010);
    EXPECT_EQ(file.getTimeRange()->last, 1400);
    EXPECT_EQ(file.getTimeRange()->durationMs(), 390);
    EntryIndexFilter camera;
    camera.dataSourceTypes = {MV_LogDataSourceType_Camera};
    EXPECT_EQ(file.getTimeRange(camera)->last, 1390);
    EXPECT_EQ(file.findEntryAtOrAfter(1000), 1);
    EXPECT_EQ(file.findEntryAtOrAfter(1011), 2);
    EXPECT_EQ(file.findEntryAtOrAfter(1011, camera), 3);
    EXPECT_FALSE(file.findEntryAtOrAfter(1401).has_value());
    EXPECT_TRUE(file.hasEntry(40));
    EXPECT_FALSE(file.hasEntry(41));
    EXPECT_EQ(file.getEntryTimestamp(7), 1070);
    EXPECT_FALSE(file.getEntryTimestamp(0).has_value());
    EXPECT_EQ(file.getFailureCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Levels, StreamingRead, ::testing::Values(0, -1, 5));

class StreamingDamage : public ::testing::Test {
protected:
    void SetUp() override {
        makeFile(path, 10, -1);
        RawDatabase raw(path);
        raw.exec("UPDATE data SET payload = x'28b52ffd0000' WHERE entryId = 4;");
    }
    TempDir directory;
    std::string path = directory.file("damaged.mvlog");
};

TEST_F(StreamingDamage, ADamagedPayloadEndsTheReadNamingTheEntry) {
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    std::vector<int32_t> ids;
    EXPECT_FALSE(file.visitEntries(EntryRange::all(), EntryIndexFilter(), [&](const EntryView& view) {
        ids.push_back(view.entryId);
        return true;
    }));
    EXPECT_EQ(ids, idsFrom(1, 3));
    EXPECT_EQ(file.getLastFailureKind(), FailureKind::Damaged);
    EXPECT_EQ(
        file.getLastFailure().rfind("Entry 4 of '" + path + "' cannot be read: Cannot uncompress data: ", 0),
        0u)
        << file.getLastFailure();
    // A read only counts its failure: the last error stays untouched.
    EXPECT_EQ(file.getLastError(), "No error");
    EXPECT_EQ(file.getLastErrorKind(), FailureKind::None);
}

TEST_F(StreamingDamage, AHandlerSkipsDamagedEntriesAndTheReadGoesOn) {
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    std::vector<int32_t> ids;
    std::vector<int64_t> damaged;
    VisitOptions options;
    options.onDamagedEntry = [&](int64_t entryId, const std::string& reason) {
        damaged.push_back(entryId);
        EXPECT_NE(reason.find("Cannot uncompress data"), std::string::npos) << reason;
        return true;
    };
    EXPECT_TRUE(file.visitEntries(
        EntryRange::all(), EntryIndexFilter(),
        [&](const EntryView& view) {
            ids.push_back(view.entryId);
            return true;
        },
        options));
    EXPECT_EQ(ids, (std::vector<int32_t>{1, 2, 3, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ(damaged, std::vector<int64_t>{4});
    EXPECT_EQ(file.getFailureCount(), 1u);
}

TEST_F(StreamingDamage, TheStoredFormHandsOutADamagedPayloadUntouched) {
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    VisitOptions options;
    options.payloadForm = PayloadForm::Stored;
    int visited = 0;
    EXPECT_TRUE(file.visitEntries(
        EntryRange::all(), EntryIndexFilter(),
        [&](const EntryView& view) {
            ++visited;
            if (view.entryId == 4) {
                EXPECT_EQ(view.size, 6u);
            }
            return true;
        },
        options));
    EXPECT_EQ(visited, 10);
}

TEST_F(StreamingDamage, TheCInterfaceReportsTheEntryAndNeverThrows) {
    MV_LogError_p error = nullptr;
    MV_LogFile_p file = MV_LogFile_OpenReadOnly(path.c_str(), &error);
    ASSERT_NE(file, nullptr);
    int visited = 0;
    const bool completed = MV_LogFile_VisitEntries(
        file, -1, -1, std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max(), nullptr,
        [](void* count, const MV_LogEntryView*) {
            ++*static_cast<int*>(count);
            return true;
        },
        &visited, &error);
    EXPECT_FALSE(completed);
    EXPECT_EQ(visited, 3);
    ASSERT_NE(error, nullptr);
    const char* message = nullptr;
    MV_LogError_GetErrorMessage(error, &message);
    EXPECT_EQ(std::string(message).rfind("Entry 4 of '" + path + "' cannot be read: ", 0), 0u) << message;
    MV_LogError_Destroy(error);
    MV_LogFile_Destroy(file);
}

// Values that a crafted file can hold but that no record type can carry: the
// read names them instead of handing out a narrowed, plausible value.
TEST(StreamingOutOfRange, ImpossibleStoredValuesAreReportedWithTheEntry) {
    TempDir directory;
    const std::string path = directory.file("crafted.mvlog");
    makeFile(path, 4, 0);
    {
        RawDatabase raw(path);
        raw.exec("PRAGMA foreign_keys = OFF;");
        raw.exec("UPDATE data SET entryId = 4294967301 WHERE entryId = 2;");
        raw.exec("UPDATE data SET dataSourceId = 300 WHERE entryId = 3;");
        raw.exec("UPDATE data SET timestamp = 'yesterday' WHERE entryId = 4;");
    }
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    std::vector<std::pair<int64_t, std::string>> reported;
    std::vector<int32_t> ids;
    VisitOptions options;
    options.onDamagedEntry = [&](int64_t entryId, const std::string& reason) {
        reported.emplace_back(entryId, reason);
        return true;
    };
    EXPECT_TRUE(file.visitEntries(
        EntryRange::all(), EntryIndexFilter(),
        [&](const EntryView& view) {
            ids.push_back(view.entryId);
            return true;
        },
        options));
    EXPECT_EQ(ids, std::vector<int32_t>{1});
    const std::vector<std::pair<int64_t, std::string>> expected{
        {3, "its data-source id 300 does not fit in 8 bits"},
        {4, "its timestamp is not an integer"},
        {4294967301, "its id 4294967301 does not fit in 32 bits"}};
    EXPECT_EQ(reported, expected);
    EXPECT_FALSE(file.visitEntrySummaries(EntryRange::all(), EntryIndexFilter(),
                                          [](const EntrySummary&) { return true; }));
    EXPECT_EQ(file.getLastFailure(),
              "Entry 3 of '" + path + "' cannot be read: its data-source id 300 does not fit in 8 bits");
}

// Building the time index with progress: the reports rise to the entry
// count and end there; the index is the same as without them.
TEST(TimeIndexProgress, ReportsRiseToTheEntryCountAndEndThere) {
    TempDir directory;
    const std::string path = directory.file("progress.mvlog");
    makeFile(path, 20000, 0);
    SqliteLogFile file{std::filesystem::path(path)};
    std::vector<std::pair<uint64_t, uint64_t>> reports;
    ASSERT_TRUE(file.createTimeIndex([&](uint64_t built, uint64_t total) {
        reports.emplace_back(built, total);
    })) << file.getLastError();
    EXPECT_TRUE(file.hasTimeIndex());
    // 20000 entries take some hundreds of thousands of instructions: many
    // reports before the final one.
    ASSERT_GE(reports.size(), 3u);
    EXPECT_EQ(reports.back(), std::make_pair(uint64_t{20000}, uint64_t{20000}));
    for (std::size_t i = 0; i < reports.size(); ++i) {
        EXPECT_EQ(reports[i].second, 20000u);
        EXPECT_LE(reports[i].first, 20000u);
        if (i > 0) {
            EXPECT_GE(reports[i].first, reports[i - 1].first);
        }
    }
    // The estimate is no wild guess: halfway through the reports, it is
    // neither near nothing nor already done.
    EXPECT_GT(reports[reports.size() / 2].first, 0u);
    EXPECT_LT(reports.front().first, 20000u);
    EXPECT_GE(reports[reports.size() - 2].first, 10000u);

    EXPECT_EQ(file.findEntryAtOrAfter(1000 + 10 * 12345), 12345);

    // Already built: nothing to report, and true.
    reports.clear();
    EXPECT_TRUE(
        file.createTimeIndex([&](uint64_t built, uint64_t total) { reports.emplace_back(built, total); }));
    EXPECT_TRUE(reports.empty());
}

TEST(TimeIndexProgress, AThrowingReportNeitherEndsTheBuildNorEscapes) {
    TempDir directory;
    const std::string path = directory.file("throwing.mvlog");
    makeFile(path, 5000, 0);
    SqliteLogFile file{std::filesystem::path(path)};
    int calls = 0;
    EXPECT_TRUE(file.createTimeIndex([&](uint64_t, uint64_t) {
        ++calls;
        throw std::runtime_error("the bar is broken");
    })) << file.getLastError();
    EXPECT_GE(calls, 1);
    EXPECT_TRUE(file.hasTimeIndex());
}

TEST(TimeIndexProgress, AReadOnlyFileIsRefusedWithoutAFinalReport) {
    TempDir directory;
    const std::string path = directory.file("readonly.mvlog");
    makeFile(path, 100, 0);
    SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    std::vector<std::pair<uint64_t, uint64_t>> reports;
    EXPECT_FALSE(
        file.createTimeIndex([&](uint64_t built, uint64_t total) { reports.emplace_back(built, total); }));
    EXPECT_FALSE(file.getLastError().empty());
    for (const auto& report : reports) {
        EXPECT_LT(report.first, 100u);
    }
    EXPECT_FALSE(file.hasTimeIndex());
}

}  // namespace
