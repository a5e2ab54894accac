// Why slice and clone returned nothing, through the overloads that tell.

#include <logging/Algorithms.h>
#include <logging/SqliteLogFile.h>

#include "AlgorithmsTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

using namespace Marivane::Logging;
using namespace Marivane::Testing;

TEST(SliceRefusal, AnExistingOutputIsNamed) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));
    std::ofstream(dir.file("out.mvlog")) << "keep me";
    SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};

    std::string why;
    EXPECT_FALSE(Algorithms::slice(source, 6, 9, dir.file("out.mvlog"), "cutter", "2.0", 0, &why));

    EXPECT_EQ(why, "Cannot write '" + dir.file("out.mvlog") +
                       "': a file already exists there and is never overwritten.");
    EXPECT_EQ(fileContents(dir.file("out.mvlog")), "keep me");
}

TEST(SliceRefusal, ABoundThatIsNoEntryIsNamed) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));
    SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};

    std::string why;
    EXPECT_FALSE(Algorithms::slice(source, 6, 7, dir.file("out.mvlog"), "cutter", "2.0", 0, &why));

    EXPECT_EQ(why, "Cannot slice '" + dir.file("source.mvlog") +
                       "': entries 6 to 7 are not a range of its entries.");
    EXPECT_FALSE(std::filesystem::exists(dir.file("out.mvlog")));
}

TEST(SliceRefusal, AnOutputThatCannotBeCreatedTellsWhy) {
    TempDir dir;
    {
        SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};
        ASSERT_TRUE(source.addMetadata("currentTimeZone", int64_t{60}));
        DataSource camera{-1, MV_LogDataSourceType_Camera, "cam"};
        ASSERT_TRUE(source.addDataSource(camera));
        ASSERT_TRUE(source.logData(entryFor(1, camera.id)));
    }
    SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};

    std::string why;
    EXPECT_FALSE(Algorithms::clone(source, dir.file("out.mvlog"), "copier", "9.1", 0, &why));

    const std::string prefix = "Cannot write '" + dir.file("out.mvlog") + "': ";
    EXPECT_EQ(why.rfind(prefix, 0), 0u) << why;
    EXPECT_GT(why.size(), prefix.size()) << why;
    EXPECT_FALSE(std::filesystem::exists(dir.file("out.mvlog")));
}

TEST(SliceRefusal, ASliceThatIsWrittenLeavesTheReasonAlone) {
    TempDir dir;
    writeGappedSource(dir.file("source.mvlog"));
    SqliteLogFile source{std::filesystem::path(dir.file("source.mvlog"))};

    std::string why = "untouched";
    EXPECT_TRUE(Algorithms::slice(source, 6, 9, dir.file("out.mvlog"), "cutter", "2.0", 0, &why));

    EXPECT_EQ(why, "untouched");
}

TEST(DefaultDerivedFilePath, IsBesideTheSourceAndNeverAnExistingFile) {
    TempDir dir;
    const std::filesystem::path source = dir.path() / "drive.mvlog";
    EXPECT_EQ(Algorithms::defaultDerivedFilePath(source), (dir.path() / "drive_exported.mvlog").string());
    std::ofstream(dir.path() / "drive_exported.mvlog") << "taken";
    const std::string next = Algorithms::defaultDerivedFilePath(source);
    EXPECT_NE(next, (dir.path() / "drive_exported.mvlog").string());
    EXPECT_EQ(std::filesystem::path(next).parent_path(), dir.path());
    EXPECT_FALSE(std::filesystem::exists(next));
}
