#include "preloadsamplesourceutils.h"

#include <gtest/gtest.h>

#include <cmath>

TEST(PreloadSampleSourceUtils, TimeConversions)
{
    EXPECT_EQ(PreloadSampleSourceUtils::msFromTimespec(timespec{2, 0}, timespec{1, 999999999}), 1);
    // No borrow between the fields: the nanosecond part truncates on its own.
    EXPECT_EQ(PreloadSampleSourceUtils::msFromTimespec(timespec{1, 0}, timespec{0, 999999}), 1000);
    EXPECT_EQ(PreloadSampleSourceUtils::msFromTimespec(timespec{0, 0}, timespec{3, 0}), -3000);
    EXPECT_EQ(PreloadSampleSourceUtils::nsFromTimespec(timespec{3, 5}), 3000000005LL);
    EXPECT_EQ(PreloadSampleSourceUtils::nsFromTimespec(timespec{100000, 0}), 100000000000000LL);
}

TEST(PreloadSampleSourceUtils, ClampAndScale)
{
    EXPECT_EQ(PreloadSampleSourceUtils::clampPercentage(-0.5), 0.0);
    EXPECT_EQ(PreloadSampleSourceUtils::clampPercentage(42.5), 42.5);
    EXPECT_EQ(PreloadSampleSourceUtils::clampPercentage(100.0), 100.0);
    EXPECT_EQ(PreloadSampleSourceUtils::clampPercentage(250.0), 100.0);
    EXPECT_EQ(PreloadSampleSourceUtils::clampPercentage(std::nan("")), 100.0);

    EXPECT_EQ(PreloadSampleSourceUtils::calculateScaleUpFactor(timespec{0, 500000000}), 2.0);
    EXPECT_EQ(PreloadSampleSourceUtils::calculateScaleUpFactor(timespec{0, 0}), 1.0);
    EXPECT_DOUBLE_EQ(PreloadSampleSourceUtils::calculateScaleUpFactor(timespec{4, 0}), 0.25);
    EXPECT_DEATH(PreloadSampleSourceUtils::calculateScaleUpFactor(timespec{1, -1}), "Assertion `a\\.tv_nsec >=0' failed");
}
