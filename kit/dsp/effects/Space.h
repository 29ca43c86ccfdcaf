#pragma once

#include "base/Precondition.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <numbers>

namespace harlune {

/// The shared building blocks of the time-based effects (delay, chorus, reverb): storage that
/// `reset` can refill without allocating, per-tick linear ramps, and the state-variable filter.
/// Those effects run a control tick every `spaceTickFrames` frames, on a grid independent of the
/// caller's buffer sizes; costly work happens only at the tick.

inline constexpr int spaceTickFrames = 32;

/// A fixed array of plain elements with the value that means silence. A processor replaces a
/// whole storage in `prepare` and refills it with `zero` in `reset`.
template <class Element> class SpaceStorage {
public:
    /// `count` elements (at least 1), all `zero`.
    explicit SpaceStorage(int64_t count = 1, Element zero = Element{})
        : count_(std::max<int64_t>(count, 1)), zero_(zero),
          storage_(std::make_unique<Element[]>(static_cast<size_t>(count_))) {
        clear();
    }

    Element* pointer() const { return storage_.get(); }
    int64_t count() const { return count_; }
    const Element& zero() const { return zero_; }
    Element& operator[](int64_t index) const { return storage_[static_cast<size_t>(index)]; }
    /// Every element back to `zero`; no allocation.
    void clear() { std::fill(storage_.get(), storage_.get() + count_, zero_); }

private:
    int64_t count_;
    Element zero_;
    std::unique_ptr<Element[]> storage_;
};

/// A parameter going linearly from `start` to `end` across one control tick: the value at tick
/// phase i is `start + step * i`.
struct SpaceRamp {
    float start = 0;
    float end = 0;
    float step = 0;

    float value(int phase) const { return start + step * static_cast<float>(phase); }
    /// The next tick's ramp: from the last end to `next`.
    void advance(float next) {
        start = end;
        end = next;
        step = (next - start) * 0.03125f;
    }
    /// Holds `value` with no slide.
    void jump(float value) {
        start = value;
        end = value;
        step = 0;
    }
};

/// The one-pole step of a glide with time constant `seconds`, per control tick.
inline double spaceTickCoefficient(double sampleRate, double seconds) {
    return 1.0 - std::exp(-static_cast<double>(spaceTickFrames) / std::max(sampleRate * seconds, 1e-6));
}

/// Coefficients of the trapezoidal state-variable filter (Simper, "Linear trapezoidal
/// integrated state variable filter", 2013).
struct SpaceSVFCoefficients {
    float a1 = 1;
    float a2 = 0;
    float a3 = 0;
    float k = 1;

    SpaceSVFCoefficients() = default;
    /// The cutoff is limited to 1 Hz ... 0.49 of the rate; `q` is the resonance (0.7071 flat).
    SpaceSVFCoefficients(double cutoff, double q, double sampleRate) {
        const double f = std::min(std::max(cutoff, 1.0), 0.49 * sampleRate);
        const double g = std::tan(std::numbers::pi * f / sampleRate);
        const double kk = 1.0 / q;
        const double b1 = 1.0 / (1.0 + g * (g + kk));
        const double b2 = g * b1;
        a1 = static_cast<float>(b1);
        a2 = static_cast<float>(b2);
        a3 = static_cast<float>(g * b2);
        k = static_cast<float>(kk);
    }
};

/// The two integrator states of one filter.
struct SpaceSVFState {
    float ic1 = 0;
    float ic2 = 0;

    struct Output {
        float low;
        float band;
    };

    /// One step on input `x`.
    Output step(const SpaceSVFCoefficients& c, float x) {
        const float e = x - ic2;
        const float band = c.a1 * ic1 + c.a2 * e;
        const float low = ic2 + c.a2 * ic1 + c.a3 * e;
        ic1 = 2 * band - ic1;
        ic2 = 2 * low - ic2;
        return {low, band};
    }
    float lowPass(const SpaceSVFCoefficients& c, float x) { return step(c, x).low; }
    float highPass(const SpaceSVFCoefficients& c, float x) {
        const Output o = step(c, x);
        return x - c.k * o.band - o.low;
    }
};

} // namespace harlune

namespace harlune {

/// The Catmull-Rom cubic through four neighbouring samples of a delay line, oldest first, at
/// `t` in 0...1 from `p0` (t = 0) to `p1` (t = 1). A straight line comes out exact.
inline float spaceCubic(float pm, float p0, float p1, float p2, float t) {
    return p0 + t * ((p1 - pm) * 0.5f + t * ((pm - 2.5f * p0 + 2.0f * p1 - 0.5f * p2) +
                                             t * ((p0 - p1) * 1.5f + (p2 - pm) * 0.5f)));
}

/// A line of `mask` + 1 (a power of two) samples read `delay` (at least 2) frames behind the write
/// position `write`, between samples by the cubic above. Unsigned positions wrap with the mask.
inline float spaceCubicRead(const float* line, uint32_t mask, uint32_t write, double delay) {
    const auto whole = static_cast<int>(delay);
    const auto t = static_cast<float>(whole - delay + 1.0);
    const uint32_t at = write - static_cast<uint32_t>(whole);
    return spaceCubic(line[(at - 2) & mask], line[(at - 1) & mask], line[at & mask], line[(at + 1) & mask],
                      t);
}

/// The limiter of a feedback path: the identity up to 1 in magnitude, then a curve with slope 1
/// at 1 that never reaches 2, so that a loop cannot run away.
inline float spaceSoftLimit(float v) {
    const float a = std::fabs(v);
    if (a <= 1.0f)
        return v;
    return std::copysign((a - 1.0f) / a + 1.0f, v);
}

} // namespace harlune
