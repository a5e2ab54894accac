#include <logging/DataSourceTypeName.h>

#include <gtest/gtest.h>

using namespace Marivane::Logging;

TEST(DataSourceTypeNameTest, CommonTypesHaveTheirEnumeratorNames) {
    EXPECT_EQ(dataSourceTypeName(MV_LogDataSourceType_Invalid), "Invalid");
    EXPECT_EQ(dataSourceTypeName(MV_LogDataSourceType_Camera), "Camera");
    EXPECT_EQ(dataSourceTypeName(MV_LogDataSourceType_VehicleBus), "VehicleBus");
    EXPECT_EQ(dataSourceTypeName(MV_LogDataSourceType_Text), "Text");
}

TEST(DataSourceTypeNameTest, OtherValuesAreWrittenInDecimal) {
    EXPECT_EQ(dataSourceTypeName(static_cast<MV_LogDataSourceType>(42)), "42");
    EXPECT_EQ(dataSourceTypeName(static_cast<MV_LogDataSourceType>(-77)), "-77");
    EXPECT_EQ(dataSourceTypeName(MV_LogDataSourceType_RangeMin), "-2147483648");
    EXPECT_EQ(commonDataSourceTypeName(static_cast<MV_LogDataSourceType>(42)), nullptr);
}

TEST(DataSourceTypeNameTest, NamesAreReadInAnyLetterCase) {
    EXPECT_EQ(dataSourceTypeFromName("navigation"), MV_LogDataSourceType_Navigation);
    EXPECT_EQ(dataSourceTypeFromName("VEHICLEBUS"), MV_LogDataSourceType_VehicleBus);
    EXPECT_EQ(dataSourceTypeFromName("Invalid"), MV_LogDataSourceType_Invalid);
}

TEST(DataSourceTypeNameTest, NumbersAreAnyThirtyTwoBitValue) {
    EXPECT_EQ(dataSourceTypeFromName("2147483647"), MV_LogDataSourceType_RangeMax);
    EXPECT_EQ(dataSourceTypeFromName("-2147483648"), MV_LogDataSourceType_RangeMin);
    EXPECT_EQ(dataSourceTypeFromName("7"), MV_LogDataSourceType_Environment);
    EXPECT_EQ(dataSourceTypeFromName("2147483648"), std::nullopt);
    EXPECT_EQ(dataSourceTypeFromName(""), std::nullopt);
    EXPECT_EQ(dataSourceTypeFromName(" 7"), std::nullopt);
    EXPECT_EQ(dataSourceTypeFromName("7x"), std::nullopt);
    EXPECT_EQ(dataSourceTypeFromName("periscope"), std::nullopt);
}

TEST(DataSourceTypeNameTest, EveryNameReadsBackAsItsType) {
    const auto types = commonDataSourceTypes();
    ASSERT_EQ(types.size(), 10U);
    EXPECT_EQ(types.front().first, MV_LogDataSourceType_Invalid);
    EXPECT_EQ(types.back().first, MV_LogDataSourceType_Text);
    for (const auto& [type, name] : types) {
        EXPECT_EQ(dataSourceTypeName(type), name);
        EXPECT_EQ(dataSourceTypeFromName(name), type);
    }
}
