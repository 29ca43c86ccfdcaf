// The timeline's drawing checked pixel by pixel against naive references computed here from the
// model: columns, RMS cores, sample lines and dots, selection, playhead, theme; then how often the
// static layer is drawn again, and that the view follows the model.
#include "ui/TimelineView.h"

#include "editor/EditorModel.h"
#include "support/TestAudio.h"
#include "ui/Theme.h"
#include "ui/TimelineDrawing.h"
#include "ui/TimelineGeometry.h"

#include <QAccessible>
#include <QApplication>
#include <cmath>
#include <gtest/gtest.h>

namespace harlune {
namespace {

constexpr double rate = 48000;
constexpr double viewW = 400;
constexpr double viewH = 221;

/// Noise under a slow swell, so columns differ in height and the RMS core is visible.
testing::Planes musicLike(int channels, int64_t frames) {
    testing::Planes planes = testing::noisePlanes(channels, frames, 7);
    for (auto& plane : planes)
        for (size_t i = 0; i < plane.size(); ++i)
            plane[i] *= static_cast<float>(0.15 + 0.6 * std::abs(std::sin(static_cast<double>(i) * 0.0007)));
    return planes;
}

QRgb rgb(double r, double g, double b) {
    return qRgb(static_cast<int>(std::lround(r * 255)), static_cast<int>(std::lround(g * 255)),
                static_cast<int>(std::lround(b * 255)));
}

bool near(QRgb a, QRgb b, int tolerance) {
    return std::abs(qRed(a) - qRed(b)) <= tolerance && std::abs(qGreen(a) - qGreen(b)) <= tolerance &&
           std::abs(qBlue(a) - qBlue(b)) <= tolerance;
}

struct Scene {
    double scale;
    bool fit; // else one frame per device pixel
};

class ColumnExactness : public ::testing::TestWithParam<Scene> {};

TEST_P(ColumnExactness, PeaksAndRmsMatchNaiveMinMaxPerColumn) {
    const Scene scene = GetParam();
    const testing::Planes planes = musicLike(2, 150000);
    EditorModel model(AudioContent(planes, rate), std::nullopt);
    model.setShowLoudnessLane(false);
    model.setViewWidth(viewW);
    if (scene.fit) {
        model.zoomToFit();
    } else {
        model.setFramesPerPoint(scene.scale);
        model.setScrollFrame(1234.5);
    }
    const TimelineCanvas canvas{viewW, viewH, scene.scale, false, {}};
    const QImage image = renderTimeline(model, canvas);
    ASSERT_EQ(image.width(), static_cast<int>(viewW * scene.scale));

    const QRgb peak = rgb(0.1294, 0.4039, 0.8471);
    const QRgb core = rgb(0.4353, 0.6392, 0.9608);
    const TimelineLayout layout = timelineLayout(viewW, viewH, false, 0);
    const double fpx = model.framesPerPoint() / scene.scale;
    int checked = 0;
    for (int channel = 0; channel < 2; ++channel) {
        const QRectF lane = layout.lane(channel, 2);
        const double mid = lane.center().y() * scene.scale;
        const double half = lane.height() / 2 * scene.scale;
        const int rowTop = static_cast<int>(std::ceil(lane.top() * scene.scale));
        const int rowBottom = static_cast<int>(std::floor(lane.bottom() * scene.scale));
        // Columns left of 80 points hold the channel's name: text is masked.
        for (int x = static_cast<int>(80 * scene.scale); x < image.width(); ++x) {
            const double left = model.scrollFrame() + fpx * x;
            const auto start = static_cast<int64_t>(left);
            const int64_t end =
                std::min<int64_t>(std::max(start + 1, static_cast<int64_t>(left + fpx)), 150000);
            if (start >= 150000)
                break;
            float lo = 1, hi = -1;
            double squares = 0;
            for (int64_t f = start; f < end; ++f) {
                const float v = planes[static_cast<size_t>(channel)][static_cast<size_t>(f)];
                lo = std::min(lo, v);
                hi = std::max(hi, v);
                squares += static_cast<double>(v) * v;
            }
            const double rms = std::sqrt(squares / static_cast<double>(end - start));
            int paintedTop = -1, paintedBottom = -1, coreTop = -1, coreBottom = -1;
            for (int y = rowTop; y < rowBottom; ++y) {
                const QRgb pixel = image.pixel(x, y) | 0xff000000u;
                if (pixel == peak || pixel == core) {
                    if (paintedTop < 0)
                        paintedTop = y;
                    paintedBottom = y;
                }
                if (pixel == core) {
                    if (coreTop < 0)
                        coreTop = y;
                    coreBottom = y;
                }
            }
            ASSERT_GE(paintedTop, 0) << "column " << x;
            EXPECT_NEAR(paintedTop, mid - half * hi, 1.0 + 1e-9) << "column " << x;
            EXPECT_NEAR(paintedBottom + 1, mid - half * lo, 1.0 + 1e-9) << "column " << x;
            const double expectedCoreTop = mid - half * std::min<double>(rms, hi);
            const double expectedCoreBottom = mid - half * std::max<double>(lo, -rms);
            if (expectedCoreBottom - expectedCoreTop > 2) {
                ASSERT_GE(coreTop, 0) << "column " << x;
                EXPECT_NEAR(coreTop, expectedCoreTop, 1.0 + 1e-9) << "column " << x;
                EXPECT_NEAR(coreBottom + 1, expectedCoreBottom, 1.0 + 1e-9) << "column " << x;
            }
            ++checked;
        }
    }
    EXPECT_GT(checked, 300);
}

INSTANTIATE_TEST_SUITE_P(Ratios, ColumnExactness,
                         ::testing::Values(Scene{1, true}, Scene{1, false}, Scene{2, true}, Scene{2, false}));

TEST(TimelineGeometry, PathChoiceFollowsDevicePixels) {
    EXPECT_TRUE(drawsColumns(1, 1));
    EXPECT_FALSE(drawsColumns(0.99, 1));
    EXPECT_FALSE(drawsColumns(1, 2)); // one frame per point is half a frame per pixel at a ratio of 2
    EXPECT_TRUE(drawsColumns(1.5, 1.5));
    EXPECT_FALSE(drawsSampleDots(1.0 / 5.9));
    EXPECT_TRUE(drawsSampleDots(1.0 / 6));
    EXPECT_EQ(pixelCount(333.3333333333, 1.5), 500);

    const TimelineLayout layout = timelineLayout(400, 300, true, 10);
    EXPECT_EQ(layout.loudnessHeight, 70);
    EXPECT_EQ(layout.lanes, QRectF(0, 26, 400, 300 - 26 - 70));
    const double h = (204 - 1) / 2.0;
    EXPECT_EQ(layout.channelAt(26 + h - 0.01, 2), 0);
    EXPECT_EQ(layout.channelAt(26 + h, 2), 1); // the point between lanes belongs to the lower one
    EXPECT_EQ(layout.channelAt(231, 2), std::nullopt);
    EXPECT_EQ(clampedFrame(-50, 100, 4, 1000), 0);
    EXPECT_EQ(clampedFrame(10.4, 100, 1, 1000), 110);
    EXPECT_EQ(lineX(100.5 + 2.5, 100.5, 1), 3.5); // halves away from zero

    EXPECT_EQ(rulerSteps(1.0 / 48000 * 512, 90).major, 1);
    EXPECT_EQ(rulerSteps(1, 90).major, 120);
    EXPECT_EQ(rulerSteps(1, 90).minor, 20);
    EXPECT_EQ(rulerSteps(1000, 90).major, 7200);
    EXPECT_EQ(rulerLabel(75, 15, TimeFormat::hms, 48000), QStringLiteral("1:15"));
    EXPECT_EQ(rulerLabel(1.25, 0.05, TimeFormat::seconds, 48000), QStringLiteral("1.25"));
    EXPECT_EQ(rulerLabel(2, 1, TimeFormat::samples, 48000), QLocale().toString(96000));
}

TEST(TimelineDrawing, SamplePathVerticesAndDots) {
    for (const double scale : {1.0, 2.0}) {
        for (const double framesPerPoint : {0.9 * scale, 0.125}) {
            // A slow, quiet sine: the line stays flat enough that the dots stand out of it.
            std::vector<float> wave(4000);
            for (size_t i = 0; i < wave.size(); ++i)
                wave[i] = static_cast<float>(0.3 * std::sin(static_cast<double>(i) * 0.02));
            EditorModel model(AudioContent({wave}, rate), std::nullopt);
            model.setShowLoudnessLane(false);
            model.setViewWidth(viewW);
            model.setFramesPerPoint(framesPerPoint);
            model.setScrollFrame(500);
            const QImage image = renderTimeline(model, {viewW, viewH, scale, false, {}});
            if (qEnvironmentVariableIsSet("TIMELINE_DUMP"))
                image.save(QStringLiteral("/tmp/tl-sample-%1-%2.png").arg(scale).arg(framesPerPoint));
            const QRgb peak = rgb(0.1294, 0.4039, 0.8471);
            const QRectF lane = timelineLayout(viewW, viewH, false, 0).lane(0, 1);
            const double half = lane.height() / 2;
            int checked = 0;
            for (int64_t f = 500; f < 4000; ++f) {
                const double x = (static_cast<double>(f) - 500) / framesPerPoint;
                if (x < 80)
                    continue;
                if (x > viewW - 2)
                    break;
                const double y = lane.center().y() - half * wave[static_cast<size_t>(f)];
                bool found = false;
                for (int dx = -1; dx <= 1; ++dx)
                    for (int dy = -1; dy <= 1; ++dy)
                        found = found || near(image.pixel(static_cast<int>(x * scale) + dx,
                                                          static_cast<int>(y * scale) + dy),
                                              peak, 40);
                EXPECT_TRUE(found) << "frame " << f << " at ratio " << scale;
                if (drawsSampleDots(framesPerPoint)) {
                    for (const double dy : {-1.2, 1.2}) {
                        EXPECT_TRUE(near(image.pixel(static_cast<int>(x * scale),
                                                     static_cast<int>(std::floor((y + dy) * scale))),
                                         peak, 90))
                            << "dot of frame " << f;
                    }
                }
                ++checked;
            }
            EXPECT_GT(checked, 30);
            if (scale / framesPerPoint >= 4)
                continue;
            // Frames this close are drawn as one span per device column: every column of the
            // line is painted, and nothing further from the line than half the pen and a pixel.
            const auto lineY = [&](double deviceX) {
                const double frame = 500 + deviceX / scale * framesPerPoint;
                const auto i = static_cast<size_t>(std::floor(frame));
                const double t = frame - std::floor(frame);
                const double value = wave[i] * (1 - t) + wave[i + 1] * t;
                return (lane.center().y() - half * value) * scale;
            };
            for (int x = static_cast<int>(80 * scale); x < static_cast<int>((viewW - 2) * scale); ++x) {
                double low = lineY(x), high = low;
                for (double dx = 0.125; dx <= 1; dx += 0.125) {
                    low = std::min(low, lineY(x + dx));
                    high = std::max(high, lineY(x + dx));
                }
                const double slack = 0.625 * scale + 1;
                int painted = 0;
                for (int y = static_cast<int>(lane.top() * scale);
                     y < static_cast<int>(lane.bottom() * scale); ++y)
                    if (image.pixel(x, y) == peak) {
                        ++painted;
                        EXPECT_GE(y, low - slack) << "column " << x << " at ratio " << scale;
                        EXPECT_LE(y, high + slack) << "column " << x << " at ratio " << scale;
                    }
                EXPECT_GT(painted, 0) << "column " << x << " at ratio " << scale;
            }
        }
    }
}

TEST(TimelineDrawing, SelectionFillsExactlyItsColumnsInActiveLanes) {
    for (const double scale : {1.0, 2.0}) {
        // Quiet audio keeps the rows checked below free of waveform.
        testing::Planes planes = testing::noisePlanes(2, 96000);
        for (auto& plane : planes)
            for (float& v : plane)
                v *= 0.2f;
        EditorModel model(AudioContent(planes, rate), std::nullopt);
        model.setShowLoudnessLane(false);
        model.setViewWidth(viewW);
        model.setFramesPerPoint(150);
        model.setScrollFrame(1000);
        model.setActiveChannels({0});
        model.setCursor(999999);
        const TimelineCanvas canvas{viewW, viewH, scale, false, {}};
        const QImage before = renderTimeline(model, canvas);
        const FrameRange selection(20011, 41234);
        model.setSelection(selection);
        const QImage after = renderTimeline(model, canvas);
        const TimelineLayout layout = timelineLayout(viewW, viewH, false, 0);
        const double fpx = 150 / scale;
        const auto edgeColumn = [&](double frame) {
            return std::floor(lineX(frame, 1000, 150) * scale);
        };
        for (int channel = 0; channel < 2; ++channel) {
            const QRectF lane = layout.lane(channel, 2);
            const int y = static_cast<int>((lane.top() + lane.height() * 0.9) * scale);
            for (int x = 0; x < after.width(); ++x) {
                if (std::abs(x - edgeColumn(20011)) <= scale || std::abs(x - edgeColumn(41234)) <= scale)
                    continue;
                const double left = 1000 + fpx * x;
                const bool inside = left < static_cast<double>(selection.upper) &&
                                    left + fpx > static_cast<double>(selection.lower) && channel == 0;
                EXPECT_EQ(before.pixel(x, y) != after.pixel(x, y), inside)
                    << "column " << x << " lane " << channel << " ratio " << scale;
            }
        }
    }
}

TEST(TimelineDrawing, ThemeFollowsAppearanceAndEmptyHint) {
    EditorModel model(AudioContent::silence(4000, 2, rate), std::nullopt);
    model.setShowLoudnessLane(false);
    model.setCursor(2000);
    const QRectF lane = timelineLayout(viewW, viewH, false, 0).lane(1, 2);
    for (const bool dark : {false, true}) {
        const QImage image = renderTimeline(model, {viewW, viewH, 1, dark, {}});
        const QRgb laneColour = dark ? rgb(0.1098, 0.1216, 0.1451) : rgb(1, 1, 1);
        const QRgb backdrop = dark ? rgb(0.0863, 0.0941, 0.1137) : rgb(0.9529, 0.9569, 0.9686);
        const QRgb ruler = dark ? rgb(0.0706, 0.0784, 0.098) : rgb(0.9137, 0.9216, 0.9412);
        EXPECT_TRUE(near(image.pixel(390, static_cast<int>(lane.bottom()) - 3), laneColour, 1));
        EXPECT_TRUE(near(image.pixel(390, static_cast<int>(lane.top()) - 1), backdrop, 1)) << "between lanes";
        EXPECT_TRUE(near(image.pixel(390, 12), ruler, 1));
    }
    // The empty document: its cursor at x 0.5, in light and dark.
    model.setContent(AudioContent(2, rate));
    model.setCursor(0);
    for (const bool dark : {false, true}) {
        const QImage image = renderTimeline(model, {viewW, viewH, 1, dark, {}});
        EXPECT_TRUE(near(image.pixel(0, 30), dark ? rgb(0.949, 0.949, 0.949) : rgb(0.102, 0.102, 0.102), 40));
    }
    QPalette darkPalette;
    darkPalette.setColor(QPalette::Window, QColor(30, 30, 30));
    EXPECT_TRUE(Theme::isDark(darkPalette));
    darkPalette.setColor(QPalette::Window, QColor(240, 240, 240));
    EXPECT_FALSE(Theme::isDark(darkPalette));
}

TEST(TimelineDrawing, ClipMarksDependOnSamplesNotZoom) {
    std::vector<float> square(20000);
    for (size_t i = 0; i < square.size(); ++i)
        square[i] = (i / 500) % 2 == 0 ? 1.0f : -1.0f;
    square.resize(40000, 0.5f); // the second half never clips
    EditorModel model(AudioContent({square}, rate), std::nullopt);
    model.setShowLoudnessLane(false);
    model.setViewWidth(viewW);
    model.setFramesPerPoint(100);
    model.setAmplitudeZoom(0.5);
    const QImage image = renderTimeline(model, {viewW, viewH, 1, false, {}});
    const QRgb clip = rgb(0.9098, 0.2706, 0.2353);
    const int top = static_cast<int>(timelineLayout(viewW, viewH, false, 0).lane(0, 1).top());
    for (int x = 100; x < 400; ++x)
        EXPECT_EQ(image.pixel(x, top + 1) == clip, x < 200) << "column " << x;
}

// The view in a window: the playhead over the cache, and how often the cache is drawn again.
class TimelineViewTest : public ::testing::Test {
protected:
    void SetUp() override {
        model = std::make_unique<EditorModel>(AudioContent(musicLike(2, 96000), rate), std::nullopt);
        model->setShowLoudnessLane(false);
        view = std::make_unique<TimelineView>(*model);
        view->resize(static_cast<int>(viewW), static_cast<int>(viewH));
        view->show();
        QApplication::processEvents();
        picture();
    }
    QImage picture() { return view->grab().toImage(); }

    std::unique_ptr<EditorModel> model;
    std::unique_ptr<TimelineView> view;
};

TEST_F(TimelineViewTest, FirstLayoutFitsAndPlayheadSitsOnItsColumn) {
    EXPECT_DOUBLE_EQ(model->viewWidth(), viewW);
    EXPECT_LE(96000 / model->framesPerPoint(), viewW + 1e-9); // the whole file is in view
    EXPECT_EQ(view->playheadFrame(), std::nullopt);
    const QRgb playhead = rgb(0.9098, 0.2706, 0.2353);
    for (const int64_t frame : {30000, 61234}) {
        model->setRecordHead(frame);
        const QImage image = picture();
        const int y = 40;
        std::vector<int> columns;
        for (int x = 0; x < image.width(); ++x)
            if ((image.pixel(x, y) | 0xff000000u) == playhead)
                columns.push_back(x);
        ASSERT_FALSE(columns.empty());
        const double scale = image.devicePixelRatio();
        const auto expected =
            static_cast<int>(std::floor(static_cast<double>(frame) / (model->framesPerPoint() / scale)));
        EXPECT_EQ(columns[columns.size() / 2], expected);
        EXPECT_LE(columns.back() - columns.front(), 2);
    }
    const QRect atTwo = playheadPixels(1000, 0, 10, 2, 100);
    EXPECT_EQ(atTwo.width(), 3);
    EXPECT_EQ(atTwo.center().x(), 200);
    model->setRecordHead(std::nullopt);
    EXPECT_EQ(view->playheadFrame(), std::nullopt);
    model->setRecordHead(200000); // past the view
    EXPECT_EQ(view->playheadFrame(), std::nullopt);
}

TEST_F(TimelineViewTest, RedrawEconomy) {
    const int start = view->cache().rebuildCount();
    for (int i = 0; i < 300; ++i) {
        model->setRecordHead(100 * i);
        MeterReading reading;
        reading.peakDB = {-static_cast<double>(i % 7), -3};
        model->setMeter(reading);
        picture();
    }
    EXPECT_EQ(view->cache().rebuildCount(), start);

    model->setMarkers({Marker{Uuid::random(), 5000, QStringLiteral("Verse")}});
    picture();
    picture();
    EXPECT_EQ(view->cache().rebuildCount(), start + 1);

    model->setContent(AudioContent(musicLike(2, 50000), rate));
    picture();
    EXPECT_EQ(view->cache().rebuildCount(), start + 2);

    model->setScrollFrame(3000); // a follow scroll
    picture();
    EXPECT_EQ(view->cache().rebuildCount(), start + 3);

    // A new loudness measurement redraws only while the lane that shows it is on.
    LoudnessResult measured;
    measured.integratedLUFS = -20;
    measured.shortTerm.assign(10, -20.0f);
    model->setContentLoudness(measured);
    picture();
    EXPECT_EQ(view->cache().rebuildCount(), start + 3);
    model->setShowLoudnessLane(true);
    picture();
    measured.integratedLUFS = -18;
    model->setContentLoudness(measured);
    picture();
    EXPECT_EQ(view->cache().rebuildCount(), start + 5);

    const int rebuilds = view->cache().rebuildCount();
    const int strips = view->cache().stripCount();
    model->setCursor(40000);
    picture();
    EXPECT_EQ(view->cache().rebuildCount(), rebuilds);
    EXPECT_EQ(view->cache().stripCount(), strips + 1);
}

TEST_F(TimelineViewTest, FollowsEveryFieldItShows) {
    const std::vector<std::pair<const char*, std::function<void()>>> changes{
        {"selection",
         [&] {
             model->setSelection(FrameRange(1000, 20000));
         }},
        {"active channels",
         [&] {
             model->setActiveChannels({1});
         }},
        {"zoom",
         [&] {
             model->setFramesPerPoint(model->framesPerPoint() / 2);
         }},
        {"scroll",
         [&] {
             model->setScrollFrame(9000);
         }},
        {"amplitude",
         [&] {
             model->setAmplitudeZoom(2);
         }},
        {"markers",
         [&] {
             model->setMarkers({Marker{Uuid::random(), 30000, QStringLiteral("A")}});
         }},
        {"envelopes",
         [&] {
             EnvelopeSet set;
             set.master.insert(20000, -12);
             set.master.insert(40000, 0);
             model->setEnvelopes(set);
         }},
        {"grid",
         [&] {
             model->setShowGrid(true);
         }},
        {"tempo",
         [&] {
             model->setGrid(TempoGrid(97, 3, 1000));
         }},
        {"loudness lane",
         [&] {
             model->setShowLoudnessLane(true);
         }},
        {"lane height",
         [&] {
             model->setLoudnessLaneHeight(80);
         }},
        {"time format",
         [&] {
             model->setTimeFormat(TimeFormat::samples);
         }},
        {"cursor",
         [&] {
             model->setSelection(std::nullopt);
         }},
        {"theme",
         [&] {
             QPalette dark = view->palette();
             dark.setColor(QPalette::Window, QColor(20, 20, 24));
             view->setPalette(dark);
         }},
    };
    for (const auto& [name, change] : changes) {
        const QImage before = picture();
        change();
        EXPECT_NE(picture(), before) << name;
    }
}

TEST_F(TimelineViewTest, AccessibleNameAndValue) {
    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(view.get());
    ASSERT_NE(accessible, nullptr);
    EXPECT_EQ(accessible->text(QAccessible::Name), QStringLiteral("Waveform"));
    EXPECT_TRUE(accessible->text(QAccessible::Value).startsWith(QStringLiteral("Length")));
}

} // namespace
} // namespace harlune
