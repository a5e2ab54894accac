#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

// One demo run shared by the tests below: recording it takes seconds.
class DemoTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        directory = new TempDir();
        demo = new RunResult(runMvlog({"demo", (directory->path() / "demo").string()}));
    }
    static void TearDownTestSuite() {
        delete demo;
        delete directory;
    }

    static std::string file(const std::string& name) { return (directory->path() / "demo" / name).string(); }

    static TempDir* directory;
    static RunResult* demo;
};

TempDir* DemoTest::directory = nullptr;
RunResult* DemoTest::demo = nullptr;

TEST_F(DemoTest, RunsEveryStepAndSummarises) {
    ASSERT_EQ(demo->exitCode, 0) << demo->out << demo->err;
    const std::vector<std::string> lines = demo->outLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], "Demo directory: " + (directory->path() / "demo").string());
    for (const char* heading :
         {"== Recording 20.000 s of a synthetic survey into ", "== mvlog info ",
          "== Slicing seconds 6 to 12 into ", "== Replaying the slice at 4x", "== Summary"}) {
        EXPECT_NE(demo->out.find(heading), std::string::npos) << heading;
    }
    EXPECT_NE(demo->out.find("\nRecorded 1240 entries (12.55 MiB) in "), std::string::npos);
    // Three capture threads through the recorder: nothing dropped or lost.
    EXPECT_NE(
        demo->out.find("\nRecorder: 1240 accepted, 1240 written, 0 dropped, 0 failed; queue high water "),
        std::string::npos)
        << demo->out;
    EXPECT_NE(demo->out.find("\nCompression ratio "), std::string::npos);
    EXPECT_NE(demo->out.find("\nSlice: 372 entries in " + file("demo-slice.mvlog") + "\n"),
              std::string::npos);
    EXPECT_NE(demo->out.find("\nPlayed 372 of 372 frames (5.980 s of recording) in "), std::string::npos)
        << demo->out;
    EXPECT_NE(demo->out.find(" at 4x; pacing error mean "), std::string::npos);
}

TEST_F(DemoTest, RecordedFileHasTheDescribedShape) {
    ASSERT_EQ(demo->exitCode, 0);
    const nlohmann::json info = infoJson(file("demo.mvlog"));
    EXPECT_EQ(info["compressionLevel"], -1);
    EXPECT_EQ(info["applicationName"], "mvlog-demo");
    EXPECT_EQ(info["entries"]["count"], 1240);
    EXPECT_EQ(info["entries"]["durationMs"], 19'980);
    const nlohmann::json& sources = info["dataSources"];
    ASSERT_EQ(sources.size(), 3u);
    EXPECT_EQ(sources[0]["type"], "Camera");
    EXPECT_EQ(sources[0]["entryCount"], 200);
    // A 256 x 256 binary PGM each: a 15-byte header and the pixels.
    EXPECT_EQ(sources[0]["payloadBytes"], 200 * (15 + 65536));
    EXPECT_NEAR(sources[0]["meanRateHz"].get<double>(), 10.0, 0.05);
    EXPECT_EQ(sources[1]["type"], "Navigation");
    EXPECT_EQ(sources[1]["entryCount"], 1020);
    EXPECT_EQ(sources[2]["type"], "Environment");
    EXPECT_EQ(sources[2]["entryCount"], 20);
    EXPECT_NEAR(sources[2]["meanRateHz"].get<double>(), 1.0, 1e-9);
    EXPECT_EQ(sources[0]["properties"].size(), 6u);
    // Each source says what its payloads are.
    const auto encodingOf = [](const nlohmann::json& source) {
        for (const nlohmann::json& property : source["properties"]) {
            if (property["name"] == "encoding") {
                return property["value"].get<std::string>();
            }
        }
        return std::string();
    };
    EXPECT_EQ(encodingOf(sources[0]), "image/x-portable-graymap");
    EXPECT_EQ(encodingOf(sources[1]), "application/octet-stream");
    EXPECT_EQ(encodingOf(sources[2]), "application/json");
    EXPECT_EQ(info["metadata"]["vessel"], "RV Demo");
    EXPECT_EQ(info["bookmarks"].size(), 3u);
    EXPECT_EQ(info["bookmarks"][1]["title"], "Turn to port");
    EXPECT_EQ(info["bookmarks"][1]["payloadSize"], 34);
    // Compressible yet not trivially so.
    const double ratio = info["entries"]["payloadBytes"].get<double>() / info["sizeOnDisk"].get<double>();
    EXPECT_GT(ratio, 1.5);
    EXPECT_LT(ratio, 50.0);
}

TEST_F(DemoTest, ThumbnailIsASmallGreyscaleImage) {
    ASSERT_EQ(demo->exitCode, 0);
    const RunResult result = runMvlog({"export", file("demo.mvlog"), "--thumbnail", "-o", "-"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out.size(), 13u + 64u * 64u);
    EXPECT_EQ(result.out.substr(0, 13), "P5\n64 64\n255\n");
}

TEST_F(DemoTest, FilesPassTheCheck) {
    ASSERT_EQ(demo->exitCode, 0);
    EXPECT_EQ(runMvlog({"check", file("demo.mvlog")}).outLines().back(), "OK");
    const RunResult slice = runMvlog({"check", file("demo-slice.mvlog")});
    EXPECT_EQ(slice.exitCode, 0) << slice.out;
    const nlohmann::json info = infoJson(file("demo-slice.mvlog"));
    EXPECT_EQ(info["entries"]["count"], 372);
    EXPECT_EQ(info["oldApplicationName"], "mvlog-demo");
    EXPECT_EQ(info["bookmarks"].size(), 1u);
}

TEST_F(DemoTest, RefusesToRecordOverAnEarlierDemo) {
    ASSERT_EQ(demo->exitCode, 0);
    const RunResult again = runMvlog({"demo", (directory->path() / "demo").string()});
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_NE(again.err.find("demo: " + file("demo.mvlog") + " already exists"), std::string::npos)
        << again.err;
}

TEST(DemoDefaultDirectory, UsesAFreshTemporaryDirectory) {
    const RunResult result = runMvlog({"demo"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::string prefix = "Demo directory: ";
    const std::string first = result.outLines().front();
    ASSERT_EQ(first.rfind(prefix, 0), 0u);
    const std::filesystem::path directory = first.substr(prefix.size());
    EXPECT_EQ(directory.parent_path(), std::filesystem::temp_directory_path());
    EXPECT_EQ(directory.filename().string().rfind("mvlog-demo-", 0), 0u);
    EXPECT_TRUE(std::filesystem::exists(directory / "demo.mvlog"));
    std::filesystem::remove_all(directory);
}

}  // namespace
}  // namespace MvlogTest
