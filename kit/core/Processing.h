#pragma once

#include "base/ChannelSet.h"
#include "base/EffectProcessor.h"
#include "core/AudioContent.h"
#include "core/GainEnvelope.h"
#include "dsp/effects/EffectRenderer.h"

#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace harlune {

/// The sample-changing operations on content. Each returns a new content and leaves its argument
/// intact. Those that change samples in place go through `AudioContent::transformed` in chunks
/// of 65536 frames, so frames outside the range keep their blocks. An absent `range` means the
/// whole content (a given one is clamped); absent `channels` means all channels. Only
/// `applyingEffects` can fail.

enum class FadeShape { linear, logarithmic, exponential, sCurve, equalPower };

std::span<const FadeShape> allFadeShapes();
/// "linear", "logarithmic", "exponential", "sCurve", "equalPower".
std::string_view rawValue(FadeShape shape);
std::optional<FadeShape> fadeShapeFromRawValue(std::string_view raw);
std::string_view displayName(FadeShape shape);
/// The shape's gain at `t`, clamped to 0...1 first; computed in double, stored as float.
float gain(FadeShape shape, double t);
/// The raw value as a JSON string; an unknown one throws nlohmann::json::exception.
void to_json(nlohmann::json& json, FadeShape shape);
void from_json(const nlohmann::json& json, FadeShape& shape);

enum class FadeDirection { fadeIn, fadeOut };

/// What happens to an effect's tail when processing a range.
enum class EffectTailMode { mixIntoFollowing, truncate };

/// "mixIntoFollowing", "truncate".
std::string_view rawValue(EffectTailMode mode);
std::optional<EffectTailMode> effectTailModeFromRawValue(std::string_view raw);

/// Multiplied by 10^(db/20), as one float.
AudioContent applyingGain(const AudioContent& content, double db,
                          std::optional<FrameRange> range = std::nullopt,
                          const std::optional<ChannelSet>& channels = std::nullopt);
/// A gain ramped straight in dB from the range's first frame to its last.
AudioContent applyingGainRamp(const AudioContent& content, double fromDB, double toDB,
                              std::optional<FrameRange> range = std::nullopt,
                              const std::optional<ChannelSet>& channels = std::nullopt);
/// A fade in starts at silence and ends unchanged at the range's last frame; a fade out the reverse.
AudioContent applyingFade(const AudioContent& content, FadeDirection direction, FadeShape shape,
                          std::optional<FrameRange> range = std::nullopt,
                          const std::optional<ChannelSet>& channels = std::nullopt);
/// The absolute peak per channel, from the summaries; 0 for no frames.
std::vector<float> samplePeaks(const AudioContent& content, std::optional<FrameRange> range = std::nullopt);
/// Brings the range's peak to `toDB` dBFS, up or down: one gain for the active channels, or one
/// per channel with `independentChannels`. A silent range is left alone.
AudioContent normalizingPeak(const AudioContent& content, double toDB,
                             std::optional<FrameRange> range = std::nullopt,
                             const std::optional<ChannelSet>& channels = std::nullopt,
                             bool independentChannels = false);
AudioContent inverted(const AudioContent& content, std::optional<FrameRange> range = std::nullopt,
                      const std::optional<ChannelSet>& channels = std::nullopt);
/// Zeros. For all channels the range is replaced by new silent blocks without reading it.
AudioContent silenced(const AudioContent& content, FrameRange range,
                      const std::optional<ChannelSet>& channels = std::nullopt);
/// The mean per channel over the range; zeros for an empty range.
std::vector<double> dcOffsets(const AudioContent& content, std::optional<FrameRange> range = std::nullopt);
/// Each active channel minus its mean over the range.
AudioContent removingDCOffset(const AudioContent& content, std::optional<FrameRange> range = std::nullopt,
                              const std::optional<ChannelSet>& channels = std::nullopt);
/// The range played backwards in the active channels; ranges under 2 frames change nothing.
AudioContent reversed(const AudioContent& content, std::optional<FrameRange> range = std::nullopt,
                      const std::optional<ChannelSet>& channels = std::nullopt);
/// Fewer channels: each the mean of the source channels d, d + n, d + 2n...; more: channel d is
/// a copy of source channel d modulo the source count. `toChannelCount` must be at least 1.
AudioContent remixed(const AudioContent& content, int toChannelCount);
/// Only the range, with channel i taken from source channel `order[i]`. `order` must be non-empty
/// and name existing channels.
AudioContent rearrangingChannels(const AudioContent& content, std::span<const int> order,
                                 std::optional<FrameRange> range = std::nullopt);

/// The range run through `processors` (rendered in 4096-frame blocks, latency compensated). All
/// channels are processed; inactive ones are then put back from the original, and get zeros in
/// the tail. With `mixIntoFollowing` the tail (up to 30 s) is mixed over what follows, growing
/// the content if needed. Throws what the render throws, the content untouched.
AudioContent applyingEffects(const AudioContent& content,
                             std::span<const std::shared_ptr<EffectProcessor>> processors,
                             std::optional<FrameRange> range, const std::optional<ChannelSet>& channels,
                             EffectTailMode tail, const EffectRenderer::Progress& progress = {});

/// The frame nearest `frame` (within `radius`) where the sum of all channels crosses zero or is
/// zero; at equal distance the earlier one wins. `frame` itself when none qualifies.
int64_t nearestZeroCrossing(const AudioContent& content, int64_t frame, int64_t radius);

/// The content with the curve rendered into new blocks; the same content when the curve is flat.
AudioContent applyingEnvelope(const AudioContent& content, const GainEnvelope& envelope);
/// The content with the set rendered into new blocks; the same content when the set is flat.
AudioContent applyingEnvelopes(const AudioContent& content, const EnvelopeSet& envelopes);

} // namespace harlune
