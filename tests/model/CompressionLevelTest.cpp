#include <logging/CompressionLevel.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

using namespace Marivane::Logging;

TEST(CompressionLevelTest, FastestToNineAreValid) {
    for (int level = -1; level <= 9; ++level) {
        EXPECT_TRUE(isValidCompressionLevel(level)) << level;
    }
    EXPECT_EQ(kMinCompressionLevel, kFastestCompressionLevel);
    EXPECT_EQ(kFastestCompressionLevel, -1);
    EXPECT_EQ(kUncompressedLevel, 0);
    EXPECT_EQ(kMaxCompressionLevel, 9);
}

TEST(CompressionLevelTest, EverythingElseIsRefused) {
    EXPECT_FALSE(isValidCompressionLevel(-2));
    EXPECT_FALSE(isValidCompressionLevel(10));
    EXPECT_FALSE(isValidCompressionLevel(std::numeric_limits<int8_t>::min()));
    EXPECT_FALSE(isValidCompressionLevel(std::numeric_limits<int8_t>::max()));
    // A level read from metadata is 64 bits; it must not wrap into range.
    EXPECT_FALSE(isValidCompressionLevel(int64_t{1} << 32));
    EXPECT_FALSE(isValidCompressionLevel(std::numeric_limits<int64_t>::min()));
}

static_assert(isValidCompressionLevel(kUncompressedLevel), "usable in constant expressions");
