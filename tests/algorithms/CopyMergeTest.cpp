// The general derived files: a filtered copy of one file and a merge of
// several, streamed, written under a temporary name and renamed when complete.

#include <logging/Copy.h>
#include <logging/SqliteLogFile.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace Marivane::Logging;
using Marivane::Testing::TempDir;

ByteBuffer payloadFor(int index, std::size_t size = 200) {
    ByteBuffer data(size);
    for (std::size_t i = 0; i < size; ++i) {
        data[i] = static_cast<std::byte>((index * 31 + static_cast<int>(i)) % 251);
    }
    return data;
}

// Two sources (camera 1, gnss 2); entry i (from 1) has timestamp `start + 10 i`,
// type i % 3, source camera for odd i; bookmarks on 2, 5 and 9.
void writeSource(const std::string& path, int count, int64_t start, int8_t level = -1,
                 const std::string& application = "recorder") {
    SqliteLogFile file(path, "Europe/Berlin", application, "2.1", level, 1'700'000'000'000);
    DataSource camera{-1, MV_LogDataSourceType_Camera, "camera"};
    DataSource gnss{-1, MV_LogDataSourceType_Navigation, "gnss"};
    ASSERT_TRUE(file.addDataSource(camera));
    ASSERT_TRUE(file.addDataSource(gnss));
    ASSERT_TRUE(file.addDataSourceProperty(DataSourceProperty{camera.id, "width", int64_t{640}}));
    ASSERT_TRUE(file.addMetadata("vehicle", std::string("test-car")));
    ASSERT_TRUE(file.addResource("calibration", ByteBuffer{std::byte{1}, std::byte{2}}));
    auto batch = file.beginBatch();
    for (int i = 1; i <= count; ++i) {
        DataEntry entry;
        entry.dataSourceId = i % 2 == 1 ? camera.id : gnss.id;
        entry.type = i % 3;
        entry.timestamp = start + 10 * i;
        entry.data = payloadFor(i);
        ASSERT_TRUE(file.logData(entry));
    }
    ASSERT_TRUE(batch.commit());
    for (int id : {2, 5, 9}) {
        if (id <= count) {
            ASSERT_TRUE(file.addBookmark(Bookmark{id, "mark " + std::to_string(id), "", {}}));
        }
    }
}

std::vector<std::string> filesIn(const fs::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

TEST(Copy, TakesAnIdRangeATimeRangeAndAFilterAtOnce) {
    TempDir dir;
    const std::string source = dir.file("source.mvlog");
    writeSource(source, 40, 1000);
    CopyOptions options;
    options.firstEntryId = 5;
    options.lastEntryId = 30;
    options.startTimestamp = 1100;  // entry 10 on
    options.endTimestamp = 1250;    // up to entry 25
    options.filter.dataSourceTypes = {MV_LogDataSourceType_Camera};
    const CopyReport report = Algorithms::copy(source, dir.file("copy.mvlog"), options);
    // Odd ids from 11 to 25.
    EXPECT_EQ(report.entries, 8u);
    EXPECT_EQ(report.payloadsCopiedAsStored, 8u);
    SqliteLogFile copy = SqliteLogFile::openReadOnly(dir.file("copy.mvlog"));
    const auto entries = copy.readEntries(-1, -1, EntryIndexFilter{}, -1);
    ASSERT_EQ(entries.size(), 8u);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const int sourceId = 11 + 2 * static_cast<int>(i);
        EXPECT_EQ(entries[i].entryId, static_cast<int32_t>(i + 1));
        EXPECT_EQ(entries[i].timestamp, 1000 + 10 * sourceId);
        EXPECT_EQ(entries[i].type, sourceId % 3);
        EXPECT_EQ(entries[i].dataSourceId, 1);
        EXPECT_EQ(entries[i].data, payloadFor(sourceId));
    }
}

// A bookmark on an entry outside a time range marks another moment: it is
// not moved into the copy, however the ids run.
TEST(Copy, BookmarksOutsideATimeRangeAreNotCopied) {
    TempDir dir;
    const std::string source = dir.file("source.mvlog");
    writeSource(source, 12, 1000);
    {
        // Entry 13, written last, is the earliest of all.
        SqliteLogFile file{fs::path(source)};
        ASSERT_TRUE(file.logData(DataEntry{0, 1, 0, payloadFor(13), 1000}));
        ASSERT_TRUE(file.addBookmark(Bookmark{13, "mark 13", "", {}}));
    }
    CopyOptions options;
    options.startTimestamp = 1060;  // entries 6..12
    const CopyReport report = Algorithms::copy(source, dir.file("copy.mvlog"), options);
    EXPECT_EQ(report.entries, 7u);
    const auto bookmarks = SqliteLogFile::openReadOnly(dir.file("copy.mvlog")).getBookmarks();
    // 9 becomes 4; 2, 5 and 13 mark entries before the range.
    ASSERT_EQ(bookmarks.size(), 1u);
    EXPECT_EQ(bookmarks[0].entryId, 4);
    EXPECT_EQ(bookmarks[0].title, "mark 9");
    EXPECT_EQ(report.notes,
              std::vector<std::string>{"3 bookmark(s) of '" + source +
                                       "' mark entries outside the selected time range and were "
                                       "not copied."});
}

TEST(Copy, WritesMetadataHistoryResourcesSourcesAndMovesBookmarks) {
    TempDir dir;
    const std::string source = dir.file("source.mvlog");
    writeSource(source, 12, 1000);
    CopyOptions options;
    options.firstEntryId = 3;
    options.filter.dataTypes = {0, 1};  // drops ids 5 and 8 and 11 (type 2)
    options.applicationName = "copier";
    options.applicationVersion = "9.9";
    const CopyReport report = Algorithms::copy(source, dir.file("copy.mvlog"), options);
    SqliteLogFile copy = SqliteLogFile::openReadOnly(dir.file("copy.mvlog"));
    EXPECT_EQ(std::get<std::string>(*copy.getMetadataValue("applicationName")), "copier");
    EXPECT_EQ(std::get<std::string>(*copy.getMetadataValue("oldApplicationName")), "recorder");
    EXPECT_EQ(std::get<std::string>(*copy.getMetadataValue("oldApplicationVersion")), "2.1");
    EXPECT_EQ(std::get<std::string>(*copy.getMetadataValue("currentTimeZone")), "Europe/Berlin");
    EXPECT_EQ(std::get<std::string>(*copy.getMetadataValue("vehicle")), "test-car");
    EXPECT_EQ(copy.getDataSources().size(), 2u);
    EXPECT_EQ(copy.getAllDataSourceProperties().size(), 1u);
    EXPECT_EQ((copy.getResource("calibration")), (ByteBuffer{std::byte{1}, std::byte{2}}));
    // Copied: 3 4 6 7 9 10 12 as 1..7. Bookmark 2 is outside the range; 5
    // (not copied) moves to the next copied entry, 6 (new id 3); 9 is new 5.
    const auto bookmarks = copy.getBookmarks();
    ASSERT_EQ(bookmarks.size(), 2u);
    EXPECT_EQ(bookmarks[0].entryId, 3);
    EXPECT_EQ(bookmarks[0].title, "mark 5");
    EXPECT_EQ(bookmarks[1].entryId, 5);
    EXPECT_EQ(bookmarks[1].title, "mark 9");
    EXPECT_EQ(report.bookmarks, 2u);
    ASSERT_EQ(report.notes.size(), 1u);
    EXPECT_EQ(report.notes[0],
              "1 bookmark(s) of '" + source + "' lie outside the selected id range and were not copied.");
}

TEST(Copy, RecompressesOnlyWhenTheLevelsDiffer) {
    TempDir dir;
    const std::string source = dir.file("source.mvlog");
    writeSource(source, 6, 1000, 0);
    CopyOptions options;
    options.compressionLevel = 5;
    const CopyReport report = Algorithms::copy(source, dir.file("compressed.mvlog"), options);
    EXPECT_EQ(report.payloadsCopiedAsStored, 0u);
    SqliteLogFile compressed = SqliteLogFile::openReadOnly(dir.file("compressed.mvlog"));
    EXPECT_EQ(compressed.readEntry(4)->data, payloadFor(4));
    EXPECT_EQ(std::get<int64_t>(*compressed.getMetadataValue("compressionLevel")), 5);

    options.compressionLevel = 0;
    EXPECT_EQ(Algorithms::copy(dir.file("compressed.mvlog"), dir.file("plain.mvlog"), options).entries, 6u);
    EXPECT_EQ(SqliteLogFile::openReadOnly(dir.file("plain.mvlog")).readEntry(6)->data, payloadFor(6));
}

TEST(Copy, NeverOverwritesAndLeavesNothingBehindWhenRefused) {
    TempDir dir;
    const std::string source = dir.file("source.mvlog");
    writeSource(source, 3, 1000);
    { std::ofstream(dir.file("taken.mvlog")) << "keep me"; }
    try {
        Algorithms::copy(source, dir.file("taken.mvlog"));
        FAIL() << "overwrote a file";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()), "Cannot write '" + dir.file("taken.mvlog") +
                                                 "': a file already exists there and is never overwritten.");
    }
    std::ifstream kept(dir.file("taken.mvlog"));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), "keep me");
    EXPECT_THROW(Algorithms::copy(dir.file("missing.mvlog"), dir.file("out.mvlog")), std::runtime_error);
    EXPECT_EQ(filesIn(dir.path()), (std::vector<std::string>{"source.mvlog", "taken.mvlog"}));
}

TEST(Copy, AFailedWriteLeavesNoFileUnderTheRequestedName) {
    TempDir dir;
    const std::string source = dir.file("source.mvlog");
    writeSource(source, 400, 1000, 0);
    const std::string output = dir.file("out.mvlog");
    // A child process whose files may not grow past 48 KiB: writing fails
    // part-way as on a full disk.
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit{48 * 1024, 48 * 1024};
        setrlimit(RLIMIT_FSIZE, &limit);
        try {
            Algorithms::copy(source, output);
            _exit(0);
        } catch (const std::runtime_error& error) {
            const std::string message = error.what();
            _exit(message.rfind("Cannot write '" + output + "'", 0) == 0 ? 3 : 4);
        } catch (...) {
            _exit(5);
        }
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_EQ(filesIn(dir.path()), std::vector<std::string>{"source.mvlog"});
}

TEST(Copy, ReportsProgressUpToTheWholeCount) {
    TempDir dir;
    const std::string source = dir.file("source.mvlog");
    writeSource(source, 5000, 1000, 0);
    CopyOptions options;
    std::vector<std::pair<uint64_t, uint64_t>> calls;
    options.progress = [&](uint64_t written, uint64_t total) { calls.emplace_back(written, total); };
    Algorithms::copy(source, dir.file("copy.mvlog"), options);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0], (std::pair<uint64_t, uint64_t>{4096, 5000}));
    EXPECT_EQ(calls[1], (std::pair<uint64_t, uint64_t>{5000, 5000}));
}

TEST(Merge, InterleavesByTimestampWithTiesInInputOrder) {
    TempDir dir;
    writeSource(dir.file("a.mvlog"), 4, 1000, -1, "first");
    writeSource(dir.file("b.mvlog"), 4, 1005, -1, "second");
    writeSource(dir.file("c.mvlog"), 2, 1000, 0, "third");
    const CopyReport report = Algorithms::merge(
        {dir.file("a.mvlog"), dir.file("b.mvlog"), dir.file("c.mvlog")}, dir.file("merged.mvlog"));
    EXPECT_EQ(report.entries, 10u);
    SqliteLogFile merged = SqliteLogFile::openReadOnly(dir.file("merged.mvlog"));
    const auto entries = merged.readEntries(-1, -1, EntryIndexFilter{}, -1);
    ASSERT_EQ(entries.size(), 10u);
    const std::vector<int64_t> timestamps = {1010, 1010, 1015, 1020, 1020, 1025, 1030, 1035, 1040, 1045};
    // (input, source entry) of each merged entry.
    const std::vector<std::pair<char, int>> origin = {{'a', 1}, {'c', 1}, {'b', 1}, {'a', 2}, {'c', 2},
                                                      {'b', 2}, {'a', 3}, {'b', 3}, {'a', 4}, {'b', 4}};
    for (std::size_t i = 0; i < entries.size(); ++i) {
        EXPECT_EQ(entries[i].entryId, static_cast<int32_t>(i + 1));
        EXPECT_EQ(entries[i].timestamp, timestamps[i]) << i;
        EXPECT_EQ(entries[i].data, payloadFor(origin[i].second)) << i;
    }
    // Identical sources are shared: two in all.
    EXPECT_EQ(merged.getDataSources().size(), 2u);
    EXPECT_EQ(std::get<std::string>(*merged.getMetadataValue("mergedInput2ApplicationName")), "second");
    EXPECT_EQ(std::get<std::string>(*merged.getMetadataValue("mergedInput3Path")), dir.file("c.mvlog"));
    EXPECT_EQ(std::get<std::string>(*merged.getMetadataValue("oldApplicationName")), "first");
    // Bookmark 2 of each input follows its entry: a2 -> 4, b2 -> 6, c2 -> 5.
    std::vector<int32_t> bookmarkIds;
    for (const Bookmark& bookmark : merged.getBookmarks()) {
        bookmarkIds.push_back(bookmark.entryId);
    }
    std::sort(bookmarkIds.begin(), bookmarkIds.end());
    EXPECT_EQ(bookmarkIds, (std::vector<int32_t>{4, 5, 6}));
    // Resource "calibration" is in every input: kept once, the clashes noted.
    EXPECT_EQ(report.resources, 1u);
    EXPECT_EQ(
        std::count_if(report.notes.begin(), report.notes.end(),
                      [](const std::string& note) { return note.find("Resource \"calibration\"") == 0; }),
        2);
}

TEST(Merge, RenumbersADataSourceWhoseIdIsTakenAndMovesItsEntriesAndProperties) {
    TempDir dir;
    writeSource(dir.file("a.mvlog"), 2, 1000);
    {
        SqliteLogFile other(dir.file("b.mvlog"), "Etc/UTC", "other", "1", 0, 1'700'000'000'000);
        DataSource lidar{-1, MV_LogDataSourceType_Lidar, "lidar"};
        ASSERT_TRUE(other.addDataSource(lidar));
        ASSERT_EQ(lidar.id, 1);
        ASSERT_TRUE(other.addDataSourceProperty(DataSourceProperty{lidar.id, "beams", int64_t{64}}));
        DataEntry entry;
        entry.dataSourceId = lidar.id;
        entry.timestamp = 1015;
        entry.data = payloadFor(77);
        ASSERT_TRUE(other.logData(entry));
    }
    const CopyReport report =
        Algorithms::merge({dir.file("a.mvlog"), dir.file("b.mvlog")}, dir.file("m.mvlog"));
    SqliteLogFile merged = SqliteLogFile::openReadOnly(dir.file("m.mvlog"));
    const auto sources = merged.getDataSources();
    ASSERT_EQ(sources.size(), 3u);
    EXPECT_EQ(sources[2].id, 3);
    EXPECT_EQ(sources[2].name, "lidar");
    EXPECT_EQ(std::get<int64_t>(*merged.getDataSourceProperty(3, "beams")), 64);
    EXPECT_EQ(merged.readEntry(2)->dataSourceId, 3);
    EXPECT_EQ(merged.readEntry(2)->data, payloadFor(77));
    EXPECT_EQ(report.notes.front(), "Data source 1 (\"lidar\") of '" + dir.file("b.mvlog") +
                                        "' became data source 3: its id was taken by an earlier input.");
}

}  // namespace

namespace {

TEST(Merge, AMergedFileMergesAgain) {
    TempDir dir;
    writeSource(dir.file("a.mvlog"), 3, 1000);
    writeSource(dir.file("b.mvlog"), 3, 1001);
    writeSource(dir.file("c.mvlog"), 3, 1002);
    Algorithms::merge({dir.file("a.mvlog"), dir.file("b.mvlog")}, dir.file("ab.mvlog"));
    const CopyReport report =
        Algorithms::merge({dir.file("ab.mvlog"), dir.file("c.mvlog")}, dir.file("abc.mvlog"));
    const SqliteLogFile merged = SqliteLogFile::openReadOnly(dir.file("abc.mvlog"));
    EXPECT_EQ(merged.getEntryCount(), 9);
    EXPECT_EQ(std::get<std::string>(*merged.getMetadataValue("mergedInput1Path")), dir.file("ab.mvlog"));
    EXPECT_EQ(std::get<std::string>(*merged.getMetadataValue("mergedInput2Path")), dir.file("c.mvlog"));
    // The earlier merge's own history of the same names is noted, not copied.
    EXPECT_NE(std::find(report.notes.begin(), report.notes.end(),
                        "Metadata \"mergedInput1Path\" of '" + dir.file("ab.mvlog") +
                            "' differs from an earlier input's and was not copied."),
              report.notes.end());
}

}  // namespace
