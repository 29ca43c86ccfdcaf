#include "core/Processing.h"

#include "base/Decibels.h"
#include "base/Precondition.h"
#include "core/AudioContentBuilder.h"
#include "core/EnvelopedSource.h"
#include "dsp/VectorMath.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>
#include <numbers>
#include <vector>

namespace harlune {

namespace {

constexpr int64_t chunkFrames = AudioBlock::preferredFrameCount;

struct FadeShapeRow {
    FadeShape shape;
    std::string_view raw;
    std::string_view displayName;
};

constexpr std::array<FadeShapeRow, 5> fadeShapes{{
    {FadeShape::linear, "linear", "Linear"},
    {FadeShape::logarithmic, "logarithmic", "Logarithmic (fast)"},
    {FadeShape::exponential, "exponential", "Exponential (slow)"},
    {FadeShape::sCurve, "sCurve", "S-Curve"},
    {FadeShape::equalPower, "equalPower", "Equal Power"},
}};

constexpr std::array<FadeShape, 5> allShapes{FadeShape::linear, FadeShape::logarithmic,
                                             FadeShape::exponential, FadeShape::sCurve,
                                             FadeShape::equalPower};

FrameRange clampedRange(const AudioContent& content, std::optional<FrameRange> range) {
    return range.value_or(content.fullRange()).clamped(content.fullRange());
}

/// Multiplies the active channels of a range by a per-frame gain that `fill(gains, start, n)`
/// computes once per chunk.
template <class Fill>
AudioContent applyingSharedGain(const AudioContent& content, FrameRange range,
                                const std::optional<ChannelSet>& channels, Fill fill) {
    std::vector<float> gains(
        static_cast<size_t>(std::min(chunkFrames, std::max<int64_t>(range.length(), 1))));
    return content.transformed(range, channels, chunkFrames,
                               [&](std::span<const std::span<float>> views, int64_t start) {
                                   const auto n = static_cast<int64_t>(views.front().size());
                                   fill(gains.data(), start, n);
                                   for (const auto& channel : views)
                                       vec::multiply(channel.data(), gains.data(), n);
                               });
}

} // namespace

// FadeShape and friends -----------------------------------------------------------------------

std::span<const FadeShape> allFadeShapes() {
    return allShapes;
}
std::string_view rawValue(FadeShape shape) {
    return fadeShapes[static_cast<size_t>(shape)].raw;
}
std::string_view displayName(FadeShape shape) {
    return fadeShapes[static_cast<size_t>(shape)].displayName;
}

std::optional<FadeShape> fadeShapeFromRawValue(std::string_view raw) {
    for (const auto& row : fadeShapes)
        if (row.raw == raw)
            return row.shape;
    return std::nullopt;
}

float gain(FadeShape shape, double t) {
    const double x = std::clamp(t, 0.0, 1.0);
    switch (shape) {
    case FadeShape::linear:
        return static_cast<float>(x);
    case FadeShape::logarithmic:
        return static_cast<float>(1.0 - (1.0 - x) * (1.0 - x));
    case FadeShape::exponential:
        return static_cast<float>(x * x * x);
    case FadeShape::sCurve:
        return static_cast<float>(0.5 - 0.5 * std::cos(std::numbers::pi * x));
    case FadeShape::equalPower:
        return static_cast<float>(std::sin(std::numbers::pi * x / 2.0));
    }
    return static_cast<float>(x);
}

void to_json(nlohmann::json& json, FadeShape shape) {
    json = std::string(rawValue(shape));
}

void from_json(const nlohmann::json& json, FadeShape& shape) {
    const auto parsed = fadeShapeFromRawValue(json.get<std::string>());
    if (!parsed)
        throw nlohmann::json::other_error::create(501, "unknown fade shape", &json);
    shape = *parsed;
}

std::string_view rawValue(EffectTailMode mode) {
    return mode == EffectTailMode::mixIntoFollowing ? "mixIntoFollowing" : "truncate";
}

std::optional<EffectTailMode> effectTailModeFromRawValue(std::string_view raw) {
    if (raw == "mixIntoFollowing")
        return EffectTailMode::mixIntoFollowing;
    if (raw == "truncate")
        return EffectTailMode::truncate;
    return std::nullopt;
}

// Gain ----------------------------------------------------------------------------------------

AudioContent applyingGain(const AudioContent& content, double db, std::optional<FrameRange> range,
                          const std::optional<ChannelSet>& channels) {
    const auto factor = static_cast<float>(std::pow(10.0, db / 20.0));
    return content.transformed(clampedRange(content, range), channels, chunkFrames,
                               [&](std::span<const std::span<float>> views, int64_t) {
                                   for (const auto& channel : views)
                                       vec::scale(channel.data(), static_cast<int64_t>(channel.size()),
                                                  factor);
                               });
}

AudioContent applyingGainRamp(const AudioContent& content, double fromDB, double toDB,
                              std::optional<FrameRange> range, const std::optional<ChannelSet>& channels) {
    const FrameRange r = clampedRange(content, range);
    const auto denominator = static_cast<double>(std::max<int64_t>(r.length() - 1, 1));
    return applyingSharedGain(content, r, channels, [&](float* gains, int64_t start, int64_t n) {
        for (int64_t i = 0; i < n; ++i) {
            const double db =
                fromDB + (toDB - fromDB) * static_cast<double>(start + i - r.lower) / denominator;
            gains[i] = static_cast<float>(std::pow(10.0, db / 20.0));
        }
    });
}

namespace {

/// The gains of frames `first ..< first + n` of a fade (frame indices from the range's start),
/// equal to `gain(shape, t)` to float precision. The trigonometric shapes would cost a libm call
/// per frame; instead cos and sin are taken directly once per 64 frames and turned by a table of
/// 64 small angles (the angle-sum identities, in double), which vectorises. The range's first
/// and last frames are computed directly, so a fade starts and ends exactly.
void fillFadeGains(float* out, FadeShape shape, FadeDirection direction, int64_t first, int64_t n,
                   double denominator, int64_t lastIndex) {
    const bool fadeOut = direction == FadeDirection::fadeOut;
    const auto base = static_cast<double>(first);
    switch (shape) {
    case FadeShape::linear:
    case FadeShape::logarithmic:
    case FadeShape::exponential:
        for (int32_t i = 0; i < static_cast<int32_t>(n); ++i) {
            double t = (base + static_cast<double>(i)) / denominator;
            t = fadeOut ? 1.0 - t : t;
            const double g = shape == FadeShape::linear        ? t
                             : shape == FadeShape::logarithmic ? 1.0 - (1.0 - t) * (1.0 - t)
                                                               : t * t * t;
            out[i] = static_cast<float>(g);
        }
        break;
    case FadeShape::sCurve:
    case FadeShape::equalPower: {
        // sCurve: 0.5 -/+ 0.5 cos(pi u); equalPower: sin(pi u / 2) in, cos(pi u / 2) out.
        const double step = shape == FadeShape::sCurve ? std::numbers::pi / denominator
                                                       : std::numbers::pi / (2.0 * denominator);
        constexpr int32_t span = 64;
        double cosTable[span];
        double sinTable[span];
        for (int32_t j = 0; j < span; ++j) {
            cosTable[j] = std::cos(step * j);
            sinTable[j] = std::sin(step * j);
        }
        for (int64_t b = 0; b < n; b += span) {
            const double angle = step * static_cast<double>(first + b);
            const double cb = std::cos(angle);
            const double sb = std::sin(angle);
            const auto count = static_cast<int32_t>(std::min<int64_t>(span, n - b));
            float* o = out + b;
            if (shape == FadeShape::sCurve) {
                const double sign = fadeOut ? 0.5 : -0.5;
                for (int32_t j = 0; j < count; ++j)
                    o[j] = static_cast<float>(0.5 + sign * (cb * cosTable[j] - sb * sinTable[j]));
            } else if (fadeOut) {
                for (int32_t j = 0; j < count; ++j)
                    o[j] = static_cast<float>(cb * cosTable[j] - sb * sinTable[j]);
            } else {
                for (int32_t j = 0; j < count; ++j)
                    o[j] = static_cast<float>(sb * cosTable[j] + cb * sinTable[j]);
            }
        }
        break;
    }
    }
    const auto exact = [&](int64_t index) {
        if (index >= first && index < first + n) {
            const double t = static_cast<double>(index) / denominator;
            out[index - first] = gain(shape, fadeOut ? 1.0 - t : t);
        }
    };
    exact(0);
    exact(lastIndex);
}

} // namespace

AudioContent applyingFade(const AudioContent& content, FadeDirection direction, FadeShape shape,
                          std::optional<FrameRange> range, const std::optional<ChannelSet>& channels) {
    const FrameRange r = clampedRange(content, range);
    const auto denominator = static_cast<double>(std::max<int64_t>(r.length() - 1, 1));
    return applyingSharedGain(content, r, channels, [&](float* gains, int64_t start, int64_t n) {
        fillFadeGains(gains, shape, direction, start - r.lower, n, denominator, r.length() - 1);
    });
}

// Peaks and normalising -----------------------------------------------------------------------

std::vector<float> samplePeaks(const AudioContent& content, std::optional<FrameRange> range) {
    const FrameRange r = clampedRange(content, range);
    std::vector<float> peaks(static_cast<size_t>(content.channelCount()), 0.0f);
    for (int c = 0; c < content.channelCount(); ++c) {
        const PeakSummary summary = content.peaks(c, r);
        if (!summary.isEmpty())
            peaks[static_cast<size_t>(c)] = std::max(std::abs(summary.min), std::abs(summary.max));
    }
    return peaks;
}

AudioContent normalizingPeak(const AudioContent& content, double toDB, std::optional<FrameRange> range,
                             const std::optional<ChannelSet>& channels, bool independentChannels) {
    const FrameRange r = clampedRange(content, range);
    const ChannelSet active = channels.value_or(allChannels(content.channelCount()));
    const double target = std::pow(10.0, toDB / 20.0);
    std::vector<float> peaks;
    for (const int c : active) {
        HARLUNE_PRECONDITION(c >= 0 && c < content.channelCount(), "normalizingPeak channel out of range");
        const PeakSummary summary = content.peaks(c, r);
        peaks.push_back(summary.isEmpty() ? 0.0f : std::max(std::abs(summary.min), std::abs(summary.max)));
    }

    if (!independentChannels) {
        const float peak = peaks.empty() ? 0.0f : *std::max_element(peaks.begin(), peaks.end());
        if (!(peak > 0))
            return content;
        return applyingGain(content, Decibels::fromLinear(target / peak), r, active);
    }

    std::vector<float> gains;
    for (const float peak : peaks)
        gains.push_back(peak > 0 ? static_cast<float>(target / peak) : 1.0f);
    if (std::all_of(gains.begin(), gains.end(), [](float g) { return g == 1.0f; }))
        return content;
    return content.transformed(r, active, chunkFrames, [&](std::span<const std::span<float>> views, int64_t) {
        for (size_t a = 0; a < views.size(); ++a)
            vec::scale(views[a].data(), static_cast<int64_t>(views[a].size()), gains[a]);
    });
}

// Sign, silence and DC ------------------------------------------------------------------------

AudioContent inverted(const AudioContent& content, std::optional<FrameRange> range,
                      const std::optional<ChannelSet>& channels) {
    return content.transformed(clampedRange(content, range), channels, chunkFrames,
                               [](std::span<const std::span<float>> views, int64_t) {
                                   for (const auto& channel : views)
                                       vec::scale(channel.data(), static_cast<int64_t>(channel.size()),
                                                  -1.0f);
                               });
}

AudioContent silenced(const AudioContent& content, FrameRange range,
                      const std::optional<ChannelSet>& channels) {
    const FrameRange r = range.clamped(content.fullRange());
    if (channels && *channels != allChannels(content.channelCount())) {
        return content.transformed(r, channels, chunkFrames,
                                   [](std::span<const std::span<float>> views, int64_t) {
                                       for (const auto& channel : views)
                                           std::fill(channel.begin(), channel.end(), 0.0f);
                                   });
    }
    if (r.isEmpty())
        return content;
    AudioContent result = content;
    result.replaceSubrange(r,
                           AudioContent::silence(r.length(), content.channelCount(), content.sampleRate()));
    return result;
}

std::vector<double> dcOffsets(const AudioContent& content, std::optional<FrameRange> range) {
    const FrameRange r = clampedRange(content, range);
    std::vector<double> sums(static_cast<size_t>(content.channelCount()), 0.0);
    if (r.isEmpty())
        return sums;
    content.forEachChunk(r, 32768, [&](ChunkViews views, int64_t) {
        for (size_t c = 0; c < views.size(); ++c)
            sums[c] += static_cast<double>(vec::sum(views[c].data(), static_cast<int64_t>(views[c].size())));
    });
    for (double& s : sums)
        s /= static_cast<double>(r.length());
    return sums;
}

AudioContent removingDCOffset(const AudioContent& content, std::optional<FrameRange> range,
                              const std::optional<ChannelSet>& channels) {
    const FrameRange r = clampedRange(content, range);
    const std::vector<double> offsets = dcOffsets(content, r);
    const ChannelSet active = channels.value_or(allChannels(content.channelCount()));
    std::vector<float> corrections;
    for (const int c : active) {
        HARLUNE_PRECONDITION(c >= 0 && c < content.channelCount(), "removingDCOffset channel out of range");
        corrections.push_back(static_cast<float>(-offsets[static_cast<size_t>(c)]));
    }
    return content.transformed(r, active, chunkFrames, [&](std::span<const std::span<float>> views, int64_t) {
        for (size_t a = 0; a < views.size(); ++a)
            vec::addScalar(views[a].data(), static_cast<int64_t>(views[a].size()), corrections[a]);
    });
}

// Reverse and channel layout ------------------------------------------------------------------

AudioContent reversed(const AudioContent& content, std::optional<FrameRange> range,
                      const std::optional<ChannelSet>& channels) {
    const FrameRange r = clampedRange(content, range);
    if (r.length() < 2)
        return content;
    const int channelCount = content.channelCount();
    const ChannelSet active = channels.value_or(allChannels(channelCount));
    for (const int c : active)
        HARLUNE_PRECONDITION(c >= 0 && c < channelCount, "reversed channel out of range");
    const bool allActive = static_cast<int>(active.size()) == channelCount;

    const auto capacity = static_cast<size_t>(std::min(chunkFrames, r.length()));
    std::vector<std::vector<float>> backward(static_cast<size_t>(channelCount), std::vector<float>(capacity));
    std::vector<std::vector<float>> forward(allActive ? 0 : static_cast<size_t>(channelCount),
                                            std::vector<float>(capacity));
    std::vector<float*> backwardPointers;
    std::vector<float*> forwardPointers;
    for (auto& b : backward)
        backwardPointers.push_back(b.data());
    for (auto& f : forward)
        forwardPointers.push_back(f.data());
    std::vector<std::span<const float>> views(static_cast<size_t>(channelCount));

    AudioContentBuilder builder(channelCount, content.sampleRate());
    for (int64_t done = 0; done < r.length();) {
        const int64_t n = std::min<int64_t>(chunkFrames, r.length() - done);
        content.read({r.upper - done - n, r.upper - done}, backwardPointers);
        if (!allActive)
            content.read({r.lower + done, r.lower + done + n}, forwardPointers);
        for (int c = 0; c < channelCount; ++c) {
            const auto index = static_cast<size_t>(c);
            if (active.contains(c)) {
                vec::reverse(backward[index].data(), n);
                views[index] = std::span<const float>(backward[index].data(), static_cast<size_t>(n));
            } else {
                views[index] = std::span<const float>(forward[index].data(), static_cast<size_t>(n));
            }
        }
        builder.append(std::span<const std::span<const float>>(views));
        done += n;
    }
    AudioContent result = content;
    result.replaceSubrange(r, builder.build());
    return result;
}

AudioContent remixed(const AudioContent& content, int toChannelCount) {
    HARLUNE_PRECONDITION(toChannelCount >= 1, "remixed needs at least one channel");
    const int sources = content.channelCount();
    if (toChannelCount == sources)
        return content;
    const auto n = static_cast<size_t>(toChannelCount);
    AudioContentBuilder builder(toChannelCount, content.sampleRate());
    std::vector<std::vector<float>> mixes(sources > toChannelCount ? n : 0,
                                          std::vector<float>(static_cast<size_t>(chunkFrames)));
    std::vector<std::span<const float>> views(n);
    content.forEachChunk(std::nullopt, chunkFrames, [&](ChunkViews chunk, int64_t) {
        const int64_t frames = static_cast<int64_t>(chunk.front().size());
        for (size_t d = 0; d < n; ++d) {
            if (sources > toChannelCount) {
                float* mix = mixes[d].data();
                std::memcpy(mix, chunk[d].data(), static_cast<size_t>(frames) * sizeof(float));
                int count = 1;
                for (size_t s = d + n; s < static_cast<size_t>(sources); s += n, ++count)
                    vec::add(mix, chunk[s].data(), frames);
                vec::scale(mix, frames, 1.0f / static_cast<float>(count));
                views[d] = std::span<const float>(mix, static_cast<size_t>(frames));
            } else {
                views[d] = chunk[d % static_cast<size_t>(sources)];
            }
        }
        builder.append(std::span<const std::span<const float>>(views));
    });
    return builder.build();
}

AudioContent rearrangingChannels(const AudioContent& content, std::span<const int> order,
                                 std::optional<FrameRange> range) {
    HARLUNE_PRECONDITION(!order.empty(), "rearrangingChannels needs at least one channel");
    for (const int c : order)
        HARLUNE_PRECONDITION(c >= 0 && c < content.channelCount(),
                             "rearrangingChannels channel out of range");
    const FrameRange r = clampedRange(content, range);
    AudioContentBuilder builder(static_cast<int>(order.size()), content.sampleRate());
    std::vector<std::span<const float>> views(order.size());
    content.forEachChunk(r, chunkFrames, [&](ChunkViews chunk, int64_t) {
        for (size_t i = 0; i < order.size(); ++i)
            views[i] = chunk[static_cast<size_t>(order[i])];
        builder.append(std::span<const std::span<const float>>(views));
    });
    return builder.build();
}

// Effects -------------------------------------------------------------------------------------

AudioContent applyingEffects(const AudioContent& content,
                             std::span<const std::shared_ptr<EffectProcessor>> processors,
                             std::optional<FrameRange> range, const std::optional<ChannelSet>& channels,
                             EffectTailMode tail, const EffectRenderer::Progress& progress) {
    const FrameRange r = clampedRange(content, range);
    if (r.isEmpty() || processors.empty())
        return content;
    const int channelCount = content.channelCount();
    std::vector<int> inactive;
    for (int c = 0; c < channelCount; ++c)
        if (channels && !channels->contains(c))
            inactive.push_back(c);
    for (const int c : channels.value_or(ChannelSet{}))
        HARLUNE_PRECONDITION(c >= 0 && c < channelCount, "applyingEffects channel out of range");

    // Inactive channels are restored from the original inside the range and silent in the tail:
    // the restriction replaces output, it does not keep channels from the processors.
    const auto block = static_cast<size_t>(EffectRenderer::blockSize);
    std::vector<std::vector<float>> scratch(inactive.empty() ? 0 : static_cast<size_t>(channelCount),
                                            std::vector<float>(block));
    std::vector<std::span<const float>> views(static_cast<size_t>(channelCount));
    std::vector<float*> originalPointers;
    for (auto& buffer : scratch)
        originalPointers.push_back(buffer.data());

    AudioContentBuilder builder(channelCount, content.sampleRate());
    int64_t emitted = 0;
    EffectRenderer::render(
        content, r, processors, tail == EffectTailMode::mixIntoFollowing, 30.0, progress,
        [&](ChunkViews chunk) {
            const auto n = static_cast<int64_t>(chunk.front().size());
            if (inactive.empty()) {
                builder.append(chunk);
                emitted += n;
                return;
            }
            const int64_t inside = std::clamp<int64_t>(r.length() - emitted, 0, n);
            if (inside > 0)
                content.read({r.lower + emitted, r.lower + emitted + inside}, originalPointers);
            for (int c = 0; c < channelCount; ++c)
                views[static_cast<size_t>(c)] = chunk[static_cast<size_t>(c)];
            for (const int c : inactive) {
                const auto index = static_cast<size_t>(c);
                float* buffer = scratch[index].data();
                std::fill(buffer + inside, buffer + n, 0.0f);
                views[index] = std::span<const float>(buffer, static_cast<size_t>(n));
            }
            builder.append(std::span<const std::span<const float>>(views));
            emitted += n;
        });

    const AudioContent rendered = builder.build();
    const int64_t length = r.length();
    AudioContent result = content;
    result.replaceSubrange(r, rendered.slice({0, length}));
    if (rendered.frameCount() > length)
        result = result.mixing(rendered.slice({length, rendered.frameCount()}), r.upper, 0);
    return result;
}

// Zero crossings ------------------------------------------------------------------------------

int64_t nearestZeroCrossing(const AudioContent& content, int64_t frame, int64_t radius) {
    const int64_t frames = content.frameCount();
    if (frames <= 1)
        return frame;
    const int64_t lo = std::max<int64_t>(frame - radius, 0);
    const int64_t hi = std::min(frame + radius + 1, frames);
    if (hi - lo <= 1)
        return frame;

    const auto window = content.readChannels({lo, hi});
    std::vector<float> sum(window.front().size(), 0.0f);
    for (const auto& channel : window)
        for (size_t i = 0; i < sum.size(); ++i)
            sum[i] += channel[i];

    const auto qualifies = [&](int64_t index) {
        if (index <= lo || index >= hi)
            return false; // outside, or the window's first frame, which has no predecessor
        const float here = sum[static_cast<size_t>(index - lo)];
        const float before = sum[static_cast<size_t>(index - lo - 1)];
        return here == 0.0f || (here < 0.0f) != (before < 0.0f);
    };
    const int64_t reach = std::max(frame - lo, hi - frame);
    for (int64_t k = 0; k <= reach; ++k) {
        if (qualifies(frame - k))
            return frame - k;
        if (k > 0 && qualifies(frame + k))
            return frame + k;
    }
    return frame;
}

// Envelopes ----------------------------------------------------------------------------------

AudioContent applyingEnvelopes(const AudioContent& content, const EnvelopeSet& envelopes) {
    if (envelopes.isFlat())
        return content;
    const EnvelopedSource source(content, envelopes);
    AudioContentBuilder builder(content.channelCount(), content.sampleRate());
    source.forEachChunk(std::nullopt, AudioBlock::preferredFrameCount,
                        [&](ChunkViews views, int64_t) { builder.append(views); });
    return builder.build();
}

AudioContent applyingEnvelope(const AudioContent& content, const GainEnvelope& envelope) {
    return applyingEnvelopes(content, EnvelopeSet(envelope));
}

} // namespace harlune
