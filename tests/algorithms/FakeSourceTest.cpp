// Slice and clone driven through an in-memory LogFileInterface: they must need
// nothing from the source but the interface, and must read it the way the
// design requires (one range read, no writes).

#include <logging/Algorithms.h>
#include <logging/SqliteLogFile.h>

#include "AlgorithmsTestSupport.h"
#include "FakeLogFile.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

using namespace Marivane::Logging;
using namespace Marivane::Testing;

namespace {

// Entries 5, 6, 8, 9 and 12 from data source 7, bookmarks on 5, 8 and 12.
void fillWorkedExample(FakeLogFile& fake) {
    fake.dataSources = {{7, MV_LogDataSourceType_Radar, "corner radar"}};
    fake.properties = {{7, "range", 250.0}};
    for (int id : {5, 6, 8, 9, 12}) {
        DataEntry entry = entryFor(id, 7);
        entry.entryId = id;
        fake.entries.push_back(entry);
    }
    fake.metadata = {{"applicationName", std::string("fake recorder")},
                     {"applicationVersion", std::string("0.1")},
                     {"currentTimeZone", std::string("Asia/Tokyo")},
                     {"logVersion", int64_t{4}},
                     {"site", std::string("track B")}};
    fake.resources = {{"notes", bytes({'h', 'i'})}};
    fake.bookmarks = {{5, "five", "", {}}, {8, "eight", "middle", bytes({8})}, {12, "twelve", "", {}}};
}

}  // namespace

TEST(SliceOfInterface, CopiesTheWorkedExampleThroughTheInterfaceAlone) {
    TempDir dir;
    FakeLogFile fake;
    fillWorkedExample(fake);

    ASSERT_TRUE(Algorithms::slice(fake, 6, 9, dir.file("out.mvlog"), "cutter", "2.0", 1));

    EXPECT_EQ(fake.writeAttempts, 0);
    SqliteLogFile output{std::filesystem::path(dir.file("out.mvlog"))};
    const std::vector<DataEntry> entries = output.readEntries(-1, -1, EntryIndexFilter{}, -1);
    ASSERT_EQ(entries.size(), 3u);
    expectEntry(entries[0], 1, 6, 7);
    expectEntry(entries[1], 2, 8, 7);
    expectEntry(entries[2], 3, 9, 7);
    const std::vector<Bookmark> bookmarks = output.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 1u);
    EXPECT_EQ(bookmarks[0].entryId, 2);
    EXPECT_EQ(bookmarks[0].title, "eight");
    EXPECT_EQ(bookmarks[0].comments, "middle");
    EXPECT_EQ(bookmarks[0].payload, bytes({8}));
    expectSameDataSources(output.getDataSources(), fake.dataSources);
    expectSameProperties(output.getAllDataSourceProperties(), fake.properties);
    expectSameResources(output.getAllResources(), fake.resources);
    EXPECT_EQ(*output.getMetadataValue("site"), PropertyValue(std::string("track B")));
    EXPECT_EQ(*output.getMetadataValue("currentTimeZone"), PropertyValue(std::string("Asia/Tokyo")));
    EXPECT_EQ(*output.getMetadataValue("oldApplicationName"), PropertyValue(std::string("fake recorder")));
    EXPECT_EQ(*output.getMetadataValue("oldApplicationVersion"), PropertyValue(std::string("0.1")));
}

TEST(SliceOfInterface, ReadsTheWholeRangeWithOneUnfilteredUnlimitedCall) {
    TempDir dir;
    FakeLogFile fake;
    fillWorkedExample(fake);

    ASSERT_TRUE(Algorithms::slice(fake, 6, 12, dir.file("out.mvlog"), "cutter", "2.0", 0));

    ASSERT_EQ(fake.readEntriesCalls.size(), 1u);
    EXPECT_EQ(fake.readEntriesCalls[0].minimumEntryId, 6);
    EXPECT_EQ(fake.readEntriesCalls[0].maximumEntryId, 12);
    EXPECT_TRUE(fake.readEntriesCalls[0].filterIsEmpty);
    EXPECT_EQ(fake.readEntriesCalls[0].limit, -1);
}

TEST(SliceOfInterface, ABookmarkBetweenEntriesMovesToTheNextEntry) {
    TempDir dir;
    FakeLogFile fake;
    fillWorkedExample(fake);
    // Only a source without foreign keys can hold this: no entry 7 exists, so
    // the bookmark lands where entry 8 lands.
    fake.bookmarks = {{7, "seven", "", {}}};

    ASSERT_TRUE(Algorithms::slice(fake, 6, 9, dir.file("out.mvlog"), "cutter", "2.0", 0));

    SqlConnection sql(dir.file("out.mvlog"));
    EXPECT_EQ(sql.integers("SELECT entryId FROM bookmarks;"), (std::vector<int64_t>{2}));
}

TEST(SliceOfInterface, CloneOfASourceWithoutEntriesSkipsItsBookmarks) {
    TempDir dir;
    FakeLogFile fake;
    fake.dataSources = {{2, MV_LogDataSourceType_Text, "console"}};
    fake.bookmarks = {{1, "orphan", "", {}}, {-1, "none", "", {}}};

    ASSERT_TRUE(Algorithms::clone(fake, dir.file("out.mvlog"), "copier", "1.0", 0));

    EXPECT_TRUE(fake.readEntriesCalls.empty());
    SqlConnection sql(dir.file("out.mvlog"));
    EXPECT_EQ(sql.integers("SELECT COUNT(*) FROM bookmarks;"), (std::vector<int64_t>{0}));
    EXPECT_EQ(sql.integers("SELECT COUNT(*) FROM data;"), (std::vector<int64_t>{0}));
    EXPECT_EQ(sql.integers("SELECT dataSourceId FROM dataSources;"), (std::vector<int64_t>{2}));
}

TEST(SliceOfInterface, DerivesTheExportedNameFromTheInterfacePath) {
    TempDir dir;
    FakeLogFile fake;
    fillWorkedExample(fake);
    fake.path = dir.path() / "session.log";

    std::unique_ptr<LogFileInterface> output = Algorithms::slice(fake, 5, 5, "", "cutter", "2.0", 0);

    ASSERT_TRUE(output);
    EXPECT_EQ(output->getFilePath(), dir.path() / "session_exported.log");
    EXPECT_TRUE(std::filesystem::exists(dir.path() / "session_exported.log"));
}

TEST(SliceOfInterface, RefusalsCreateNothingAndReadNoEntries) {
    TempDir dir;
    FakeLogFile fake;
    fillWorkedExample(fake);

    EXPECT_FALSE(Algorithms::slice(fake, 6, 7, dir.file("out.mvlog"), "cutter", "2.0", 0));
    EXPECT_FALSE(Algorithms::slice(fake, 9, 6, dir.file("out.mvlog"), "cutter", "2.0", 0));
    EXPECT_FALSE(Algorithms::slice(fake, -1, 9, dir.file("out.mvlog"), "cutter", "2.0", 0));

    EXPECT_TRUE(fake.readEntriesCalls.empty());
    EXPECT_EQ(directoryEntryCount(dir.path()), 0u);
}

TEST(SliceOfInterface, ANonTextTimeZoneReturnsEmptyWithoutAFile) {
    TempDir dir;
    FakeLogFile fake;
    fillWorkedExample(fake);
    fake.metadata = {{"currentTimeZone", int64_t{9}}};

    EXPECT_FALSE(Algorithms::slice(fake, 6, 9, dir.file("out.mvlog"), "cutter", "2.0", 0));

    EXPECT_EQ(directoryEntryCount(dir.path()), 0u);
}

TEST(SliceOfInterface, AnExistingOutputIsRefusedBeforeTheSourceIsRead) {
    TempDir dir;
    FakeLogFile fake;
    fillWorkedExample(fake);
    std::filesystem::create_directory(dir.file("taken"));

    EXPECT_FALSE(Algorithms::slice(fake, 6, 9, dir.file("taken"), "cutter", "2.0", 0));
    EXPECT_FALSE(Algorithms::clone(fake, dir.file("taken"), "cutter", "2.0", 0));

    // clone itself asks for the bounds; nothing else may be read.
    EXPECT_EQ(fake.readCalls, 2);
    EXPECT_EQ(directoryEntryCount(dir.file("taken")), 0u);
}

TEST(SliceOfInterface, AReversedRangeIsRefusedBeforeTheSourceIsRead) {
    TempDir dir;
    FakeLogFile fake;
    fillWorkedExample(fake);

    EXPECT_FALSE(Algorithms::slice(fake, 9, 6, dir.file("out.mvlog"), "cutter", "2.0", 0));

    EXPECT_EQ(fake.readCalls, 0);
}
