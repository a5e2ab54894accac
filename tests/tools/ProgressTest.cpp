// Progress of long commands: the bar's text, and where it is shown.

#include "ProgressBar.h"
#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;
using Mvlog::ProgressBar;

TEST(ProgressText, BarPercentCountRateAndTimeLeft) {
    EXPECT_EQ(ProgressBar::text("slicing", "entries", 450, 1000, 1.0),
              "slicing  [##########..............]  45%  450 of 1000 entries, 450/s, 2 s left");
    EXPECT_EQ(ProgressBar::text("checking", "entries", 10, 1000, 10.0),
              "checking  [........................]   1%  10 of 1000 entries, 1/s, 16 min 30 s left");
    EXPECT_EQ(ProgressBar::text("cat", "entries", 2'000'000, 2'000'000, 4.0),
              "cat  [########################] 100%  2000000 of 2000000 entries, 500.0k/s");
    EXPECT_EQ(ProgressBar::text("merging", "entries", 30, 20, 1.0),
              "merging  [########################] 100%  30 of 20 entries, 30/s");
}

TEST(ProgressText, WithoutATotalTheCountAndTheRate) {
    EXPECT_EQ(ProgressBar::text("recovering", "entries", 1024, std::nullopt, 1.0),
              "recovering  1024 entries, 1.0k/s");
    EXPECT_EQ(ProgressBar::text("recovering", "entries", 0, std::nullopt, 0.0), "recovering  0 entries");
    EXPECT_EQ(ProgressBar::text("x", "entries", 5, 0, 1.0), "x  5 entries, 5/s");
}

// Into a pipe nothing is shown unless asked; asked, the bar ends at the
// whole file, and stdout keeps only what the command prints.
TEST(ProgressShown, OnlyWhenAskedOutsideATerminal) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    writeKnownFile(path);
    const RunResult quiet = runMvlog({"check", path});
    EXPECT_EQ(quiet.err, "");
    const RunResult asked = runMvlog({"check", path, "--progress"});
    EXPECT_EQ(asked.exitCode, 0);
    EXPECT_EQ(asked.out, "Checked 101 entries, 3 data sources, 2 resources, 1 bookmarks\nOK\n");
    const std::vector<std::string> lines = splitLines(asked.err);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().rfind("checking  [########################] 100%  101 of 101 entries", 0), 0u)
        << asked.err;

    const RunResult cloned = runMvlog({"clone", path, "-o", directory.file("clone.mvlog"), "--progress"});
    EXPECT_EQ(cloned.exitCode, 0) << cloned.err;
    EXPECT_EQ(splitLines(cloned.err)
                  .back()
                  .rfind("cloning  [########################] 100%  101 of 101 entries", 0),
              0u)
        << cloned.err;
    const RunResult cat = runMvlog({"cat", path, "--limit", "10", "--progress"});
    EXPECT_EQ(cat.outLines().size(), 10u);
    EXPECT_EQ(splitLines(cat.err).back().rfind("cat  [########################] 100%  10 of 10 entries", 0),
              0u)
        << cat.err;
    EXPECT_EQ(runMvlog({"du", path}).err, "");
    EXPECT_NE(runMvlog({"du", path, "--progress"}).err.find("measuring  ["), std::string::npos);
}

// The index build reports through the library: a bar into a pipe only when
// asked, ending at the file's entries.
TEST(ProgressShown, IndexOnlyWhenAsked) {
    TempDir directory;
    const std::string quietPath = directory.file("quiet.mvlog");
    const std::string askedPath = directory.file("asked.mvlog");
    writeKnownFile(quietPath);
    writeKnownFile(askedPath);
    const RunResult quiet = runMvlog({"index", quietPath});
    EXPECT_EQ(quiet.exitCode, 0) << quiet.err;
    EXPECT_EQ(quiet.err, "");
    const RunResult asked = runMvlog({"index", askedPath, "--progress"});
    EXPECT_EQ(asked.exitCode, 0) << asked.err;
    const std::vector<std::string> lines = splitLines(asked.err);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().rfind("indexing  [########################] 100%  101 of 101 entries", 0), 0u)
        << asked.err;
    EXPECT_EQ(asked.outLines().size(), 2u);
}

}  // namespace
}  // namespace MvlogTest
