// harlune-inspector-bench: how long after an edit the loudness tab shows the new integrated
// loudness of a one-hour stereo file at 48 kHz, on the offscreen platform with the real
// measurement scheduler. The edit is a gain of +1 or -1 dB over the whole file (a background
// process job), so that each round changes the figure; the time runs from the command to the
// panel's new text, and is split into the processing and the debounced measurement after it.
// Last, the panel's own part: its refresh when a measurement of the hour is published.
#include "core/AudioContentBuilder.h"
#include "dsp/LoudnessResult.h"
#include "editor/EditorModel.h"
#include "ui/inspector/LoudnessPanel.h"
#include "ui/inspector/MetricCell.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QSettings>
#include <QTemporaryDir>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

namespace harlune {
namespace {

constexpr double rate = 48000;

/// One minute of a tone under a swell with a little noise, repeated for an hour (the measurement
/// reads every sample, so repetition costs it as much as distinct audio).
AudioContent hourOfMusic() {
    const auto frames = static_cast<size_t>(60 * rate);
    std::vector<std::vector<float>> planes(2, std::vector<float>(frames));
    uint32_t noise = 1;
    for (auto& plane : planes)
        for (size_t i = 0; i < frames; ++i) {
            noise = noise * 1664525u + 1013904223u;
            const double t = static_cast<double>(i) / rate;
            const double hiss = static_cast<double>(noise >> 8) / static_cast<double>(1u << 24) - 0.5;
            plane[i] = static_cast<float>((0.5 * std::sin(2 * M_PI * 220 * t) + 0.1 * hiss) *
                                          (0.3 + 0.7 * std::exp(-std::fmod(t, 0.5) * 6)));
        }
    AudioContentBuilder minuteBuilder(2, rate);
    minuteBuilder.append(planes);
    const AudioContent minute = minuteBuilder.build();
    AudioContentBuilder builder(2, rate);
    for (int m = 0; m < 60; ++m)
        builder.append(minute);
    return builder.build();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

int run() {
    EditorModel model(hourOfMusic(), std::nullopt);
    LoudnessPanel panel(model);
    {
        QEventLoop first;
        QObject::connect(&model, &EditorModel::loudnessChanged, &first, [&] {
            if (model.loudness())
                first.quit();
        });
        first.exec();
    }
    std::printf("1 h stereo 48 kHz, integrated %s LUFS at start\n", qPrintable(panel.integrated().value()));
    std::vector<double> total, processing;
    for (int round = 0; round < 5; ++round) {
        const QString before = panel.integrated().value();
        QEventLoop loop;
        QElapsedTimer clock;
        double processed = 0;
        const auto busy = QObject::connect(&model, &EditorModel::busyChanged, &loop, [&] {
            if (!model.busy())
                processed = static_cast<double>(clock.nsecsElapsed()) * 1e-6;
        });
        const auto shown = QObject::connect(&model, &EditorModel::loudnessChanged, &loop, [&] {
            if (panel.integrated().value() != before)
                loop.quit();
        });
        clock.start();
        model.applyGain(round % 2 == 0 ? 1.0 : -1.0);
        loop.exec();
        total.push_back(static_cast<double>(clock.nsecsElapsed()) * 1e-6);
        processing.push_back(processed);
        QObject::disconnect(busy);
        QObject::disconnect(shown);
        std::printf("round %d: %s -> %s LUFS after %.0f ms (gain job %.0f ms)\n", round + 1,
                    qPrintable(before), qPrintable(panel.integrated().value()), total.back(), processed);
    }
    // The panel's own share: publishing a measurement of the hour (36000 short-term values) to
    // the model, the panel redrawing its figures and histogram from it.
    std::vector<double> refresh;
    LoudnessResult result = *model.loudness();
    for (int round = 0; round < 21; ++round) {
        result.integratedLUFS += round % 2 == 0 ? 0.5 : -0.5;
        QElapsedTimer clock;
        clock.start();
        model.setLoudness(result);
        refresh.push_back(static_cast<double>(clock.nsecsElapsed()) * 1e-6);
    }
    std::printf("panel refresh from a published measurement (%zu short-term values): %.2f ms\n",
                result.shortTerm.size(), median(refresh));
    std::printf("median: new integrated value shown %.0f ms after the edit; gain job %.0f ms, "
                "debounce and measurement %.0f ms\n",
                median(total), median(processing), median(total) - median(processing));
    return 0;
}

} // namespace
} // namespace harlune

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    // Preferences in a scratch folder, never the user's.
    QTemporaryDir scratch;
    for (const auto format : {QSettings::NativeFormat, QSettings::IniFormat})
        for (const auto scope : {QSettings::UserScope, QSettings::SystemScope})
            QSettings::setPath(format, scope, scratch.path());
    QApplication application(argc, argv);
    return harlune::run();
}
