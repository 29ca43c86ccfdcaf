#include "dsp/SignalAnalysis.h"

#include "base/HarluneError.h"
#include "base/Vectorize.h"

#include <algorithm>
#include <cmath>
#include <span>

namespace harlune {

namespace {

constexpr int64_t chunkFrames = 65536;
// Float sums over at most this many samples lose little; their totals go into doubles.
constexpr int64_t sumBlock = 4096;

HARLUNE_VECTOR_CLONES
float maximumMagnitude(const float* x, int64_t count) {
    float best = 0;
#pragma omp simd reduction(max : best)
    for (int64_t i = 0; i < count; ++i)
        best = std::max(best, std::fabs(x[i]));
    return best;
}

HARLUNE_VECTOR_CLONES
void blockSums(const float* x, int64_t count, float& sum, float& sumSquares) {
    float s = 0;
    float q = 0;
#pragma omp simd reduction(+ : s, q)
    for (int64_t i = 0; i < count; ++i) {
        s += x[i];
        q += x[i] * x[i];
    }
    sum = s;
    sumSquares = q;
}

} // namespace

SignalStats SignalAnalysis::stats(const AudioSource& source, FrameRange range,
                                  std::optional<FunctionRef<bool(double)>> progress) {
    const FrameRange walk = range.clamped(source.fullRange());
    const auto channels = static_cast<size_t>(std::max(source.channelCount(), 0));
    SignalStats stats;
    stats.peak.assign(channels, 0.0f);
    stats.rms.assign(channels, 0.0);
    stats.dcOffset.assign(channels, 0.0);
    stats.peakFrame.assign(channels, 0);
    if (walk.isEmpty() || channels == 0)
        return stats;

    std::vector<double> sums(channels, 0.0);
    std::vector<double> squares(channels, 0.0);
    const auto length = static_cast<double>(walk.length());
    if (progress && !(*progress)(0.0))
        throw HarluneError::cancelled();
    source.forEachChunk(walk, chunkFrames, [&](ChunkViews views, int64_t start) {
        for (size_t c = 0; c < channels; ++c) {
            const std::span<const float> x = views[c];
            const auto count = static_cast<int64_t>(x.size());
            // The maximum first (it vectorises), then the first sample that reaches it, only when
            // it beats the peak so far.
            const float largest = maximumMagnitude(x.data(), count);
            if (largest > stats.peak[c]) {
                const auto first =
                    std::find_if(x.begin(), x.end(), [largest](float v) { return std::fabs(v) == largest; });
                stats.peak[c] = largest;
                stats.peakFrame[c] = start + (first - x.begin());
            }
            for (int64_t i = 0; i < count; i += sumBlock) {
                float sum = 0;
                float sumSquares = 0;
                blockSums(x.data() + i, std::min(sumBlock, count - i), sum, sumSquares);
                sums[c] += sum;
                squares[c] += sumSquares;
            }
        }
        const auto done = static_cast<double>(start + static_cast<int64_t>(views[0].size()) - walk.lower);
        if (progress && !(*progress)(done / length))
            throw HarluneError::cancelled();
    });
    for (size_t c = 0; c < channels; ++c) {
        stats.rms[c] = std::sqrt(squares[c] / length);
        stats.dcOffset[c] = sums[c] / length;
    }
    return stats;
}

} // namespace harlune
