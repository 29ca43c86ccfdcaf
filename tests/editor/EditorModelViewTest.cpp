// The view arithmetic, selection commands, names and summaries of the model.
#include "core/Processing.h"
#include "editor/EditorTestSupport.h"

#include <cmath>
#include <gtest/gtest.h>

namespace harlune {
namespace {

class EditorModelViewTest : public ::testing::Test {
protected:
    void SetUp() override { testing::clearPreferences(); }

    std::unique_ptr<EditorModel> makeModel(int64_t frames, int channels = 2, double rate = 48000,
                                           std::optional<AudioFileInfo> info = std::nullopt) {
        return testing::probedModel(AudioContent::silence(frames, channels, rate), probe, std::move(info));
    }

    std::shared_ptr<testing::Probe> probe = std::make_shared<testing::Probe>();
};

TEST_F(EditorModelViewTest, ZoomLimitsCountEmptyContentAsOneFrameAndTheViewAsAtLeast100Points) {
    auto empty = makeModel(0);
    EXPECT_DOUBLE_EQ(empty->maxFramesPerPoint(), 0.0625);
    empty->setFramesPerPoint(1000);
    empty->setScrollFrame(50);
    empty->clampScroll();
    EXPECT_DOUBLE_EQ(empty->framesPerPoint(), 0.0625);
    EXPECT_DOUBLE_EQ(empty->scrollFrame(), 0);
    empty->setFramesPerPoint(0.001);
    empty->clampScroll();
    EXPECT_DOUBLE_EQ(empty->framesPerPoint(), EditorModel::minFramesPerPoint);

    auto model = makeModel(100000);
    EXPECT_DOUBLE_EQ(model->maxFramesPerPoint(), 100000.0 / 800 * 1.02);
    model->setScrollFrame(999);
    model->zoomToFit();
    EXPECT_NEAR(model->framesPerPoint(), 100000.0 / 800, 1e-9);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 0);
    model->setViewWidth(40);
    EXPECT_DOUBLE_EQ(model->maxFramesPerPoint(), 100000.0 / 100 * 1.02);
}

TEST_F(EditorModelViewTest, ScrollIsLimitedToTheContent) {
    auto model = makeModel(100000);
    model->setFramesPerPoint(10); // 8000 frames on screen
    const std::pair<double, double> steps[] = {{-5, 0}, {250.5, 2505}, {1e9, 92000}};
    for (const auto& [points, expected] : steps) {
        model->scroll(points);
        EXPECT_DOUBLE_EQ(model->scrollFrame(), expected) << points;
    }
    model->setFramesPerPoint(125); // wider than the content: no scrolling
    model->scroll(10);
    EXPECT_DOUBLE_EQ(model->scrollFrame(), 0);
}

TEST_F(EditorModelViewTest, ZoomKeepsAnOnScreenAnchorAndCentresAnOffScreenOne) {
    // Each case starts at 100 frames per point, scrolled to 10000 (80000 frames on screen).
    const struct {
        double factor;
        int64_t anchor;
        double framesPerPoint;
        double scrollFrame;
    } cases[] = {
        {0.5, 30000, 50, 20000},              // at point 200, stays at point 200
        {2, 500000, 200, 500000 - 400 * 200}, // far right: to the middle
        {1, 0, 100, 0},                       // left of the view: middle, then clamped at the start
        {1e-9, 30000, EditorModel::minFramesPerPoint, 30000 - 200 * EditorModel::minFramesPerPoint},
        {1e9, 30000, 1000000.0 / 800 * 1.02, 0},
    };
    for (const auto& c : cases) {
        auto model = makeModel(1000000);
        model->setFramesPerPoint(100);
        model->setScrollFrame(10000);
        model->zoom(c.factor, c.anchor);
        EXPECT_DOUBLE_EQ(model->framesPerPoint(), c.framesPerPoint) << c.factor;
        EXPECT_DOUBLE_EQ(model->scrollFrame(), c.scrollFrame) << c.factor;
    }
}

TEST_F(EditorModelViewTest, ZoomAnchorDefaultsToPlayheadThenSelectionThenCursor) {
    auto model = makeModel(1000000);
    model->setFramesPerPoint(100);
    const auto pointOf = [&](int64_t frame) {
        return (static_cast<double>(frame) - model->scrollFrame()) / model->framesPerPoint();
    };
    model->setCursor(8000);
    model->zoom(0.5);
    EXPECT_DOUBLE_EQ(pointOf(8000), 80);
    model->setSelection(FrameRange{12000, 20000});
    double before = pointOf(12000);
    model->zoom(0.5);
    EXPECT_NEAR(pointOf(12000), before, 1e-9);
    model->setIsPlaying(true);
    model->setPlayhead(12400);
    before = pointOf(12400);
    model->zoom(2);
    EXPECT_NEAR(pointOf(12400), before, 1e-9);
}

TEST_F(EditorModelViewTest, ZoomToSelectionCentresIt) {
    auto model = makeModel(1000000);
    model->zoomToSelection(); // no selection: nothing
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), 256);

    model->setSelection(FrameRange{400000, 480000});
    model->zoomToSelection();
    const double fpp = 80000.0 / 800 * 1.05;
    EXPECT_DOUBLE_EQ(model->framesPerPoint(), fpp);
    EXPECT_NEAR(model->scrollFrame() + 400 * fpp, 440000, 1e-6);

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
    const std::pair<int64_t, double> cases[] = {
        {10000, 10000}, {90000, 10000}, {90001, 90001 - 8000}, {5000, 0}, {999999, 1000000 - 80000}};
    for (const auto& [frame, scroll] : cases) {
        model->ensureVisible(frame);
        EXPECT_DOUBLE_EQ(model->scrollFrame(), scroll) << frame;
    }
}

TEST_F(EditorModelViewTest, SelectionCommands) {
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

    // How setSelection clamps and moves the cursor is checked in the randomized test.
    model->setSelection(FrameRange{100, 200}, ChannelSet{1});
    EXPECT_EQ(model->targetChannels(), ChannelSet{1});
    model->setSelection(std::nullopt, ChannelSet{0, 1, 2});
    EXPECT_FALSE(model->targetChannels());

    model->setSelection(FrameRange{10, 20});
    EXPECT_EQ(model->playRange(), (FrameRange{0, 500}));
    model->setIsLooping(true);
    EXPECT_EQ(model->playRange(), (FrameRange{10, 20}));
}

TEST_F(EditorModelViewTest, SnappedFindsZeroCrossingsWithinAZoomDependentRadius) {
    // A step from -0.5 to +0.5 at frame 1000: the only sign change.
    std::vector<float> plane(4000, -0.5f);
    std::fill(plane.begin() + 1000, plane.end(), 0.5f);
    auto model = testing::probedModel(AudioContent({plane}, 48000), probe);
    model->setFramesPerPoint(1);
    EXPECT_EQ(model->snapped(900), 900); // snapping is off
    model->setSnapToZeroCrossings(true);

    // The radius is six points but at least 64 frames, truncated (10.9 * 6 = 65.4 reaches 65).
    const struct {
        double framesPerPoint;
        int64_t frame;
        int64_t snapped;
    } cases[] = {
        {1, 0, 0},        {1, 4000, 4000},   {1, -10, 0},      {1, 99999, 4000},
        {1, 940, 1000},   {1, 900, 900},     {20, 900, 1000},  {20, 1100, 1000},
        {20, 1121, 1121}, {10.9, 935, 1000}, {10.9, 934, 934},
    };
    for (const auto& c : cases) {
        model->setFramesPerPoint(c.framesPerPoint);
        EXPECT_EQ(model->snapped(c.frame), c.snapped) << c.framesPerPoint << " " << c.frame;
    }
}

TEST_F(EditorModelViewTest, ChannelNamesAndFormatSummary) {
    const char* surround[] = {"L", "R", "C", "LFE", "Ls", "Rs"};
    for (int c = 0; c < 6; ++c)
        EXPECT_EQ(makeModel(10, 6)->channelName(c), surround[c]);
    EXPECT_EQ(makeModel(10, 1)->channelName(0), "Mono");
    EXPECT_EQ(makeModel(10, 2)->channelName(5), "R");
    EXPECT_EQ(makeModel(10, 3)->channelName(1), "2");

    AudioFileInfo flac;
    flac.codecName = "FLAC";
    flac.bitDepth = 24;
    AudioFileInfo floatPCM;
    floatPCM.codecName = "Linear PCM";
    floatPCM.bitDepth = 32;
    floatPCM.isFloat = true;
    AudioFileInfo mp3;
    mp3.codecName = "MP3";
    const struct {
        int channels;
        double rate;
        std::optional<AudioFileInfo> info;
        const char* summary;
    } cases[] = {
        {2, 48000, std::nullopt, "48 kHz \u00B7 Stereo"},
        {5, 22050, std::nullopt, "22.1 kHz \u00B7 5 ch"},
        {2, 96000, flac, "FLAC \u00B7 96 kHz \u00B7 24-bit \u00B7 Stereo"},
        {1, 8000, floatPCM, "Linear PCM \u00B7 8 kHz \u00B7 32-bit float \u00B7 Mono"},
        {2, 44100, mp3, "MP3 \u00B7 44.1 kHz \u00B7 Stereo"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(makeModel(10, c.channels, c.rate, c.info)->formatSummary(), c.summary);
}

} // namespace
} // namespace harlune
