#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <fstream>

namespace MvlogTest {
namespace {

using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::SqliteLogFile;
using Marivane::Testing::TempDir;

std::vector<std::string> problemLines(const RunResult& result) {
    std::vector<std::string> problems;
    for (const std::string& line : result.outLines()) {
        if (line.rfind("problem: ", 0) == 0) {
            problems.push_back(line);
        }
    }
    return problems;
}

TEST(CheckTest, SoundFileIsOk) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    writeKnownFile(path);
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    EXPECT_EQ(result.out, "Checked 101 entries, 3 data sources, 2 resources, 1 bookmarks\nOK\n");
}

TEST(CheckTest, DamagedPayloadIsNamed) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    writeKnownFile(path);
    overwriteStoredPayload(path, 7, bytesOf("\x28\xb5\x2f\xfd garbage after a frame magic"));
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 1);
    const std::vector<std::string> problems = problemLines(result);
    ASSERT_EQ(problems.size(), 1u) << result.out;
    EXPECT_EQ(problems[0].rfind("problem: entry 7: payload cannot be expanded: ", 0), 0u) << problems[0];
    const std::vector<std::string> lines = result.outLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2], "1 problem found in " + path);
    EXPECT_EQ(lines.back(), "hint: mvlog recover " + path + " -o NEW salvages what is intact");
}

TEST(CheckTest, EveryDamagedPayloadIsNamed) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    writeKnownFile(path);
    for (int id : {2, 3, 60, 101}) {
        overwriteStoredPayload(path, id, bytesOf("garbage"));
    }
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 1);
    const std::vector<std::string> problems = problemLines(result);
    ASSERT_EQ(problems.size(), 4u) << result.out;
    EXPECT_EQ(problems[0].rfind("problem: entry 2: ", 0), 0u);
    EXPECT_EQ(problems[1].rfind("problem: entry 3: ", 0), 0u);
    EXPECT_EQ(problems[2].rfind("problem: entry 60: ", 0), 0u);
    EXPECT_EQ(problems[3].rfind("problem: entry 101: ", 0), 0u);
    const std::vector<std::string> lines = result.outLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2], "4 problems found in " + path);
    EXPECT_EQ(lines.back(), "hint: mvlog recover " + path + " -o NEW salvages what is intact");
}

// Enough pages that half the file loses tables' pages, not just free space.
TEST(CheckTest, FileTruncatedMidPageIsReportedWithoutACrash) {
    TempDir directory;
    const std::string path = directory.file("truncated.mvlog");
    {
        SqliteLogFile file(path, "UTC", "tooltest", "1", 1, kKnownStart);
        DataSource source{-1, MV_LogDataSourceType_Radar, "radar"};
        ASSERT_TRUE(file.addDataSource(source));
        for (int id = 1; id <= 300; ++id) {
            DataEntry entry;
            entry.dataSourceId = source.id;
            entry.timestamp = kKnownStart + id;
            entry.data = knownPayload(id);
            entry.data.resize(3000, static_cast<std::byte>(id));
            ASSERT_TRUE(file.logData(entry));
        }
        ASSERT_TRUE(file.addBookmark({250, "late", "", {}}));
    }
    const auto size = std::filesystem::file_size(path);
    std::filesystem::resize_file(path, size / 2 + 123);
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.terminatingSignal, 0);
    EXPECT_EQ(result.exitCode, 1) << result.out << result.err;
    EXPECT_FALSE(problemLines(result).empty()) << result.out;
    const std::vector<std::string> lines = result.outLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_NE(lines[lines.size() - 2].find(" found in " + path), std::string::npos) << result.out;
    EXPECT_EQ(lines.back().rfind("hint: mvlog recover ", 0), 0u) << result.out;
}

// Garbage over two pages in the middle of the entries: the index read stops
// there, and the entries it hides are looked up by id and named.
TEST(CheckTest, DamagedPagesInTheMiddleAreReportedWithTheEntriesTheyHide) {
    TempDir directory;
    const std::string path = directory.file("damaged.mvlog");
    writeFileWithDamagedPages(path);
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.terminatingSignal, 0);
    EXPECT_EQ(result.exitCode, 1) << result.out << result.err;
    bool integrityProblem = false;
    bool entryProblem = false;
    for (const std::string& problem : problemLines(result)) {
        integrityProblem = integrityProblem || problem.rfind("problem: integrity_check: ", 0) == 0;
        entryProblem = entryProblem || problem.rfind("problem: entr", 0) == 0;
    }
    EXPECT_TRUE(integrityProblem) << result.out;
    EXPECT_TRUE(entryProblem) << result.out;
    const std::vector<std::string> lines = result.outLines();
    ASSERT_GE(lines.size(), 3u);
    const std::string checked = lines[lines.size() - 3];
    ASSERT_EQ(checked.rfind("Checked ", 0), 0u) << result.out;
    EXPECT_LT(std::stoi(checked.substr(8)), 400) << checked;
    EXPECT_GT(std::stoi(checked.substr(8)), 300) << checked;
}

TEST(CheckTest, ForeignFileIsReportedWithTheLibraryMessage) {
    TempDir directory;
    const std::string path = directory.file("notes.txt");
    std::ofstream(path) << "Just some text that is certainly not an SQLite database at all.\n";
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 1);
    const std::vector<std::string> lines = result.outLines();
    EXPECT_TRUE(containsLine(lines, "problem: PRAGMA integrity_check; cannot run: file is not a database"))
        << result.out;
    EXPECT_TRUE(containsLine(
        lines, "problem: cannot open as a log file: This file is not in a supported log file format."))
        << result.out;
}

TEST(CheckTest, MissingAndMistypedMetadataAreNamed) {
    TempDir directory;
    const std::string path = directory.file("bare.mvlog");
    {
        // The open constructor makes the tables but writes no metadata.
        SqliteLogFile file{std::filesystem::path(path)};
        ASSERT_TRUE(file.addMetadata("createdDateTime", kKnownStart));
        ASSERT_TRUE(file.addMetadata("applicationName", int64_t{42}));
        ASSERT_TRUE(file.addMetadata("logVersion", std::string("four")));
        ASSERT_TRUE(file.addMetadata("compressionLevel", int32_t{12}));
    }
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(problemLines(result),
              (std::vector<std::string>{"problem: metadata key \"applicationName\" should hold text",
                                        "problem: metadata key \"applicationVersion\" is missing",
                                        "problem: metadata key \"currentTimeZone\" is missing",
                                        "problem: metadata key \"logVersion\" should hold an integer",
                                        "problem: compression level 12 is outside -1 to 9"}));
}

TEST(CheckTest, BookmarkOnAMissingEntryIsFoundBeforeOpeningRepairsIt) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    writeKnownFile(path);
    executeSql(path, "INSERT INTO bookmarks (entryId, title, comments) VALUES (500, 'lost', '');");
    const RunResult result = runMvlog({"check", path});
    EXPECT_EQ(result.exitCode, 1);
    const std::vector<std::string> problems = problemLines(result);
    ASSERT_FALSE(problems.empty()) << result.out;
    EXPECT_EQ(problems[0],
              "problem: foreign_key_check: row 2 of table bookmarks refers to a missing row of table data");
}

TEST(CheckTest, EmptyFileIsAProblemAndMissingFileAnError) {
    TempDir directory;
    const std::string empty = directory.file("empty.mvlog");
    std::ofstream{empty};
    RunResult result = runMvlog({"check", empty});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "problem: the file is empty (0 bytes)\n1 problem found in " + empty + "\n");
    result = runMvlog({"check", directory.file("missing.mvlog")});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: " + directory.file("missing.mvlog") + ": no such file\n");
    EXPECT_FALSE(std::filesystem::exists(directory.file("missing.mvlog")));
}

}  // namespace
}  // namespace MvlogTest
