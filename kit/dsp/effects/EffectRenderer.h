#pragma once

#include "base/AudioSource.h"
#include "base/EffectProcessor.h"
#include "base/FunctionRef.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

namespace harlune::EffectRenderer {

/// Frames per `process` call when rendering offline.
inline constexpr int blockSize = 4096;

/// Fraction done in 0...1; answering false cancels. Empty means no progress reports.
using Progress = std::function<bool(double)>;
/// Receives each rendered chunk, one view per channel, to use before returning.
using Emit = FunctionRef<void(ChunkViews)>;

/// Runs `range` of `source` through `chain` in blocks of `blockSize` and hands the result to
/// `emit`. Every processor is prepared (source rate and channels, `blockSize`) and reset first.
/// The chain's latency is dropped from the front (extra frames of silence are run at the end),
/// so the output aligns frame for frame with the input. With `includeTail`, the chain's tail
/// follows, limited to `maxTailSeconds`. Returns the frames emitted. Throws what `prepare` or
/// `emit` throws, and `HarluneError::cancelled()` when `progress` answers false.
int64_t render(const AudioSource& source, FrameRange range,
               std::span<const std::shared_ptr<EffectProcessor>> chain, bool includeTail,
               double maxTailSeconds, const Progress& progress, Emit emit);

} // namespace harlune::EffectRenderer
