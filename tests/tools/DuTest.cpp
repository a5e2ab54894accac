// mvlog du: logged and stored bytes per data source and per entry type.

#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <sqlite3.h>

#include <map>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

// Stored payload bytes per data source, straight from the file.
std::map<int, int64_t> storedBytesBySource(const std::string& path) {
    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(database,
                                 "SELECT dataSourceId, sum(length(payload)) FROM data GROUP BY dataSourceId;",
                                 -1, &statement, nullptr),
              SQLITE_OK);
    std::map<int, int64_t> bytes;
    while (sqlite3_step(statement) == SQLITE_ROW) {
        bytes[sqlite3_column_int(statement, 0)] = sqlite3_column_int64(statement, 1);
    }
    sqlite3_finalize(statement);
    sqlite3_close(database);
    return bytes;
}

std::map<int, int64_t> loggedBytesBySource() {
    std::map<int, int64_t> bytes;
    for (int id = 1; id <= kKnownEntries; ++id) {
        bytes[knownSource(id)] += static_cast<int64_t>(knownPayload(id).size());
    }
    return bytes;
}

TEST(DuTest, LoggedAndStoredBytesPerSourceAndType) {
    for (const int8_t level : {int8_t{3}, int8_t{0}}) {
        TempDir directory;
        const std::string path = directory.file("known.mvlog");
        writeKnownFile(path, level);
        const RunResult result = runMvlog({"du", path, "--json"});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        const nlohmann::json document = nlohmann::json::parse(result.out);
        EXPECT_EQ(document["file"], path);
        EXPECT_EQ(document["compressionLevel"], level);
        const std::map<int, int64_t> stored = storedBytesBySource(path);
        const std::map<int, int64_t> logged = loggedBytesBySource();
        ASSERT_EQ(document["sources"].size(), 3u);
        int64_t loggedTotal = 0;
        int64_t storedTotal = 0;
        for (const nlohmann::json& source : document["sources"]) {
            const int id = source["id"];
            EXPECT_EQ(source["loggedBytes"], logged.at(id)) << id;
            EXPECT_EQ(source["storedBytes"], stored.at(id)) << id;
            EXPECT_EQ(source["entries"], id == 3 ? 33 : 34) << id;
            loggedTotal += logged.at(id);
            storedTotal += stored.at(id);
            if (level == 0) {
                EXPECT_EQ(source["ratio"], 1.0);
            }
        }
        EXPECT_EQ(document["sources"][0]["name"], "alpha");
        EXPECT_EQ(document["total"]["entries"], kKnownEntries);
        EXPECT_EQ(document["total"]["loggedBytes"], loggedTotal);
        EXPECT_EQ(document["total"]["storedBytes"], storedTotal);
        // Types 10 and 11 alternate with the id.
        ASSERT_EQ(document["types"].size(), 2u);
        EXPECT_EQ(document["types"][0]["type"], 10);
        EXPECT_EQ(document["types"][0]["entries"], 50);
        EXPECT_EQ(document["types"][1]["entries"], 51);
        EXPECT_EQ(document["damagedEntries"], nlohmann::json::array());
    }
}

TEST(DuTest, TheTableNamesSourcesTypesAndTheTotal) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    writeKnownFile(path, 0);
    const RunResult result = runMvlog({"du", path});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    const std::vector<std::string> lines = result.outLines();
    ASSERT_GE(lines.size(), 9u) << result.out;
    EXPECT_EQ(lines[0].rfind(path + ": ", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find(", compression level 0"), std::string::npos) << lines[0];
    EXPECT_EQ(lines[2], "By data source");
    EXPECT_EQ(lines[3].rfind("  alpha (1, Camera) ", 0), 0u) << lines[3];
    EXPECT_EQ(lines[3].substr(lines[3].size() - 8), "   1.00x") << lines[3];
    EXPECT_EQ(lines[6], "By entry type");
    EXPECT_EQ(lines[9].rfind("  All entries ", 0), 0u) << lines[9];
}

TEST(DuTest, ADamagedPayloadIsNamedAndTheRestMeasured) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    writeKnownFile(path, 3);
    // A frame magic followed by garbage: no declared size, and no expansion.
    overwriteStoredPayload(path, 7, bytesOf("\x28\xb5\x2f\xfd garbage after a frame magic"));
    const RunResult result = runMvlog({"du", path, "--json"});
    EXPECT_EQ(result.exitCode, 1);
    const nlohmann::json document = nlohmann::json::parse(result.out);
    EXPECT_EQ(document["total"]["entries"], kKnownEntries - 1);
    ASSERT_EQ(document["damagedEntries"].size(), 1u);
    EXPECT_EQ(document["damagedEntries"][0].get<std::string>().rfind("entry 7: ", 0), 0u);
    EXPECT_NE(result.err.find("1 entry could not be measured; run `mvlog check` for details"),
              std::string::npos)
        << result.err;
}

}  // namespace
}  // namespace MvlogTest
