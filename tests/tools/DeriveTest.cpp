#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

class DeriveTest : public ::testing::Test {
protected:
    void SetUp() override { writeKnownFile(path); }

    TempDir directory;
    std::string path = directory.file("known.mvlog");
    std::string output = directory.file("derived.mvlog");
};

TEST_F(DeriveTest, SliceIsReadBackByInfoWithTheRightCounts) {
    const RunResult result = runMvlog({"slice", path, "--from", "10", "--to", "30", "-o", output});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, output + "\n");
    const nlohmann::json info = infoJson(output);
    EXPECT_EQ(info["entries"]["count"], 21);
    EXPECT_EQ(info["entries"]["firstId"], 1);
    EXPECT_EQ(info["entries"]["lastId"], 21);
    EXPECT_EQ(info["entries"]["durationMs"], 2000);
    EXPECT_EQ(info["applicationName"], "mvlog");
    EXPECT_EQ(info["oldApplicationName"], "tooltest");
    EXPECT_EQ(info["oldApplicationVersion"], "1.2");
    EXPECT_EQ(info["compressionLevel"], 3);
    EXPECT_EQ(info["dataSources"].size(), 3u);
    EXPECT_EQ(info["metadata"]["site"], "Test basin");
    // The bookmark on entry 5 lies outside the range.
    EXPECT_TRUE(info["bookmarks"].empty());
    // Renumbered from 1: the slice's entry 1 is the source's entry 10.
    const RunResult exported = runMvlog({"export", output, "--entry", "1", "-o", "-"});
    EXPECT_EQ(bytesOf(exported.out), knownPayload(10));
}

TEST_F(DeriveTest, SliceKeepsAndRemapsBookmarksInsideTheRange) {
    ASSERT_EQ(runMvlog({"slice", path, "--from", "3", "--to", "8", "-o", output}).exitCode, 0);
    const RunResult result = runMvlog({"bookmarks", output});
    EXPECT_EQ(result.out, "entry 3: \"five\" - first comment\n");
}

TEST_F(DeriveTest, SliceWithoutOutputWritesBesideTheSource) {
    const RunResult result = runMvlog({"slice", path, "--from", "1", "--to", "2"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::string expected = directory.file("known_exported.mvlog");
    EXPECT_EQ(result.out, expected + "\n");
    EXPECT_EQ(infoJson(expected)["entries"]["count"], 2);
}

TEST_F(DeriveTest, RefusalsSayWhyAndWriteNothing) {
    RunResult result = runMvlog({"slice", path, "--from", "30", "--to", "10", "-o", output});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: refused: the range is reversed (--from 30 is after --to 10)\n");
    result = runMvlog({"slice", path, "--from", "10", "--to", "500", "-o", output});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: refused: entry 500 does not exist (the file holds ids 1 to 101)\n");
    EXPECT_FALSE(std::filesystem::exists(output));

    result = runMvlog({"slice", path, "--from", "1", "--to", "2", "-o", path});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: refused: " + path + " already exists (derived files never overwrite)\n");
    result = runMvlog({"clone", path, "-o", directory.file("no/such/dir.mvlog")});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: refused: the directory " + directory.file("no/such") + " does not exist\n");
}

TEST_F(DeriveTest, CloneAtAnotherLevelKeepsEveryEntry) {
    const RunResult result = runMvlog({"clone", path, "-o", output, "--level", "0"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, output + "\n");
    const nlohmann::json info = infoJson(output);
    EXPECT_EQ(info["compressionLevel"], 0);
    EXPECT_EQ(info["entries"]["count"], 101);
    EXPECT_EQ(info["entries"]["payloadBytes"], 6767);
    EXPECT_EQ(info["bookmarks"].size(), 1u);
    EXPECT_EQ(info["resources"].size(), 2u);
    const RunResult exported = runMvlog({"export", output, "--entry", "77", "-o", "-"});
    EXPECT_EQ(bytesOf(exported.out), knownPayload(77));
}

TEST_F(DeriveTest, AFailedCopyLeavesNothingUnderTheOutputName) {
    overwriteStoredPayload(path, 60, bytesOf("not a compressed frame"));
    // Another level means expanding every payload, and entry 60 cannot be.
    const RunResult result = runMvlog({"clone", path, "-o", output, "--level", "0"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err.rfind("mvlog: cloning failed: ", 0), 0u) << result.err;
    const std::string ending = " (nothing was written to " + output + ")\n";
    ASSERT_GE(result.err.size(), ending.size());
    EXPECT_EQ(result.err.substr(result.err.size() - ending.size()), ending) << result.err;
    EXPECT_FALSE(std::filesystem::exists(output));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()), {}), 1);
}

TEST_F(DeriveTest, ACloneAtTheSameLevelCopiesPayloadsAsStored) {
    overwriteStoredPayload(path, 60, bytesOf("not a compressed frame"));
    const RunResult result = runMvlog({"clone", path, "-o", output});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(infoJson(output)["entries"]["count"], 101);
    EXPECT_EQ(bytesOf(runMvlog({"export", output, "--entry", "61", "-o", "-"}).out), knownPayload(61));
}

TEST_F(DeriveTest, SliceByTimeAndFilter) {
    // Entries 11..31 lie between +1 s and +3 s; of those, "beta" (source 2)
    // holds 11, 14, ..., 29: seven entries.
    const RunResult result = runMvlog(
        {"slice", path, "--start", "+1", "--end", "2023-11-14T22:13:23.000Z", "--source", "2", "-o", output});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, output + "\n");
    const nlohmann::json info = infoJson(output);
    EXPECT_EQ(info["entries"]["count"], 7);
    EXPECT_EQ(bytesOf(runMvlog({"export", output, "--entry", "1", "-o", "-"}).out), knownPayload(11));
    EXPECT_EQ(bytesOf(runMvlog({"export", output, "--entry", "7", "-o", "-"}).out), knownPayload(29));
}

TEST_F(DeriveTest, SliceTakesSourcesByName) {
    const RunResult result = runMvlog({"slice", path, "--start", "+1", "--end", "2023-11-14T22:13:23.000Z",
                                       "--source", "beta", "-o", output});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(infoJson(output)["entries"]["count"], 7);
    EXPECT_EQ(bytesOf(runMvlog({"export", output, "--entry", "1", "-o", "-"}).out), knownPayload(11));

    std::filesystem::remove(output);
    const RunResult unknown =
        runMvlog({"slice", path, "--from", "1", "--to", "9", "--source", "radar", "-o", output});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_EQ(
        unknown.err,
        "mvlog: --source radar: no data source has that name; the file has alpha (1), beta (2), gamma (3)\n");
    EXPECT_FALSE(std::filesystem::exists(output));
}

TEST_F(DeriveTest, SliceNeedsARangeAndReadableTimes) {
    EXPECT_EQ(runMvlog({"slice", path, "-o", output}).exitCode, 2);
    const RunResult bad = runMvlog({"slice", path, "--start", "yesterday", "-o", output});
    EXPECT_EQ(bad.exitCode, 2);
    EXPECT_EQ(
        bad.err,
        "mvlog: --start yesterday: not a time (use ISO 8601 such as 2026-11-21T11:58:05.5Z, or seconds after "
        "the first entry such as +12.5)\n");
    const RunResult reversed = runMvlog({"slice", path, "--start", "+5", "--end", "+1", "-o", output});
    EXPECT_EQ(reversed.exitCode, 1);
    EXPECT_EQ(reversed.err, "mvlog: refused: the time range is reversed (--start is after --end)\n");
    EXPECT_FALSE(std::filesystem::exists(output));
}

TEST_F(DeriveTest, MergeInterleavesTwoFilesByTime) {
    const std::string second = directory.file("second.mvlog");
    writeKnownFile(second, 0);
    const RunResult result = runMvlog({"merge", path, second, "-o", output});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, output + "\n");
    const nlohmann::json info = infoJson(output);
    EXPECT_EQ(info["entries"]["count"], 202);
    EXPECT_EQ(info["dataSources"].size(), 3u);
    // Equal timestamps: the first file's entry first.
    EXPECT_EQ(bytesOf(runMvlog({"export", output, "--entry", "3", "-o", "-"}).out), knownPayload(2));
    EXPECT_EQ(runMvlog({"merge", path, "-o", directory.file("one.mvlog")}).exitCode, 2);
    EXPECT_EQ(runMvlog({"merge", path, second, "-o", output}).exitCode, 1);
}

TEST_F(DeriveTest, LevelOutsideTheRangeIsAUsageError) {
    EXPECT_EQ(runMvlog({"clone", path, "-o", output, "--level", "10"}).exitCode, 2);
    EXPECT_EQ(runMvlog({"slice", path, "--from", "1", "--to", "2", "--level", "-2"}).exitCode, 2);
    EXPECT_EQ(runMvlog({"slice", path, "--to", "2"}).exitCode, 2);
    EXPECT_FALSE(std::filesystem::exists(output));
}

TEST_F(DeriveTest, ASliceThatSelectsNothingIsRefusedAndWritesNothing) {
    const std::string span = " (its entries span 2023-11-14T22:13:20.000Z to 2023-11-14T22:13:30.000Z)";
    const std::string ending = "; nothing was written (--allow-empty writes a file without entries)\n";
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--start", "+20", "--end", "+30"}, "--start +20 --end +30"},
        {{"--start", "2023-11-14T22:13:40Z"}, "--start 2023-11-14T22:13:40Z"},
        {{"--end", "2020-01-01T00:00:00Z"}, "--end 2020-01-01T00:00:00Z"},
        {{"--from", "1", "--to", "3", "--type", "99"}, "--from 1 --to 3 --type 99"},
        {{"--start", "+1", "--source", "9"}, "--start +1 --source 9"},
        {{"--from", "2", "--to", "2", "--source", "1", "--source", "3"},
         "--from 2 --to 2 --source 1 --source 3"},
        {{"--start", "+0", "--source-type", "Radar"}, "--start +0 --source-type Radar"},
        {{"--from", "2", "--to", "2", "--source", "gamma"}, "--from 2 --to 2 --source gamma"},
    };
    for (const auto& [selection, text] : cases) {
        std::vector<std::string> arguments = {"slice", path, "-o", output};
        arguments.insert(arguments.end(), selection.begin(), selection.end());
        const RunResult result = runMvlog(arguments);
        EXPECT_EQ(result.exitCode, 1) << text;
        EXPECT_EQ(result.out, "") << text;
        EXPECT_EQ(result.err, "mvlog: refused: no entry of " + path + " matches " + text + span + ending);
        EXPECT_FALSE(std::filesystem::exists(output)) << text;
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()), {}), 1) << text;
    }
    // Without -o the name beside the source is not taken either.
    EXPECT_EQ(runMvlog({"slice", path, "--start", "+20"}).exitCode, 1);
    EXPECT_FALSE(std::filesystem::exists(directory.file("known_exported.mvlog")));
}

TEST_F(DeriveTest, AnEmptySliceIsWrittenWhenAskedFor) {
    const RunResult result = runMvlog({"slice", path, "--start", "+20", "--allow-empty", "-o", output});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, output + "\n");
    EXPECT_EQ(result.err, "");
    const nlohmann::json info = infoJson(output);
    EXPECT_EQ(info["entries"]["count"], 0);
    EXPECT_EQ(info["dataSources"].size(), 3u);
    // A selection that matches is not changed by the flag.
    const std::string other = directory.file("other.mvlog");
    ASSERT_EQ(runMvlog({"slice", path, "--from", "4", "--to", "6", "--allow-empty", "-o", other}).exitCode,
              0);
    EXPECT_EQ(infoJson(other)["entries"]["count"], 3);
}

TEST_F(DeriveTest, ASliceOfAFileWithoutEntriesSaysSo) {
    const std::string empty = directory.file("empty.mvlog");
    { Marivane::Logging::SqliteLogFile file(empty, "UTC", "tooltest", "1", 0, kKnownStart); }
    const RunResult result = runMvlog({"slice", empty, "--end", "2030-01-01T00:00:00Z", "-o", output});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err,
              "mvlog: refused: no entry of " + empty +
                  " matches --end 2030-01-01T00:00:00Z (the file has no entries); nothing was written "
                  "(--allow-empty writes a file without entries)\n");
    EXPECT_FALSE(std::filesystem::exists(output));
}

// A file whose data source 1 is another source than the known file's, with a
// resource of the same name and other bytes.
void writeClashingFile(const std::string& path) {
    Marivane::Logging::SqliteLogFile file(path, "Europe/Oslo", "tooltest", "1.2", 3, kKnownStart);
    Marivane::Logging::DataSource lidar{-1, MV_LogDataSourceType_Lidar, "lidar"};
    ASSERT_TRUE(file.addDataSource(lidar));
    ASSERT_EQ(lidar.id, 1);
    for (int id = 1; id <= 10; ++id) {
        Marivane::Logging::DataEntry entry;
        entry.dataSourceId = lidar.id;
        entry.type = 7;
        entry.timestamp = kKnownStart + 50 + id * 1000;
        entry.data = knownPayload(200 + id);
        ASSERT_TRUE(file.logData(entry));
    }
    ASSERT_TRUE(file.addResource("notes.txt", bytesOf("other notes")));
}

TEST_F(DeriveTest, MergePrintsThePathThenTheReport) {
    const std::string second = directory.file("second.mvlog");
    writeClashingFile(second);
    const RunResult result = runMvlog({"merge", path, second, "-o", output});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    // Scripts that take the path from stdout still get it alone.
    EXPECT_EQ(result.out, output + "\n");
    EXPECT_EQ(result.err, "merged 2 files into " + output +
                              ": 111 entries, 4 data sources, 2 resources, 1 bookmark\n"
                              "note: Resource \"notes.txt\" of '" +
                              second +
                              "' has the name of an earlier input's resource and was not copied.\n"
                              "note: Data source 1 (\"lidar\") of '" +
                              second + "' became data source 4: its id was taken by an earlier input.\n");
    const nlohmann::json info = infoJson(output);
    EXPECT_EQ(info["entries"]["count"], 111);
    ASSERT_EQ(info["dataSources"].size(), 4u);
    EXPECT_EQ(info["dataSources"][3]["id"], 4);
    EXPECT_EQ(info["dataSources"][3]["name"], "lidar");
    EXPECT_EQ(runMvlog({"export", output, "--resource", "notes.txt", "-o", "-"}).out, "hello");
}

TEST_F(DeriveTest, MergeJsonIsOneDocumentWithStableFields) {
    const std::string second = directory.file("second.mvlog");
    writeClashingFile(second);
    const RunResult result = runMvlog({"merge", path, second, "-o", output, "--json"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err, "");
    const nlohmann::json document = nlohmann::json::parse(result.out);
    EXPECT_EQ(document["output"], output);
    EXPECT_EQ(document["inputs"], nlohmann::json::array({path, second}));
    EXPECT_EQ(document["entries"], 111);
    EXPECT_EQ(document["dataSources"], 4);
    EXPECT_EQ(document["resources"], 2);
    EXPECT_EQ(document["bookmarks"], 1);
    EXPECT_EQ(document["payloadsCopiedAsStored"], 111);
    EXPECT_EQ(
        document["renumberedSources"],
        nlohmann::json::parse(R"([{"input": ")" + second + R"(", "name": "lidar", "from": 1, "to": 4}])"));
    EXPECT_EQ(document["skippedResources"],
              nlohmann::json::parse(R"([{"input": ")" + second + R"(", "name": "notes.txt"}])"));
    EXPECT_EQ(document["skippedMetadata"], nlohmann::json::array());
    ASSERT_EQ(document["notes"].size(), 2u);
    EXPECT_EQ(document["notes"][1], "Data source 1 (\"lidar\") of '" + second +
                                        "' became data source 4: its id was taken by an earlier input.");
    EXPECT_EQ(document["warnings"], nlohmann::json::array());
    EXPECT_EQ(infoJson(output)["entries"]["count"], 111);
}

TEST_F(DeriveTest, MergingAFileWithItselfWarns) {
    std::filesystem::create_symlink(path, directory.file("link.mvlog"));
    const std::string dotted = directory.file(".") + "/known.mvlog";
    const std::vector<std::pair<std::string, std::string>> spellings = {
        {path, path + " is given twice"},
        {dotted, path + " and " + dotted + " are the same file"},
        {directory.file("link.mvlog"), path + " and " + directory.file("link.mvlog") + " are the same file"},
    };
    int run = 0;
    for (const auto& [again, warning] : spellings) {
        const std::string merged = directory.file("merged" + std::to_string(run++) + ".mvlog");
        const RunResult result = runMvlog({"merge", path, again, "-o", merged});
        ASSERT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(result.out, merged + "\n");
        const std::string expected = "mvlog: warning: " + warning + ": its entries are in the output twice\n";
        EXPECT_EQ(result.err.substr(0, expected.size()), expected) << result.err;
        EXPECT_NE(result.err.find(": 202 entries,"), std::string::npos) << result.err;
        EXPECT_EQ(infoJson(merged)["entries"]["count"], 202);
    }
    const std::string merged = directory.file("json.mvlog");
    const RunResult json = runMvlog({"merge", path, path, "-o", merged, "--json"});
    ASSERT_EQ(json.exitCode, 0) << json.err;
    EXPECT_EQ(json.err, "mvlog: warning: " + path + " is given twice: its entries are in the output twice\n");
    EXPECT_EQ(nlohmann::json::parse(json.out)["warnings"],
              nlohmann::json::array({path + " is given twice: its entries are in the output twice"}));
    // Two different files do not warn.
    const std::string second = directory.file("second.mvlog");
    writeKnownFile(second);
    const RunResult distinct = runMvlog({"merge", path, second, "-o", directory.file("distinct.mvlog")});
    EXPECT_EQ(distinct.err.find("warning"), std::string::npos) << distinct.err;
}

TEST(DeriveErrors, MissingSourceIsAnError) {
    TempDir directory;
    const RunResult result = runMvlog({"clone", directory.file("missing.mvlog")});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: " + directory.file("missing.mvlog") + ": no such file\n");
}

}  // namespace
}  // namespace MvlogTest

namespace MvlogTest {
namespace {

// Observed: onto a full disk, slice and clone exited 0 and left a file with
// part of the entries. Files may not grow past 100 KiB here, as on a full
// disk; the copy must fail and leave nothing under the requested name.
TEST(DeriveFullDisk, AFullDiskIsAFailureAndLeavesNoOutput) {
    TempDir directory;
    const std::string path = directory.file("big.mvlog");
    {
        Marivane::Logging::SqliteLogFile file(path, "Etc/UTC", "tooltest", "1.2", 0, kKnownStart);
        Marivane::Logging::DataSource source{-1, MV_LogDataSourceType_Camera, "camera"};
        ASSERT_TRUE(file.addDataSource(source));
        auto batch = file.beginBatch();
        for (int i = 0; i < 3000; ++i) {
            Marivane::Logging::DataEntry entry;
            entry.dataSourceId = source.id;
            entry.timestamp = kKnownStart + i;
            entry.data = knownPayload(i % 100 + 1);
            entry.data.resize(200);
            ASSERT_TRUE(file.logData(entry));
        }
        ASSERT_TRUE(batch.commit());
    }
    const std::string output = directory.file("out.mvlog");
    for (const char* command : {"clone", "slice"}) {
        std::vector<std::string> arguments = {
            "-c", std::string("trap \"\" XFSZ; ulimit -f 200; exec \"$0\" \"$@\""), MVLOG_BINARY, command,
            path};
        if (std::string(command) == "slice") {
            arguments.insert(arguments.end(), {"--from", "1", "--to", "3000"});
        }
        arguments.insert(arguments.end(), {"-o", output});
        const RunResult result = runProgram("/bin/sh", arguments);
        EXPECT_EQ(result.exitCode, 1) << command << ": " << result.out << result.err;
        EXPECT_NE(result.err.find("(nothing was written to " + output + ")"), std::string::npos)
            << result.err;
        EXPECT_FALSE(std::filesystem::exists(output)) << command;
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()), {}), 1) << command;
    }
}

}  // namespace
}  // namespace MvlogTest
