#include "io/EncodePipeline.h"

#include "base/HarluneError.h"
#include "base/Precondition.h"
#include "dsp/SampleRateConverter.h"

#include <algorithm>
#include <array>
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

uint64_t xorshiftStep(uint64_t x) {
    x ^= x >> 12;
    x ^= x << 25;
    x ^= x >> 27;
    return x;
}

// The generator's output, scaled so that (a − b) × 2^-53 is u1 − u2 exactly: both are multiples
// of 2^-53 below 1, so their difference needs no rounding.
int64_t scaledOutput(uint64_t x) {
    return static_cast<int64_t>((x * 0x2545F4914F6CDD1DULL) >> 11);
}

// The xorshift step is linear over GF(2), so n steps are one 64 × 64 bit matrix, and the state n
// draws ahead costs a few matrix products instead of n dependent steps. That lets a channel's
// draws be made by four independent chains at once, giving exactly the sequence of one chain.
class XorshiftJump {
public:
    XorshiftJump() {
        for (int b = 0; b < 64; ++b)
            powers_[0][static_cast<size_t>(b)] = xorshiftStep(uint64_t{1} << b);
        for (size_t i = 1; i < powers_.size(); ++i)
            for (size_t b = 0; b < 64; ++b)
                powers_[i][b] = apply(powers_[i - 1], powers_[i - 1][b]);
    }

    /// The state `steps` draws after `x`.
    uint64_t advance(uint64_t x, uint64_t steps) const {
        for (size_t i = 0; steps != 0 && i < powers_.size(); ++i, steps >>= 1)
            if (steps & 1)
                x = apply(powers_[i], x);
        return x;
    }

private:
    using Matrix = std::array<uint64_t, 64>; // column b: the image of bit b
    static uint64_t apply(const Matrix& m, uint64_t x) {
        uint64_t result = 0;
        for (size_t b = 0; x != 0; ++b, x >>= 1)
            if (x & 1)
                result ^= m[b];
        return result;
    }
    std::array<Matrix, 48> powers_{}; // 2^0 ... 2^47 steps
};

struct SampleCoder {
    double scale;
    double lo;
    double hi;
    int64_t multiplier;

    explicit SampleCoder(int bits)
        : scale(static_cast<double>(int64_t{1} << (bits - 1))), lo(-scale), hi(scale - 1.0),
          multiplier(int64_t{1} << (32 - bits)) {}

    int32_t code(double v) const {
        if (!(v == v)) // NaN
            return 0;
        v = std::min(std::max(v, lo), hi);
        const double rounded = (v + roundingMagic) - roundingMagic;
        return static_cast<int32_t>(static_cast<int64_t>(rounded) * multiplier);
    }

    int32_t dithered(float sample, uint64_t& state) const {
        const uint64_t first = xorshiftStep(state);
        const uint64_t second = xorshiftStep(first);
        state = second;
        const double noise = static_cast<double>(scaledOutput(first) - scaledOutput(second)) * 0x1.0p-53;
        return code(scale * static_cast<double>(sample) + noise);
    }
};

void quantizePlain(const SampleCoder& coder, const float* source, size_t frames, int32_t* out,
                   size_t stride) {
    for (size_t f = 0; f < frames; ++f)
        out[f * stride] = coder.code(coder.scale * static_cast<double>(source[f]));
}

void quantizeDithered(const SampleCoder& coder, uint64_t& rng, const float* source, size_t frames,
                      int32_t* out, size_t stride) {
    constexpr size_t lanes = 4;
    const size_t perLane = frames >= 256 ? frames / lanes : 0;
    size_t f = 0;
    if (perLane > 0) {
        static const XorshiftJump jump;
        uint64_t state[lanes];
        state[0] = rng;
        for (size_t j = 1; j < lanes; ++j)
            state[j] = jump.advance(state[j - 1], 2 * perLane);
        for (size_t i = 0; i < perLane; ++i)
            for (size_t j = 0; j < lanes; ++j) {
                const size_t frame = j * perLane + i;
                out[frame * stride] = coder.dithered(source[frame], state[j]);
            }
        rng = state[lanes - 1];
        f = lanes * perLane;
    }
    for (; f < frames; ++f)
        out[f * stride] = coder.dithered(source[f], rng);
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
    const SampleCoder coder(bits);
    for (size_t c = 0; c < channels; ++c) {
        if (useDither)
            quantizeDithered(coder, rng, chunk[c].data(), frames, into.data() + c, channels);
        else
            quantizePlain(coder, chunk[c].data(), frames, into.data() + c, channels);
    }
}

// ResamplerStage ------------------------------------------------------------------------------

struct ResamplerStage::Converter {
    SampleRateConverter converter;
};

ResamplerStage::ResamplerStage(double fromRate, double toRate, int channels, int64_t maxChunk,
                               std::unique_ptr<ChunkSink> next)
    : channels_(channels), next_(std::move(next)) {
    (void)maxChunk; // the converter hands on at most its own maxOutputChunk frames at a time
    try {
        converter_ = std::make_unique<Converter>(Converter{SampleRateConverter(channels, fromRate, toRate)});
    } catch (const HarluneError&) {
        throw HarluneError::encodeFailed("can\u2019t convert " +
                                         std::to_string(static_cast<int64_t>(fromRate)) + " Hz to " +
                                         std::to_string(static_cast<int64_t>(toRate)) + " Hz");
    }
}

ResamplerStage::~ResamplerStage() = default;

void ResamplerStage::consume(ChunkViews chunk) {
    auto pass = [this](ChunkViews converted) {
        next_->consume(converted);
    };
    converter_->converter.process(chunk, SampleRateConverter::Output(pass));
}
void ResamplerStage::finish() {
    auto pass = [this](ChunkViews converted) {
        next_->consume(converted);
    };
    converter_->converter.finish(SampleRateConverter::Output(pass));
    next_->finish();
}
void ResamplerStage::abort() noexcept {
    next_->abort();
}

} // namespace harlune
