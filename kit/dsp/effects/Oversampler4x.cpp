#include "dsp/effects/Oversampler4x.h"

#include "base/Vectorize.h"

#include <algorithm>

namespace harlune {

namespace {

// fir[i] = sum over j of taps[j] * window[i + j], for i < frames: outputs outermost in the
// vector lanes, taps in order, so each output's sum is formed in the same order however the
// stream is cut into blocks.
HARLUNE_VECTOR_CLONES void runFIR(const float* taps, int tapCount, const float* window, int frames,
                                  float* fir) noexcept {
    std::fill_n(fir, frames, 0.0f);
    for (int j = 0; j < tapCount; ++j) {
        const float tap = taps[j];
        const float* from = window + j;
        for (int i = 0; i < frames; ++i)
            fir[i] += tap * from[i];
    }
}

} // namespace

const HalfbandDesign& Oversampler4x::firstDesign() {
    static const HalfbandDesign design = HalfbandDesign::make(20, 90);
    return design;
}

const HalfbandDesign& Oversampler4x::secondDesign() {
    static const HalfbandDesign design = HalfbandDesign::make(5, 90);
    return design;
}

Oversampler4x::Stage::Stage(const HalfbandDesign& design, int maxInput, bool late)
    : tapCount(design.tapCount), k(design.k), taps(design.taps.rbegin(), design.taps.rend()),
      upHistory(2 * design.k + 1), downHistory(2 * design.k + 2), latePhase(late) {
    tapsUp.reserve(taps.size());
    for (const float tap : taps)
        tapsUp.push_back(2 * tap);
    upInput.assign(static_cast<size_t>(upHistory + maxInput), 0.0f);
    even.assign(static_cast<size_t>(downHistory + maxInput), 0.0f);
    odd.assign(static_cast<size_t>(downHistory + maxInput), 0.0f);
    fir.assign(static_cast<size_t>(maxInput), 0.0f);
}

// Zero-stuffed and filtered: the even outputs are the FIR over the inputs, the odd ones fall on
// the centre tap (1 after doubling) and are the input delayed by k. Delay: 2k + 1 fast samples.
void Oversampler4x::Stage::upsample(const float* input, int frames, float* output) noexcept {
    float* line = upInput.data();
    std::copy_n(input, frames, line + upHistory);
    runFIR(tapsUp.data(), static_cast<int>(tapsUp.size()), line, frames, fir.data());
    const float* centre = line + k + 1;
    for (int i = 0; i < frames; ++i) {
        output[2 * i] = fir[static_cast<size_t>(i)];
        output[2 * i + 1] = centre[i];
    }
    std::copy_n(line + frames, upHistory, line);
}

// Filtered and every second sample kept: the FIR runs over one phase of the fast samples and
// the other phase meets the centre tap (0.5). The usual phase delays by 2k + 1 fast samples,
// the late one by 2k + 2.
void Oversampler4x::Stage::downsample(const float* input, int frames, float* output) noexcept {
    float* evens = even.data();
    float* odds = odd.data();
    for (int i = 0; i < frames; ++i) {
        evens[downHistory + i] = input[2 * i];
        odds[downHistory + i] = input[2 * i + 1];
    }
    const float* filtered = latePhase ? odds : evens + 1;
    const float* centre = (latePhase ? evens : odds) + k + 1;
    runFIR(taps.data(), static_cast<int>(taps.size()), filtered, frames, fir.data());
    for (int i = 0; i < frames; ++i)
        output[i] = fir[static_cast<size_t>(i)] + 0.5f * centre[i];
    std::copy_n(evens + frames, downHistory, evens);
    std::copy_n(odds + frames, downHistory, odds);
}

void Oversampler4x::Stage::clear() noexcept {
    std::fill(upInput.begin(), upInput.end(), 0.0f);
    std::fill(even.begin(), even.end(), 0.0f);
    std::fill(odd.begin(), odd.end(), 0.0f);
}

Oversampler4x::Oversampler4x(int maxFrames)
    : maxFrames_(std::max(maxFrames, 1)), s1_(firstDesign(), maxFrames_, true),
      s2_(secondDesign(), 2 * maxFrames_, false), os_(static_cast<size_t>(factor * maxFrames_)),
      mid_(static_cast<size_t>(2 * maxFrames_)) {}

void Oversampler4x::upsample(const float* input, int frames) noexcept {
    s1_.upsample(input, frames, mid_.data());
    s2_.upsample(mid_.data(), 2 * frames, os_.data());
}

void Oversampler4x::downsample(float* output, int frames) noexcept {
    s2_.downsample(os_.data(), 2 * frames, mid_.data());
    s1_.downsample(mid_.data(), frames, output);
}

void Oversampler4x::clear() noexcept {
    s1_.clear();
    s2_.clear();
}

} // namespace harlune
