// Looking at a file never changes it: every command that only reads opens
// read-only, leaves every byte as it was (also where opening for writing would
// repair the bookmarks table), and beside a writer that holds the file locked
// it fails clearly instead of printing an empty answer.

#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

// Holds a write lock on the file, as another process's write transaction does.
class LockHolder {
public:
    explicit LockHolder(const std::string& path) {
        sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr);
        sqlite3_exec(db_, "BEGIN EXCLUSIVE;", nullptr, nullptr, nullptr);
    }
    ~LockHolder() {
        sqlite3_exec(db_, "COMMIT;", nullptr, nullptr, nullptr);
        sqlite3_close_v2(db_);
    }
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;

private:
    sqlite3* db_ = nullptr;
};

const std::vector<std::vector<std::string>>& readingCommands(const std::string& path) {
    static std::vector<std::vector<std::string>> commands;
    commands = {{"info", path},
                {"info", path, "--json"},
                {"cat", path, "--limit", "5"},
                {"export", path, "--entry", "7", "-o", "-"},
                {"check", path},
                {"bookmarks", path},
                {"play", path, "--speed", "1000"}};
    return commands;
}

TEST(ReadOnlyCommands, NoReadingCommandChangesAByte) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    writeKnownFile(path);
    // A bookmark on a missing entry: opening for writing would drop the
    // whole bookmarks table to repair it.
    executeSql(path,
               "PRAGMA foreign_keys = off; INSERT INTO bookmarks (entryId, title, comments) VALUES "
               "(999, 'dangling', '');");
    const ByteBuffer before = readFileBytes(path);
    for (const std::vector<std::string>& command : readingCommands(path)) {
        const RunResult result = runMvlog(command);
        EXPECT_EQ(readFileBytes(path), before) << command.front() << " changed the file";
        EXPECT_EQ(result.terminatingSignal, 0) << command.front();
    }
    const RunResult bookmarks = runMvlog({"bookmarks", path});
    EXPECT_EQ(bookmarks.exitCode, 0) << bookmarks.err;
    EXPECT_NE(bookmarks.out.find("dangling"), std::string::npos) << bookmarks.out;
    EXPECT_EQ(readFileBytes(path), before);
}

TEST(ReadOnlyCommands, BesideALockedWriterTheyFailClearlyAndChangeNothing) {
    TempDir directory;
    const std::string path = directory.file("locked.mvlog");
    writeKnownFile(path);
    const ByteBuffer before = readFileBytes(path);
    {
        LockHolder writer(path);
        for (const char* command : {"bookmarks", "info"}) {
            const RunResult result = runMvlog({command, path});
            EXPECT_EQ(result.exitCode, 1) << command << ": " << result.out;
            EXPECT_EQ(result.out, "") << command;
            EXPECT_EQ(result.err, "mvlog: cannot open " + path + ": The file '" + path +
                                      "' is busy: another connection kept it locked for more than 5000 ms.\n")
                << command;
        }
    }
    EXPECT_EQ(readFileBytes(path), before);
    const RunResult after = runMvlog({"bookmarks", path});
    EXPECT_EQ(after.exitCode, 0);
    EXPECT_EQ(after.out, "entry 5: \"five\" - first comment\n");
}

}  // namespace
}  // namespace MvlogTest
