#include "playback/LogFilePlayerPrivate.h"

#include <gtest/gtest.h>

#include <cstdint>

using Marivane::Logging::Playback::computeFrameWait;

namespace {

constexpr int64_t kLongestWaitMs = int64_t{1} << 40;

TEST(FrameWait, GapBelowCapIsDividedBySpeed) {
    EXPECT_EQ(computeFrameWait(100, 1000, 2.0F, 0), 50);
    EXPECT_EQ(computeFrameWait(100, 1000, 0.5F, 0), 200);
    EXPECT_EQ(computeFrameWait(999, 1000, 1.0F, 0), 999);
}

TEST(FrameWait, CarryOfPreviousCycleIsSubtracted) {
    EXPECT_EQ(computeFrameWait(100, 1000, 2.0F, 7), 43);
    EXPECT_EQ(computeFrameWait(100, 1000, 1.0F, 250), -150);
    EXPECT_EQ(computeFrameWait(100, 1000, 2.0F, -5), 55);
    EXPECT_EQ(computeFrameWait(0, 1000, 1.0F, 12), -12);
}

TEST(FrameWait, GapAtOrAboveCapWaitsTheBareCap) {
    EXPECT_EQ(computeFrameWait(1000, 1000, 0.25F, 0), 1000);
    EXPECT_EQ(computeFrameWait(1000, 1000, 4.0F, 300), 1000);
    EXPECT_EQ(computeFrameWait(5000, 200, 100.0F, -40), 200);
    // The first frame after construction or a wrap measures from timestamp 0.
    EXPECT_EQ(computeFrameWait(1700000000000, 200, 1.0F, 0), 200);
}

TEST(FrameWait, QuotientIsRoundedHalfAwayFromZero) {
    EXPECT_EQ(computeFrameWait(5, 1000, 2.0F, 0), 3);
    EXPECT_EQ(computeFrameWait(-5, 1000, 2.0F, 0), -3);
    EXPECT_EQ(computeFrameWait(1, 1000, 3.0F, 0), 0);
    EXPECT_EQ(computeFrameWait(2, 1000, 3.0F, 0), 1);
}

TEST(FrameWait, GapIsConvertedToFloatBeforeDividing) {
    // 2^24 + 1 has no float representation and becomes 2^24.
    EXPECT_EQ(computeFrameWait(16777217, INT32_MAX, 1.0F, 0), 16777216);
}

TEST(FrameWait, NegativeGapGivesNegativeWait) {
    EXPECT_EQ(computeFrameWait(-300, 100, 1.0F, 0), -300);
}

TEST(FrameWait, DegenerateSpeedsStayInRange) {
    EXPECT_EQ(computeFrameWait(100, 1000, 0.0F, 0), kLongestWaitMs);
    EXPECT_EQ(computeFrameWait(-100, 1000, 0.0F, 0), -kLongestWaitMs);
    EXPECT_EQ(computeFrameWait(0, 1000, 0.0F, 3), -3);
    EXPECT_EQ(computeFrameWait(100, 1000, -2.0F, 0), -50);
}

}  // namespace
