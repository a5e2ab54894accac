// Streaming reads in time order: ascending timestamp, equal timestamps by
// ascending id, with and without the time index, under every range, filter
// and option of the id-ordered read; one state of the file for the whole read;
// and memory that stays flat on a large shuffled file.

#include "StoreTestSupport.h"

#include "store/EntryCursor.h"

#include <logging/Logging.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::Durability;
using Marivane::Logging::EntryIndexFilter;
using Marivane::Logging::EntryOrder;
using Marivane::Logging::EntryRange;
using Marivane::Logging::EntrySummary;
using Marivane::Logging::EntryView;
using Marivane::Logging::FailureKind;
using Marivane::Logging::Recorder;
using Marivane::Logging::RecorderOptions;
using Marivane::Logging::SqliteLogFile;
using Marivane::Logging::VisitOptions;
using Marivane::Testing::bytesOf;
using Marivane::Testing::RawDatabase;
using Marivane::Testing::TempDir;

constexpr int64_t kNoStart = std::numeric_limits<int64_t>::min();
constexpr int64_t kNoEnd = std::numeric_limits<int64_t>::max();

// What the test wrote, to compute what a read must hand out.
struct Written {
    int32_t id;
    int8_t source;
    int32_t type;
    int64_t timestamp;
};

// With `padding`, that many pseudo-random letters follow (they compress
// little, so that the file's rows stay large at every level).
std::string payloadOf(int32_t id, std::size_t padding = 0) {
    std::string text = "entry-" + std::to_string(id) + std::string(static_cast<std::size_t>(id % 5) * 7, 'p');
    std::mt19937 generator(static_cast<unsigned>(id));
    for (std::size_t i = 0; i < padding; ++i) {
        text += static_cast<char>('a' + generator() % 26);
    }
    return text;
}

std::string textOf(const EntryView& view) {
    return std::string(reinterpret_cast<const char*>(view.data), view.size);
}

VisitOptions inTimeOrder() {
    VisitOptions options;
    options.order = EntryOrder::Time;
    return options;
}

// The ids a visit hands out, checking every payload and timestamp on the way.
std::vector<int32_t> visitIds(const SqliteLogFile& file, const EntryRange& range,
                              const EntryIndexFilter& filter, const VisitOptions& options,
                              const std::map<int32_t, int64_t>& timestamps, std::size_t padding) {
    std::vector<int32_t> ids;
    const bool completed = file.visitEntries(
        range, filter,
        [&](const EntryView& view) {
            EXPECT_EQ(textOf(view), payloadOf(view.entryId, padding)) << "entry " << view.entryId;
            EXPECT_EQ(view.timestamp, timestamps.at(view.entryId)) << "entry " << view.entryId;
            ids.push_back(view.entryId);
            return true;
        },
        options);
    EXPECT_TRUE(completed) << file.getLastFailure();
    return ids;
}

std::vector<int32_t> timeOrderedIds(const SqliteLogFile& file, const EntryRange& range = EntryRange::all(),
                                    const EntryIndexFilter& filter = EntryIndexFilter()) {
    std::vector<int32_t> ids;
    EXPECT_TRUE(file.visitEntries(
        range, filter,
        [&](const EntryView& view) {
            ids.push_back(view.entryId);
            return true;
        },
        inTimeOrder()))
        << file.getLastFailure();
    return ids;
}

// The reference: the written entries in the range that pass `passes`, by
// (timestamp, id).
template <typename Predicate>
std::vector<int32_t> expectedTimeOrder(std::vector<Written> written, const EntryRange& range,
                                       Predicate passes) {
    std::vector<int32_t> ids;
    std::sort(written.begin(), written.end(), [](const Written& a, const Written& b) {
        return std::tie(a.timestamp, a.id) < std::tie(b.timestamp, b.id);
    });
    for (const Written& entry : written) {
        const bool inIds = (range.minimumEntryId == -1 || entry.id >= range.minimumEntryId) &&
                           (range.maximumEntryId == -1 || entry.id <= range.maximumEntryId);
        const bool inTime = entry.timestamp >= range.startTimestamp && entry.timestamp <= range.endTimestamp;
        if (inIds && inTime && passes(entry)) {
            ids.push_back(entry.id);
        }
    }
    return ids;
}

std::vector<int32_t> expectedTimeOrder(const std::vector<Written>& written,
                                       const EntryRange& range = EntryRange::all()) {
    return expectedTimeOrder(written, range, [](const Written&) { return true; });
}

bool idsFollowTime(const std::vector<Written>& written) {
    for (std::size_t i = 1; i < written.size(); ++i) {
        if (written[i].timestamp < written[i - 1].timestamp) {
            return false;
        }
    }
    return true;
}

std::map<int32_t, int64_t> timestampsOf(const std::vector<Written>& written) {
    std::map<int32_t, int64_t> timestamps;
    for (const Written& entry : written) {
        timestamps[entry.id] = entry.timestamp;
    }
    return timestamps;
}

// A file with a camera (two sources of that type) and a gnss source, written
// through logData in one batch.
class OrderFile {
public:
    OrderFile(const std::string& path, int8_t level, std::size_t padding = 0,
              Durability durability = Durability::Fast, bool checksums = false)
        : file_(path, "Etc/UTC", "order-tests", "1.0", level, 1700000000000, durability, checksums),
          padding_(padding) {
        DataSource left{0, MV_LogDataSourceType_Camera, "left"};
        DataSource right{0, MV_LogDataSourceType_Camera, "right"};
        DataSource gnss{0, MV_LogDataSourceType_Navigation, "gnss"};
        EXPECT_TRUE(file_.addDataSource(left));
        EXPECT_TRUE(file_.addDataSource(right));
        EXPECT_TRUE(file_.addDataSource(gnss));
        sources_ = {left.id, right.id, gnss.id};
    }

    int8_t source(std::size_t index) const { return sources_.at(index); }

    void log(int8_t source, int32_t type, int64_t timestamp) {
        const auto id = static_cast<int32_t>(written_.size() + 1);
        ASSERT_TRUE(file_.logData(DataEntry{0, source, type, bytesOf(payloadOf(id, padding_)), timestamp}))
            << file_.getLastError();
        written_.push_back(Written{id, source, type, timestamp});
    }

    void logAll(const std::vector<int64_t>& timestamps) {
        auto batch = file_.beginBatch();
        for (std::size_t i = 0; i < timestamps.size(); ++i) {
            log(sources_[i % 3], static_cast<int32_t>(i % 4), timestamps[i]);
        }
        ASSERT_TRUE(batch.commit());
    }

    SqliteLogFile& file() { return file_; }
    const std::vector<Written>& written() const { return written_; }

private:
    SqliteLogFile file_;
    std::size_t padding_;
    std::vector<int8_t> sources_;
    std::vector<Written> written_;
};

// Timestamps of several sources that lag each other, as capture threads hand
// them over: each source in its own order, the sources interleaved in bursts.
std::vector<int64_t> interleavedTimestamps(std::size_t count, unsigned seed) {
    std::mt19937 generator(seed);
    std::vector<int64_t> next = {1000, 1003, 940, 1010};
    const std::vector<int64_t> period = {10, 7, 25, 10};
    std::vector<int64_t> timestamps;
    while (timestamps.size() < count) {
        const std::size_t thread = generator() % next.size();
        const std::size_t burst = 1 + generator() % 6;
        for (std::size_t i = 0; i < burst && timestamps.size() < count; ++i) {
            timestamps.push_back(next[thread]);
            next[thread] += period[thread];
        }
    }
    return timestamps;
}

// With the index or without, payloads stored plain or compressed, rows small
// or large (without the index, shuffled small rows are sorted whole and large
// ones by their keys).
class TimeOrder : public ::testing::TestWithParam<std::tuple<bool, int, bool>> {
protected:
    bool withIndex() const { return std::get<0>(GetParam()); }
    int8_t level() const { return static_cast<int8_t>(std::get<1>(GetParam())); }
    std::size_t padding() const { return std::get<2>(GetParam()) ? 4000 : 0; }

    void indexIfAsked(SqliteLogFile& file) {
        if (withIndex()) {
            ASSERT_TRUE(file.createTimeIndex()) << file.getLastError();
        }
        ASSERT_EQ(file.hasTimeIndex(), withIndex());
    }

    TempDir dir;
};

TEST_P(TimeOrder, ShuffledTimestampsOfSeveralSourcesComeOutByTime) {
    OrderFile made(dir.file("shuffled.mvlog"), level(), padding());
    made.logAll(interleavedTimestamps(600, 7));
    indexIfAsked(made.file());
    ASSERT_FALSE(idsFollowTime(made.written()));

    const std::vector<int32_t> expected = expectedTimeOrder(made.written());
    EXPECT_EQ(visitIds(made.file(), EntryRange::all(), EntryIndexFilter(), inTimeOrder(),
                       timestampsOf(made.written()), padding()),
              expected);
    // The id order is what it always was.
    std::vector<int32_t> byId;
    for (const Written& entry : made.written()) {
        byId.push_back(entry.id);
    }
    EXPECT_EQ(visitIds(made.file(), EntryRange::all(), EntryIndexFilter(), VisitOptions(),
                       timestampsOf(made.written()), padding()),
              byId);
}

TEST_P(TimeOrder, EqualTimestampsGoByAscendingId) {
    OrderFile made(dir.file("ties.mvlog"), level(), padding());
    made.logAll({5, 3, 5, 3, 5, 1});
    indexIfAsked(made.file());
    EXPECT_EQ(timeOrderedIds(made.file()), (std::vector<int32_t>{6, 2, 4, 1, 3, 5}));
    EXPECT_EQ(timeOrderedIds(made.file(), EntryRange{2, 5, 3, 5}), (std::vector<int32_t>{2, 4, 3, 5}));
}

TEST_P(TimeOrder, RangesAndFiltersSelectWhatTheIdOrderSelects) {
    OrderFile made(dir.file("filters.mvlog"), level(), padding());
    made.logAll(interleavedTimestamps(2000, 11));
    indexIfAsked(made.file());
    const SqliteLogFile& file = made.file();
    const auto timestamps = timestampsOf(made.written());
    const int8_t left = made.source(0);
    const int8_t gnss = made.source(2);

    EntryIndexFilter types;
    types.dataTypes = {1, 3};
    EntryIndexFilter sources;
    sources.dataSources = {gnss, left};
    EntryIndexFilter cameras;
    cameras.dataSourceTypes = {MV_LogDataSourceType_Camera};
    EntryIndexFilter mixed;
    mixed.dataTypes = {0, 1, 2};
    mixed.dataSources = {left, gnss};
    mixed.dataSourceTypes = {MV_LogDataSourceType_Navigation};
    EntryIndexFilter nothing;
    nothing.dataSourceTypes = {MV_LogDataSourceType_Lidar};

    const std::vector<std::pair<EntryIndexFilter, std::function<bool(const Written&)>>> filters = {
        {EntryIndexFilter(), [](const Written&) { return true; }},
        {types, [](const Written& w) { return w.type == 1 || w.type == 3; }},
        {sources, [&](const Written& w) { return w.source == gnss || w.source == left; }},
        {cameras, [&](const Written& w) { return w.source != gnss; }},
        {mixed, [&](const Written& w) { return w.type <= 2 && w.source == gnss; }},
        {nothing, [](const Written&) { return false; }},
    };
    // Whole file, id ranges wide and narrow (the narrow ones are read and
    // sorted rather than walked through the index), time windows, both.
    const std::vector<EntryRange> ranges = {
        EntryRange::all(),
        EntryRange{300, 1700, kNoStart, kNoEnd},
        EntryRange{1200, 1230, kNoStart, kNoEnd},
        EntryRange{-1, 40, kNoStart, kNoEnd},
        EntryRange{1990, -1, kNoStart, kNoEnd},
        EntryRange::between(2000, 4000),
        EntryRange::between(1500, 1500),
        EntryRange{100, 1900, 3000, 3500},
        EntryRange{1400, 1420, 1000, 9000},
        EntryRange{500, 400, kNoStart, kNoEnd},
        EntryRange::between(900000, 900100),
    };
    for (const auto& [filter, passes] : filters) {
        for (const EntryRange& range : ranges) {
            SCOPED_TRACE("ids " + std::to_string(range.minimumEntryId) + ".." +
                         std::to_string(range.maximumEntryId) + ", time " +
                         std::to_string(range.startTimestamp) + ".." + std::to_string(range.endTimestamp) +
                         ", filter " + filter.toWhereClause());
            const std::vector<int32_t> expected = expectedTimeOrder(made.written(), range, passes);
            EXPECT_EQ(visitIds(file, range, filter, inTimeOrder(), timestamps, padding()), expected);

            std::vector<int32_t> summarized;
            EXPECT_TRUE(file.visitEntrySummaries(
                range, filter,
                [&](const EntrySummary& summary) {
                    EXPECT_EQ(summary.timestamp, timestamps.at(summary.entryId));
                    summarized.push_back(summary.entryId);
                    return true;
                },
                inTimeOrder()));
            EXPECT_EQ(summarized, expected);

            std::vector<int32_t> byId = expected;
            std::sort(byId.begin(), byId.end());
            EXPECT_EQ(visitIds(file, range, filter, VisitOptions(), timestamps, padding()), byId);
        }
    }
}

TEST_P(TimeOrder, AFileWhoseIdsFollowTimeReadsTheSameInBothOrders) {
    std::vector<int64_t> timestamps;
    for (int64_t i = 0; i < 500; ++i) {
        timestamps.push_back(1000 + i / 3 * 10);  // runs of equal timestamps
    }
    OrderFile made(dir.file("ordered.mvlog"), level(), padding());
    made.logAll(timestamps);
    indexIfAsked(made.file());
    ASSERT_TRUE(idsFollowTime(made.written()));
    const std::vector<int32_t> expected = expectedTimeOrder(made.written());
    EXPECT_EQ(expected.front(), 1);
    EXPECT_EQ(expected.back(), 500);
    EXPECT_EQ(visitIds(made.file(), EntryRange::all(), EntryIndexFilter(), inTimeOrder(),
                       timestampsOf(made.written()), padding()),
              expected);

    // One entry at the very end that belongs at the start.
    made.log(made.source(1), 2, 999);
    ASSERT_FALSE(idsFollowTime(made.written()));
    const std::vector<int32_t> withLate = timeOrderedIds(made.file());
    ASSERT_EQ(withLate.size(), 501u);
    EXPECT_EQ(withLate.front(), 501);
    EXPECT_EQ(std::vector<int32_t>(withLate.begin() + 1, withLate.end()), expected);
}

// A compressed payload that does not expand; at level 0, where nothing is
// expanded, a payload stored as a number.
TEST_P(TimeOrder, ADamagedPayloadIsMetInTimeOrder) {
    const std::string path = dir.file("damaged.mvlog");
    std::vector<int32_t> expected;
    {
        OrderFile made(path, level(), padding());
        made.logAll({50, 40, 30, 20, 10});
        indexIfAsked(made.file());
        expected = expectedTimeOrder(made.written());
    }
    ASSERT_EQ(expected, (std::vector<int32_t>{5, 4, 3, 2, 1}));
    {
        RawDatabase raw(path);
        raw.exec(level() == 0 ? "UPDATE data SET payload = 42 WHERE entryId = 3;"
                              : "UPDATE data SET payload = x'28b52ffd0000' WHERE entryId = 3;");
    }
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    const std::string reason = level() == 0 ? "its payload is not a blob" : "Cannot uncompress data: ";

    // Without a handler the read ends at the damaged entry, after the entries
    // that come before it in time.
    std::vector<int32_t> seen;
    EXPECT_FALSE(file.visitEntries(
        EntryRange::all(), EntryIndexFilter(),
        [&](const EntryView& view) {
            seen.push_back(view.entryId);
            return true;
        },
        inTimeOrder()));
    EXPECT_EQ(seen, (std::vector<int32_t>{5, 4}));
    EXPECT_EQ(file.getLastFailureKind(), FailureKind::Damaged);
    EXPECT_EQ(file.getLastFailure().rfind("Entry 3 of '" + path + "' cannot be read: " + reason, 0), 0u)
        << file.getLastFailure();

    // A handler hears of it and the read goes on, in time order.
    VisitOptions options = inTimeOrder();
    std::vector<int64_t> damaged;
    options.onDamagedEntry = [&](int64_t entryId, const std::string& why) {
        EXPECT_EQ(why.rfind(reason, 0), 0u) << why;
        damaged.push_back(entryId);
        return true;
    };
    seen.clear();
    EXPECT_TRUE(file.visitEntries(
        EntryRange::all(), EntryIndexFilter(),
        [&](const EntryView& view) {
            seen.push_back(view.entryId);
            return true;
        },
        options));
    EXPECT_EQ(seen, (std::vector<int32_t>{5, 4, 2, 1}));
    EXPECT_EQ(damaged, (std::vector<int64_t>{3}));
}

TEST_P(TimeOrder, ChecksumsAreVerifiedInTimeOrder) {
    const std::string path = dir.file("checksums.mvlog");
    {
        OrderFile made(path, level(), padding(), Durability::Fast, true);
        made.logAll({30, 10, 20, 10});
        indexIfAsked(made.file());
    }
    {
        // Same length, other bytes: only the checksum can tell.
        RawDatabase raw(path);
        raw.exec("UPDATE data SET payload = zeroblob(length(payload)) WHERE entryId = 3;");
    }
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    VisitOptions options = inTimeOrder();
    options.verifyChecksums = true;
    std::vector<std::pair<int64_t, std::string>> damaged;
    options.onDamagedEntry = [&](int64_t entryId, const std::string& reason) {
        damaged.emplace_back(entryId, reason);
        return true;
    };
    std::vector<int32_t> seen;
    EXPECT_TRUE(file.visitEntries(
        EntryRange::all(), EntryIndexFilter(),
        [&](const EntryView& view) {
            seen.push_back(view.entryId);
            return true;
        },
        options));
    EXPECT_EQ(seen, (std::vector<int32_t>{2, 4, 1}));
    ASSERT_EQ(damaged.size(), 1u);
    EXPECT_EQ(damaged[0].first, 3);
    EXPECT_EQ(damaged[0].second, "its payload does not match its checksum");
}

TEST_P(TimeOrder, SummariesHandImpossibleValuesToTheHandler) {
    const std::string path = dir.file("impossible.mvlog");
    {
        OrderFile made(path, level(), padding());
        made.logAll({40, 30, 20, 10});
        indexIfAsked(made.file());
    }
    {
        RawDatabase raw(path);
        raw.exec("UPDATE data SET type = 1099511627776 WHERE entryId = 2;");
    }
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    std::vector<int32_t> seen;
    const auto collect = [&](const EntrySummary& summary) {
        seen.push_back(summary.entryId);
        return true;
    };
    EXPECT_FALSE(file.visitEntrySummaries(EntryRange::all(), EntryIndexFilter(), collect, inTimeOrder()));
    EXPECT_EQ(seen, (std::vector<int32_t>{4, 3}));
    EXPECT_EQ(file.getLastFailure(),
              "Entry 2 of '" + path + "' cannot be read: its type 1099511627776 does not fit in 32 bits");

    VisitOptions options = inTimeOrder();
    std::vector<std::string> reasons;
    options.onDamagedEntry = [&](int64_t entryId, const std::string& reason) {
        reasons.push_back(std::to_string(entryId) + ": " + reason);
        return true;
    };
    seen.clear();
    EXPECT_TRUE(file.visitEntrySummaries(EntryRange::all(), EntryIndexFilter(), collect, options));
    EXPECT_EQ(seen, (std::vector<int32_t>{4, 3, 1}));
    EXPECT_EQ(reasons, (std::vector<std::string>{"2: its type 1099511627776 does not fit in 32 bits"}));

    // The three-argument form keeps reading by id and stopping at the entry.
    seen.clear();
    EXPECT_FALSE(file.visitEntrySummaries(EntryRange::all(), EntryIndexFilter(), collect));
    EXPECT_EQ(seen, (std::vector<int32_t>{1}));
}

TEST_P(TimeOrder, WorksInsideAnOpenWriteBatch) {
    OrderFile made(dir.file("batch.mvlog"), level(), padding());
    indexIfAsked(made.file());
    SqliteLogFile& file = made.file();
    auto batch = file.beginBatch();
    for (const int64_t timestamp : {300, 100, 200}) {
        made.log(made.source(0), 1, timestamp);
    }
    EXPECT_EQ(timeOrderedIds(file), (std::vector<int32_t>{2, 3, 1}));
    EXPECT_EQ(timeOrderedIds(file, EntryRange::between(150, 350)), (std::vector<int32_t>{3, 1}));
    // The batch goes on after the reads.
    EXPECT_TRUE(file.isBatchOpen());
    made.log(made.source(1), 1, 150);
    EXPECT_EQ(timeOrderedIds(file), (std::vector<int32_t>{2, 4, 3, 1}));
    std::vector<int32_t> window;
    EXPECT_TRUE(
        file.visitEntries(EntryRange::between(100, 200), EntryIndexFilter(), [&](const EntryView& view) {
            window.push_back(view.entryId);
            return true;
        }));
    EXPECT_EQ(window, (std::vector<int32_t>{2, 3, 4}));
    EXPECT_TRUE(batch.commit());
    EXPECT_EQ(timeOrderedIds(file), (std::vector<int32_t>{2, 4, 3, 1}));
}

// A second connection changes the file while a read is under way: the read
// sees the file as it was when it began, entry by entry (a write-ahead-log
// file lets the writer go on beside the reader).
TEST_P(TimeOrder, AReadSeesOneStateOfTheFile) {
    struct Case {
        const char* name;
        std::vector<int64_t> timestamps;
        EntryRange range;
        EntryOrder order;
    };
    const std::vector<Case> cases = {
        {"shuffled, time order", {50, 10, 40, 20, 30}, EntryRange::all(), EntryOrder::Time},
        {"ordered, time order", {10, 20, 30, 40, 50}, EntryRange::all(), EntryOrder::Time},
        {"shuffled, time window", {50, 10, 40, 20, 30}, EntryRange::between(10, 45), EntryOrder::Time},
        {"window by id", {10, 20, 30, 40, 50}, EntryRange::between(10, 45), EntryOrder::Id},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = dir.file(std::string(c.name) + ".mvlog");
        std::vector<int32_t> expected;
        {
            OrderFile made(path, 0, padding(), Durability::Safe);
            made.logAll(c.timestamps);
            indexIfAsked(made.file());
            expected = expectedTimeOrder(made.written(), c.range);
            if (c.order == EntryOrder::Id) {
                std::sort(expected.begin(), expected.end());
            }
        }
        const SqliteLogFile file{std::filesystem::path(path)};
        RawDatabase other(path);
        std::vector<int32_t> seen;
        std::vector<std::string> payloads;
        VisitOptions options;
        options.order = c.order;
        EXPECT_TRUE(file.visitEntries(
            c.range, EntryIndexFilter(),
            [&](const EntryView& view) {
                if (seen.empty()) {
                    // Every other entry changes its payload, and a new entry
                    // lands in the middle of the range.
                    other.exec("UPDATE data SET payload = CAST('changed' AS BLOB), length = 7;");
                    other.exec(
                        "INSERT INTO data(timestamp, type, dataSourceId, length, payload) "
                        "SELECT 25, 0, dataSourceId, 3, CAST('new' AS BLOB) FROM data LIMIT 1;");
                }
                seen.push_back(view.entryId);
                payloads.push_back(textOf(view));
                return true;
            },
            options))
            << file.getLastFailure();
        EXPECT_EQ(seen, expected);
        for (std::size_t i = 0; i < seen.size(); ++i) {
            EXPECT_EQ(payloads[i], payloadOf(seen[i], padding())) << "entry " << seen[i];
        }
        // A read that begins now sees the change.
        std::vector<std::string> after;
        EXPECT_TRUE(file.visitEntries(
            c.range, EntryIndexFilter(),
            [&](const EntryView& view) {
                after.push_back(textOf(view));
                return true;
            },
            options));
        EXPECT_EQ(after.size(), expected.size() + 1);
        EXPECT_EQ(std::count(after.begin(), after.end(), "changed"), static_cast<long>(expected.size()));
    }
}

INSTANTIATE_TEST_SUITE_P(IndexLevelAndRows, TimeOrder,
                         ::testing::Combine(::testing::Bool(), ::testing::Values(0, -1), ::testing::Bool()),
                         [](const ::testing::TestParamInfo<std::tuple<bool, int, bool>>& info) {
                             return std::string(std::get<0>(info.param) ? "Indexed" : "NotIndexed") +
                                    (std::get<1>(info.param) == 0 ? "Plain" : "Compressed") +
                                    (std::get<2>(info.param) ? "LargeRows" : "SmallRows");
                         });

// Entries written after the index was made are in it (SQLite keeps an index
// up to date), whoever wrote them: this object, another one, another process.
TEST(TimeOrderIndex, EntriesAppendedAfterTheIndexWasMadeAreInOrder) {
    TempDir dir;
    const std::string path = dir.file("appended.mvlog");
    OrderFile made(path, -1);
    made.logAll({100, 300, 200});
    ASSERT_TRUE(made.file().createTimeIndex());
    made.log(made.source(0), 1, 50);
    made.log(made.source(1), 1, 250);
    {
        SqliteLogFile other{std::filesystem::path(path)};
        ASSERT_TRUE(other.hasTimeIndex());
        ASSERT_TRUE(other.logData(DataEntry{0, made.source(2), 2, bytesOf(payloadOf(6)), 150}));
    }
    {
        RawDatabase raw(path);
        raw.exec(
            "INSERT INTO data(timestamp, type, dataSourceId, length, payload) SELECT 300, 3, "
            "dataSourceId, length, payload FROM data WHERE entryId = 1;");
    }
    EXPECT_EQ(timeOrderedIds(made.file()), (std::vector<int32_t>{4, 1, 6, 3, 5, 2, 7}));
    EXPECT_EQ(timeOrderedIds(made.file(), EntryRange::between(150, 300)),
              (std::vector<int32_t>{6, 3, 5, 2, 7}));
    const SqliteLogFile reader = SqliteLogFile::openReadOnly(path);
    EXPECT_EQ(timeOrderedIds(reader, EntryRange{2, 6, kNoStart, kNoEnd}),
              (std::vector<int32_t>{4, 6, 3, 5, 2}));
}

// A damaged file can report a first id after its last: no span of ids, and
// then nothing is known of its rows' size.
TEST(TimeOrderCost, BytesPerEntryIdOfBoundsThatMakeNoSpanIsZero) {
    using Marivane::Logging::bytesPerEntryId;
    EXPECT_EQ(bytesPerEntryId(10, 8192, 1, 40), 2048);
    EXPECT_EQ(bytesPerEntryId(10, 8192, 7, 7), 81920);
    EXPECT_EQ(bytesPerEntryId(10, 8192, 8, 7), 0);
    EXPECT_EQ(bytesPerEntryId(10, 8192, 100, 7), 0);
    EXPECT_EQ(
        bytesPerEntryId(10, 8192, std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::min()),
        0);
    EXPECT_EQ(bytesPerEntryId(-10, 8192, 1, 2), 0);
    // Far more bytes than ids is a large row, never a number that overflows.
    EXPECT_EQ(bytesPerEntryId(std::numeric_limits<int64_t>::max(), 65536, 1, 1),
              std::numeric_limits<int32_t>::max());
    EXPECT_EQ(
        bytesPerEntryId(1, 8192, std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()),
        0);
}

// Several capture threads recording at once, each with its own clock lag:
// the recorder writes in the order it receives entries, which is not time.
TEST(TimeOrderRecorder, EntriesFromSeveralThreadsComeOutByTime) {
    for (const bool index : {false, true}) {
        SCOPED_TRACE(index ? "with the index" : "without it");
        TempDir dir;
        const std::string path = dir.file("threads.mvlog");
        RecorderOptions options;
        options.durability = Durability::Fast;
        options.buildTimeIndexOnClose = index;
        constexpr int kThreads = 4;
        constexpr int kPerThread = 400;
        {
            Recorder recorder(path, options);
            std::vector<int8_t> sources;
            for (int t = 0; t < kThreads; ++t) {
                DataSource source{0, MV_LogDataSourceType_Generic, "thread-" + std::to_string(t)};
                ASSERT_TRUE(recorder.addDataSource(source));
                sources.push_back(source.id);
            }
            // Late by design: everything the threads record is earlier.
            ASSERT_TRUE(recorder.record(sources[0], 9, 1'000'000, "late", 4));
            std::atomic<bool> go{false};
            std::vector<std::thread> threads;
            for (int t = 0; t < kThreads; ++t) {
                threads.emplace_back([&, t] {
                    while (!go) {
                        std::this_thread::yield();
                    }
                    for (int i = 0; i < kPerThread; ++i) {
                        const int64_t timestamp = 10'000 + i * 10 - t * 35;
                        const std::string text = std::to_string(t) + ":" + std::to_string(timestamp);
                        recorder.record(sources[static_cast<std::size_t>(t)], t, timestamp, text.data(),
                                        text.size());
                    }
                });
            }
            go = true;
            for (std::thread& thread : threads) {
                thread.join();
            }
            ASSERT_TRUE(recorder.close()) << recorder.stats().lastError;
        }
        const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
        ASSERT_EQ(file.hasTimeIndex(), index);
        std::vector<Written> written;
        ASSERT_TRUE(file.visitEntries(EntryRange::all(), EntryIndexFilter(), [&](const EntryView& view) {
            written.push_back(Written{view.entryId, view.dataSourceId, view.type, view.timestamp});
            return true;
        }));
        ASSERT_EQ(written.size(), static_cast<std::size_t>(kThreads * kPerThread + 1));
        ASSERT_FALSE(idsFollowTime(written));
        std::vector<int32_t> seen;
        int64_t previous = std::numeric_limits<int64_t>::min();
        ASSERT_TRUE(file.visitEntries(
            EntryRange::all(), EntryIndexFilter(),
            [&](const EntryView& view) {
                EXPECT_LE(previous, view.timestamp);
                previous = view.timestamp;
                if (view.type != 9) {
                    EXPECT_EQ(textOf(view), std::to_string(view.type) + ":" + std::to_string(view.timestamp));
                }
                seen.push_back(view.entryId);
                return true;
            },
            inTimeOrder()));
        EXPECT_EQ(seen, expectedTimeOrder(written));
        EXPECT_EQ(seen.back(), 1);
    }
}

// ---- memory ------------------------------------------------------------------

long statusKibibytes(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field, 0) == 0) {
            return std::stol(line.substr(std::strlen(field)));
        }
    }
    return -1;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// Reads a file whose timestamps are a random permutation in time order,
// without the index, in a process of its own, and answers how far that
// process's peak resident memory grew (KiB), after checking every entry.
long peakGrowthOfATimeOrderedRead(const std::string& path, int32_t entries) {
    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0) {
        ADD_FAILURE() << "no pipe";
        return -1;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(pipeEnds[0]);
        long grownKiB = -1;
        int64_t seen = 0;
        bool inOrder = true;
        {
            const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
            const long before = statusKibibytes("VmRSS:");
            const bool completed = file.visitEntries(
                EntryRange::all(), EntryIndexFilter(),
                [&](const EntryView& view) {
                    int64_t stored = 0;
                    std::memcpy(&stored, view.data, sizeof stored);
                    inOrder = inOrder && view.timestamp == seen && stored == seen;
                    ++seen;
                    return true;
                },
                inTimeOrder());
            const long peak = statusKibibytes("VmHWM:");
            if (completed && inOrder && seen == entries && before >= 0 && peak >= 0) {
                grownKiB = peak - before;
            }
        }
        char text[32];
        const int length = std::snprintf(text, sizeof text, "%ld", grownKiB);
        (void)!::write(pipeEnds[1], text, static_cast<std::size_t>(length));
        ::_exit(0);
    }
    ::close(pipeEnds[1]);
    std::string answer;
    char buffer[64];
    ssize_t got = 0;
    while ((got = ::read(pipeEnds[0], buffer, sizeof buffer)) > 0) {
        answer.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(pipeEnds[0]);
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0 || answer.empty()) {
        ADD_FAILURE() << "the reading process failed";
        return -1;
    }
    return std::stol(answer);
}

// A file of `entries` payloads of `payloadSize` bytes (their first 8 bytes
// are the timestamp), timestamps 0..entries-1 in random order.
void makeShuffledFile(const std::string& path, int32_t entries, std::size_t payloadSize) {
    SqliteLogFile file(path, "Etc/UTC", "order-tests", "1.0", 0, 1700000000000);
    DataSource source{0, MV_LogDataSourceType_Generic, "source"};
    ASSERT_TRUE(file.addDataSource(source));
    std::vector<int64_t> timestamps(static_cast<std::size_t>(entries));
    for (int32_t i = 0; i < entries; ++i) {
        timestamps[static_cast<std::size_t>(i)] = i;
    }
    std::shuffle(timestamps.begin(), timestamps.end(), std::mt19937(5));
    Marivane::Logging::ByteBuffer payload = Marivane::Testing::patternBytes(payloadSize, 3);
    auto batch = file.beginBatch();
    for (const int64_t timestamp : timestamps) {
        std::memcpy(payload.data(), &timestamp, sizeof timestamp);
        ASSERT_TRUE(file.logData(DataEntry{0, source.id, 0, payload, timestamp}));
    }
    ASSERT_TRUE(batch.commit());
    ASSERT_FALSE(file.hasTimeIndex());
}

// Files of about 240 MB, read in time order without the index: the peak
// resident memory of the reading process grows by a small part of the file.
// Small rows go through SQLite's sorter whole, large ones by their keys.
class TimeOrderMemory : public ::testing::TestWithParam<std::pair<int32_t, std::size_t>> {};

TEST_P(TimeOrderMemory, AShuffledFileIsReadInFlatMemory) {
    if (kSanitized) {
        GTEST_SKIP() << "a sanitizer's shadow memory is not the library's";
    }
    const auto [entries, payloadSize] = GetParam();
    TempDir dir;
    const std::string path = dir.file("large.mvlog");
    makeShuffledFile(path, entries, payloadSize);
    const auto fileMiB = static_cast<long>(std::filesystem::file_size(path) >> 20);
    ASSERT_GT(fileMiB, 200);
    const long grownKiB = peakGrowthOfATimeOrderedRead(path, entries);
    ASSERT_GE(grownKiB, 0);
    // The rows would take the size of the file; the sorter keeps a few MiB
    // and spills the rest, and the first 32 MiB of the file, which the
    // read-only connection maps, count as resident once touched.
    EXPECT_LT(grownKiB / 1024, 56) << "of a " << fileMiB << " MiB file";
}

INSTANTIATE_TEST_SUITE_P(SmallAndLargeRows, TimeOrderMemory,
                         ::testing::Values(std::pair<int32_t, std::size_t>{400'000, 512},
                                           std::pair<int32_t, std::size_t>{30'000, 4096}));

}  // namespace
