#pragma once

#include <optional>
#include <vector>

namespace harlune {

/// Standard speaker arrangements by channel count, and the fold-down used when a format carries
/// fewer channels than the source. The arrangements follow the usual film order:
/// 3 = L R C, 4 = L R Ls Rs, 5 = L R C Ls Rs, 6 = L R C LFE Ls Rs, 7 = L R C LFE Cs Ls Rs,
/// 8 = L R C LFE Ls Rs Lrs Rrs.
namespace ChannelLayouts {

/// Layout tags: the channel count in the low 16 bits, the layout number in the high 16 bits.
/// None for counts outside 1...8.
std::optional<unsigned> canonicalTag(int channels);
std::optional<unsigned> alacTag(int channels);
std::optional<unsigned> aacTag(int channels);

/// One row per output channel, each holding one gain per input channel (1 <= outputs < inputs).
/// Rows whose gains sum above 1 are divided by that sum, so a full-scale correlated signal never
/// clips.
std::vector<std::vector<float>> downmixMatrix(int inputs, int outputs);

} // namespace ChannelLayouts

} // namespace harlune
