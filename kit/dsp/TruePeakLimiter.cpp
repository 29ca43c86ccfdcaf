#include "dsp/TruePeakLimiter.h"

#include "base/HarluneError.h"
#include "dsp/FiniteSamples.h"
#include "dsp/ParallelFor.h"
#include "dsp/TruePeak.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace harlune::TruePeakLimiter {

namespace {

constexpr int64_t blockFrames = 65536;
constexpr int pieceLength = 1024;

// held[j] = largest of p[j .. j + window - 1] for j < count - window + 1 (van Herk / Gil-Werman:
// running maxima forward and backward within stretches of `window`, three compares a point).
void slidingMaximum(const float* p, int64_t count, int64_t window, float* forward, float* backward,
                    float* held) {
    for (int64_t i = 0; i < count; ++i)
        forward[i] = i % window == 0 ? p[i] : std::max(forward[i - 1], p[i]);
    for (int64_t i = count - 1; i >= 0; --i)
        backward[i] = (i % window == window - 1 || i == count - 1) ? p[i] : std::max(backward[i + 1], p[i]);
    for (int64_t j = 0; j + window <= count; ++j)
        held[j] = std::max(backward[j], forward[j + window - 1]);
}

} // namespace

void render(const AudioSource& source, FrameRange range, double preGainDB, double ceilingDBTP,
            double lookaheadMs, double releaseMs, std::optional<FunctionRef<bool(double)>> progress,
            FunctionRef<void(ChunkViews)> emit) {
    const FrameRange walk = range.clamped(source.fullRange());
    const int channels = source.channelCount();
    if (walk.isEmpty() || channels <= 0)
        return;

    const double rate = source.sampleRate();
    const auto preGain = static_cast<float>(std::pow(10.0, preGainDB / 20));
    const auto ceiling = static_cast<float>(std::pow(10.0, (ceilingDBTP - 0.01) / 20));
    const TruePeakInterpolator interpolator(rate);
    const int taps = interpolator.taps;
    const int64_t h = taps / 2;
    const int64_t L = std::max<int64_t>(1, std::llround(lookaheadMs * rate / 1000));
    const int64_t W = L + h + 1;
    const int64_t M = L + W + h;
    const double release = releaseMs > 0 ? 1 - std::exp(-1 / (releaseMs / 1000 * rate)) : 1.0;

    const auto channelCount = static_cast<size_t>(channels);
    const auto workFrames = static_cast<size_t>(2 * M + blockFrames);
    std::vector<std::vector<float>> work(channelCount, std::vector<float>(workFrames));
    std::vector<std::vector<float>> peaks(channelCount, std::vector<float>(workFrames));
    std::vector<std::vector<float>> output(channelCount,
                                           std::vector<float>(static_cast<size_t>(blockFrames)));
    std::vector<float> linked(workFrames), forward(workFrames), backward(workFrames), held(workFrames);
    std::vector<double> targets(workFrames);
    std::vector<float> gains(static_cast<size_t>(blockFrames));
    std::vector<float*> readPointers(channelCount);
    std::vector<std::span<const float>> views(channelCount);
    double g = 1;

    if (progress && !(*progress)(0.0))
        throw HarluneError::cancelled();

    for (int64_t blockStart = walk.lower; blockStart < walk.upper;) {
        const int64_t B = std::min(blockFrames, walk.upper - blockStart);
        const int64_t n = B + 2 * M;
        const int64_t m = n - (h - 1) - h;

        // 1-2. Read with the margins; outside the range is silence.
        const FrameRange wanted{blockStart - M, blockStart + B + M};
        const FrameRange present = wanted.clamped(walk);
        const int64_t at = present.lower - wanted.lower;
        for (size_t c = 0; c < channelCount; ++c) {
            std::fill_n(work[c].begin(), n, 0.0f);
            readPointers[c] = work[c].data() + at;
        }
        if (!present.isEmpty())
            source.read(present, readPointers);
        for (size_t c = 0; c < channelCount; ++c) {
            float* x = work[c].data() + at;
            const auto count = static_cast<int>(present.length());
            copyFinite(x, count, x);
            if (preGain != 1.0f)
                for (int i = 0; i < count; ++i)
                    x[i] *= preGain;
        }

        // 3. Peak curve per channel: the sample at h - 1 + i and the interpolated points after it.
        const auto peakCurve = [&](int64_t channel) {
            const float* x = work[static_cast<size_t>(channel)].data();
            float* p = peaks[static_cast<size_t>(channel)].data();
            for (int64_t i = 0; i < m; ++i)
                p[i] = std::fabs(x[h - 1 + i]);
            if (interpolator.phases.empty())
                return;
            for (int64_t offset = 0; offset < m; offset += pieceLength) {
                const auto q = static_cast<int>(std::min<int64_t>(pieceLength, m - offset));
                if (ceiling > 0) {
                    const float reach = maximumMagnitude({x + offset, static_cast<size_t>(q + taps - 1)});
                    if (interpolator.gainBound * reach <= ceiling)
                        continue; // nothing here can pass the ceiling
                }
                raiseToInterpolated(interpolator, x + offset, q, p + offset);
            }
        };
        parallelFor(channels, channels >= 2, peakCurve);

        // 4. One curve for all channels.
        const float* curve = peaks[0].data();
        if (channelCount > 1) {
            std::copy_n(peaks[0].begin(), m, linked.begin());
            for (size_t c = 1; c < channelCount; ++c)
                for (int64_t i = 0; i < m; ++i)
                    linked[static_cast<size_t>(i)] =
                        std::max(linked[static_cast<size_t>(i)], peaks[c][static_cast<size_t>(i)]);
            curve = linked.data();
        }

        // 5-6. Held peaks into target gains; all 1 when nothing nears the ceiling.
        const int64_t targetCount = m - 2 * W;
        if (maximumMagnitude({curve, static_cast<size_t>(m)}) <= ceiling) {
            std::fill_n(targets.begin(), targetCount, 1.0);
        } else {
            slidingMaximum(curve, m, 2 * W + 1, forward.data(), backward.data(), held.data());
            for (int64_t j = 0; j < targetCount; ++j) {
                const float peak = held[static_cast<size_t>(j)];
                targets[static_cast<size_t>(j)] = ceiling > 0 ? ceiling / std::max(peak, ceiling) : 0.0;
            }
        }

        // 7. Box mean of 2L + 1 targets centred on each frame; a one-pole release lets it rise.
        const double* t = targets.data();
        double sum = 0;
        for (int64_t i = 1; i <= 2 * L + 1; ++i)
            sum += t[i];
        const auto box = static_cast<double>(2 * L + 1);
        for (int64_t k = 0; k < B; ++k) {
            const double mean = sum / box;
            const double released = g + release * (1 - g);
            g = std::min(mean, released);
            gains[static_cast<size_t>(k)] = static_cast<float>(g);
            if (k + 1 < B)
                sum += t[k + 2 * L + 2] - t[k + 1];
        }

        // 8-9. Apply and hand out.
        for (size_t c = 0; c < channelCount; ++c) {
            const float* x = work[c].data() + M;
            float* out = output[c].data();
            for (int64_t k = 0; k < B; ++k)
                out[k] = x[k] * gains[static_cast<size_t>(k)];
            views[c] = {out, static_cast<size_t>(B)};
        }
        emit(ChunkViews(views));

        blockStart += B;
        if (progress &&
            !(*progress)(static_cast<double>(blockStart - walk.lower) / static_cast<double>(walk.length())))
            throw HarluneError::cancelled();
    }
}

} // namespace harlune::TruePeakLimiter
