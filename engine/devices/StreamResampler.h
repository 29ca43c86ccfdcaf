#pragma once

#include "engine/AudioOutputDevice.h"

#include <array>
#include <cstdint>
#include <vector>

namespace harlune {

/// Converts what a `RenderSource` renders at one rate to a device's rate, on the audio thread,
/// for back ends that cannot open the content's rate. Cubic (Catmull-Rom) interpolation over a
/// short history: modest quality, no latency to speak of, no allocation after construction.
class StreamResampler {
public:
    static constexpr int maxChannels = 2;

    /// `source` must outlive the resampler. `channels` is 1 or 2.
    StreamResampler(RenderSource& source, int channels, double sourceRate, double deviceRate,
                    int sourceBlockFrames = 256);

    /// `frames` device frames into `outputs` (one pointer per channel). Sets `isSilence` only when
    /// every pull from the source was silent.
    void render(int frames, std::span<float* const> outputs, bool& isSilence) noexcept;

    double step() const { return step_; }

private:
    void pull() noexcept;

    RenderSource& source_;
    int channels_;
    double step_; ///< source frames per device frame
    int block_;
    std::array<std::vector<float>, maxChannels> history_;
    int64_t held_ = 1;    ///< frames in `history_`, the first being the frame before `position_`
    double position_ = 1; ///< read position in `history_`
    bool lastPullSilent_ = true;
};

} // namespace harlune
