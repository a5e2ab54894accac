// --json on the commands that report a result: one document each, with the
// same facts as the text and the same exit codes.

#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

const ByteBuffer kDamagedFrame = bytesOf("\x28\xb5\x2f\xfd garbage after a frame magic");

nlohmann::json documentOf(const RunResult& result) {
    EXPECT_EQ(result.err, "");
    return nlohmann::json::parse(result.out);
}

class JsonReports : public ::testing::Test {
protected:
    void SetUp() override { writeKnownFile(path); }

    TempDir directory;
    std::string path = directory.file("known.mvlog");
    std::string output = directory.file("out.mvlog");
};

TEST_F(JsonReports, CheckOfASoundFile) {
    const RunResult result = runMvlog({"check", path, "--json"});
    EXPECT_EQ(result.exitCode, 0);
    const nlohmann::json document = documentOf(result);
    EXPECT_EQ(document, nlohmann::json::parse(R"({"file": ")" + path + R"(", "ok": true, "damaged": false,
        "problems": [], "checked": {"entries": 101, "dataSources": 3, "resources": 2, "bookmarks": 1},
        "hint": null})"));
}

TEST_F(JsonReports, CheckOfADamagedFileNamesEveryProblemAndTheWayOut) {
    overwriteStoredPayload(path, 7, kDamagedFrame);
    overwriteStoredPayload(path, 60, kDamagedFrame);
    const RunResult result = runMvlog({"check", path, "--json"});
    EXPECT_EQ(result.exitCode, 1);
    const nlohmann::json document = documentOf(result);
    EXPECT_EQ(document["ok"], false);
    EXPECT_EQ(document["damaged"], true);
    ASSERT_EQ(document["problems"].size(), 2u);
    EXPECT_EQ(document["problems"][0].get<std::string>().rfind("entry 7: payload cannot be expanded: ", 0),
              0u);
    EXPECT_EQ(document["problems"][1].get<std::string>().rfind("entry 60: payload cannot be expanded: ", 0),
              0u);
    // The entries read whole; the text counts them alike.
    EXPECT_EQ(document["checked"]["entries"], 99);
    EXPECT_EQ(document["hint"], "mvlog recover " + path + " -o NEW");
    const RunResult text = runMvlog({"check", path});
    EXPECT_EQ(text.exitCode, 1);
    EXPECT_TRUE(
        containsLine(text.outLines(), "Checked 99 entries, 3 data sources, 2 resources, 1 bookmarks"));
    EXPECT_TRUE(containsLine(text.outLines(), "problem: " + document["problems"][1].get<std::string>()));
}

TEST_F(JsonReports, CheckOfSomethingThatIsNoLogFile) {
    {
        std::ofstream text(output);
        text << "not a database, only words, and more of them than a header needs to be read as one.";
    }
    const RunResult result = runMvlog({"check", output, "--json"});
    EXPECT_EQ(result.exitCode, 1);
    const nlohmann::json document = documentOf(result);
    EXPECT_EQ(document["ok"], false);
    EXPECT_TRUE(document["checked"].is_null());
    EXPECT_FALSE(document["problems"].empty());
}

TEST_F(JsonReports, SliceAndCloneReportWhatTheyCopied) {
    const RunResult slice = runMvlog({"slice", path, "--from", "2", "--to", "9", "-o", output, "--json"});
    EXPECT_EQ(slice.exitCode, 0);
    EXPECT_EQ(documentOf(slice),
              nlohmann::json::parse(R"({"output": ")" + output + R"(", "input": ")" + path +
                                    R"(", "entries": 8, "dataSources": 3, "resources": 2,
        "bookmarks": 1, "payloadsCopiedAsStored": 8, "notes": []})"));
    EXPECT_EQ(infoJson(output)["entries"]["count"], 8);

    const std::string clone = directory.file("clone.mvlog");
    const RunResult cloned = runMvlog({"clone", path, "-o", clone, "--level", "0", "--json"});
    EXPECT_EQ(cloned.exitCode, 0);
    const nlohmann::json document = documentOf(cloned);
    EXPECT_EQ(document["output"], clone);
    EXPECT_EQ(document["entries"], 101);
    EXPECT_EQ(document["bookmarks"], 1);
    // Another level: every payload was expanded and compressed anew.
    EXPECT_EQ(document["payloadsCopiedAsStored"], 0);

    // A slice that drops the bookmarked entry says so in its notes.
    std::filesystem::remove(output);
    const nlohmann::json dropped =
        documentOf(runMvlog({"slice", path, "--from", "6", "--to", "9", "-o", output, "--json"}));
    EXPECT_EQ(dropped["bookmarks"], 0);
    ASSERT_EQ(dropped["notes"].size(), 1u);
    EXPECT_EQ(dropped["notes"][0],
              "1 bookmark(s) of '" + path + "' lie outside the selected id range and were not copied.");
}

TEST_F(JsonReports, IndexSaysWhetherItBuiltTheIndex) {
    const RunResult built = runMvlog({"index", path, "--json"});
    EXPECT_EQ(built.exitCode, 0);
    const nlohmann::json document = documentOf(built);
    EXPECT_EQ(document["file"], path);
    EXPECT_EQ(document["built"], true);
    EXPECT_EQ(document["hasTimeIndex"], true);
    EXPECT_EQ(document["entries"], 101);
    EXPECT_GE(document["seconds"].get<double>(), 0.0);

    const RunResult again = runMvlog({"index", path, "--json"});
    EXPECT_EQ(again.exitCode, 0);
    EXPECT_EQ(documentOf(again),
              nlohmann::json::parse(R"({"file": ")" + path + R"(", "built": false, "hasTimeIndex": true})"));
}

TEST_F(JsonReports, BookmarksListAndChanges) {
    const RunResult listed = runMvlog({"bookmarks", path, "--json"});
    EXPECT_EQ(listed.exitCode, 0);
    const nlohmann::json list = documentOf(listed);
    EXPECT_EQ(list["file"], path);
    ASSERT_EQ(list["bookmarks"].size(), 1u);
    EXPECT_EQ(list["bookmarks"][0]["entryId"], 5);
    // After the action's word as well as before it.
    EXPECT_EQ(documentOf(runMvlog({"bookmarks", path, "list", "--json"})), list);

    const RunResult added = runMvlog({"bookmarks", path, "add", "9", "Buoy", "--comments", "port", "--json"});
    EXPECT_EQ(added.exitCode, 0);
    EXPECT_EQ(documentOf(added), nlohmann::json::parse(R"({"file": ")" + path + R"(", "action": "added",
        "bookmark": {"entryId": 9, "title": "Buoy", "comments": "port", "payloadBytes": 0}})"));

    const RunResult updated = runMvlog({"bookmarks", path, "--json", "update", "9", "Wreck"});
    EXPECT_EQ(updated.exitCode, 0);
    EXPECT_EQ(documentOf(updated)["bookmark"]["title"], "Wreck");
    EXPECT_EQ(documentOf(updated)["bookmark"]["comments"], "port");
    EXPECT_EQ(documentOf(updated)["action"], "updated");

    const RunResult removed = runMvlog({"bookmarks", path, "remove", "9", "--json"});
    EXPECT_EQ(removed.exitCode, 0);
    EXPECT_EQ(documentOf(removed),
              nlohmann::json::parse(R"({"file": ")" + path +
                                    R"(", "action": "removed", "entryId": 9, "count": 1})"));
    EXPECT_EQ(documentOf(runMvlog({"bookmarks", path, "--json"}))["bookmarks"].size(), 1u);

    // A refusal is still a message on stderr and exit 1, with nothing on stdout.
    const RunResult refused = runMvlog({"bookmarks", path, "remove", "9", "--json"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.out, "");
    EXPECT_EQ(refused.err, "mvlog: " + path + ": no bookmark on entry 9\n");
}

TEST_F(JsonReports, RecoverReportsEveryCountAndTheLostIds) {
    for (const int id : {7, 40, 41, 42}) {
        overwriteStoredPayload(path, id, kDamagedFrame);
    }
    const RunResult result = runMvlog({"recover", path, "-o", output, "--json"});
    EXPECT_EQ(result.exitCode, 0);
    const nlohmann::json document = documentOf(result);
    EXPECT_EQ(document["input"], path);
    EXPECT_EQ(document["output"], output);
    EXPECT_EQ(document["entries"],
              nlohmann::json::parse(R"({"recovered": 97, "lost": 4, "lostIsLowerBound": false,
        "lostIds": [{"first": 7, "last": 7}, {"first": 40, "last": 42}]})"));
    EXPECT_EQ(document["dataSources"], nlohmann::json::parse(R"({"recovered": 3, "recreated": 0})"));
    EXPECT_EQ(document["resources"], nlohmann::json::parse(R"({"recovered": 2, "lost": 0})"));
    EXPECT_EQ(document["bookmarks"], nlohmann::json::parse(R"({"recovered": 1, "lost": 0})"));
    EXPECT_EQ(document["metadata"]["lost"], 0);
    EXPECT_EQ(document["properties"]["lost"], 0);
    EXPECT_TRUE(document["notes"].is_array());
    EXPECT_EQ(infoJson(output)["entries"]["count"], 97);
}

}  // namespace
}  // namespace MvlogTest
