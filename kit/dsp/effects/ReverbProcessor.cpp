#include "dsp/effects/ReverbProcessor.h"

#include "base/HarluneError.h"
#include "base/Vectorize.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <numbers>

namespace harlune {

namespace {

constexpr int lines = ReverbProcessor::lineCount;

double clampOr(double value, double lo, double hi, double fallback) {
    return std::isfinite(value) ? std::clamp(value, lo, hi) : fallback;
}

uint32_t powerOfTwoAtLeast(double value) {
    return std::bit_ceil(static_cast<uint32_t>(std::max(value, 1.0)));
}

bool isPrime(int64_t n) {
    if (n < 2)
        return false;
    if (n % 2 == 0)
        return n == 2;
    for (int64_t d = 3; d * d <= n; d += 2)
        if (n % d == 0)
            return false;
    return true;
}

// The first prime >= n; even candidates are passed over.
int64_t primeAtLeast(int64_t n) {
    if (n <= 2)
        return 2;
    if (n % 2 == 0)
        ++n;
    while (!isPrime(n))
        n += 2;
    return n;
}

float fraction(float x) {
    return x - std::floor(x);
}

// The Catmull-Rom read at a delay of `delay` (>= 2) frames behind `w`.
inline float cubicRead(const float* buffer, uint32_t mask, uint32_t w, double delay) {
    const auto whole = static_cast<uint32_t>(delay);
    const auto t = static_cast<float>(static_cast<double>(whole) - delay + 1.0);
    const uint32_t at = w - whole;
    const float pm = buffer[(at - 2) & mask];
    const float p0 = buffer[(at - 1) & mask];
    const float p1 = buffer[at & mask];
    const float p2 = buffer[(at + 1) & mask];
    return p0 + t * ((p1 - pm) * 0.5f + t * ((pm - 2.5f * p0 + 2.0f * p1 - 0.5f * p2) +
                                             t * ((p0 - p1) * 1.5f + (p2 - pm) * 0.5f)));
}

// One stage of the butterfly: sums of neighbours to the front half, differences to the back.
// Four of them make the Hadamard matrix of order 16 (unscaled, rows in a permuted order), with
// every stage a plain vector operation.
inline void butterflyStage(const std::array<float, lines>& in, std::array<float, lines>& out) {
#pragma omp simd
    for (size_t i = 0; i < lines / 2; ++i) {
        out[i] = in[2 * i] + in[2 * i + 1];
        out[i + lines / 2] = in[2 * i] - in[2 * i + 1];
    }
}

inline void hadamard(const std::array<float, lines>& in, std::array<float, lines>& out) {
    alignas(64) std::array<float, lines> a;
    alignas(64) std::array<float, lines> b;
    butterflyStage(in, a);
    butterflyStage(a, b);
    butterflyStage(b, a);
    butterflyStage(a, out);
}

} // namespace

ReverbProcessor::ReverbProcessor() : outputRows_(maxChannels, Lines{}) {
    for (int c = 0; c < maxChannels; ++c)
        for (int l = 0; l < lines; ++l)
            outputRows_[c][static_cast<size_t>(l)] =
                (std::popcount(static_cast<unsigned>(l & (c + 1))) & 1) ? -1.0f : 1.0f;
}

void ReverbProcessor::apply(const EffectSettings& settings) noexcept {
    const auto* reverb = settings.as<ReverbSettings>();
    if (reverb == nullptr)
        return;
    settings_ = *reverb;
    if (isPrepared_)
        target_ = targets();
}

int ReverbProcessor::tailFrames() const {
    const double seconds = clampOr(settings_.preDelayMs, 0, 250, 20) / 1000 +
                           1.1 * clampOr(settings_.decaySeconds, 0.2, 20, 1.8) + 0.125;
    return static_cast<int>(sampleRate_ * std::min(seconds, 30.0));
}

std::array<int, ReverbProcessor::lineCount> ReverbProcessor::lineLengths(double size, double r) noexcept {
    const double baseMs = 4 + 36 * clampOr(size, 0, 1, 0.6);
    std::array<int64_t, lines> sorted{};
    int64_t previous = 0;
    for (int i = 0; i < lines; ++i) {
        const auto n = static_cast<int64_t>(std::round(r * baseMs * std::pow(2.8, i / 15.0) / 1000));
        previous = primeAtLeast(std::max({previous + 1, n, int64_t{48}}));
        sorted[static_cast<size_t>(i)] = previous;
    }
    // Dealt diagonally, so that each group of four lines mixes short and long ones.
    std::array<int, lines> dealt{};
    for (int l = 0; l < lines; ++l)
        dealt[static_cast<size_t>(l)] = static_cast<int>(sorted[static_cast<size_t>((5 * l) % lines)]);
    return dealt;
}

ReverbProcessor::Targets ReverbProcessor::targets() const noexcept {
    const double r = sampleRate_;
    const double decay = clampOr(settings_.decaySeconds, 0.2, 20, 1.8);
    const double damping = clampOr(settings_.damping, 0, 1, 0.5);
    Targets t;
    const std::array<int, lines> lengths = lineLengths(settings_.size, r);
    const double rho = std::pow(0.15, damping);
    const double c = std::cos(2 * std::numbers::pi * std::min(0.4 * r, 8000.0) / r);
    double meanLength = 0;
    for (int l = 0; l < lines; ++l) {
        const auto n = static_cast<double>(lengths[static_cast<size_t>(l)]);
        meanLength += n / lines;
        const double g = std::pow(10.0, -3 * n / (r * decay));
        double p = 0;
        if (rho < 0.999) {
            const double a =
                std::max(std::pow(std::pow(10.0, (1 / (decay * rho) - 1 / decay) * (-3 * n / r)), 2.0), 1e-8);
            if (a < 1) {
                const double u = 1 - c * a;
                const double v = 1 - a;
                p = std::clamp((u - std::sqrt(std::max(u * u - v * v, 0.0))) / v, 0.0, 0.995);
            }
        }
        t.lengths[static_cast<size_t>(l)] = static_cast<float>(n);
        t.gain[static_cast<size_t>(l)] = static_cast<float>(g * (1 - p));
        t.pole[static_cast<size_t>(l)] = static_cast<float>(p);
    }
    // A longer decay in a bigger room does not grow louder.
    const double m = std::pow(10.0, -3 * meanLength / (r * decay));
    t.outputGain = static_cast<float>(std::sqrt(0.3 * std::sqrt(decay / 2) * std::max(1 - m * m, 1e-6)));
    t.preDelay = r * clampOr(settings_.preDelayMs, 0, 250, 20) / 1000 + 2;
    t.lowCut = clampOr(settings_.lowCutHz, 20, 1000, 100);
    t.diffusion = static_cast<float>(clampOr(settings_.diffusion, 0, 1, 0.8));
    t.width = static_cast<float>(clampOr(settings_.width, 0, 1, 1));
    t.mix = static_cast<float>(clampOr(settings_.mix, 0, 1, 0.25));
    return t;
}

void ReverbProcessor::doPrepare(double sampleRate, int channelCount, int) {
    if (channelCount > maxChannels)
        throw HarluneError::unsupportedFormat("the reverb takes at most 8 channels, not " +
                                              std::to_string(channelCount));
    isPrepared_ = false;
    const double r = sampleRate > 0 ? sampleRate : 48000;
    sampleRate_ = r;
    preparedChannels_ = std::max(1, channelCount);

    const uint32_t preDelaySize = powerOfTwoAtLeast(std::trunc(0.25 * r) + 8);
    preDelayBuffer_ = SpaceStorage<float>(preDelaySize);
    preDelayMask_ = preDelaySize - 1;

    const double diffuserMs[4] = {1.7, 2.9, 4.3, 6.1};
    for (size_t k = 0; k < 4; ++k) {
        int64_t n = primeAtLeast(std::max(static_cast<int64_t>(r * diffuserMs[k] / 1000), int64_t{3}));
        while (std::find(diffuserLengths_.begin(), diffuserLengths_.begin() + static_cast<long>(k), n) !=
               diffuserLengths_.begin() + static_cast<long>(k))
            n = primeAtLeast(n + 1);
        diffuserLengths_[k] = static_cast<int32_t>(n);
    }
    const uint32_t segment =
        powerOfTwoAtLeast(*std::max_element(diffuserLengths_.begin(), diffuserLengths_.end()) + 1);
    diffuserBuffer_ = SpaceStorage<float>(4 * int64_t{segment} + 16);
    diffuserMask_ = segment - 1;

    lineSize_ = powerOfTwoAtLeast(std::trunc(0.1254 * r) + 8);
    lineStride_ = lineSize_ + 48;
    lineBuffer_ = SpaceStorage<float>(int64_t{lineStride_} * lines);

    modDepth_ = static_cast<float>(0.0002 * r);
    for (int i = 0; i < lines; ++i) {
        const double phase = i * 0.618034 + 0.13;
        modIncrement_[static_cast<size_t>(i)] =
            static_cast<float>(((phase - std::floor(phase)) * 0.9 + 0.1) * spaceTickFrames / r);
        inputVector_[static_cast<size_t>(i)] = ((7 * i + 3) % 5) >= 2 ? 0.25f : -0.25f;
    }

    const uint32_t earlySize = powerOfTwoAtLeast(std::trunc(0.032 * r) + 4);
    earlyBuffer_ = SpaceStorage<float>(earlySize);
    earlyMask_ = earlySize - 1;
    for (int c = 0; c < maxChannels; ++c)
        for (int k = 0; k < earlyTaps; ++k) {
            const double x = (c + 1) * 0.7548777 + (k + 1) * 0.5698403;
            const double ms = 1 + 3.6 * k + 2.4 * (x - std::floor(x));
            const auto index = static_cast<size_t>(c * earlyTaps + k);
            earlyDelay_[index] = std::max(static_cast<int32_t>(r * ms / 1000), 1);
            const int h = 14769 * (8 * c + k + 1);
            earlyGain_[index] = static_cast<float>(((h & 0x2000) ? -0.12 : 0.12) * std::pow(0.82, k));
        }

    tickCoefficient_ = spaceTickCoefficient(r, 0.05);
    sizeCoefficient_ = spaceTickCoefficient(r, 0.3);
    preDelayGlide_ = 1 - std::exp(-1 / (0.1 * r));
    isPrepared_ = true;
    target_ = targets();
}

void ReverbProcessor::doReset() noexcept {
    if (!isPrepared_)
        return;
    preDelayBuffer_.clear();
    diffuserBuffer_.clear();
    lineBuffer_.clear();
    earlyBuffer_.clear();
    lowCut_ = {};
    allpassState_.fill(0);
    filterState_.fill(0);
    writeIndex_ = 0;
    controlPhase_ = 0;

    baseLength_ = target_.lengths;
    lineGain_ = target_.gain;
    linePole_ = target_.pole;
    diffusion_ = target_.diffusion;
    for (size_t k = 0; k < 4; ++k)
        diffuserGain_[k] = diffusion_ * (k < 2 ? 0.75f : 0.625f);
    preDelay_ = target_.preDelay;
    preDelayTarget_ = target_.preDelay;
    lowCutHz_ = target_.lowCut;
    lowCutCoefficients_ = SpaceSVFCoefficients(lowCutHz_, 0.707, sampleRate_);
    outputGain_.jump(target_.outputGain);
    width_.jump(target_.width);
    mix_.jump(target_.mix);
    for (int i = 0; i < lines; ++i) {
        const auto l = static_cast<size_t>(i);
        modPhase_[l] = static_cast<float>(i) / lines;
        delayEnd_[l] = baseLength_[l] + std::sin(2 * std::numbers::pi_v<float> * modPhase_[l]) * modDepth_;
        delayStart_[l] = delayEnd_[l];
    }
}

void ReverbProcessor::controlTick() noexcept {
    const auto c = static_cast<float>(tickCoefficient_);
    const auto z = static_cast<float>(sizeCoefficient_);
    for (size_t l = 0; l < lines; ++l) {
        baseLength_[l] += z * (target_.lengths[l] - baseLength_[l]);
        lineGain_[l] += c * (target_.gain[l] - lineGain_[l]);
        linePole_[l] += c * (target_.pole[l] - linePole_[l]);
    }
    diffusion_ += c * (target_.diffusion - diffusion_);
    outputGain_.advance(outputGain_.end + c * (target_.outputGain - outputGain_.end));
    width_.advance(width_.end + c * (target_.width - width_.end));
    mix_.advance(mix_.end + c * (target_.mix - mix_.end));
    for (size_t k = 0; k < 4; ++k)
        diffuserGain_[k] = diffusion_ * (k < 2 ? 0.75f : 0.625f);
    preDelayTarget_ = target_.preDelay;
    if (lowCutHz_ != target_.lowCut) {
        lowCutHz_ *= std::pow(target_.lowCut / lowCutHz_, tickCoefficient_);
        lowCutCoefficients_ = SpaceSVFCoefficients(lowCutHz_, 0.707, sampleRate_);
    }
    for (size_t l = 0; l < lines; ++l) {
        modPhase_[l] = fraction(modPhase_[l] + modIncrement_[l]);
        delayStart_[l] = delayEnd_[l];
        delayEnd_[l] = baseLength_[l] + sinf(2 * std::numbers::pi_v<float> * modPhase_[l]) * modDepth_;
    }
}

// Defined before its first call: clang cannot turn a function into clones once it has been called.
HARLUNE_VECTOR_CLONES void ReverbProcessor::runStretch(ChannelSpan channels, int offset,
                                                       int frames) noexcept {
    const int channelCount = channels.channelCount();
    const uint32_t w0 = writeIndex_;
    const int phase0 = controlPhase_;

    // Stage 1: the mono input stage, per frame.
    {
        float* preDelay = preDelayBuffer_.pointer();
        float* diffuser = diffuserBuffer_.pointer();
        float* early = earlyBuffer_.pointer();
        const uint32_t segment = diffuserMask_ + 1;
        const float inverseChannels = 1.0f / static_cast<float>(channelCount);
        for (int f = 0; f < frames; ++f) {
            const uint32_t w = w0 + static_cast<uint32_t>(f);
            float sum = 0;
            for (int c = 0; c < channelCount; ++c)
                sum += channels.channel(c)[offset + f];
            const float hp = lowCut_.highPass(lowCutCoefficients_, inverseChannels * sum);
            preDelay[w & preDelayMask_] = hp;
            preDelay_ += preDelayGlide_ * (preDelayTarget_ - preDelay_);
            float x = cubicRead(preDelay, preDelayMask_, w, preDelay_);
            for (uint32_t k = 0; k < 4; ++k) {
                float* segmentStart = diffuser + k * segment;
                const float g = diffuserGain_[k];
                const float d =
                    segmentStart[(w - static_cast<uint32_t>(diffuserLengths_[k])) & diffuserMask_];
                const float v = x + g * d;
                segmentStart[w & diffuserMask_] = v;
                x = d - g * v;
            }
            chunkInput_[static_cast<size_t>(f)] = x;
            early[w & earlyMask_] = x;
        }
    }

    // Stage 2a: each line's delay on its ramp, split into a whole read offset and the allpass
    // coefficient of the fraction; per frame, all sixteen lines at once.
    {
        Lines start = delayStart_;
        Lines slope{};
        for (size_t l = 0; l < lines; ++l)
            slope[l] = (delayEnd_[l] - start[l]) * 0.03125f;
        for (int f = 0; f < frames; ++f) {
            const auto fi = static_cast<size_t>(f);
            const auto t = static_cast<float>(phase0 + f);
            Lines& kappa = kappa_[fi];
            std::array<int32_t, lines>& readAt = readOffset_[fi];
#pragma omp simd
            for (size_t l = 0; l < lines; ++l) {
                const float delay = start[l] + slope[l] * t;
                // Delays are at least 47 frames, so truncation is the floor (and vectorises).
                const auto whole = static_cast<int32_t>(delay - 0.5f);
                const float fr = delay - static_cast<float>(whole);
                kappa[l] = (1 - fr) / (1 + fr);
                readAt[l] = whole;
            }
        }
    }

    // Stage 2b: the two taps of each fractional read; per frame, from all sixteen lines, so
    // that the loads are independent and the stores contiguous.
    const uint32_t lineMask = lineSize_ - 1;
    const float* lineData = lineBuffer_.pointer();
    for (int f = 0; f < frames; ++f) {
        const auto fi = static_cast<size_t>(f);
        const uint32_t w = w0 + static_cast<uint32_t>(f);
        const std::array<int32_t, lines>& readAt = readOffset_[fi];
        Lines& near = tapNear_[fi];
        Lines& far = tapFar_[fi];
        for (size_t l = 0; l < lines; ++l) {
            const float* line = lineData + l * lineStride_;
            const uint32_t at = w - static_cast<uint32_t>(readAt[l]);
            near[l] = line[at & lineMask];
            far[l] = line[(at - 1) & lineMask];
        }
    }

    // Stage 2c: the allpass and damping recursions, all sixteen lines at once per frame.
    {
        Lines ap = allpassState_;
        Lines z = filterState_;
        const Lines gain = lineGain_;
        const Lines pole = linePole_;
        for (int f = 0; f < frames; ++f) {
            const auto fi = static_cast<size_t>(f);
            const Lines& near = tapNear_[fi];
            const Lines& far = tapFar_[fi];
            const Lines& k = kappa_[fi];
            Lines& out = chunkLines_[fi];
#pragma omp simd
            for (size_t l = 0; l < lines; ++l) {
                const float y = far[l] + k[l] * (near[l] - ap[l]);
                ap[l] = y;
                z[l] = pole[l] * z[l] + gain[l] * y;
                out[l] = z[l];
            }
        }
        allpassState_ = ap;
        filterState_ = z;
    }

    // Stage 3: outputs and the feedback through the matrix, per frame.
    float* lineOut = lineBuffer_.pointer();
    const float* early = earlyBuffer_.pointer();
    for (int f = 0; f < frames; ++f) {
        const auto fi = static_cast<size_t>(f);
        const uint32_t w = w0 + static_cast<uint32_t>(f);
        const int phase = phase0 + f;
        const float outputGain = outputGain_.value(phase);
        const float mix = mix_.value(phase);
        const Lines& v = chunkLines_[fi];
        std::array<float, maxChannels> wet{};
        for (int c = 0; c < channelCount; ++c) {
            const Lines& row = outputRows_[c];
            float late = 0;
#pragma omp simd reduction(+ : late)
            for (size_t l = 0; l < lines; ++l)
                late += row[l] * v[l];
            float reflections = 0;
            for (int k = 0; k < earlyTaps; ++k) {
                const auto tap = static_cast<size_t>(c * earlyTaps + k);
                reflections +=
                    earlyGain_[tap] * early[(w - static_cast<uint32_t>(earlyDelay_[tap])) & earlyMask_];
            }
            wet[static_cast<size_t>(c)] = outputGain * late + reflections;
        }
        if (channelCount == 1) {
            float& x = channels.channel(0)[offset + f];
            x = x + mix * (wet[0] - x);
        } else {
            const float width = width_.value(phase);
            float mid = 0;
            for (int c = 0; c < channelCount; ++c)
                mid += wet[static_cast<size_t>(c)];
            mid /= static_cast<float>(channelCount);
            for (int c = 0; c < channelCount; ++c) {
                float& x = channels.channel(c)[offset + f];
                x = x + mix * (mid + width * (wet[static_cast<size_t>(c)] - mid) - x);
            }
        }
        alignas(64) Lines mixed;
        hadamard(v, mixed);
        const float input = chunkInput_[fi];
        const uint32_t at = w & lineMask;
        alignas(64) Lines feedback;
#pragma omp simd
        for (size_t l = 0; l < lines; ++l)
            feedback[l] = 0.25f * mixed[l] + inputVector_[l] * input;
        for (size_t l = 0; l < lines; ++l)
            lineOut[l * lineStride_ + at] = feedback[l];
    }
}

void ReverbProcessor::doProcess(ChannelSpan channels) noexcept {
    if (!isPrepared_ || channels.frameCount() < 1)
        return;
    const ChannelSpan used = channels.firstChannels(std::min(preparedChannels_, maxChannels));
    int done = 0;
    while (done < used.frameCount()) {
        if (controlPhase_ == 0)
            controlTick();
        const int frames = std::min(spaceTickFrames - controlPhase_, used.frameCount() - done);
        runStretch(used, done, frames);
        writeIndex_ += static_cast<uint32_t>(frames);
        controlPhase_ = (controlPhase_ + frames) % spaceTickFrames;
        done += frames;
    }
}

} // namespace harlune
