#include "core/Processing.h"
#include "support/TestAudio.h"

#include <gtest/gtest.h>

namespace harlune {
namespace {

TEST(ZeroCrossingTest, NearestSignChangeOrZeroOfTheChannelSum) {
    struct Case {
        const char* what;
        testing::Planes planes;
        int64_t frame, radius, expected;
    };
    // Left and right below sum to + + + - - - + + (sign changes at 3 and 6).
    const testing::Planes stereo{{1, 1, 1, -1, -1, -1, 1, 1},
                                 {0.5f, 0.5f, 0.5f, -0.5f, -0.5f, -0.5f, 0.5f, 0.5f}};
    const Case cases[] = {
        {"rising to the change", stereo, 2, 4, 3},
        {"the later change", stereo, 5, 4, 6},
        {"none within the radius", stereo, 5, 0, 5},
        {"the earlier wins a tie", {{1, 1, -1, -1, -1, -1, 1, 1}}, 4, 8, 2},
        {"an exact zero is kept", {{0.3f, 0.2f, 0.0f, 0.2f}}, 2, 2, 2},
        {"opposed channels that cancel", {{0.5f, 0.5f, 0.5f, 0.5f}, {0.2f, 0.2f, -0.5f, 0.2f}}, 1, 3, 2},
        {"one frame", {{1.0f}}, 0, 10, 0},
    };
    for (const Case& c : cases)
        EXPECT_EQ(nearestZeroCrossing(AudioContent(c.planes, 48000), c.frame, c.radius), c.expected)
            << c.what;
    EXPECT_EQ(nearestZeroCrossing(AudioContent(1, 48000), 5, 10), 5) << "no frames";
}

} // namespace
} // namespace harlune
