#include "core/LoudnessProcessing.h"

#include "base/HarluneError.h"
#include "core/AudioContentBuilder.h"
#include "core/Processing.h"
#include "dsp/LoudnessAnalyzer.h"
#include "dsp/TruePeakLimiter.h"

#include <algorithm>
#include <cmath>

namespace harlune {

namespace {

constexpr double lookaheadMs = 2;
constexpr double releaseMs = 80;
// How far above the plan's gain the loop may push before it gives up.
constexpr double maxExtraGainDB = 12;
// Shares of one pass's progress: the render, then the measurement.
constexpr double renderShare = 0.7;

void report(const std::optional<FunctionRef<bool(double)>>& progress, double fraction) {
    if (progress && !(*progress)(fraction))
        throw HarluneError::cancelled();
}

} // namespace

LoudnessAdjustment adjustLoudness(const AudioContent& content, std::optional<FrameRange> range,
                                  const LoudnessNormalization::Plan& plan, std::optional<double> targetLUFS,
                                  double ceilingDBTP, bool limit, double tolerance, int maxPasses,
                                  std::optional<FunctionRef<bool(double)>> progress) {
    const FrameRange r = range.value_or(content.fullRange()).clamped(content.fullRange());
    const int passCount = std::max(1, maxPasses);
    LoudnessAdjustment result{content, LoudnessAdjustStop::plainGain, 0, plan.gainDB, std::nullopt};

    if (!limit || !plan.needsLimiting) {
        result.content = applyingGain(content, plan.gainDB, r);
        report(progress, 1.0);
        return result;
    }

    double gain = plan.gainDB;
    const double gainCeiling = plan.gainDB + maxExtraGainDB;
    double previousGain = gain;
    double previousLUFS = 0;
    for (int pass = 0;; ++pass) {
        const auto passProgress = [&](double f) {
            return !progress || (*progress)((static_cast<double>(pass) + f) / passCount);
        };
        AudioContentBuilder builder(content.channelCount(), content.sampleRate());
        const auto onRender = [&](double f) {
            return passProgress(renderShare * f);
        };
        TruePeakLimiter::render(content, r, gain, ceilingDBTP, lookaheadMs, releaseMs,
                                FunctionRef<bool(double)>(onRender),
                                [&](ChunkViews chunk) { builder.append(chunk); });
        AudioContent rendered = content;
        rendered.replaceSubrange(r, builder.build());
        result.content = std::move(rendered);
        result.passes = pass + 1;
        result.gainDB = gain;

        if (!targetLUFS) {
            result.stop = LoudnessAdjustStop::singlePass;
            break;
        }
        const auto onMeasure = [&](double f) {
            return passProgress(renderShare + (1 - renderShare) * f);
        };
        const double measured =
            LoudnessAnalyzer::analyze(result.content, r, std::nullopt, FunctionRef<bool(double)>(onMeasure))
                .integratedLUFS;
        if (!std::isfinite(measured)) {
            result.stop = LoudnessAdjustStop::notMeasurable;
            break;
        }
        result.measuredLUFS = measured;
        if (std::abs(*targetLUFS - measured) <= tolerance) {
            result.stop = LoudnessAdjustStop::reachedTarget;
            break;
        }
        // Limiting makes the output rise slower than the gain, so more gain is needed per dB wanted.
        double slope = 1;
        if (pass > 0 && std::abs(measured - previousLUFS) > 0.001)
            slope = std::clamp((gain - previousGain) / (measured - previousLUFS), 1.0, 4.0);
        const double next = gain + (*targetLUFS - measured) * slope;
        if (next > gainCeiling) {
            result.stop = LoudnessAdjustStop::gainLimit;
            break;
        }
        if (pass + 1 >= passCount) {
            result.stop = LoudnessAdjustStop::maxPasses;
            break;
        }
        previousGain = gain;
        previousLUFS = measured;
        gain = next;
    }
    report(progress, 1.0);
    return result;
}

AudioContent adjustingLoudness(const AudioContent& content, std::optional<FrameRange> range,
                               const LoudnessNormalization::Plan& plan, std::optional<double> targetLUFS,
                               double ceilingDBTP, bool limit, double tolerance, int maxPasses,
                               std::optional<FunctionRef<bool(double)>> progress) {
    return adjustLoudness(content, range, plan, targetLUFS, ceilingDBTP, limit, tolerance, maxPasses,
                          progress)
        .content;
}

} // namespace harlune
