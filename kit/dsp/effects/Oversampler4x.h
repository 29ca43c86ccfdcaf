#pragma once

#include "dsp/effects/HalfbandDesign.h"

#include <vector>

namespace harlune {

/// Raises one channel to four times its rate and brings it back, in two half-band stages
/// (1x to 2x with 83 taps, 2x to 4x with 23 taps, both 90 dB), polyphase so that only the
/// non-zero taps are ever multiplied. The way up and the way down together delay by exactly
/// `latencyFrames` base-rate frames: the four filters alone would give 46.5, so the first
/// stage's decimator keeps the other (later) phase, which adds half a frame. An integer delay
/// lets a plain delay line carry the dry signal in step, so a dry/wet mix does not comb.
///
/// Buffers are made by the constructor for blocks of up to `maxFrames` frames; `upsample`,
/// `downsample` and `clear` allocate nothing. Each call moves the filters' histories on, so a
/// stream may be cut into blocks anywhere and gives the same samples.
class Oversampler4x {
public:
    static constexpr int factor = 4;
    static constexpr int latencyFrames = 47;

    Oversampler4x(int maxFrames);

    /// The two designs, made once for the whole program.
    static const HalfbandDesign& firstDesign();
    static const HalfbandDesign& secondDesign();

    /// `frames` (<= `maxFrames`) samples in; 4 * `frames` samples at four times the rate come
    /// out in `oversampled()`, where they may be changed before `downsample`.
    void upsample(const float* input, int frames) noexcept;
    float* oversampled() noexcept { return os_.data(); }
    /// 4 * `frames` samples of `oversampled()` back to `frames` samples in `output`.
    void downsample(float* output, int frames) noexcept;

    /// Silences every history.
    void clear() noexcept;

    int maxFrames() const { return maxFrames_; }

private:
    /// One factor of two, both ways.
    struct Stage {
        int tapCount = 0;
        int k = 0;
        /// Time-reversed, for a sum over a forward window.
        std::vector<float> taps;
        /// `taps` doubled: the interpolating phase of the way up (zero-stuffing halves the gain).
        std::vector<float> tapsUp;
        /// The way up: `upHistory` earlier inputs, then the block's.
        std::vector<float> upInput;
        int upHistory = 0;
        /// The way down: the even and odd samples of the fast side, each after `downHistory`
        /// earlier ones.
        std::vector<float> even;
        std::vector<float> odd;
        int downHistory = 0;
        /// Per output, the FIR's running sum.
        std::vector<float> fir;
        /// The way down takes the phase one fast sample later.
        bool latePhase = false;

        Stage(const HalfbandDesign& design, int maxInput, bool latePhase);
        void upsample(const float* input, int frames, float* output) noexcept;
        void downsample(const float* input, int frames, float* output) noexcept;
        void clear() noexcept;
    };

    int maxFrames_;
    Stage s1_;
    Stage s2_;
    /// 4 * `maxFrames`.
    std::vector<float> os_;
    /// 2 * `maxFrames`.
    std::vector<float> mid_;
};

} // namespace harlune
