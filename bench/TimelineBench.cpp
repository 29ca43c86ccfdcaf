// harlune-ui-bench: full repaints of the timeline's static layer, and playhead moves, on the
// offscreen platform. Each figure is the median of 50 runs, in milliseconds.
//
// The hour of audio repeats one minute of blocks (the drawing reads summaries, so the cost is
// that of a file of this length); --fresh builds the whole hour from distinct samples instead.
#include "core/AudioContentBuilder.h"
#include "editor/EditorModel.h"
#include "ui/TimelineDrawing.h"
#include "ui/TimelineView.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QPainter>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

namespace harlune {
namespace {

constexpr double rate = 48000;

AudioContent minuteOf(int channels, bool music, uint32_t seed) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    const auto frames = static_cast<size_t>(60 * rate);
    std::vector<std::vector<float>> planes(static_cast<size_t>(channels), std::vector<float>(frames));
    for (auto& plane : planes)
        for (size_t i = 0; i < frames; ++i) {
            const double t = static_cast<double>(i) / rate;
            // Music-like: a tone under a beat-shaped swell with a little noise; noise: full scale.
            plane[i] =
                music ? static_cast<float>((0.5 * std::sin(2 * M_PI * 220 * t) + 0.1 * uniform(generator)) *
                                           (0.3 + 0.7 * std::exp(-std::fmod(t, 0.5) * 6)))
                      : 0.9f * uniform(generator);
        }
    AudioContentBuilder builder(channels, rate);
    builder.append(planes);
    return builder.build();
}

AudioContent hoursOf(int channels, bool music, double hours, bool fresh) {
    AudioContentBuilder builder(channels, rate);
    const auto minutes = static_cast<int>(std::lround(hours * 60));
    const AudioContent minute = minuteOf(channels, music, 1);
    for (int m = 0; m < minutes; ++m)
        builder.append(fresh ? minuteOf(channels, music, static_cast<uint32_t>(m + 2)) : minute);
    return builder.build();
}

template <typename F> double medianMs(int runs, F&& body) {
    std::vector<double> times;
    for (int i = 0; i < runs; ++i) {
        QElapsedTimer timer;
        timer.start();
        body();
        times.push_back(static_cast<double>(timer.nsecsElapsed()) * 1e-6);
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

enum class Zoom { fit, framePerPixel, belowPixel, eightPointsPerFrame };

const char* name(Zoom zoom) {
    switch (zoom) {
    case Zoom::fit:
        return "fit";
    case Zoom::framePerPixel:
        return "1 frame/px";
    case Zoom::belowPixel:
        return "0.9 frame/px";
    case Zoom::eightPointsPerFrame:
        return "8 pt/frame";
    }
    return "";
}

double sceneMs(EditorModel& model, Zoom zoom, double scale, bool lane, double width, double height) {
    model.setViewWidth(width);
    model.setShowLoudnessLane(lane);
    switch (zoom) {
    case Zoom::fit:
        model.zoomToFit();
        break;
    case Zoom::framePerPixel:
        model.setFramesPerPoint(scale);
        model.setScrollFrame(static_cast<double>(model.content().frameCount()) / 2);
        break;
    case Zoom::belowPixel:
        model.setFramesPerPoint(0.9 * scale);
        model.setScrollFrame(static_cast<double>(model.content().frameCount()) / 2);
        break;
    case Zoom::eightPointsPerFrame:
        model.setFramesPerPoint(0.125);
        model.setScrollFrame(static_cast<double>(model.content().frameCount()) / 2);
        break;
    }
    const TimelineCanvas canvas{width, height, scale, false, {}};
    QImage image(static_cast<int>(std::ceil(width * scale)), static_cast<int>(std::ceil(height * scale)),
                 QImage::Format_ARGB32_Premultiplied);
    return medianMs(50, [&] {
        QPainter painter(&image);
        drawTimeline(painter, model, canvas);
    });
}

} // namespace
} // namespace harlune

int main(int argc, char** argv) {
    using namespace harlune;
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0); // long runs show their figures as they come
    const bool fresh = argc > 1 && std::strcmp(argv[1], "--fresh") == 0;
    const bool all = argc > 1 && std::strcmp(argv[1], "--all") == 0;

    std::printf("1920x600, 1 hour stereo%s, median of 50 (ms)\n", fresh ? " (distinct samples)" : "");
    for (const bool music : {false, true}) {
        EditorModel model(hoursOf(2, music, 1, fresh), std::nullopt);
        for (const double scale : {1.0, 2.0})
            for (const Zoom zoom : {Zoom::fit, Zoom::framePerPixel})
                std::printf("  %-5s dpr %.0f %-12s %7.2f\n", music ? "music" : "noise", scale, name(zoom),
                            sceneMs(model, zoom, scale, false, 1920, 600));
    }

    {
        // Playhead move: the strips it leaves and enters, painted over the cached layer.
        EditorModel model(hoursOf(2, true, 1, false), std::nullopt);
        model.setShowLoudnessLane(false);
        TimelineView view(model);
        view.resize(1920, 600);
        view.show();
        QImage target(1920, 600, QImage::Format_ARGB32_Premultiplied);
        view.render(&target);
        int64_t frame = 0;
        const double ms = medianMs(50, [&] {
            frame += 4800;
            model.setRecordHead(frame);
            const double x = (static_cast<double>(frame) - model.scrollFrame()) / model.framesPerPoint();
            view.render(&target, QPoint(static_cast<int>(x) - 4, 0),
                        QRegion(static_cast<int>(x) - 4, 0, 8, 600));
        });
        std::printf("playhead move (repaint of its strips): %.3f ms, static rebuilds during moves: %d\n", ms,
                    view.cache().rebuildCount() - 1);
    }

    {
        // Interleaved, so that both lengths see the same machine: on a shared one the load drifts
        // by more than the difference measured here.
        EditorModel hour(hoursOf(2, true, 1, false), std::nullopt);
        EditorModel day(hoursOf(2, true, 24, false), std::nullopt);
        std::vector<double> hourTimes, dayTimes;
        for (int round = 0; round < 10; ++round) {
            hourTimes.push_back(sceneMs(hour, Zoom::fit, 1, false, 1920, 600));
            dayTimes.push_back(sceneMs(day, Zoom::fit, 1, false, 1920, 600));
        }
        std::sort(hourTimes.begin(), hourTimes.end());
        std::sort(dayTimes.begin(), dayTimes.end());
        const double hourMs = hourTimes[hourTimes.size() / 2], dayMs = dayTimes[dayTimes.size() / 2];
        std::printf(
            "fit, dpr 1: 1 hour %.2f ms, 24 hours %.2f ms (+%.1f %%; median of 10 interleaved medians)\n",
            hourMs, dayMs, 100 * (dayMs / hourMs - 1));
    }

    if (all) {
        double worst = 0;
        for (const int channels : {1, 2, 8})
            for (const bool music : {false, true}) {
                EditorModel model(hoursOf(channels, music, 1, false), std::nullopt);
                for (const Zoom zoom :
                     {Zoom::fit, Zoom::framePerPixel, Zoom::belowPixel, Zoom::eightPointsPerFrame})
                    for (const double scale : {1.0, 1.5, 2.0})
                        for (const bool lane : {false, true}) {
                            const double ms = sceneMs(model, zoom, scale, lane, 1920, 600);
                            worst = std::max(worst, ms);
                            std::printf("  %d ch %-5s %-12s dpr %.1f lane %-3s %7.2f\n", channels,
                                        music ? "music" : "noise", name(zoom), scale, lane ? "on" : "off",
                                        ms);
                        }
            }
        std::printf("slowest scene: %.2f ms\n", worst);
    }
    return 0;
}
