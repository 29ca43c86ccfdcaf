#pragma once

#include "base/AudioSource.h"
#include "base/FrameRange.h"
#include "base/FunctionRef.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace harlune {

/// Changes the sample rate of a whole source at mastering quality, on all cores.
///
/// A converter is a stateful filter, so a long file cannot simply be cut in pieces. The range is
/// cut into segments whose borders fall on exact rate ratios (every inStep input frames give
/// exactly outStep output frames); each segment gets its own converter and some warm-up audio
/// ahead of it, whose output is thrown away; batches of as many segments as there are cores run
/// in parallel, and their output is emitted in order. So memory stays at a batch's worth, and
/// the result differs from one sequential pass only below the filter's settling error.
namespace Resampler {

/// One piece of a segment plan. Frames count from the start of the converted range.
struct Segment {
    /// First input frame this segment delivers output for.
    int64_t inputStart = 0;
    /// Input frames read ahead of `inputStart`.
    int64_t warmupFrames = 0;
    /// Output frames thrown away for the warm-up.
    int64_t warmupOutputFrames = 0;
    /// Output frames kept.
    int64_t outputFrames = 0;

    friend bool operator==(const Segment&, const Segment&) = default;
};

/// Takes a fraction of the work done and answers whether to go on.
using Progress = std::optional<FunctionRef<bool(double)>>;
/// Receives the output in order: one view per channel, valid only during the call.
using Emit = FunctionRef<void(ChunkViews)>;

/// round(to × frames ÷ from), halves away from zero.
int64_t outputFrameCount(int64_t inputFrames, double from, double to);

/// Converts `range` (the full range when absent; clamped to it) to the rate `to` in Hz, in
/// segments of 5 seconds. Every output frame goes through `emit`, in order, exactly
/// `outputFrameCount` of them. `progress` false ends the work with `HarluneError::cancelled`;
/// converter failures throw `unsupportedFormat` or `encodeFailed`; what `emit` throws passes on.
/// The source is read from several threads at once.
void resample(const AudioSource& source, std::optional<FrameRange> range, double to, Progress progress,
              Emit emit);
/// The same with a chosen segment length; 0 or less means one sequential pass.
void resample(const AudioSource& source, std::optional<FrameRange> range, double to, double segmentSeconds,
              Progress progress, Emit emit);

/// The segments of a split conversion of `frames` input frames giving `target` output frames,
/// or none when the rates are not whole numbers, or the range is too short to split.
std::optional<std::vector<Segment>> segmentPlan(int64_t frames, double from, double to, int64_t target,
                                                double segmentSeconds);

} // namespace Resampler

} // namespace harlune
