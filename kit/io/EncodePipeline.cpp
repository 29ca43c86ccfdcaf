#include "io/EncodePipeline.h"

#include "base/HarluneError.h"
#include "base/Precondition.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace harlune {

// ChannelMixer --------------------------------------------------------------------------------

ChannelMixer::ChannelMixer(std::vector<std::vector<float>> matrix, std::unique_ptr<ChunkSink> next)
    : matrix_(std::move(matrix)), next_(std::move(next)), scratch_(matrix_.size()), views_(matrix_.size()) {
    HARLUNE_PRECONDITION(next_ != nullptr, "ChannelMixer needs a next stage");
}

void ChannelMixer::consume(ChunkViews chunk) {
    if (chunk.empty())
        return;
    const size_t frames = chunk.front().size();
    if (frames > capacity_) {
        for (auto& buffer : scratch_) {
            buffer.clear();
            buffer.shrink_to_fit();
            buffer.resize(frames);
        }
        capacity_ = frames;
    }
    for (size_t out = 0; out < matrix_.size(); ++out) {
        float* target = scratch_[out].data();
        std::fill_n(target, frames, 0.0f);
        const auto& row = matrix_[out];
        HARLUNE_PRECONDITION(row.size() == chunk.size(),
                             "ChannelMixer row does not match the input channels");
        for (size_t in = 0; in < row.size(); ++in) {
            const float gain = row[in];
            if (gain == 0.0f)
                continue;
            const float* source = chunk[in].data();
            for (size_t i = 0; i < frames; ++i)
                target[i] += gain * source[i];
        }
        views_[out] = std::span<const float>(target, frames);
    }
    next_->consume(views_);
}

void ChannelMixer::finish() {
    next_->finish();
}
void ChannelMixer::abort() noexcept {
    next_->abort();
}

// LengthEnforcer ------------------------------------------------------------------------------

LengthEnforcer::LengthEnforcer(int64_t expected, int channels, std::unique_ptr<ChunkSink> next)
    : expected_(expected), channels_(channels), next_(std::move(next)),
      views_(static_cast<size_t>(channels)) {
    HARLUNE_PRECONDITION(next_ != nullptr && channels > 0, "LengthEnforcer needs channels and a next stage");
}

void LengthEnforcer::consume(ChunkViews chunk) {
    if (chunk.empty())
        return;
    const int64_t take = std::min<int64_t>(static_cast<int64_t>(chunk.front().size()), expected_ - passed_);
    if (take < 1)
        return;
    for (size_t c = 0; c < views_.size(); ++c)
        views_[c] = chunk[c].first(static_cast<size_t>(take));
    passed_ += take;
    next_->consume(views_);
}

void LengthEnforcer::finish() {
    if (passed_ < expected_) {
        const std::vector<float> silence(static_cast<size_t>(std::min<int64_t>(expected_ - passed_, 8192)),
                                         0.0f);
        while (passed_ < expected_) {
            const auto n = static_cast<size_t>(
                std::min<int64_t>(expected_ - passed_, static_cast<int64_t>(silence.size())));
            for (auto& view : views_)
                view = std::span<const float>(silence.data(), n);
            passed_ += static_cast<int64_t>(n);
            next_->consume(views_);
        }
    }
    next_->finish();
}

void LengthEnforcer::abort() noexcept {
    next_->abort();
}

// Quantizer -----------------------------------------------------------------------------------

namespace {

// Adding and taking away 1.5 × 2^52 rounds a double below 2^51 in magnitude to the nearest
// integer, ties to even, in the default rounding mode, without a library call.
constexpr double roundingMagic = 6755399441055744.0;

template <bool withDither>
void quantizeChannel(Quantizer& q, const float* source, size_t frames, int32_t* out, size_t stride) {
    const double scale = static_cast<double>(int64_t{1} << (q.bits - 1));
    const double lo = -scale;
    const double hi = scale - 1.0;
    const int shift = 32 - q.bits;
    for (size_t f = 0; f < frames; ++f) {
        double v = scale * static_cast<double>(source[f]);
        if constexpr (withDither) {
            const double u1 = q.draw();
            const double u2 = q.draw();
            v += u1 - u2;
        }
        int32_t code = 0;
        if (v == v) { // not NaN
            v = std::min(std::max(v, lo), hi);
            const double rounded = (v + roundingMagic) - roundingMagic;
            code = static_cast<int32_t>(static_cast<int64_t>(rounded) * (int64_t{1} << shift));
        }
        out[f * stride] = code;
    }
}

} // namespace

void Quantizer::quantize(ChunkViews chunk, std::span<int32_t> into) {
    if (chunk.empty())
        return;
    const size_t channels = chunk.size();
    const size_t frames = chunk.front().size();
    HARLUNE_PRECONDITION(into.size() >= frames * channels, "Quantizer output too small");
    HARLUNE_PRECONDITION(bits == 16 || bits == 24 || bits == 32, "Quantizer bits must be 16, 24 or 32");
    const bool useDither = dither && bits < 32;
    for (size_t c = 0; c < channels; ++c) {
        if (useDither)
            quantizeChannel<true>(*this, chunk[c].data(), frames, into.data() + c, channels);
        else
            quantizeChannel<false>(*this, chunk[c].data(), frames, into.data() + c, channels);
    }
}

// ResamplerStage ------------------------------------------------------------------------------

struct ResamplerStage::Converter {};

ResamplerStage::ResamplerStage(double fromRate, double toRate, int channels, int64_t maxChunk,
                               std::unique_ptr<ChunkSink> next)
    : channels_(channels), next_(std::move(next)) {
    (void)maxChunk;
    // No converter is built in yet.
    throw HarluneError::encodeFailed("can\u2019t convert " + std::to_string(static_cast<int64_t>(fromRate)) +
                                     " Hz to " + std::to_string(static_cast<int64_t>(toRate)) + " Hz");
}

ResamplerStage::~ResamplerStage() = default;

void ResamplerStage::consume(ChunkViews chunk) {
    next_->consume(chunk);
}
void ResamplerStage::finish() {
    next_->finish();
}
void ResamplerStage::abort() noexcept {
    next_->abort();
}

} // namespace harlune
