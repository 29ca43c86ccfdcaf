#include "dsp/LoudnessAnalyzer.h"

#include "base/HarluneError.h"
#include "dsp/KWeighting.h"
#include "dsp/LoudnessEngine.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace harlune::LoudnessAnalyzer {

namespace {

constexpr double negativeInfinity = -std::numeric_limits<double>::infinity();
constexpr int64_t chunkFrames = 65536;

double mean(double sum, size_t count) {
    return sum / static_cast<double>(count);
}

} // namespace

std::vector<double> defaultChannelWeights(int channelCount) {
    switch (channelCount) {
    case 1:
        return {1};
    case 2:
        return {1, 1};
    case 3:
        return {1, 1, 1};
    case 4:
        return {1, 1, 1.41, 1.41};
    case 5:
        return {1, 1, 1, 1.41, 1.41};
    case 6:
        return {1, 1, 1, 0, 1.41, 1.41};
    case 7:
        return {1, 1, 1, 0, 1.41, 1.41, 1.41};
    case 8:
        return {1, 1, 1, 0, 1.41, 1.41, 1.41, 1.41};
    default:
        return channelCount > 8 ? std::vector<double>(static_cast<size_t>(channelCount), 1.0)
                                : std::vector<double>{};
    }
}

std::vector<double> resolvedWeights(const std::optional<std::vector<double>>& weights, int channelCount) {
    if (!weights)
        return defaultChannelWeights(channelCount);
    std::vector<double> resolved = *weights;
    resolved.resize(static_cast<size_t>(std::max(0, channelCount)), 1.0);
    return resolved;
}

double gatedLoudness(std::span<const double> energies, double relativeGate) {
    double sum = 0;
    size_t kept = 0;
    for (const double e : energies)
        if (e > absoluteGateEnergy) {
            sum += e;
            ++kept;
        }
    if (kept == 0)
        return negativeInfinity;
    const double ungated = loudnessOfEnergy(mean(sum, kept));
    const double threshold = std::pow(10.0, (relativeGate + ungated + 0.691) / 10);
    sum = 0;
    kept = 0;
    // Both gates hold, as in BS.1770: for quiet material the relative threshold lies under the
    // absolute one, and the windows between them stay out.
    for (const double e : energies)
        if (e > threshold && e > absoluteGateEnergy) {
            sum += e;
            ++kept;
        }
    if (kept == 0 || mean(sum, kept) <= 0)
        return negativeInfinity;
    return loudnessOfEnergy(mean(sum, kept));
}

double loudnessRange(std::span<const double> energies) {
    double sum = 0;
    size_t kept = 0;
    for (const double e : energies)
        if (e > absoluteGateEnergy) {
            sum += e;
            ++kept;
        }
    if (kept == 0)
        return 0;
    const double ungated = loudnessOfEnergy(mean(sum, kept));
    const double threshold = std::max(std::pow(10.0, (ungated - 20 + 0.691) / 10), absoluteGateEnergy);
    std::vector<double> levels;
    for (const double e : energies)
        if (e > threshold)
            levels.push_back(loudnessOfEnergy(e));
    const size_t n = levels.size();
    if (n < 2)
        return 0;
    std::sort(levels.begin(), levels.end());
    const auto low = static_cast<size_t>(static_cast<double>(n - 1) * 0.1 + 0.5);
    const auto high = static_cast<size_t>(static_cast<double>(n - 1) * 0.95 + 0.5);
    return levels[high] - levels[low];
}

namespace {

/// Feeds `walk` of `source` through `engine` in chunks.
LoudnessResult measure(LoudnessEngine& engine, const AudioSource& source, FrameRange walk,
                       std::optional<FunctionRef<bool(double)>> progress) {
    engine.reserveSubblocks(static_cast<size_t>(
        static_cast<double>(walk.length()) / std::max(1.0, std::ceil(source.sampleRate() / 10 - 1)) + 2));

    if (progress && !(*progress)(0.0))
        throw HarluneError::cancelled();
    const double length = static_cast<double>(std::max<int64_t>(walk.length(), 1));
    source.forEachChunk(walk, chunkFrames, [&](ChunkViews chunk, int64_t start) {
        engine.process(chunk);
        const auto end = start + static_cast<int64_t>(chunk.empty() ? 0 : chunk[0].size());
        if (progress && !(*progress)(static_cast<double>(end - walk.lower) / length))
            throw HarluneError::cancelled();
    });
    engine.flushTruePeaks();
    return engine.result();
}

} // namespace

LoudnessResult analyze(const AudioSource& source, std::optional<FrameRange> range,
                       const std::optional<std::vector<double>>& channelWeights,
                       std::optional<FunctionRef<bool(double)>> progress) {
    const FrameRange walk = range.value_or(source.fullRange()).clamped(source.fullRange());
    LoudnessEngine engine(source.channelCount(), source.sampleRate(), channelWeights, true);
    return measure(engine, source, walk, progress);
}

ResultWithChannels analyzeWithChannels(const AudioSource& source,
                                       std::optional<FunctionRef<bool(double)>> progress) {
    LoudnessEngine engine(source.channelCount(), source.sampleRate(), std::nullopt, true);
    engine.trackChannelLoudness();
    ResultWithChannels result;
    result.whole = measure(engine, source, source.fullRange(), progress);
    result.channelLUFS = engine.channelIntegratedLUFS();
    return result;
}

double windowLoudness(const AudioSource& source, FrameRange range,
                      const std::optional<std::vector<double>>& channelWeights) {
    const FrameRange window = range.clamped(source.fullRange());
    const int channels = source.channelCount();
    if (window.isEmpty() || channels <= 0)
        return negativeInfinity;
    const int64_t warm = std::min<int64_t>(std::llround(source.sampleRate() * 0.2), window.lower);
    const std::vector<std::vector<float>> planes = source.readChannels({window.lower - warm, window.upper});
    const std::vector<double> weights = resolvedWeights(channelWeights, channels);

    double total = 0;
    for (int c = 0; c < channels; ++c) {
        const double weight = weights[static_cast<size_t>(c)];
        if (weight == 0)
            continue;
        KWeightingFilter filter(source.sampleRate());
        double sum = 0;
        const auto& plane = planes[static_cast<size_t>(c)];
        // In pieces, so that a long window needs no buffer of its own length.
        for (size_t start = 0; start < plane.size(); start += 65536) {
            const size_t n = std::min<size_t>(65536, plane.size() - start);
            const std::span<const double> filtered = filter.process({plane.data() + start, n});
            for (size_t i = 0; i < n; ++i)
                if (start + i >= static_cast<size_t>(warm))
                    sum += filtered[i] * filtered[i];
        }
        total += weight * sum;
    }
    return loudnessOfEnergy(total / static_cast<double>(window.length()));
}

} // namespace harlune::LoudnessAnalyzer
