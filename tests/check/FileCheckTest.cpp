// The check of a log file: what it finds, in which words, what it counts and
// how it reports while it runs.

#include <logging/FileCheck.h>
#include <logging/SqliteLogFile.h>

#include "store/StoreTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

using namespace Marivane::Logging;
using Marivane::Testing::RawDatabase;
using Marivane::Testing::TempDir;

namespace {

constexpr int64_t kStart = 1'700'000'000'000;

void writeFile(const std::string& path, int entries, int8_t level, bool checksums = false) {
    SqliteLogFile file(path, "UTC", "check-tests", "1", level, kStart, Durability::Fast, checksums);
    DataSource source{1, MV_LogDataSourceType_Radar, "radar"};
    ASSERT_TRUE(file.addDataSource(source));
    for (int id = 1; id <= entries; ++id) {
        ASSERT_TRUE(file.logData(Marivane::Testing::makeEntry(
            1, 1, kStart + id, Marivane::Testing::bytesOf("reading " + std::to_string(id)))));
    }
}

std::vector<std::string> messages(const CheckReport& report) {
    std::vector<std::string> texts;
    for (const CheckProblem& problem : report.problems) {
        texts.push_back(problem.message);
    }
    return texts;
}

class FileCheckTest : public ::testing::Test {
protected:
    TempDir directory;
    std::string path = directory.file("checked.mvlog");
};

TEST_F(FileCheckTest, ASoundFileIsCleanAndCounted) {
    writeFile(path, 10, 3);
    {
        SqliteLogFile file(path);
        ASSERT_TRUE(file.addBookmark({4, "four", "", {}}));
    }
    const CheckReport report = checkLogFile(path);
    EXPECT_TRUE(report.isClean()) << ::testing::PrintToString(messages(report));
    EXPECT_FALSE(report.foundDamage());
    ASSERT_TRUE(report.checked);
    EXPECT_EQ(report.checked->entries, 10u);
    EXPECT_EQ(report.checked->dataSources, 1u);
    EXPECT_EQ(report.checked->resources, 0u);
    EXPECT_EQ(report.checked->bookmarks, 1u);
}

TEST_F(FileCheckTest, ADamagedPayloadIsDamageNamingItsEntry) {
    writeFile(path, 10, 3);
    RawDatabase(path).exec("UPDATE data SET payload = x'28b52ffd0000' WHERE entryId = 4;");
    const CheckReport report = checkLogFile(path);
    ASSERT_EQ(report.problems.size(), 1u);
    const CheckProblem& problem = report.problems.front();
    EXPECT_EQ(problem.kind, CheckProblemKind::Entry);
    EXPECT_EQ(problem.entryId, std::optional<int64_t>(4));
    EXPECT_EQ(problem.message,
              "entry 4: payload cannot be expanded: Cannot uncompress data: the data is truncated");
    EXPECT_TRUE(problem.damage);
    EXPECT_TRUE(report.foundDamage());
    ASSERT_TRUE(report.checked);
    EXPECT_EQ(report.checked->entries, 9u);
}

TEST_F(FileCheckTest, APayloadThatNoLongerMatchesItsChecksumIsAProblem) {
    writeFile(path, 5, 0, true);
    RawDatabase(path).exec("UPDATE data SET payload = CAST('readinG 3' AS BLOB) WHERE entryId = 3;");
    const CheckReport report = checkLogFile(path);
    EXPECT_EQ(messages(report), std::vector<std::string>{"entry 3: its payload does not match its checksum"});
}

TEST_F(FileCheckTest, MissingAndMistypedMetadataAreNamed) {
    writeFile(path, 2, 0);
    RawDatabase(path).exec(
        "DELETE FROM metadata WHERE key = 'applicationName';"
        "UPDATE metadata SET value = 'soon' WHERE key = 'createdDateTime';");
    const CheckReport report = checkLogFile(path);
    EXPECT_EQ(messages(report),
              (std::vector<std::string>{"metadata key \"createdDateTime\" should hold an integer",
                                        "metadata key \"applicationName\" is missing"}));
    for (const CheckProblem& problem : report.problems) {
        EXPECT_EQ(problem.kind, CheckProblemKind::Metadata);
        EXPECT_FALSE(problem.damage);
    }
}

TEST_F(FileCheckTest, ABookmarkOnAMissingEntryIsNamed) {
    writeFile(path, 2, 0);
    RawDatabase(path).exec("INSERT INTO bookmarks(entryId, title, comments) VALUES (9, 'gone', '');");
    const CheckReport report = checkLogFile(path);
    EXPECT_EQ(messages(report),
              (std::vector<std::string>{
                  "foreign_key_check: row 1 of table bookmarks refers to a missing row of table data",
                  "bookmark \"gone\" points at entry 9, which does not exist"}));
    EXPECT_EQ(report.problems.back().kind, CheckProblemKind::Bookmark);
    EXPECT_EQ(report.problems.back().entryId, std::optional<int64_t>(9));
}

TEST_F(FileCheckTest, AFileCutShortIsDamage) {
    writeFile(path, 2, 0);
    const auto size = std::filesystem::file_size(path);
    std::filesystem::resize_file(path, size - 1);
    const CheckReport report = checkLogFile(path);
    ASSERT_FALSE(report.problems.empty());
    const CheckProblem& first = report.problems.front();
    EXPECT_EQ(first.kind, CheckProblemKind::File);
    EXPECT_TRUE(first.damage);
    EXPECT_EQ(first.message.rfind("the file is " + std::to_string(size - 1) + " bytes, its header says ", 0),
              0u)
        << first.message;
}

TEST_F(FileCheckTest, AnEmptyFileIsAProblemWithoutCounts) {
    std::ofstream(path).close();
    const CheckReport report = checkLogFile(path);
    EXPECT_EQ(messages(report), std::vector<std::string>{"the file is empty (0 bytes)"});
    EXPECT_FALSE(report.checked);
}

TEST_F(FileCheckTest, ProblemsCountsAndProgressAreToldAsTheCheckRuns) {
    writeFile(path, 3, 0);
    RawDatabase(path).exec("DELETE FROM metadata WHERE key = 'currentTimeZone';");
    std::vector<std::string> told;
    CheckOptions options;
    options.onProblem = [&](const CheckProblem& problem) { told.push_back("problem " + problem.message); };
    options.onCounted = [&](const CheckReport::Counts& counts) {
        told.push_back("counted " + std::to_string(counts.entries));
    };
    options.onProgress = [&](const CheckProgress& progress) {
        const char* steps[] = {"started", "advanced", "finished"};
        told.push_back(std::string(steps[static_cast<int>(progress.step)]) + " " +
                       std::to_string(progress.entries) + " of " +
                       std::to_string(progress.total.value_or(0)));
    };
    const CheckReport report = checkLogFile(path, options);
    EXPECT_EQ(told, (std::vector<std::string>{"problem metadata key \"currentTimeZone\" is missing",
                                              "started 0 of 3", "advanced 1 of 3", "advanced 2 of 3",
                                              "advanced 3 of 3", "finished 3 of 3", "counted 3"}));
    EXPECT_EQ(report.problems.size(), 1u);
}

}  // namespace
