#include <logging/CopyOptions.h>
#include <logging/RecorderOptions.h>
#include <logging/RecoverOptions.h>
#include <logging/Version.h>

#include <gtest/gtest.h>

#include <string>

using namespace Marivane::Logging;

TEST(VersionTest, NumbersMakeTheReleaseText) {
    EXPECT_STREQ(MARIVANE_LOGGING_VERSION, "4.0.0");
    EXPECT_EQ(MARIVANE_LOGGING_VERSION_MAJOR, 4);
    EXPECT_EQ(MARIVANE_LOGGING_VERSION_MINOR, 0);
    EXPECT_EQ(MARIVANE_LOGGING_VERSION_PATCH, 0);
}

TEST(VersionTest, FilesWrittenByTheLibraryNameItsRelease) {
    EXPECT_EQ(CopyOptions{}.applicationVersion, MARIVANE_LOGGING_VERSION);
    EXPECT_EQ(RecorderOptions{}.applicationVersion, MARIVANE_LOGGING_VERSION);
    EXPECT_EQ(RecoverOptions{}.applicationVersion, MARIVANE_LOGGING_VERSION);
}
