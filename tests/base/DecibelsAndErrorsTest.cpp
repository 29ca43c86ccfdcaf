#include "base/Clamped.h"
#include "base/Decibels.h"
#include "base/HarluneError.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>

namespace harlune {
namespace {

TEST(DecibelsTest, ConversionsAndFloor) {
    EXPECT_EQ(Decibels::fromLinear(0), -144.0);
    EXPECT_EQ(Decibels::fromLinear(-1), -144.0);
    EXPECT_EQ(Decibels::fromLinear(std::numeric_limits<double>::quiet_NaN()), -144.0);
    EXPECT_EQ(Decibels::fromLinear(1), 0.0);
    EXPECT_NEAR(Decibels::fromLinear(0.5), -6.0206, 1e-4);
    EXPECT_EQ(Decibels::fromLinear(1e-10), -144.0);
    EXPECT_EQ(Decibels::fromPower(1e-20), -144.0);
    EXPECT_NEAR(Decibels::fromPower(0.5), -3.0103, 1e-4);
    EXPECT_NEAR(Decibels::toLinear(-144), 6.31e-8, 1e-10);
    EXPECT_NEAR(Decibels::toLinear(6.0206), 2.0, 1e-4);
    for (double dB = -140; dB < 20; dB += 7.3)
        EXPECT_NEAR(Decibels::fromLinear(Decibels::toLinear(dB)), dB, 1e-9);
}

TEST(ClampedTest, LowerFirstThenUpperDecidesCrossedBoundsAndNaN) {
    EXPECT_EQ(clamped(5, 0, 3), 3);
    EXPECT_EQ(clamped(-5, 0, 3), 0);
    EXPECT_EQ(clamped(1, 4, 3), 3) << "crossed bounds: the upper one wins";
    EXPECT_TRUE(std::isnan(clamped(std::nan(""), 0.0, 1.0))) << "NaN passes both comparisons";
}

TEST(HarluneErrorTest, TextsTheUserReads) {
    EXPECT_STREQ(HarluneError::unsupportedFormat("x").what(), "Unsupported format: x");
    EXPECT_STREQ(HarluneError::decodeFailed("bad header").what(),
                 "Couldn\xE2\x80\x99t read the audio: bad header");
    EXPECT_STREQ(HarluneError::encodeFailed("disk full").what(),
                 "Couldn\xE2\x80\x99t write the audio: disk full");
    EXPECT_STREQ(HarluneError::codecUnavailable("MP3").what(), "Codec unavailable: MP3");
    EXPECT_STREQ(HarluneError::cancelled().what(), "Cancelled");
    EXPECT_TRUE(HarluneError::cancelled().isCancelled());
    EXPECT_FALSE(HarluneError::decodeFailed("").isCancelled());
    EXPECT_EQ(HarluneError::decodeFailed("a"), HarluneError::decodeFailed("a"));
    EXPECT_FALSE(HarluneError::decodeFailed("a") == HarluneError::encodeFailed("a"));
}

} // namespace
} // namespace harlune
