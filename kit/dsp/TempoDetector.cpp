#include "dsp/TempoDetector.h"

#include "base/Precondition.h"
#include "dsp/RealFFT.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>

namespace harlune::TempoDetector {

namespace {

constexpr int fftSize = 2048;
constexpr int binCount = fftSize / 2;
// A beat sits three quarters of the way into the first half of the analysis frame whose onset
// shows it.
constexpr int64_t beatOffset = 768;

// The channels of `range` added up (not averaged).
std::vector<float> channelSum(const AudioSource& source, FrameRange range) {
    std::vector<float> sum(static_cast<size_t>(range.length()), 0.0f);
    source.forEachChunk(range, 65536, [&](ChunkViews views, int64_t start) {
        float* out = sum.data() + (start - range.lower);
        for (const auto& channel : views)
            for (size_t i = 0; i < channel.size(); ++i)
                out[i] += channel[i];
    });
    return sum;
}

// The curve at a fractional hop, by linear interpolation; `t` lies below count - 1.
double interpolated(const std::vector<float>& curve, double t) {
    const auto i = static_cast<size_t>(t);
    const double fraction = t - static_cast<double>(i);
    return curve[i] * (1.0 - fraction) + curve[i + 1] * fraction;
}

// The average of the curve at phase, phase + period, ... (0 when no point is visited).
double combAverage(const std::vector<float>& curve, double period, double phase) {
    const double end = static_cast<double>(curve.size()) - 1.0;
    double sum = 0;
    int points = 0;
    for (double t = phase; t < end; t = phase + period * points) {
        sum += interpolated(curve, t);
        ++points;
    }
    return points > 0 ? sum / points : 0.0;
}

// Sum of squares over all channels of `window` frames from `start`.
double windowEnergy(const AudioSource& source, int64_t start, int64_t window,
                    std::vector<std::vector<float>>& scratch) {
    std::vector<float*> pointers;
    for (auto& channel : scratch) {
        channel.resize(static_cast<size_t>(window));
        pointers.push_back(channel.data());
    }
    source.read({start, start + window}, pointers);
    double energy = 0;
    for (const auto& channel : scratch)
        for (const float x : channel)
            energy += static_cast<double>(x) * x;
    return energy;
}

} // namespace

std::vector<float> onsetEnvelope(const AudioSource& source, FrameRange range) {
    const int64_t length = range.length();
    if (length <= fftSize)
        return {};
    const auto count = static_cast<size_t>((length - fftSize) / hopSize + 1);
    const std::vector<float> sum = channelSum(source, range);

    // The periodic Hann window at full height, all 2048 points.
    std::vector<float> window(fftSize);
    for (int n = 0; n < fftSize; ++n)
        window[static_cast<size_t>(n)] =
            static_cast<float>(0.5 * (1.0 - std::cos(2.0 * std::numbers::pi * n / fftSize)));

    const RealFFT transform(fftSize);
    std::vector<float> magnitude(binCount);
    std::vector<float> value(binCount);
    std::vector<float> previous(binCount);
    std::vector<float> flux(count, 0.0f);
    for (size_t i = 0; i < count; ++i) {
        const float* frame = sum.data() + i * hopSize;
        float* in = transform.time();
        for (int n = 0; n < fftSize; ++n)
            in[n] = frame[n] * window[static_cast<size_t>(n)];
        transform.forward();
        // Twice the plain DFT's scale: the compression below was tuned on a packed real
        // transform, which carries that factor.
        for (int k = 0; k < binCount; ++k)
            magnitude[static_cast<size_t>(k)] = 2.0f * std::abs(transform.spectrum()[k]);
        for (int k = 0; k < binCount; ++k)
            value[static_cast<size_t>(k)] = std::log(1.0f + 20.0f * magnitude[static_cast<size_t>(k)]);
        if (i > 0) {
            float total = 0;
            for (int k = 1; k < binCount; ++k)
                total += std::max(value[static_cast<size_t>(k)] - previous[static_cast<size_t>(k)], 0.0f);
            flux[i] = total;
        }
        std::swap(value, previous);
    }

    // Less the mean over about half a second around each hop.
    const auto w = static_cast<int64_t>(source.sampleRate() * 0.5 / hopSize);
    const int64_t half = w / 2;
    std::vector<double> prefix(count + 1, 0.0);
    for (size_t i = 0; i < count; ++i)
        prefix[i + 1] = prefix[i] + flux[i];
    std::vector<float> curve(count);
    float largest = 0;
    for (size_t i = 0; i < count; ++i) {
        const auto index = static_cast<int64_t>(i);
        const auto low = static_cast<size_t>(std::max<int64_t>(index - half, 0));
        const auto high =
            static_cast<size_t>(std::min<int64_t>(index + half + 1, static_cast<int64_t>(count)));
        const double mean = (prefix[high] - prefix[low]) / static_cast<double>(high - low);
        curve[i] = static_cast<float>(std::max(static_cast<double>(flux[i]) - mean, 0.0));
        largest = std::max(largest, curve[i]);
    }
    if (largest > 0) {
        const float scale = 1.0f / largest;
        for (float& v : curve)
            v *= scale;
    }
    return curve;
}

std::optional<TempoEstimate> detect(const AudioSource& source, std::optional<FrameRange> range,
                                    int beatsPerBar, double maxSeconds) {
    const double sampleRate = source.sampleRate();
    if (!(sampleRate > 0))
        return std::nullopt;
    FrameRange stretch = range.value_or(source.fullRange()).clamped(source.fullRange());
    const auto limit = static_cast<int64_t>(maxSeconds * sampleRate);
    if (stretch.length() > limit) {
        const int64_t length = stretch.length();
        const int64_t formerStart = stretch.lower;
        stretch = {formerStart + (length - limit) / 2, formerStart + (length + limit) / 2};
    }

    const std::vector<float> curve = onsetEnvelope(source, stretch);
    const auto count = static_cast<int64_t>(curve.size());
    if (count < 65)
        return std::nullopt;

    const double hopRate = sampleRate / hopSize;
    const auto minLag = static_cast<int64_t>(std::floor(hopRate * 0.3));
    const int64_t maxLag = std::min(count / 2, static_cast<int64_t>(std::ceil(hopRate)));
    if (!(minLag + 2 < maxLag))
        return std::nullopt;

    std::vector<double> ac(static_cast<size_t>(maxLag + 2), 0.0);
    for (int64_t lag = minLag; lag <= maxLag + 1 && lag < count; ++lag) {
        double dot = 0;
        for (int64_t i = 0; i + lag < count; ++i)
            dot += static_cast<double>(curve[static_cast<size_t>(i)]) * curve[static_cast<size_t>(i + lag)];
        ac[static_cast<size_t>(lag)] = dot / static_cast<double>(count - lag);
    }
    const auto at = [&](int64_t lag) {
        return ac[static_cast<size_t>(lag)];
    };
    const auto tempoOf = [&](double lag) {
        return 60.0 * hopRate / lag;
    };

    // A log-normal preference for 120 BPM, with support from the second lag.
    int64_t lag = minLag;
    double bestScore = -1;
    for (int64_t candidate = minLag; candidate <= maxLag; ++candidate) {
        const double octaves = std::log2(tempoOf(static_cast<double>(candidate)) / 120.0) / 0.8;
        const double prior = std::exp(-0.5 * octaves * octaves);
        double support = at(candidate);
        if (2 * candidate <= maxLag + 1)
            support += 0.5 * at(2 * candidate);
        const double score = prior * support;
        if (score > bestScore) {
            bestScore = score;
            lag = candidate;
        }
    }
    // Fast tempi with a strong second lag are counted at half speed.
    while (tempoOf(static_cast<double>(lag)) > 160) {
        if (2 * lag > maxLag + 1 || !(at(lag) * 0.4 <= at(2 * lag)))
            break;
        lag *= 2;
    }

    double mean = 0;
    for (int64_t l = minLag; l <= maxLag; ++l)
        mean += at(l);
    mean /= static_cast<double>(maxLag - minLag + 1);
    const double confidence = mean > 0 ? std::clamp((at(lag) / mean - 1.0) / 3.0, 0.0, 1.0) : 0.0;

    // Period within ±3 % and phase in quarter hops, by the average onset on the comb.
    const auto coarse = static_cast<double>(lag);
    double period = 0.97 * coarse;
    double phase = 0;
    double best = -1;
    for (int step = 0; step <= 120; ++step) {
        const double candidate = 0.97 * coarse + step * 0.0005 * coarse;
        double bestOfPeriod = -1;
        double phaseOfPeriod = 0;
        for (int quarter = 0; quarter * 0.25 < candidate; ++quarter) {
            const double average = combAverage(curve, candidate, quarter * 0.25);
            if (average > bestOfPeriod) {
                bestOfPeriod = average;
                phaseOfPeriod = quarter * 0.25;
            }
        }
        if (bestOfPeriod > best) {
            best = bestOfPeriod;
            period = candidate;
            phase = phaseOfPeriod;
        }
    }
    const double bpm = tempoOf(period);

    // The bar position whose beats carry the most energy.
    const int bar = std::max(beatsPerBar, 1);
    std::vector<double> energy(static_cast<size_t>(bar), 0.0);
    const auto window = static_cast<int64_t>(sampleRate * 0.06);
    std::vector<std::vector<float>> scratch(static_cast<size_t>(std::max(source.channelCount(), 0)));
    for (int64_t k = 0; window > 0; ++k) {
        const auto hop =
            static_cast<int64_t>(std::llround((phase + period * static_cast<double>(k)) * hopSize));
        const int64_t windowStart = stretch.lower + hop + beatOffset - window / 4;
        if (windowStart + window > stretch.upper)
            break;
        if (windowStart >= stretch.lower)
            energy[static_cast<size_t>(k % bar)] += windowEnergy(source, windowStart, window, scratch);
    }
    int position = 0;
    for (int p = 1; p < bar; ++p)
        if (energy[static_cast<size_t>(p)] > energy[static_cast<size_t>(position)])
            position = p;

    // Both stepped back to the start of the file.
    const double beat = 60.0 / bpm * sampleRate;
    int64_t first = stretch.lower + std::llround(phase * hopSize) + beatOffset;
    const int64_t beatFrames = std::llround(beat);
    while (beat <= static_cast<double>(first) && beatFrames > 0)
        first -= beatFrames;
    double downbeat =
        static_cast<double>(stretch.lower + std::llround((phase + period * position) * hopSize) + beatOffset);
    const double barFrames = beat * bar;
    while (downbeat - barFrames >= 0)
        downbeat -= barFrames;

    return TempoEstimate{.bpm = bpm,
                         .downbeatFrame = std::llround(downbeat),
                         .firstBeatFrame = first,
                         .confidence = confidence};
}

} // namespace harlune::TempoDetector
