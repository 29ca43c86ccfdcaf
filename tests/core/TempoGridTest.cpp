#include "core/TempoGrid.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace harlune {
namespace {

TEST(TempoGridTest, ConstructionClamps) {
    EXPECT_EQ(TempoGrid(10, 4, 0).bpm, 20);
    EXPECT_EQ(TempoGrid(1000, 4, 0).bpm, 400);
    EXPECT_EQ(TempoGrid(120, 0, 0).beatsPerBar, 1);
    EXPECT_EQ(TempoGrid(120, -3, 0).beatsPerBar, 1);
    EXPECT_EQ(TempoGrid().bpm, 120);
}

TEST(TempoGridTest, BeatAndBarArithmetic) {
    const TempoGrid grid(120, 4, 1000); // a beat is 24000 frames at 48 kHz
    EXPECT_EQ(grid.beatIndex(1000, 48000), 0);
    EXPECT_EQ(grid.beatIndex(999, 48000), -1);
    EXPECT_EQ(grid.barIndex(999, 48000), -1);
    EXPECT_EQ(grid.beatIndex(25'000, 48000), 1);
    EXPECT_EQ(grid.barIndex(96'999, 48000), 0);
    EXPECT_EQ(grid.barIndex(97'000, 48000), 1);
    EXPECT_DOUBLE_EQ(grid.beatFrame(3, 48000), 73'000);
    EXPECT_DOUBLE_EQ(grid.barFrame(-1, 48000), -95'000);
    // Beats may fall between frames: 44.1 kHz at 123 bpm.
    const TempoGrid odd(123, 3, 0);
    EXPECT_NEAR(odd.beatFrame(1, 44100), 44100 * 60.0 / 123, 1e-9);
}

TEST(TempoGridTest, BarsRangeIsOrderFreeAndLimited) {
    const TempoGrid grid(120, 4, 0); // a bar is 96000 frames
    EXPECT_EQ(grid.barsRange(3, 5, 48000, 10'000'000), FrameRange(288'000, 576'000));
    EXPECT_EQ(grid.barsRange(5, 3, 48000, 10'000'000), grid.barsRange(3, 5, 48000, 10'000'000));
    EXPECT_EQ(grid.barsRange(-3, -2, 48000, 1'000'000), FrameRange(0, 0));
    EXPECT_EQ(grid.barsRange(20, 21, 48000, 1'000'000), FrameRange(1'000'000, 1'000'000));
    EXPECT_EQ(grid.barsRange(-1, 0, 48000, 1'000'000), FrameRange(0, 96'000));
}

TEST(TempoGridTest, SnappingAndScaling) {
    const TempoGrid grid(120, 4, 100);
    EXPECT_DOUBLE_EQ(grid.snapped(12'000, 48000, 1), 100); // 11900 from the downbeat: nearer 0
    EXPECT_DOUBLE_EQ(grid.snapped(12'200, 48000, 1), 24'100);
    EXPECT_DOUBLE_EQ(grid.snapped(12'200, 48000, 0), grid.snapped(12'200, 48000, 1));
    EXPECT_DOUBLE_EQ(grid.snapped(6'200, 48000, 4), 6'100);
    EXPECT_DOUBLE_EQ(grid.snapped(100 + 3000, 48000, 4), 100 + 6000) << "halves round away from zero";
    const TempoGrid scaled = TempoGrid(120, 4, 44100).scaled(48000.0 / 44100.0);
    EXPECT_EQ(scaled.downbeatFrame, 48000);
    EXPECT_EQ(scaled.bpm, 120);
}

TEST(TempoGridTest, JSONNeedsAllKeys) {
    const TempoGrid grid(97.5, 7, 12345);
    const nlohmann::json json = grid;
    EXPECT_EQ(json, nlohmann::json::parse(R"({"bpm":97.5,"beatsPerBar":7,"downbeatFrame":12345})"));
    EXPECT_EQ(json.get<TempoGrid>(), grid);
    EXPECT_THROW((void)nlohmann::json::parse(R"({"bpm":97.5,"beatsPerBar":7})").get<TempoGrid>(),
                 nlohmann::json::exception);
}

} // namespace
} // namespace harlune
