#pragma once

#include "base/AudioSource.h"
#include "base/FrameRange.h"
#include "base/FunctionRef.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace harlune {

/// Changes the length of audio, its pitch, or both, offline, with Rubber Band.
///
/// One stretcher carries all channels together, so they cannot slip against each other, and it
/// is told the input length before it starts, so it keeps to the nominal time line by itself:
/// an offline stretcher needs no drift control. Its own rounding of the length can differ by a
/// frame from ours, so the output is padded or trimmed to exactly round(length ÷ rate).
namespace TimePitch {

/// The stretching engine.
enum class Engine {
    /// Rubber Band R3: the better sound, several times the work.
    finer,
    /// Rubber Band R2: faster, with more smearing of transients and phasiness on tonal material.
    faster,
};

/// "finer" or "faster": how the engine choice is stored and typed on a command line.
std::string_view rawValue(Engine engine);
/// The engine of a raw value; none for any other text.
std::optional<Engine> engineFromRawValue(std::string_view raw);

/// Takes the fraction of the output delivered and answers whether to go on.
using Progress = std::optional<FunctionRef<bool(double)>>;
/// Receives the output in order, in chunks of at most `chunkFrames`: one view per channel, valid
/// only during the call.
using Emit = FunctionRef<void(ChunkViews)>;

inline constexpr double minimumRate = 0.25;
inline constexpr double maximumRate = 4.0;
inline constexpr double maximumCents = 2400.0;
inline constexpr int64_t chunkFrames = 4096;

/// round(frames ÷ rate), halves away from zero: the length of a render.
int64_t outputFrameCount(int64_t inputFrames, double rate);

/// Renders `range` (the full range when absent; clamped to it) played `rate` times as fast
/// (1.25 is 25 % shorter) and shifted by `pitchCents`, into `emit`: exactly `outputFrameCount`
/// frames. A rate outside 0.25...4 or a shift beyond ±2400 cents throws `unsupportedFormat`;
/// `progress` false ends the work with `HarluneError::cancelled`; what `emit` throws passes on.
void render(const AudioSource& source, std::optional<FrameRange> range, double rate, double pitchCents,
            Progress progress, Emit emit, Engine engine = Engine::finer);

} // namespace TimePitch

} // namespace harlune
