#include <logging/MetadataValue.h>
#include <logging/SqliteLogFile.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace Marivane::Logging;
using Marivane::Testing::TempDir;

TEST(MetadataValueTest, IntegersOfEitherWidthAndTextReadAsAsked) {
    TempDir directory;
    SqliteLogFile file(directory.file("values.mvlog"), "UTC", "model-tests", "1", 0, 1'700'000'000'000);
    ASSERT_TRUE(file.addMetadata("narrow", PropertyValue{int32_t{7}}));
    ASSERT_TRUE(file.addMetadata("wide", PropertyValue{int64_t{1} << 40}));
    ASSERT_TRUE(file.addMetadata("text", PropertyValue{std::string("seven")}));

    EXPECT_EQ(integerMetadata(file, "narrow"), 7);
    EXPECT_EQ(integerMetadata(file, "wide"), int64_t{1} << 40);
    EXPECT_EQ(textMetadata(file, "text"), "seven");
    EXPECT_EQ(integerMetadata(file, "createdDateTime"), 1'700'000'000'000);
}

TEST(MetadataValueTest, AbsentKeysAndOtherTypesReadAsNothing) {
    TempDir directory;
    SqliteLogFile file(directory.file("values.mvlog"), "UTC", "model-tests", "1", 0, 1'700'000'000'000);
    ASSERT_TRUE(file.addMetadata("text", PropertyValue{std::string("seven")}));

    EXPECT_EQ(integerMetadata(file, "text"), std::nullopt);
    EXPECT_EQ(textMetadata(file, "createdDateTime"), std::nullopt);
    EXPECT_EQ(integerMetadata(file, "absent"), std::nullopt);
    EXPECT_EQ(textMetadata(file, "absent"), std::nullopt);
}
