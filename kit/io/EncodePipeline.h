#pragma once

#include "base/FunctionRef.h"
#include "dsp/SampleRateConverter.h"
#include "io/ChunkSink.h"

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <span>
#include <vector>

namespace harlune {

/// Folds the source's channels into fewer, by a gain matrix.
class ChannelMixer final : public ChunkSink {
public:
    /// `matrix`: one row per output channel, each holding one gain per input channel.
    ChannelMixer(std::vector<std::vector<float>> matrix, std::unique_ptr<ChunkSink> next);

    void consume(ChunkViews chunk) override;
    void finish() override;
    void abort() noexcept override;

    const std::vector<std::vector<float>>& matrix() const { return matrix_; }

private:
    std::vector<std::vector<float>> matrix_;
    std::unique_ptr<ChunkSink> next_;
    std::vector<std::vector<float>> scratch_; ///< one buffer per output channel
    std::vector<std::span<const float>> views_;
    size_t capacity_ = 0; ///< frames
};

/// Makes a stream exactly `expected` frames long: cuts what comes beyond, pads with silence at
/// the end. It sits behind the sample-rate converter, whose output length is only nearly right.
class LengthEnforcer final : public ChunkSink {
public:
    LengthEnforcer(int64_t expected, int channels, std::unique_ptr<ChunkSink> next);

    void consume(ChunkViews chunk) override;
    void finish() override;
    void abort() noexcept override;

    int64_t passed() const { return passed_; }
    /// Sets the length, for a stream whose length is known only at its end: such a stream starts
    /// with no limit, and gets its length before `finish`, while chunks may still be passing on
    /// another thread (the converter delivers no more than the true length before its flush).
    void setExpected(int64_t expected) { expected_.store(expected, std::memory_order_relaxed); }

private:
    std::atomic<int64_t> expected_;
    int64_t passed_ = 0;
    int channels_;
    std::unique_ptr<ChunkSink> next_;
    std::vector<std::span<const float>> views_;
};

/// Turns float samples into integer codes, with optional triangular (TPDF) dither of at most
/// one least significant bit: u1 − u2 of two successive xorshift64* draws (x ^= x >> 12,
/// x ^= x << 25, x ^= x >> 27; a draw is ((x × 0x2545F4914F6CDD1D) >> 11) × 2^-53). The state
/// starts at `seed` for every file, so two exports of the same material give the same bytes.
struct Quantizer {
    static constexpr uint64_t seed = 0x9E3779B97F4A7C15ULL;

    int bits = 24;       ///< 16, 24 or 32
    bool dither = false; ///< honoured for 16 and 24 bits only
    uint64_t rng = seed;

    Quantizer() = default;
    Quantizer(int bitCount, bool withDither) : bits(bitCount), dither(withDither && bitCount < 32) {}

    /// Interleaves `chunk` into `into` (frames × channels values). Each value is the code in the
    /// top `bits` bits of a 32-bit integer, the form integer audio libraries take (a 16-bit code
    /// c is stored as c << 16). NaN gives 0; everything else is rounded to nearest, ties to even,
    /// and clamped to the code range. Channels are quantized one after the other, which fixes
    /// the order of the noise draws.
    void quantize(ChunkViews chunk, std::span<int32_t> into);
};

/// Dithers and rounds the samples onto the integer grid of a 16- or 24-bit file, ahead of the
/// writer: exactly the `Quantizer` of the writer, but on another thread. A writer without dither
/// then finds every sample on its grid and writes the same codes that its own dither would have.
class GridQuantizer final : public ChunkSink {
public:
    GridQuantizer(int bits, int channels, std::unique_ptr<ChunkSink> next);

    void consume(ChunkViews chunk) override;
    void finish() override;
    void abort() noexcept override;

private:
    Quantizer quantizer_;
    std::unique_ptr<ChunkSink> next_;
    std::vector<int32_t> codes_;
    std::vector<std::vector<float>> planes_;
    std::vector<std::span<const float>> views_;
};

/// The sample-rate conversion stage: converts every chunk from one rate to another and passes
/// the converted frames on, in pieces as the converter delivers them. (The dsp module's
/// `Resampler` converts whole sources; this is its streaming counterpart for the encode chain.)
class ResamplerStage final : public ChunkSink {
public:
    /// Throws `HarluneError.encodeFailed` "can’t convert A Hz to B Hz" when no converter can be
    /// made for the two rates. `maxChunk`: the most frames one `consume` gets. `threads` above 1
    /// converts groups of channels on that many threads at once; the pieces passed on, and their
    /// samples, are the same.
    ResamplerStage(double fromRate, double toRate, int channels, int64_t maxChunk,
                   std::unique_ptr<ChunkSink> next, int threads = 1);
    ~ResamplerStage() override;

    void consume(ChunkViews chunk) override;
    void finish() override;
    void abort() noexcept override;

private:
    /// One converter over a group of neighbouring channels, with what it gave in the last call.
    struct Lane {
        SampleRateConverter converter;
        size_t firstChannel;
        std::vector<std::vector<float>> output; ///< one per channel of the group
        std::vector<size_t> pieces;             ///< the lengths, in order, the converter gave
        std::exception_ptr error;
    };
    class LaneThreads;

    void convert(FunctionRef<void(SampleRateConverter&, ChunkViews, SampleRateConverter::Output)> run,
                 ChunkViews chunk);
    void convertInLanes(FunctionRef<void(SampleRateConverter&, ChunkViews, SampleRateConverter::Output)> run,
                        ChunkViews chunk);

    std::vector<Lane> lanes_;
    std::unique_ptr<LaneThreads> threads_;
    int channels_;
    std::unique_ptr<ChunkSink> next_;
    std::vector<std::span<const float>> views_;
};

} // namespace harlune
