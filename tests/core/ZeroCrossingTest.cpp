#include <gtest/gtest.h>

#include "core/Processing.h"

namespace harlune {
namespace {

TEST(ZeroCrossingTest, FindsTheNearestSignChangeOfTheChannelSum) {
    // Left and right sum to: + + + - - - + + (sign changes at 3 and 6).
    const AudioContent content({{1, 1, 1, -1, -1, -1, 1, 1}, {0.5f, 0.5f, 0.5f, -0.5f, -0.5f, -0.5f, 0.5f, 0.5f}},
                               48000);
    EXPECT_EQ(nearestZeroCrossing(content, 2, 4), 3);
    EXPECT_EQ(nearestZeroCrossing(content, 5, 4), 6);
    EXPECT_EQ(nearestZeroCrossing(content, 5, 0), 5) << "no crossing within the radius";
}

TEST(ZeroCrossingTest, EarlierWinsATieAndAnExactZeroIsKept) {
    // Crossings at 2 and 6, equally far from 4.
    const AudioContent content({{1, 1, -1, -1, -1, -1, 1, 1}}, 48000);
    EXPECT_EQ(nearestZeroCrossing(content, 4, 8), 2);
    const AudioContent zero({{0.3f, 0.2f, 0.0f, 0.2f}}, 48000);
    EXPECT_EQ(nearestZeroCrossing(zero, 2, 2), 2);
}

TEST(ZeroCrossingTest, OpposedChannelsThatCancelCountAsZero) {
    const AudioContent content({{0.5f, 0.5f, 0.5f, 0.5f}, {0.2f, 0.2f, -0.5f, 0.2f}}, 48000);
    EXPECT_EQ(nearestZeroCrossing(content, 1, 3), 2);
}

TEST(ZeroCrossingTest, TinyContentReturnsTheFrame) {
    EXPECT_EQ(nearestZeroCrossing(AudioContent({{1.0f}}, 48000), 0, 10), 0);
    EXPECT_EQ(nearestZeroCrossing(AudioContent(1, 48000), 5, 10), 5);
}

} // namespace
} // namespace harlune
