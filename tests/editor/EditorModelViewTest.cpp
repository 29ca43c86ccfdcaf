#include "core/Processing.h"
#include "editor/EditorModel.h"
#include "editor/EditorTestSupport.h"

#include <cmath>
#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::Probe;

class EditorModelViewTest : public ::testing::Test {
protected:
    void SetUp() override { testing::clearPreferences(); }

    std::unique_ptr<EditorModel> makeModel(int64_t frames, int channels = 2, double rate = 48000,
                                           std::optional<AudioFileInfo> info = std::nullopt) {
        return testing::probedModel(AudioContent::silence(frames, channels, rate), probe, std::move(info));
    }

    std::shared_ptr<Probe> probe = std::make_shared<Probe>();
};

// Zoom and scroll ----------------------------------------------------------------------------------

TEST_F(EditorModelViewTest, EmptyContentCountsAsOneFrame) {
    auto model = makeModel(0);
    EXPECT_DOUBLE_EQ(model->maxFramesPerPoint(), 0.0625);
    model->setFramesPerPoint(1000);
    model->setScrollFrame(50);
    model->clampScroll();
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), 0.0625);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 0);

    model->setFramesPerPoint(0.001);
    model->clampScroll();
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), EditorModel::minFramesPerPoint);
}

TEST_F(EditorModelViewTest, MaxZoomUsesAWidthOfAtLeastOneHundredPoints) {
    auto model = makeModel(100000);
    EXPECT_DOUBLE_EQ(model->maxFramesPerPoint(), 100000.0 / 800 * 1.02);
    model->setViewWidth(40);
    EXPECT_DOUBLE_EQ(model->maxFramesPerPoint(), 100000.0 / 100 * 1.02);
}

TEST_F(EditorModelViewTest, ZoomToFitShowsTheWholeContent) {
    auto model = makeModel(123456);
    model->setScrollFrame(999);
    model->zoomToFit();
    EXPECT_NEAR(model->framesPerPoint(), 123456.0 / 800, 1e-9);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 0);
}

TEST_F(EditorModelViewTest, ScrollIsLimitedToTheContent) {
    auto model = makeModel(100000);
    model->setFramesPerPoint(10); // 8000 frames on screen
    model->scroll(-5);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 0);
    model->scroll(250.5);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 2505);
    model->scroll(1e9);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 100000 - 8000);
    // A view wider than the content cannot scroll.
    model->setFramesPerPoint(125);
    model->scroll(10);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 0);
}

TEST_F(EditorModelViewTest, ZoomKeepsAnOnScreenAnchorInPlace) {
    auto model = makeModel(1000000);
    model->setFramesPerPoint(100);
    model->setScrollFrame(10000);
    const double anchor = 30000; // at point 200
    model->zoom(0.5, 30000);
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), 50);
    EXPECT_DOUBLE_EQ((anchor - model->scrollFrame()) / model->framesPerPoint(), 200);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 20000);
}

TEST_F(EditorModelViewTest, ZoomCentresAnOffScreenAnchor) {
    auto model = makeModel(1000000);
    model->setFramesPerPoint(100);
    model->setScrollFrame(10000);
    model->zoom(2, 500000); // far right of the 80000 frames on screen
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), 200);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 500000 - 400 * 200);

    model->zoom(1, 0); // left of the view: centred, then clamped at the start
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 0);
}

TEST_F(EditorModelViewTest, ZoomAnchorDefaultsToPlayheadThenSelectionThenCursor) {
    auto model = makeModel(1000000);
    model->setFramesPerPoint(100);
    model->setScrollFrame(0);
    model->setCursor(8000); // point 80
    model->zoom(0.5);
    EXPECT_DOUBLE_EQ((8000 - model->scrollFrame()) / model->framesPerPoint(), 80);

    model->setSelection(FrameRange{12000, 20000});
    const double selectionPoint = (12000 - model->scrollFrame()) / model->framesPerPoint();
    model->zoom(0.5);
    EXPECT_NEAR((12000 - model->scrollFrame()) / model->framesPerPoint(), selectionPoint, 1e-9);

    model->setIsPlaying(true);
    model->setPlayhead(model->selection()->lower + 400);
    const double playheadPoint =
        (static_cast<double>(model->playhead()) - model->scrollFrame()) / model->framesPerPoint();
    model->zoom(2);
    EXPECT_NEAR((static_cast<double>(model->playhead()) - model->scrollFrame()) / model->framesPerPoint(),
                playheadPoint, 1e-9);
}

TEST_F(EditorModelViewTest, ZoomIsClampedAtBothEnds) {
    auto model = makeModel(48000);
    model->zoom(1e-9, 100);
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), EditorModel::minFramesPerPoint);
    model->zoom(1e9, 100);
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), model->maxFramesPerPoint());
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 0);
}

TEST_F(EditorModelViewTest, ZoomToSelectionCentresIt) {
    auto model = makeModel(1000000);
    model->zoomToSelection(); // no selection: nothing
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), 256);

    model->setSelection(FrameRange{400000, 480000});
    model->zoomToSelection();
    const double fpp = 80000.0 / 800 * 1.05;
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), fpp);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 400000 - (800 * fpp - 80000) / 2);
    const double middle = model->scrollFrame() + 400 * model->framesPerPoint();
    EXPECT_NEAR(middle, 440000, 1e-6);

    // A tiny selection at the start: the zoom bottoms out and the scroll clamps at 0.
    model->setSelection(FrameRange{0, 3});
    model->zoomToSelection();
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), EditorModel::minFramesPerPoint);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 0);
}

TEST_F(EditorModelViewTest, EnsureVisibleLeavesATenthBeforeTheFrame) {
    auto model = makeModel(1000000);
    model->setFramesPerPoint(100); // 80000 frames on screen
    model->setScrollFrame(10000);
    model->ensureVisible(10000);
    model->ensureVisible(90000);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 10000);

    model->ensureVisible(90001);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 90001 - 8000);
    model->ensureVisible(5000);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 0);
    model->ensureVisible(999999);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 1000000 - 80000);
}

// Selection ----------------------------------------------------------------------------------------

TEST_F(EditorModelViewTest, SelectAllAndNone) {
    auto empty = makeModel(0);
    empty->selectAll();
    EXPECT_FALSE(empty->selection());

    auto model = makeModel(500, 3);
    model->setActiveChannels({2});
    model->selectAll();
    EXPECT_EQ(model->selection(), (FrameRange{0, 500}));
    EXPECT_EQ(model->activeChannels(), (ChannelSet{0, 1, 2}));

    model->setActiveChannels({0});
    model->selectNone();
    EXPECT_FALSE(model->selection());
    EXPECT_EQ(model->activeChannels(), (ChannelSet{0, 1, 2}));
}

TEST_F(EditorModelViewTest, SetSelectionClampsAndMovesTheCursor) {
    auto model = makeModel(500);
    model->setCursor(77);
    model->setSelection(FrameRange{-50, 900}, std::nullopt);
    EXPECT_EQ(model->selection(), (FrameRange{0, 500}));
    EXPECT_EQ(model->cursor(), 0);

    model->setSelection(FrameRange{100, 200}, ChannelSet{1});
    EXPECT_EQ(model->cursor(), 100);
    EXPECT_EQ(model->activeChannels(), (ChannelSet{1}));
    EXPECT_EQ(model->targetChannels(), (ChannelSet{1}));

    model->setCursor(300);
    model->setSelection(std::nullopt, ChannelSet{0, 1});
    EXPECT_FALSE(model->selection());
    EXPECT_EQ(model->cursor(), 300);
    EXPECT_FALSE(model->targetChannels());

    model->setSelection(FrameRange{600, 700}, std::nullopt); // past the end: empty, so absent
    EXPECT_FALSE(model->selection());
}

TEST_F(EditorModelViewTest, PlayRangeIsTheSelectionOnlyWhenLooping) {
    auto model = makeModel(500);
    model->setSelection(FrameRange{10, 20});
    EXPECT_EQ(model->playRange(), (FrameRange{0, 500}));
    model->setIsLooping(true);
    EXPECT_EQ(model->playRange(), (FrameRange{10, 20}));
    model->setSelection(std::optional<FrameRange>());
    EXPECT_EQ(model->playRange(), (FrameRange{0, 500}));
}

TEST_F(EditorModelViewTest, SnappedFindsZeroCrossingsWithinAZoomDependentRadius) {
    // A step from -0.5 to +0.5 at frame 1000: the only sign change.
    std::vector<float> plane(4000, -0.5f);
    std::fill(plane.begin() + 1000, plane.end(), 0.5f);
    auto model = testing::probedModel(AudioContent({plane}, 48000), probe);
    model->setFramesPerPoint(1);

    EXPECT_EQ(model->snapped(900), 900); // snapping is off
    model->setSnapToZeroCrossings(true);
    EXPECT_EQ(model->snapped(0), 0);
    EXPECT_EQ(model->snapped(4000), 4000);
    EXPECT_EQ(model->snapped(-10), 0);
    EXPECT_EQ(model->snapped(99999), 4000);

    // Radius 64 at one frame per point: 940 reaches the step, 900 does not.
    EXPECT_EQ(model->snapped(940), 1000);
    EXPECT_EQ(model->snapped(900), 900);
    // At 20 frames per point the radius is 120.
    model->setFramesPerPoint(20);
    EXPECT_EQ(model->snapped(900), 1000);
    EXPECT_EQ(model->snapped(1100), 1000);
    EXPECT_EQ(model->snapped(1121), 1121);
    // A fractional radius truncates: 10.9 * 6 = 65.4 reaches 65 frames.
    model->setFramesPerPoint(10.9);
    EXPECT_EQ(model->snapped(935), 1000);
    EXPECT_EQ(model->snapped(934), 934);
    EXPECT_EQ(model->snapped(934), nearestZeroCrossing(model->content(), 934, 65));
}

// Names and summaries ----------------------------------------------------------------------------

TEST_F(EditorModelViewTest, ChannelNames) {
    EXPECT_EQ(makeModel(10, 1)->channelName(0), "Mono");
    auto stereo = makeModel(10, 2);
    EXPECT_EQ(stereo->channelName(0), "L");
    EXPECT_EQ(stereo->channelName(1), "R");
    EXPECT_EQ(stereo->channelName(5), "R");
    auto surround = makeModel(10, 6);
    const char* expected[] = {"L", "R", "C", "LFE", "Ls", "Rs"};
    for (int c = 0; c < 6; ++c)
        EXPECT_EQ(surround->channelName(c), expected[c]);
    EXPECT_EQ(makeModel(10, 3)->channelName(1), "2");
    EXPECT_EQ(makeModel(10, 8)->channelName(7), "8");
}

TEST_F(EditorModelViewTest, FormatSummary) {
    EXPECT_EQ(makeModel(10, 2, 48000)->formatSummary(), "48 kHz \u00B7 Stereo");
    EXPECT_EQ(makeModel(10, 1, 44100)->formatSummary(), "44.1 kHz \u00B7 Mono");
    EXPECT_EQ(makeModel(10, 5, 22050)->formatSummary(), "22.1 kHz \u00B7 5 ch");

    AudioFileInfo info;
    info.codecName = "FLAC";
    info.bitDepth = 24;
    EXPECT_EQ(makeModel(10, 2, 96000, info)->formatSummary(),
              "FLAC \u00B7 96 kHz \u00B7 24-bit \u00B7 Stereo");
    info.codecName = "Linear PCM";
    info.bitDepth = 32;
    info.isFloat = true;
    EXPECT_EQ(makeModel(10, 1, 8000, info)->formatSummary(),
              "Linear PCM \u00B7 8 kHz \u00B7 32-bit float \u00B7 Mono");
    info.codecName = "MP3";
    info.bitDepth.reset();
    EXPECT_EQ(makeModel(10, 2, 44100, info)->formatSummary(), "MP3 \u00B7 44.1 kHz \u00B7 Stereo");
}

} // namespace
} // namespace harlune
