#pragma once

#include <algorithm>
#include <cstdint>

namespace harlune {

/// A half-open range of frame indices, `lower ..< upper`. Frames are signed 64-bit so that
/// positions before the start (a grid's negative beats, a read that runs off the front) need no
/// special type.
struct FrameRange {
    int64_t lower = 0;
    int64_t upper = 0;

    constexpr FrameRange() = default;
    constexpr FrameRange(int64_t lowerBound, int64_t upperBound) : lower(lowerBound), upper(upperBound) {}

    constexpr int64_t length() const { return upper - lower; }
    constexpr bool isEmpty() const { return upper <= lower; }
    constexpr bool contains(int64_t frame) const { return frame >= lower && frame < upper; }
    constexpr bool contains(FrameRange other) const { return other.lower >= lower && other.upper <= upper; }
    constexpr bool overlaps(FrameRange other) const { return other.lower < upper && lower < other.upper; }

    /// Both ends limited to `bounds` (a closed interval of positions), never inverted.
    constexpr FrameRange clamped(FrameRange bounds) const {
        const int64_t lo = std::clamp(lower, bounds.lower, bounds.upper);
        const int64_t hi = std::clamp(upper, bounds.lower, bounds.upper);
        return {lo, std::max(lo, hi)};
    }

    constexpr FrameRange shifted(int64_t by) const { return {lower + by, upper + by}; }

    friend constexpr bool operator==(FrameRange, FrameRange) = default;
};

} // namespace harlune
