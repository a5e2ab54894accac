// A writer killed in the middle of a commit leaves its journal beside the
// file: read-only commands say so and how to go on, instead of quoting
// SQLite's "attempt to write a readonly database".

#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

// Changes every entry's type in one transaction whose pages spill to the
// file before the commit, then dies: the journal is left hot.
void dieInTheMiddleOfACommit(const std::string& path) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        sqlite3* db = nullptr;
        if (sqlite3_open(path.c_str(), &db) != SQLITE_OK ||
            sqlite3_exec(db, "PRAGMA cache_size = 1; BEGIN; UPDATE data SET type = type + 1;", nullptr,
                         nullptr, nullptr) != SQLITE_OK) {
            _exit(3);
        }
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    ASSERT_GT(std::filesystem::file_size(path + "-journal"), 0u);
}

TEST(UnfinishedCommit, ReadOnlyCommandsSayTheWritersJournalMustBeRolledBack) {
    TempDir directory;
    const std::string path = directory.file("killed.mvlog");
    writeKnownFile(path, 0);
    dieInTheMiddleOfACommit(path);
    const std::string expected =
        "Cannot read '" + path +
        "' yet: a writer stopped in the middle of a commit and left its journal beside "
        "it. Opening the file once for writing (as a recording program or "
        "MV_LogFile_Open does) rolls the unfinished commit back; 'mvlog recover' "
        "salvages it without changing it.";
    for (const char* command : {"info", "cat"}) {
        const RunResult result = runMvlog({command, path});
        EXPECT_EQ(result.exitCode, 1) << command;
        EXPECT_NE(result.err.find(expected), std::string::npos) << command << ": " << result.err;
        EXPECT_EQ(result.err.find("attempt to write a readonly database"), std::string::npos) << result.err;
    }
    // A read-only command changed nothing: the journal is still there.
    EXPECT_GT(std::filesystem::file_size(path + "-journal"), 0u);
}

}  // namespace
}  // namespace MvlogTest
