#pragma once

#include "base/AudioFormats.h"
#include "base/AudioSource.h"
#include "base/FunctionRef.h"

#include <optional>

namespace harlune {

/// Takes the fraction decoded (0...1) and answers whether to go on; false cancels.
using DecodeProgress = std::optional<FunctionRef<bool(double)>>;
/// Called once, before the first chunk, with the stream's description; may throw.
using DecodeFormatCallback = FunctionRef<void(const AudioFileInfo&)>;
/// One read-only view per channel, valid only during the call; at most 32768 frames; may throw.
using DecodeChunkCallback = FunctionRef<void(ChunkViews)>;

/// Frames per chunk on every decode road.
inline constexpr int64_t decodeChunkFrames = 32768;

} // namespace harlune
