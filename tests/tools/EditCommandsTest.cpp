// mvlog metadata and mvlog resource: what a file says about itself, listed,
// read, changed and removed; refusals name the reason and change nothing.

#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace MvlogTest {
namespace {

using Marivane::Logging::PropertyValue;
using Marivane::Logging::SqliteLogFile;
using Marivane::Testing::TempDir;

class EditCommands : public ::testing::Test {
protected:
    void SetUp() override { writeKnownFile(path); }

    std::string bytesOnDisk() const { return readFileText(path); }

    TempDir directory;
    std::string path = directory.file("known.mvlog");
};

TEST_F(EditCommands, MetadataListsEveryKeyWithItsType) {
    const RunResult result = runMvlog({"metadata", path});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(containsLine(result.outLines(), "applicationName        \"tooltest\" (text)")) << result.out;
    EXPECT_TRUE(containsLine(result.outLines(), "logVersion             4 (int64)")) << result.out;
    const nlohmann::json document = nlohmann::json::parse(runMvlog({"metadata", path, "list", "--json"}).out);
    EXPECT_EQ(document["file"], path);
    bool found = false;
    for (const nlohmann::json& entry : document["metadata"]) {
        if (entry["key"] == "site") {
            found = true;
            EXPECT_EQ(entry,
                      nlohmann::json::parse(R"({"key": "site", "value": "Test basin", "type": "text"})"));
        }
    }
    EXPECT_TRUE(found) << document.dump();
}

TEST_F(EditCommands, MetadataGetPrintsTheValueAlone) {
    EXPECT_EQ(runMvlog({"metadata", path, "get", "applicationName"}).out, "tooltest\n");
    EXPECT_EQ(runMvlog({"metadata", path, "get", "logVersion"}).out, "4\n");
    const RunResult missing = runMvlog({"metadata", path, "get", "nothing"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.out, "");
    EXPECT_EQ(missing.err, "mvlog: " + path + " has no metadata key 'nothing'\n");
}

TEST_F(EditCommands, MetadataSetStoresTheTypeAskedFor) {
    EXPECT_EQ(runMvlog({"metadata", path, "set", "vessel", "Polar Star"}).out,
              "Set vessel = \"Polar Star\" (text) in " + path + "\n");
    EXPECT_EQ(runMvlog({"metadata", path, "set", "vessel", "Aurora"}).exitCode, 0);
    EXPECT_EQ(runMvlog({"metadata", path, "set", "depth", "12.5", "--type", "double"}).exitCode, 0);
    EXPECT_EQ(runMvlog({"metadata", path, "set", "runs", "7", "--type", "int32"}).exitCode, 0);
    const RunResult json =
        runMvlog({"metadata", path, "set", "big", "-9000000000", "--type", "int64", "--json"});
    EXPECT_EQ(nlohmann::json::parse(json.out), nlohmann::json::parse(R"({"file": ")" + path + R"(",
        "action": "set", "metadata": {"key": "big", "value": -9000000000, "type": "int64"}})"));
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    EXPECT_EQ(file.getMetadataValue("vessel"), PropertyValue{std::string("Aurora")});
    EXPECT_EQ(file.getMetadataValue("depth"), PropertyValue{12.5});
    EXPECT_EQ(file.getMetadataValue("runs"), PropertyValue{int64_t{7}});
    EXPECT_EQ(file.getMetadataValue("big"), PropertyValue{int64_t{-9000000000}});
}

TEST_F(EditCommands, MetadataRefusalsChangeNothing) {
    const std::string before = bytesOnDisk();
    const RunResult fixed = runMvlog({"metadata", path, "set", "logVersion", "5"});
    EXPECT_EQ(fixed.exitCode, 1);
    EXPECT_EQ(fixed.err, "mvlog: cannot set the metadata key: The metadata key 'logVersion' of '" + path +
                             "' is set when a log file is created and cannot be changed or removed.\n");
    EXPECT_EQ(runMvlog({"metadata", path, "remove", "compressionLevel"}).exitCode, 1);
    const RunResult badNumber = runMvlog({"metadata", path, "set", "runs", "7.5", "--type", "int32"});
    EXPECT_EQ(badNumber.exitCode, 2);
    EXPECT_EQ(badNumber.err, "mvlog: 7.5: not an int32 (a whole number from -2147483648 to 2147483647)\n");
    EXPECT_EQ(runMvlog({"metadata", path, "set", "runs", "3000000000", "--type", "int32"}).exitCode, 2);
    EXPECT_EQ(runMvlog({"metadata", path, "set", "depth", "nan", "--type", "double"}).exitCode, 2);
    EXPECT_EQ(runMvlog({"metadata", path, "set", "depth", "1", "--type", "float"}).exitCode, 2);
    const RunResult missing = runMvlog({"metadata", path, "remove", "nothing"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.err, "mvlog: cannot remove the metadata key: The file '" + path +
                               "' has no metadata key 'nothing'.\n");
    EXPECT_EQ(bytesOnDisk(), before);
}

TEST_F(EditCommands, MetadataRemoveTakesTheKeyAway) {
    const RunResult removed = runMvlog({"metadata", path, "remove", "site"});
    EXPECT_EQ(removed.exitCode, 0);
    EXPECT_EQ(removed.out, "Removed site from " + path + "\n");
    EXPECT_FALSE(SqliteLogFile::openReadOnly(path).getMetadataValue("site"));
}

TEST_F(EditCommands, ResourcesAreListedWithTheirSizes) {
    const RunResult result = runMvlog({"resource", path});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.outLines(), (std::vector<std::string>{"notes.txt                    5 B",
                                                           "thumbnail                    10 B"}));
    EXPECT_EQ(nlohmann::json::parse(runMvlog({"resource", path, "--json"}).out),
              nlohmann::json::parse(R"({"file": ")" + path + R"(", "resources": [
                  {"name": "notes.txt", "bytes": 5}, {"name": "thumbnail", "bytes": 10}]})"));
}

TEST_F(EditCommands, ResourceAddGetAndRemove) {
    const std::string from = directory.file("calibration.json");
    {
        std::ofstream out(from, std::ios::binary);
        out << R"({"fx": 812.5})";
    }
    const RunResult added = runMvlog({"resource", path, "add", "calibration.json", from});
    EXPECT_EQ(added.exitCode, 0) << added.err;
    EXPECT_EQ(added.out, "Added resource \"calibration.json\" (13 B) in " + path + "\n");
    EXPECT_EQ(runMvlog({"resource", path, "get", "calibration.json", "-o", "-"}).out, R"({"fx": 812.5})");

    // An existing name is refused unless --force replaces it.
    const RunResult again = runMvlog({"resource", path, "add", "calibration.json", from});
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_EQ(again.err, "mvlog: refused: " + path +
                             " already has resource \"calibration.json\" (--force replaces it)\n");
    // The thumbnail too, and it reads back (the file compresses at level 3).
    const RunResult thumbnail = runMvlog({"resource", path, "add", "thumbnail", from, "--force", "--json"});
    EXPECT_EQ(nlohmann::json::parse(thumbnail.out),
              nlohmann::json::parse(R"({"file": ")" + path + R"(", "action": "replaced",
                  "resource": {"name": "thumbnail", "bytes": 13}})"));
    EXPECT_EQ(runMvlog({"export", path, "--thumbnail", "-o", "-"}).out, R"({"fx": 812.5})");
    EXPECT_EQ(runMvlog({"check", path}).outLines().back(), "OK");

    const RunResult removed = runMvlog({"resource", path, "remove", "calibration.json"});
    EXPECT_EQ(removed.out, "Removed resource \"calibration.json\" from " + path + "\n");
    const RunResult gone = runMvlog({"resource", path, "remove", "calibration.json"});
    EXPECT_EQ(gone.exitCode, 1);
    EXPECT_EQ(gone.err, "mvlog: cannot remove the resource: The file '" + path +
                            "' has no resource 'calibration.json'.\n");
    const RunResult missingSource = runMvlog({"resource", path, "add", "x", directory.file("absent")});
    EXPECT_EQ(missingSource.exitCode, 1);
    EXPECT_EQ(missingSource.err,
              "mvlog: " + directory.file("absent") + ": not a regular file to read the resource from\n");
}

TEST_F(EditCommands, ListingAndGettingNeverChangeTheFile) {
    const std::string before = bytesOnDisk();
    EXPECT_EQ(runMvlog({"metadata", path}).exitCode, 0);
    EXPECT_EQ(runMvlog({"metadata", path, "get", "site"}).exitCode, 0);
    EXPECT_EQ(runMvlog({"resource", path}).exitCode, 0);
    EXPECT_EQ(runMvlog({"resource", path, "get", "notes.txt", "-o", "-"}).out, "hello");
    EXPECT_EQ(bytesOnDisk(), before);
}

}  // namespace
}  // namespace MvlogTest
