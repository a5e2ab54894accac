#include <core/Chrono.h>
#include <core/Filesystem.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>

using Marivane::Filesystem::appendTextToFilename;
using Marivane::Filesystem::makeUniqueFilePath;
namespace fs = std::filesystem;

namespace {

void touch(const fs::path& path) {
    std::ofstream(path) << "x";
}

}  // namespace

TEST(MakeUniqueFilePath, ReturnsThePathItselfWhenNothingIsThere) {
    Marivane::Testing::TempDir dir;
    const fs::path wanted = dir.path() / "name.ext";
    EXPECT_EQ(makeUniqueFilePath(wanted), wanted);
    EXPECT_FALSE(fs::exists(wanted));
}

TEST(MakeUniqueFilePath, NumbersFromTwoWhenTaken) {
    Marivane::Testing::TempDir dir;
    const fs::path wanted = dir.path() / "name.ext";
    touch(wanted);
    EXPECT_EQ(makeUniqueFilePath(wanted), dir.path() / "name-2.ext");
    touch(dir.path() / "name-2.ext");
    EXPECT_EQ(makeUniqueFilePath(wanted), dir.path() / "name-3.ext");
}

TEST(MakeUniqueFilePath, SkipsOnlyTakenNumbers) {
    Marivane::Testing::TempDir dir;
    const fs::path wanted = dir.path() / "name.ext";
    touch(wanted);
    touch(dir.path() / "name-3.ext");
    EXPECT_EQ(makeUniqueFilePath(wanted), dir.path() / "name-2.ext");
}

TEST(MakeUniqueFilePath, DirectoriesCountAsTaken) {
    Marivane::Testing::TempDir dir;
    const fs::path wanted = dir.path() / "name.ext";
    fs::create_directory(wanted);
    EXPECT_EQ(makeUniqueFilePath(wanted), dir.path() / "name-2.ext");
    fs::create_directory(dir.path() / "name-2.ext");
    EXPECT_EQ(makeUniqueFilePath(wanted), dir.path() / "name-3.ext");
}

TEST(MakeUniqueFilePath, DanglingSymlinkCountsAsTaken) {
    Marivane::Testing::TempDir dir;
    const fs::path wanted = dir.path() / "name.ext";
    fs::create_symlink(dir.path() / "missing-target", wanted);
    EXPECT_EQ(makeUniqueFilePath(wanted), dir.path() / "name-2.ext");
}

TEST(MakeUniqueFilePath, NameWithoutExtension) {
    Marivane::Testing::TempDir dir;
    const fs::path wanted = dir.path() / "name";
    touch(wanted);
    EXPECT_EQ(makeUniqueFilePath(wanted), dir.path() / "name-2");
}

TEST(MakeUniqueFilePath, OnlyTheLastExtensionStaysAtTheEnd) {
    Marivane::Testing::TempDir dir;
    const fs::path wanted = dir.path() / "run.2024.mvlog";
    touch(wanted);
    EXPECT_EQ(makeUniqueFilePath(wanted), dir.path() / "run.2024-2.mvlog");
}

TEST(AppendTextToFilename, InsertsBeforeTheExtension) {
    EXPECT_EQ(appendTextToFilename("/d/run.mvlog", "_exported"), fs::path("/d/run_exported.mvlog"));
}

TEST(AppendTextToFilename, AppendsWhenThereIsNoExtension) {
    EXPECT_EQ(appendTextToFilename("/d/run", "_exported"), fs::path("/d/run_exported"));
}

TEST(AppendTextToFilename, DottedNameKeepsOnlyTheLastExtensionAfterTheText) {
    EXPECT_EQ(appendTextToFilename("/d/my.run.mvlog", "_exported"), fs::path("/d/my.run_exported.mvlog"));
}

TEST(AppendTextToFilename, RelativeNameStaysRelative) {
    EXPECT_EQ(appendTextToFilename("run.mvlog", "-x"), fs::path("run-x.mvlog"));
}

TEST(AppendTextToFilename, EmptyTextLeavesThePath) {
    EXPECT_EQ(appendTextToFilename("/d/run.mvlog", ""), fs::path("/d/run.mvlog"));
}

TEST(ChronoTest, MillisecondsSinceEpochFollowTheSystemClock) {
    using namespace std::chrono;
    const auto before = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    const int64_t now = Marivane::Chrono::msSinceUnixEpoch();
    const auto after = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
    // Milliseconds, not seconds or microseconds: somewhere after 2020 and before 2100.
    EXPECT_GT(now, int64_t{1577836800000});
    EXPECT_LT(now, int64_t{4102444800000});
}
