// How recover counts what it could not bring back when the end of a file is
// gone: every trace of an id counts, a count that may miss entries says so,
// and bytes past the end of the file are never taken for content.
#include "DamagedFiles.h"
#include "recover/PageScanner.h"
#include "support/TempDir.h"

#include <logging/Recover.h>
#include <logging/SqliteLogFile.h>

#include <database/SqliteDatabase.h>
#include <database/SqliteQuery.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace RecoverTest {
namespace {

using Marivane::Logging::Bookmark;
using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::EntryIdRange;
using Marivane::Logging::RecoveryReport;
using Marivane::Logging::SqliteLogFile;
using Marivane::Logging::Recovery::PageScanner;
using Marivane::Logging::Recovery::ScannedCell;
using Marivane::Testing::TempDir;
namespace Algorithms = Marivane::Logging::Algorithms;

constexpr int64_t kStart = 1'700'000'000'000;
constexpr int kCount = 900;

ByteBuffer payloadOf(int id, std::size_t size) {
    ByteBuffer bytes(size);
    uint32_t state = static_cast<uint32_t>(id) * 2654435761u;
    for (std::byte& b : bytes) {
        state = state * 1103515245u + 12345u;
        b = static_cast<std::byte>(state >> 16);
    }
    return bytes;
}

struct Layout {
    uint32_t pageSize = 0;
    uint32_t pageCount = 0;
    // Entry id -> the pages its row lives on (leaf first, then overflow).
    std::map<int32_t, std::vector<uint32_t>> pagesOf;
    // Every key of every table interior page whose children hold entries.
    int64_t highestInteriorKey = 0;

    std::vector<int32_t> idsTouching(uint32_t firstMissingPage) const {
        std::vector<int32_t> ids;
        for (const auto& [id, pages] : pagesOf) {
            if (std::any_of(pages.begin(), pages.end(), [&](uint32_t p) { return p >= firstMissingPage; })) {
                ids.push_back(id);
            }
        }
        return ids;
    }
};

// kCount entries of `size` bytes each (incompressible), except the last one
// when `lastSize` is given; bookmarks on the given entries.
Layout writeFile(const std::filesystem::path& path, int8_t level, std::size_t size,
                 const std::vector<int32_t>& bookmarks = {}, std::size_t lastSize = 0) {
    {
        SqliteLogFile file(path.string(), "UTC", "losttest", "1", level, kStart);
        DataSource source{-1, MV_LogDataSourceType_Generic, "sensor"};
        EXPECT_TRUE(file.addDataSource(source));
        auto batch = file.beginBatch();
        for (int id = 1; id <= kCount; ++id) {
            DataEntry entry;
            entry.dataSourceId = source.id;
            entry.type = 1;
            entry.timestamp = kStart + id;
            entry.data = payloadOf(id, id == kCount && lastSize != 0 ? lastSize : size);
            EXPECT_TRUE(file.logData(entry));
        }
        EXPECT_TRUE(batch.commit());
        for (const int32_t id : bookmarks) {
            EXPECT_TRUE(file.addBookmark(Bookmark{id, "mark", "", ByteBuffer()}));
        }
    }
    Layout layout;
    PageScanner scanner(path, path);
    layout.pageSize = scanner.pageSize();
    layout.pageCount = scanner.pageCount();
    std::map<uint32_t, bool> leaves;
    scanner.forEachCell([](const ScannedCell& cell) { return cell.serialTypes.size() == 6; },
                        [&](const ScannedCell& cell) {
                            if (cell.serialTypes.size() != 6) {
                                return;
                            }
                            std::vector<uint32_t>& pages = layout.pagesOf[static_cast<int32_t>(cell.rowid)];
                            pages.push_back(cell.page);
                            pages.insert(pages.end(), cell.overflowPages.begin(), cell.overflowPages.end());
                            leaves[cell.page] = true;
                        });
    for (uint32_t page = 2; page <= layout.pageCount; ++page) {
        const auto interior = scanner.tableInterior(page);
        if (!interior) {
            continue;
        }
        std::vector<uint32_t> children = interior->children;
        children.push_back(interior->rightmost);
        if (std::any_of(children.begin(), children.end(),
                        [&](uint32_t child) { return leaves.count(child); })) {
            for (const int64_t key : interior->keys) {
                layout.highestInteriorKey = std::max(layout.highestInteriorKey, key);
            }
        }
    }
    EXPECT_EQ(layout.pagesOf.size(), static_cast<std::size_t>(kCount));
    return layout;
}

void cutTo(const std::filesystem::path& path, uint64_t size) {
    std::filesystem::resize_file(path, size);
}

void zeroPage(const std::filesystem::path& path, uint32_t page, uint32_t pageSize) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(page - 1) * pageSize);
    const std::string zeros(pageSize, '\0');
    file.write(zeros.data(), static_cast<std::streamsize>(zeros.size()));
}

uint32_t rootPageOf(const std::filesystem::path& path, const std::string& name) {
    Marivane::Database::SqliteDatabase database(path.string(), Marivane::Database::OpenReadOnly);
    Marivane::Database::SqliteQuery query(database, "SELECT rootpage FROM sqlite_master WHERE name = :name;");
    query.bindParameter(":name", name, Marivane::Database::BindMode::Copy);
    EXPECT_EQ(query.executeStep(), Marivane::Database::StepRow) << name;
    return static_cast<uint32_t>(query.getIntegerFromColumn(0).value_or(0));
}

// Every id from 1 to kCount is recovered with its own bytes, or lost, never
// both; answers the recovered ids.
std::vector<int32_t> checkOutput(const std::filesystem::path& output, const RecoveryReport& report,
                                 std::size_t size, std::size_t lastSize = 0) {
    std::vector<int32_t> recovered;
    for (const auto& [id, bytes] : readPayloads(output)) {
        EXPECT_EQ(bytes, payloadOf(id, id == kCount && lastSize != 0 ? lastSize : size)) << "entry " << id;
        recovered.push_back(id);
    }
    EXPECT_EQ(recovered.size(), report.entriesRecovered);
    uint64_t lost = 0;
    for (const EntryIdRange& run : report.lostEntryIds) {
        lost += static_cast<uint64_t>(run.last - run.first + 1);
        for (int64_t id = run.first; id <= run.last; ++id) {
            EXPECT_FALSE(std::binary_search(recovered.begin(), recovered.end(), static_cast<int32_t>(id)))
                << "entry " << id << " is both recovered and lost";
        }
    }
    EXPECT_EQ(lost, report.entriesLost);
    return recovered;
}

bool hasNote(const RecoveryReport& report, const std::string& note) {
    return std::find(report.notes.begin(), report.notes.end(), note) != report.notes.end();
}

std::string lowerBoundNote(int64_t highest) {
    return "The number of lost entries is a lower bound: the file shows ids up to " +
           std::to_string(highest) +
           ", and entries after that, if there were any, left no trace that could be counted.";
}

class LostCountTest : public ::testing::TestWithParam<int8_t> {};

// The file keeps only its first two fifths, but the index on the data
// table lies within them and is whole: it holds every id, so the count is
// exact although the entries after the cut left nothing else behind.
TEST_P(LostCountTest, ACutTailIsCountedExactlyFromAWholeIndex) {
    TempDir directory;
    const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
    const Layout layout = writeFile(damaged, GetParam(), 300);
    const uint32_t kept = layout.pageCount * 2 / 5;
    ASSERT_LT(rootPageOf(damaged, "dataDataSourceIndex"), kept);
    cutTo(damaged, uint64_t{kept} * layout.pageSize);

    const RecoveryReport report = Algorithms::recover(damaged, directory.path() / "new.mvlog");
    const std::vector<int32_t> recovered = checkOutput(directory.path() / "new.mvlog", report, 300);
    ASSERT_FALSE(recovered.empty());
    const int32_t lastRecovered = recovered.back();
    EXPECT_EQ(recovered.size(), static_cast<std::size_t>(lastRecovered)) << "not a prefix";
    EXPECT_EQ(layout.idsTouching(kept + 1).front(), lastRecovered + 1);
    EXPECT_FALSE(report.entriesLostIsLowerBound) << ::testing::PrintToString(report.notes);
    EXPECT_EQ(report.entriesLost, static_cast<uint64_t>(kCount - lastRecovered));
    ASSERT_EQ(report.lostEntryIds.size(), 1u);
    EXPECT_EQ(report.lostEntryIds[0].first, lastRecovered + 1);
    EXPECT_EQ(report.lostEntryIds[0].last, kCount);
    EXPECT_TRUE(hasNote(report, "The file is cut short: it holds " + std::to_string(kept) + " of the " +
                                    std::to_string(layout.pageCount) + " pages its header declares."))
        << ::testing::PrintToString(report.notes);
}

// The same cut with the index gone too: the last id is unknown, and the ids
// the rest of the file still shows (a bookmark near the end, the keys of the
// data table's root page) are counted as lost, as a lower bound.
TEST_P(LostCountTest, ACutTailCountsEveryIdTheFileStillShows) {
    TempDir directory;
    const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
    const Layout layout = writeFile(damaged, GetParam(), 300, {3, 850});
    const uint32_t kept = layout.pageCount * 2 / 5;
    zeroPage(damaged, rootPageOf(damaged, "dataDataSourceIndex"), layout.pageSize);
    cutTo(damaged, uint64_t{kept} * layout.pageSize);

    const RecoveryReport report = Algorithms::recover(damaged, directory.path() / "new.mvlog");
    const std::vector<int32_t> recovered = checkOutput(directory.path() / "new.mvlog", report, 300);
    ASSERT_FALSE(recovered.empty());
    const int32_t lastRecovered = recovered.back();
    EXPECT_EQ(recovered.size(), static_cast<std::size_t>(lastRecovered)) << "not a prefix";

    EXPECT_TRUE(report.entriesLostIsLowerBound);
    const int64_t highest = std::max<int64_t>(850, layout.highestInteriorKey);
    EXPECT_EQ(report.entriesRecovered + report.entriesLost, static_cast<uint64_t>(highest));
    ASSERT_EQ(report.lostEntryIds.size(), 1u);
    EXPECT_EQ(report.lostEntryIds[0].first, lastRecovered + 1);
    EXPECT_EQ(report.lostEntryIds[0].last, highest);
    EXPECT_TRUE(hasNote(report, lowerBoundNote(highest))) << ::testing::PrintToString(report.notes);
    EXPECT_EQ(report.bookmarksRecovered, 1u);
    EXPECT_EQ(report.bookmarksLost, 1u);
}

// Without bookmarks the data table's interior pages still show how far the
// ids went.
TEST_P(LostCountTest, ACutTailWithoutBookmarksIsCountedFromTheDataTable) {
    TempDir directory;
    const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
    const Layout layout = writeFile(damaged, GetParam(), 300);
    ASSERT_GT(layout.highestInteriorKey, kCount / 2);
    const uint32_t kept = layout.pageCount * 2 / 5;
    zeroPage(damaged, rootPageOf(damaged, "dataDataSourceIndex"), layout.pageSize);
    cutTo(damaged, uint64_t{kept} * layout.pageSize);

    const RecoveryReport report = Algorithms::recover(damaged, directory.path() / "new.mvlog");
    checkOutput(directory.path() / "new.mvlog", report, 300);
    EXPECT_TRUE(report.entriesLostIsLowerBound);
    EXPECT_EQ(report.entriesRecovered + report.entriesLost, static_cast<uint64_t>(layout.highestInteriorKey));
    EXPECT_TRUE(hasNote(report, lowerBoundNote(layout.highestInteriorKey)))
        << ::testing::PrintToString(report.notes);
}

// Only the last page is gone and the index on the data table is whole: the
// last id is known, so the count is exact.
TEST_P(LostCountTest, ALostLastPageIsCountedExactlyWhenAnIndexIsWhole) {
    TempDir directory;
    const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
    const Layout layout = writeFile(damaged, GetParam(), 100);
    {
        PageScanner scanner(damaged, damaged);
        ASSERT_EQ(scanner.pageType(layout.pageCount), 0x0D) << "the last page is not a table leaf";
    }
    const std::vector<int32_t> onLastPage = layout.idsTouching(layout.pageCount);
    ASSERT_FALSE(onLastPage.empty());
    ASSERT_EQ(onLastPage.back(), kCount);
    cutTo(damaged, uint64_t{layout.pageCount - 1} * layout.pageSize);

    const RecoveryReport report = Algorithms::recover(damaged, directory.path() / "new.mvlog");
    checkOutput(directory.path() / "new.mvlog", report, 100);
    EXPECT_FALSE(report.entriesLostIsLowerBound) << ::testing::PrintToString(report.notes);
    EXPECT_EQ(report.entriesLost, onLastPage.size());
    EXPECT_EQ(report.entriesRecovered, kCount - onLastPage.size());
    ASSERT_EQ(report.lostEntryIds.size(), 1u);
    EXPECT_EQ(report.lostEntryIds[0].first, onLastPage.front());
    EXPECT_EQ(report.lostEntryIds[0].last, kCount);
    EXPECT_FALSE(hasNote(report, lowerBoundNote(kCount)));
}

// One byte short: the entries of the last page are lost, not recovered with
// a zero where the byte was.
TEST_P(LostCountTest, AFileCutByOneByteLosesTheEntriesOfItsLastPage) {
    TempDir directory;
    const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
    const Layout layout = writeFile(damaged, GetParam(), 100);
    const std::vector<int32_t> onLastPage = layout.idsTouching(layout.pageCount);
    ASSERT_FALSE(onLastPage.empty());
    cutTo(damaged, uint64_t{layout.pageCount} * layout.pageSize - 1);

    const RecoveryReport report = Algorithms::recover(damaged, directory.path() / "new.mvlog");
    const std::vector<int32_t> recovered = checkOutput(directory.path() / "new.mvlog", report, 100);
    EXPECT_EQ(report.entriesRecovered, kCount - onLastPage.size());
    EXPECT_EQ(report.entriesLost, onLastPage.size());
    EXPECT_FALSE(report.entriesLostIsLowerBound) << ::testing::PrintToString(report.notes);
    for (const int32_t id : onLastPage) {
        EXPECT_FALSE(std::binary_search(recovered.begin(), recovered.end(), id)) << id;
    }
    EXPECT_TRUE(hasNote(report, "The file ends inside page " + std::to_string(layout.pageCount) +
                                    ": that page is missing, and so is every entry whose bytes were on it."))
        << ::testing::PrintToString(report.notes);
}

// The last entry spills into overflow pages, the last of which the cut
// shortens: that entry is lost, every other one comes back.
TEST_P(LostCountTest, AnOverflowPageCutByOneByteLosesItsEntry) {
    TempDir directory;
    const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
    const Layout layout = writeFile(damaged, GetParam(), 100, {}, 40000);
    const std::vector<int32_t> onLastPage = layout.idsTouching(layout.pageCount);
    ASSERT_EQ(onLastPage, std::vector<int32_t>{kCount});
    cutTo(damaged, uint64_t{layout.pageCount} * layout.pageSize - 1);

    const RecoveryReport report = Algorithms::recover(damaged, directory.path() / "new.mvlog");
    checkOutput(directory.path() / "new.mvlog", report, 100, 40000);
    EXPECT_EQ(report.entriesRecovered, kCount - 1u);
    EXPECT_EQ(report.entriesLost, 1u);
    EXPECT_FALSE(report.entriesLostIsLowerBound);
    ASSERT_EQ(report.lostEntryIds.size(), 1u);
    EXPECT_EQ(report.lostEntryIds[0].first, kCount);
}

// A zeroed schema page hides where the tables start; the data table's root
// is still found among its interior pages, and the count stays exact.
TEST_P(LostCountTest, AZeroedSchemaPageKeepsTheCountExact) {
    TempDir directory;
    const std::filesystem::path damaged = directory.path() / "damaged.mvlog";
    const Layout layout = writeFile(damaged, GetParam(), 300);
    zeroPage(damaged, 1, layout.pageSize);
    const RecoveryReport report = Algorithms::recover(damaged, directory.path() / "new.mvlog");
    checkOutput(directory.path() / "new.mvlog", report, 300);
    EXPECT_EQ(report.entriesRecovered, static_cast<uint64_t>(kCount));
    EXPECT_EQ(report.entriesLost, 0u);
    EXPECT_FALSE(report.entriesLostIsLowerBound) << ::testing::PrintToString(report.notes);
}

TEST_P(LostCountTest, AHealthyFileHasAnExactCount) {
    TempDir directory;
    const std::filesystem::path healthy = directory.path() / "healthy.mvlog";
    writeFile(healthy, GetParam(), 100, {kCount});
    const RecoveryReport report = Algorithms::recover(healthy, directory.path() / "new.mvlog");
    EXPECT_EQ(report.entriesRecovered, static_cast<uint64_t>(kCount));
    EXPECT_EQ(report.entriesLost, 0u);
    EXPECT_FALSE(report.entriesLostIsLowerBound);
    EXPECT_TRUE(report.notes.empty()) << ::testing::PrintToString(report.notes);
}

// Bytes after as many pages as the header declares are no page: SQLite never
// reads them, and the salvage goes as for the file without them.
TEST_P(LostCountTest, BytesAfterTheDeclaredPagesChangeNothing) {
    TempDir directory;
    const std::filesystem::path longer = directory.path() / "longer.mvlog";
    writeFile(longer, GetParam(), 100);
    {
        std::ofstream out(longer, std::ios::binary | std::ios::app);
        out << "0123456789";
    }
    const RecoveryReport report = Algorithms::recover(longer, directory.path() / "new.mvlog");
    checkOutput(directory.path() / "new.mvlog", report, 100);
    EXPECT_EQ(report.entriesRecovered, static_cast<uint64_t>(kCount));
    EXPECT_EQ(report.entriesLost, 0u);
    EXPECT_FALSE(report.entriesLostIsLowerBound);
    EXPECT_TRUE(report.notes.empty()) << ::testing::PrintToString(report.notes);
}

INSTANTIATE_TEST_SUITE_P(Levels, LostCountTest, ::testing::Values(int8_t{0}, int8_t{-1}),
                         [](const ::testing::TestParamInfo<int8_t>& info) {
                             return info.param == 0 ? std::string("Uncompressed") : std::string("Compressed");
                         });

}  // namespace
}  // namespace RecoverTest
