// harlune-ui-drag-bench: dragging a selection across the timeline of a one-hour stereo file, on
// the offscreen platform, 1920 × 600 points (QT_SCALE_FACTOR=2 for a ratio of 2), the whole
// file in view.
//
// Latency: from sending a synthesized mouse move to the end of the paint it causes, median and
// 95th percentile of 300 moves. CPU: the process's CPU time over 5 s of moves at 60 per second,
// as a share of one core. The loudness measurements are off unless --measure is given (then
// the selection's measurement is scheduled, and cancelled, at every move, as in the editor).
#include "core/AudioContentBuilder.h"
#include "editor/AnalysisScheduler.h"
#include "editor/EditorModel.h"
#include "ui/TimelineDrawing.h"
#include "ui/TimelineView.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QMouseEvent>
#include <QPainter>
#include <QTimer>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

namespace harlune {
namespace {

constexpr double rate = 48000;
constexpr int width = 1920;
constexpr int height = 600;

AudioContent hourOfMusic() {
    const auto frames = static_cast<size_t>(60 * rate);
    std::vector<std::vector<float>> planes(2, std::vector<float>(frames));
    for (auto& plane : planes)
        for (size_t i = 0; i < frames; ++i) {
            const double t = static_cast<double>(i) / rate;
            plane[i] = static_cast<float>(0.5 * std::sin(2 * M_PI * 220 * t) *
                                          (0.3 + 0.7 * std::exp(-std::fmod(t, 0.5) * 6)));
        }
    AudioContentBuilder minute(2, rate);
    minute.append(planes);
    const AudioContent one = minute.build();
    AudioContentBuilder hour(2, rate);
    for (int m = 0; m < 60; ++m)
        hour.append(one);
    return hour.build();
}

/// The view, telling when a paint has ended.
class TimedView : public TimelineView {
public:
    using TimelineView::TimelineView;
    int paints = 0;
    double paintMs = 0; ///< inside the last paint

protected:
    void paintEvent(QPaintEvent* event) override {
        QElapsedTimer timer;
        timer.start();
        TimelineView::paintEvent(event);
        paintMs = static_cast<double>(timer.nsecsElapsed()) * 1e-6;
        ++paints;
    }
};

double cpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void send(QWidget& view, QEvent::Type type, double x) {
    const QPointF at(x, 200);
    QMouseEvent event(type, at, view.mapToGlobal(at),
                      type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton,
                      type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&view, &event);
}

/// Runs the event loop, sleeping while nothing is due.
void runFor(int milliseconds) {
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

/// The x of move `i`: back and forth over most of the width, so that the selection grows and
/// shrinks and never stays put.
double xOf(int i) {
    const int span = 1600;
    const int step = 7;
    const int phase = (i * step) % (2 * span);
    return 200 + (phase < span ? phase : 2 * span - phase);
}

} // namespace
} // namespace harlune

int main(int argc, char** argv) {
    using namespace harlune;
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    const bool measure = argc > 1 && std::strcmp(argv[1], "--measure") == 0;
    EditorCollaborators collaborators;
    if (!measure)
        collaborators.analysis = std::make_unique<NullAnalysisScheduler>();
    EditorModel model(hourOfMusic(), std::nullopt, std::move(collaborators));
    TimedView view(model);
    view.resize(width, height);
    view.show();
    QApplication::processEvents();
    model.zoomToFit();
    // The first measurement of the whole file ends before the drag.
    QElapsedTimer settle;
    settle.start();
    while ((model.isAnalyzing() || settle.elapsed() < 500) && settle.elapsed() < 120000)
        QApplication::processEvents(QEventLoop::AllEvents, 50);

    send(view, QEvent::MouseButtonPress, 200);
    QApplication::processEvents();
    std::vector<double> latencies;
    std::vector<double> events;
    std::vector<double> paints;
    for (int i = 0; i < 300; ++i) {
        const int before = view.paints;
        QElapsedTimer timer;
        timer.start();
        send(view, QEvent::MouseMove, xOf(i + 1));
        events.push_back(static_cast<double>(timer.nsecsElapsed()) * 1e-6);
        while (view.paints == before)
            QApplication::processEvents();
        latencies.push_back(static_cast<double>(timer.nsecsElapsed()) * 1e-6);
        paints.push_back(view.paintMs);
    }
    std::sort(latencies.begin(), latencies.end());
    std::sort(events.begin(), events.end());
    std::sort(paints.begin(), paints.end());
    std::printf("drag a selection, 1 hour stereo, %dx%d dpr %.2g, whole file in view%s\n", width, height,
                view.devicePixelRatioF(), measure ? ", measurements on" : "");
    std::printf("  move to end of paint: median %.2f ms, p95 %.2f ms, max %.2f ms (300 moves)\n",
                latencies[latencies.size() / 2], latencies[latencies.size() * 95 / 100], latencies.back());
    std::printf("  of which the event's handling %.2f ms and the paint %.2f ms (medians)\n",
                events[events.size() / 2], paints[paints.size() / 2]);
    std::printf("  static layer: %d rebuilt whole, %d patched in strips\n", view.cache().rebuildCount(),
                view.cache().stripCount());

    // The same five seconds without a move, for comparison.
    {
        const double cpuIdle = cpuSeconds();
        QElapsedTimer idle;
        idle.start();
        runFor(5000);
        std::printf("  5 s at rest with the button held: CPU %.1f %% of one core\n",
                    100 * (cpuSeconds() - cpuIdle) / (static_cast<double>(idle.nsecsElapsed()) * 1e-9));
    }

    // Five seconds of moves at 60 per second through the event loop.
    int move = 0;
    QTimer mover;
    mover.setTimerType(Qt::PreciseTimer);
    QObject::connect(&mover, &QTimer::timeout, [&] { send(view, QEvent::MouseMove, xOf(++move)); });
    const int paintsBefore = view.paints;
    const double cpuBefore = cpuSeconds();
    QElapsedTimer wall;
    wall.start();
    mover.start(1000 / 60);
    runFor(5000);
    mover.stop();
    const double cpu = cpuSeconds() - cpuBefore;
    const double seconds = static_cast<double>(wall.nsecsElapsed()) * 1e-9;
    std::printf("  5 s of dragging at 60 moves/s: %d moves, %d paints, CPU %.1f %% of one core\n", move,
                view.paints - paintsBefore, 100 * cpu / seconds);
    send(view, QEvent::MouseButtonRelease, xOf(move));

    // The static layer drawn whole, and as the 10-point strip an edge's move redraws.
    model.setSelection(FrameRange{1000000, 50000000}, std::nullopt);
    const TimelineCanvas canvas{width, height, 1, false, {}};
    QImage image(width, height, QImage::Format_ARGB32_Premultiplied);
    for (const bool lane : {false, true}) {
        model.setShowLoudnessLane(lane);
        for (const int strip : {0, 10}) {
            std::vector<double> times;
            for (int i = 0; i < 50; ++i) {
                QElapsedTimer timer;
                timer.start();
                QPainter painter(&image);
                if (strip > 0)
                    painter.setClipRect(QRect(900, 0, strip, height));
                drawTimeline(painter, model, canvas);
                times.push_back(static_cast<double>(timer.nsecsElapsed()) * 1e-6);
            }
            std::sort(times.begin(), times.end());
            std::printf("  static layer, loudness lane %s, %s: %.2f ms\n", lane ? "on" : "off",
                        strip > 0 ? "10-point strip" : "whole", times[times.size() / 2]);
        }
    }
    return 0;
}
