#include "dsp/effects/DelayProcessor.h"

#include "base/Clamped.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace harlune {

namespace {

constexpr double filterQ = 0.707;

/// The settings as the processor uses them: a non-finite value falls back to its default.
struct DelayTargets {
    double timeMs;
    double ratio;
    double feedback;
    double mix;
    double lowCutHz;
    double highCutHz;
    bool pingPong;
};

double finiteOr(double value, double fallback) {
    return std::isfinite(value) ? value : fallback;
}

DelayTargets targetsOf(const DelaySettings& s) {
    const DelaySettings d;
    return {clamped(finiteOr(s.timeMs, d.timeMs), 1.0, 4000.0),
            clamped(finiteOr(s.rightTimeRatio, d.rightTimeRatio), 0.25, 4.0),
            clamped(finiteOr(s.feedback, d.feedback), 0.0, 0.95),
            clamped(finiteOr(s.mix, d.mix), 0.0, 1.0),
            clamped(finiteOr(s.lowCutHz, d.lowCutHz), 20.0, 2000.0),
            clamped(finiteOr(s.highCutHz, d.highCutHz), 1000.0, 20000.0),
            s.pingPong};
}

uint32_t lineLength(double seconds, double sampleRate) {
    return std::bit_ceil(static_cast<uint32_t>(seconds * sampleRate) + 8);
}

// One frame of the crossed pair: the input (both channels' mean, or mono) feeds the left line,
// which feeds the right, which feeds the left again; the wet lines are mixed into the output.
inline void pingPongFrame(float* inLeft, float* inRight, float wetL, float wetR, float fb, float wetMix,
                          float& writeL, float& writeR) noexcept {
    const float inL = *inLeft;
    if (inRight != nullptr) {
        const float inR = *inRight;
        writeL = spaceSoftLimit((inL + inR) * 0.5f + fb * wetR);
        *inRight = inR + wetMix * (wetR - inR);
        *inLeft = inL + wetMix * (wetL - inL);
    } else {
        writeL = spaceSoftLimit(inL + fb * wetR);
        *inLeft = inL + wetMix * (wetL + wetR - inL);
    }
    writeR = spaceSoftLimit(fb * wetL);
}

} // namespace

DelayProcessor::DelayProcessor() = default;

void DelayProcessor::apply(const EffectSettings& settings) noexcept {
    const auto* delay = settings.as<DelaySettings>();
    if (delay == nullptr)
        return;
    settings_ = *delay;
    if (isPrepared_)
        retarget();
}

double DelayProcessor::targetFrames(int index) const {
    const DelayTargets t = targetsOf(settings_);
    const double ratio = index % 2 == 0 ? 1.0 : t.ratio;
    return std::max(sampleRate_ * ratio * t.timeMs / 1000, 2.0);
}

void DelayProcessor::retarget() {
    for (int l = 0; l < lineCount_; ++l)
        lines_[l].target = targetFrames(l);
}

int DelayProcessor::tailFrames() const {
    const DelayTargets t = targetsOf(settings_);
    double longest = targetFrames(0);
    if (t.pingPong || preparedChannels_ >= 2)
        longest = std::max(longest, targetFrames(1));
    const double repeats = t.feedback <= 0.001 ? 1 : std::ceil(-3 / std::log10(t.feedback)) + 1;
    return static_cast<int>(sampleRate_ * std::min(longest * repeats / sampleRate_ + 0.05, 30.0));
}

void DelayProcessor::doPrepare(double sampleRate, int channelCount, int /*maxFrames*/) {
    isPrepared_ = false;
    // A rate that is no rate runs as 48 kHz rather than sizing lines and filters from nonsense.
    if (!(sampleRate > 0 && sampleRate < 1e7))
        sampleRate = 48000;
    sampleRate_ = sampleRate;
    preparedChannels_ = std::max(1, channelCount);
    lineCount_ = (preparedChannels_ + 1) / 2 * 2;
    // An odd line may be four times the longest even time.
    const uint32_t evenLength = lineLength(4, sampleRate);
    const uint32_t oddLength = lineLength(16, sampleRate);
    offsets_ = SpaceStorage<uint32_t>(lineCount_);
    masks_ = SpaceStorage<uint32_t>(lineCount_);
    lines_ = SpaceStorage<Line>(lineCount_);
    int64_t total = 0;
    for (int l = 0; l < lineCount_; ++l) {
        const uint32_t length = l % 2 == 0 ? evenLength : oddLength;
        offsets_[l] = static_cast<uint32_t>(total);
        masks_[l] = length - 1;
        total += length;
    }
    storage_ = SpaceStorage<float>(total, 0.0f);
    glideCoefficient_ = 1 - std::exp(-1 / (sampleRate * 0.1));
    tickCoefficient_ = spaceTickCoefficient(sampleRate, 0.03);
    isPrepared_ = true;
}

void DelayProcessor::doReset() noexcept {
    const DelayTargets t = targetsOf(settings_);
    feedback_.jump(static_cast<float>(t.feedback));
    mix_.jump(static_cast<float>(t.mix));
    lowCutHz_ = t.lowCutHz;
    highCutHz_ = t.highCutHz;
    lowCutCoefficients_ = SpaceSVFCoefficients(lowCutHz_, filterQ, sampleRate_);
    highCutCoefficients_ = SpaceSVFCoefficients(highCutHz_, filterQ, sampleRate_);
    if (!isPrepared_)
        return;
    storage_.clear();
    writeIndex_ = 0;
    controlPhase_ = 0;
    for (int l = 0; l < lineCount_; ++l) {
        const double target = targetFrames(l);
        lines_[l] = Line{.delay = target, .glide = target, .target = target, .lowCut = {}, .highCut = {}};
    }
}

void DelayProcessor::controlTick() {
    const DelayTargets t = targetsOf(settings_);
    const auto toward = [this](float from, double to) {
        return static_cast<float>(from + (to - from) * tickCoefficient_);
    };
    feedback_.advance(toward(feedback_.end, t.feedback));
    mix_.advance(toward(mix_.end, t.mix));
    // A cutoff at its target keeps its filter; one within a hair of it lands there.
    const auto glideCutoff = [this](double& hz, double target, SpaceSVFCoefficients& coefficients) {
        if (hz == target)
            return;
        hz *= std::pow(target / hz, tickCoefficient_);
        if (std::abs(hz / target - 1) < 1e-9)
            hz = target;
        coefficients = SpaceSVFCoefficients(hz, filterQ, sampleRate_);
    };
    glideCutoff(lowCutHz_, t.lowCutHz, lowCutCoefficients_);
    glideCutoff(highCutHz_, t.highCutHz, highCutCoefficients_);
    // A glide that has come within a hair of its target lands on it, so that a still line runs
    // the path with a fixed read point; the step is far below anything audible.
    for (int l = 0; l < lineCount_; ++l) {
        Line& line = lines_[l];
        if (std::abs(line.glide - line.target) < 1e-6 && std::abs(line.delay - line.target) < 1e-6) {
            line.glide = line.target;
            line.delay = line.target;
        }
    }
}

void DelayProcessor::doProcess(ChannelSpan channels) noexcept {
    if (!isPrepared_ || channels.frameCount() < 1)
        return;
    const int used = std::min(preparedChannels_, channels.channelCount());
    for (int done = 0; done < channels.frameCount();) {
        if (controlPhase_ == 0)
            controlTick();
        const int frames = std::min(channels.frameCount() - done, spaceTickFrames - controlPhase_);
        for (int left = 0; left < used; left += 2) {
            float* inRight = left + 1 < used ? channels.channel(left + 1) + done : nullptr;
            runPair(left, channels.channel(left) + done, inRight, frames);
        }
        writeIndex_ += static_cast<uint32_t>(frames);
        controlPhase_ = (controlPhase_ + frames) % spaceTickFrames;
        done += frames;
    }
}

void DelayProcessor::runPair(int left, float* inLeft, float* inRight, int frames) {
    if (settings_.pingPong)
        isStill(left, 2) ? runStillPingPong(left, inLeft, inRight, frames)
                         : runPingPong(left, inLeft, inRight, frames);
    else if (inRight == nullptr)
        isStill(left, 1) ? runStillLines<1>(left, {inLeft, nullptr}, frames)
                         : runLines<1, false>(left, {inLeft, nullptr}, frames);
    else
        isStill(left, 2) ? runStillLines<2>(left, {inLeft, inRight}, frames)
                         : runLines<2, false>(left, {inLeft, inRight}, frames);
}

bool DelayProcessor::isStill(int first, int count) const {
    for (int l = first; l < first + count; ++l)
        if (lines_[l].delay != lines_[l].target || lines_[l].glide != lines_[l].target)
            return false;
    return true;
}

// Still lines longer than a tick run in three passes over the stretch, with the same arithmetic
// frame by frame as the frame loops: every read of the stretch lies behind its writes, so the
// reads and the writes run as plain loops the compiler vectorises, and only the filters stay
// serial (the two lines side by side).
bool DelayProcessor::canRunInPasses(int first, int count) const {
    for (int l = first; l < first + count; ++l)
        if (lines_[l].delay < spaceTickFrames + 1)
            return false;
    return true;
}

// The reads of the lines from `first` over the stretch, through their filters, into `wet`.
template <size_t count> void DelayProcessor::readFiltered(int first, int frames, StretchLanes<count>& wet) {
    const uint32_t w0 = writeIndex_;
    for (size_t j = 0; j < count; ++j) {
        const int l = first + static_cast<int>(j);
        const float* const d = storage_.pointer() + offsets_[l];
        const uint32_t mask = masks_[l];
        const auto whole = static_cast<int>(lines_[l].delay);
        const auto t = static_cast<float>(whole - lines_[l].delay + 1.0);
        const uint32_t from = (w0 - static_cast<uint32_t>(whole) - 2) & mask;
        float* const out = wet[j].data();
        if (from + static_cast<uint32_t>(frames) + 3 <= mask + 1) {
            const float* const p = d + from;
            for (int k = 0; k < frames; ++k)
                out[k] = spaceCubic(p[k], p[k + 1], p[k + 2], p[k + 3], t);
        } else {
            for (int k = 0; k < frames; ++k) {
                const uint32_t at = from + static_cast<uint32_t>(k);
                out[k] =
                    spaceCubic(d[at & mask], d[(at + 1) & mask], d[(at + 2) & mask], d[(at + 3) & mask], t);
            }
        }
    }
    const SpaceSVFCoefficients high = highCutCoefficients_;
    const SpaceSVFCoefficients low = lowCutCoefficients_;
    std::array<SpaceSVFState, count> highState;
    std::array<SpaceSVFState, count> lowState;
    for (size_t j = 0; j < count; ++j) {
        highState[j] = lines_[first + static_cast<int>(j)].highCut;
        lowState[j] = lines_[first + static_cast<int>(j)].lowCut;
    }
    for (size_t k = 0; k < static_cast<size_t>(frames); ++k)
        for (size_t j = 0; j < count; ++j)
            wet[j][k] = lowState[j].highPass(low, highState[j].lowPass(high, wet[j][k]));
    for (size_t j = 0; j < count; ++j) {
        lines_[first + static_cast<int>(j)].highCut = highState[j];
        lines_[first + static_cast<int>(j)].lowCut = lowState[j];
    }
}

template <size_t count>
void DelayProcessor::runStillLines(int first, std::array<float*, 2> samples, int frames) {
    if (!canRunInPasses(first, static_cast<int>(count)))
        return runLines<count, true>(first, samples, frames);
    StretchLanes<count> wet;
    readFiltered<count>(first, frames, wet);
    const SpaceRamp feedback = feedback_;
    const SpaceRamp mix = mix_;
    for (size_t j = 0; j < count; ++j) {
        const int l = first + static_cast<int>(j);
        float* const d = storage_.pointer() + offsets_[l];
        const uint32_t mask = masks_[l];
        const float* const in = wet[j].data();
        float* const io = samples[j];
        const uint32_t to = writeIndex_ & mask;
        const auto step = [&](int k, float& slot) {
            const int phase = controlPhase_ + k;
            const float x = io[k];
            slot = spaceSoftLimit(x + feedback.value(phase) * in[k]);
            io[k] = x + mix.value(phase) * (in[k] - x);
        };
        if (to + static_cast<uint32_t>(frames) <= mask + 1) {
            float* const p = d + to;
            for (int k = 0; k < frames; ++k)
                step(k, p[k]);
        } else {
            for (int k = 0; k < frames; ++k)
                step(k, d[(to + static_cast<uint32_t>(k)) & mask]);
        }
    }
}

// Ping-pong over still lines, in the passes above.
void DelayProcessor::runStillPingPong(int left, float* inLeft, float* inRight, int frames) {
    if (!canRunInPasses(left, 2)) {
        runPingPong(left, inLeft, inRight, frames);
        return;
    }
    StretchLanes<2> wet;
    readFiltered<2>(left, frames, wet);
    float* const dataL = storage_.pointer() + offsets_[left];
    float* const dataR = storage_.pointer() + offsets_[left + 1];
    const uint32_t maskL = masks_[left];
    const uint32_t maskR = masks_[left + 1];
    for (int k = 0; k < frames; ++k) {
        const int phase = controlPhase_ + k;
        const uint32_t w = writeIndex_ + static_cast<uint32_t>(k);
        const float wetL = wet[0][static_cast<size_t>(k)];
        const float wetR = wet[1][static_cast<size_t>(k)];
        const float fb = feedback_.value(phase);
        const float wetMix = mix_.value(phase);
        pingPongFrame(inLeft + k, inRight ? inRight + k : nullptr, wetL, wetR, fb, wetMix, dataL[w & maskL],
                      dataR[w & maskR]);
    }
}

namespace {

// The two cascaded glide stages of a line's time, one frame.
inline void glideStep(double& delay, double& glide, double target, double coefficient) {
    glide += coefficient * (target - glide);
    delay += coefficient * (glide - delay);
}

} // namespace

// Each channel through its own line, the `count` lines from `first` side by side in one loop: their
// filters are serial chains, so two of them interleave at the cost of one. `still` lines skip the
// glide (it would leave them as they are) and read at a fixed distance.
template <size_t count, bool still>
void DelayProcessor::runLines(int first, std::array<float*, 2> samples, int frames) {
    std::array<Line, count> line;
    std::array<float*, count> data;
    std::array<uint32_t, count> mask;
    for (size_t j = 0; j < count; ++j) {
        line[j] = lines_[first + static_cast<int>(j)];
        data[j] = storage_.pointer() + offsets_[first + static_cast<int>(j)];
        mask[j] = masks_[first + static_cast<int>(j)];
    }
    const SpaceSVFCoefficients high = highCutCoefficients_;
    const SpaceSVFCoefficients low = lowCutCoefficients_;
    const SpaceRamp feedback = feedback_;
    const SpaceRamp mix = mix_;
    const double glideCoefficient = glideCoefficient_;
    std::array<uint32_t, count> distance{};
    std::array<float, count> t{};
    for (size_t j = 0; j < count; ++j) {
        const auto whole = static_cast<int>(line[j].delay);
        distance[j] = static_cast<uint32_t>(whole);
        t[j] = static_cast<float>(whole - line[j].delay + 1.0);
    }
    for (int k = 0; k < frames; ++k) {
        const int phase = controlPhase_ + k;
        const uint32_t w = writeIndex_ + static_cast<uint32_t>(k);
        const float fb = feedback.value(phase);
        const float wetMix = mix.value(phase);
        for (size_t j = 0; j < count; ++j) {
            Line& l = line[j];
            float read;
            if constexpr (still) {
                const float* d = data[j];
                const uint32_t m = mask[j];
                const uint32_t at = w - distance[j];
                read = spaceCubic(d[(at - 2) & m], d[(at - 1) & m], d[at & m], d[(at + 1) & m], t[j]);
            } else {
                glideStep(l.delay, l.glide, l.target, glideCoefficient);
                read = spaceCubicRead(data[j], mask[j], w, l.delay);
            }
            const float wet = l.lowCut.highPass(low, l.highCut.lowPass(high, read));
            const float in = samples[j][k];
            data[j][w & mask[j]] = spaceSoftLimit(in + fb * wet);
            samples[j][k] = in + wetMix * (wet - in);
        }
    }
    for (size_t j = 0; j < count; ++j)
        lines_[first + static_cast<int>(j)] = line[j];
}

void DelayProcessor::runPingPong(int left, float* inLeft, float* inRight, int frames) {
    Line lineL = lines_[left];
    Line lineR = lines_[left + 1];
    float* const dataL = storage_.pointer() + offsets_[left];
    float* const dataR = storage_.pointer() + offsets_[left + 1];
    const uint32_t maskL = masks_[left];
    const uint32_t maskR = masks_[left + 1];
    const SpaceSVFCoefficients high = highCutCoefficients_;
    const SpaceSVFCoefficients low = lowCutCoefficients_;
    const SpaceRamp feedback = feedback_;
    const SpaceRamp mix = mix_;
    const double glideCoefficient = glideCoefficient_;
    for (int k = 0; k < frames; ++k) {
        const int phase = controlPhase_ + k;
        const uint32_t w = writeIndex_ + static_cast<uint32_t>(k);
        glideStep(lineL.delay, lineL.glide, lineL.target, glideCoefficient);
        glideStep(lineR.delay, lineR.glide, lineR.target, glideCoefficient);
        const float wetL = lineL.lowCut.highPass(
            low, lineL.highCut.lowPass(high, spaceCubicRead(dataL, maskL, w, lineL.delay)));
        const float wetR = lineR.lowCut.highPass(
            low, lineR.highCut.lowPass(high, spaceCubicRead(dataR, maskR, w, lineR.delay)));
        const float fb = feedback.value(phase);
        const float wetMix = mix.value(phase);
        pingPongFrame(inLeft + k, inRight ? inRight + k : nullptr, wetL, wetR, fb, wetMix, dataL[w & maskL],
                      dataR[w & maskR]);
    }
    lines_[left] = lineL;
    lines_[left + 1] = lineR;
}

} // namespace harlune
