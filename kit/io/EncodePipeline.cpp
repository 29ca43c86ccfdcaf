#include "io/EncodePipeline.h"

#include "base/HarluneError.h"
#include "base/Precondition.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <immintrin.h>
#include <mutex>
#include <string>
#include <thread>

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
    const int64_t expected = expected_.load(std::memory_order_relaxed);
    const int64_t take = std::min<int64_t>(static_cast<int64_t>(chunk.front().size()), expected - passed_);
    if (take < 1)
        return;
    for (size_t c = 0; c < views_.size(); ++c)
        views_[c] = chunk[c].first(static_cast<size_t>(take));
    passed_ += take;
    next_->consume(views_);
}

void LengthEnforcer::finish() {
    const int64_t expected = expected_.load(std::memory_order_relaxed);
    if (passed_ < expected) {
        const std::vector<float> silence(static_cast<size_t>(std::min<int64_t>(expected - passed_, 8192)),
                                         0.0f);
        while (passed_ < expected) {
            const auto n = static_cast<size_t>(
                std::min<int64_t>(expected - passed_, static_cast<int64_t>(silence.size())));
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

__attribute__((target("avx2"))) inline __m256i xorshiftStepAVX2(__m256i x) {
    x = _mm256_xor_si256(x, _mm256_srli_epi64(x, 12));
    x = _mm256_xor_si256(x, _mm256_slli_epi64(x, 25));
    return _mm256_xor_si256(x, _mm256_srli_epi64(x, 27));
}

// ((x × 0x2545F4914F6CDD1D) mod 2^64) >> 11 as a double: below 2^53, so exact.
__attribute__((target("avx2"))) inline __m256d drawAVX2(__m256i x) {
    constexpr uint64_t multiplier = 0x2545F4914F6CDD1DULL;
    const __m256i multiplierLow = _mm256_set1_epi64x(static_cast<int64_t>(multiplier & 0xFFFFFFFFULL));
    const __m256i multiplierHigh = _mm256_set1_epi64x(static_cast<int64_t>(multiplier >> 32));
    const __m256i exponent52 = _mm256_set1_epi64x(0x4330000000000000LL); // 2^52 as a double
    const __m256d two52 = _mm256_set1_pd(0x1.0p52);
    const __m256i low = _mm256_mul_epu32(x, multiplierLow);
    const __m256i cross = _mm256_add_epi64(_mm256_mul_epu32(_mm256_srli_epi64(x, 32), multiplierLow),
                                           _mm256_mul_epu32(x, multiplierHigh));
    const __m256i value = _mm256_srli_epi64(_mm256_add_epi64(low, _mm256_slli_epi64(cross, 32)), 11);
    const __m256d high =
        _mm256_sub_pd(_mm256_castsi256_pd(_mm256_or_si256(_mm256_srli_epi64(value, 32), exponent52)), two52);
    const __m256d rest =
        _mm256_sub_pd(_mm256_castsi256_pd(_mm256_or_si256(
                          _mm256_and_si256(value, _mm256_set1_epi64x(0xFFFFFFFFLL)), exponent52)),
                      two52);
    return _mm256_add_pd(_mm256_mul_pd(high, _mm256_set1_pd(0x1.0p32)), rest);
}

// The four chains of `quantizeDithered` in the four lanes of AVX2 registers, with exactly the
// arithmetic of `SampleCoder::dithered`: the 64-bit products from 32-bit ones, the 53-bit draws
// made doubles exactly in two halves, no fused multiply-add, and rounding to nearest even.
__attribute__((target("avx2"))) void quantizeDitheredLanesAVX2(const SampleCoder& coder, uint64_t* state,
                                                               const float* source, size_t perLane,
                                                               int32_t* out, size_t stride) {
    const __m256d twoMinus53 = _mm256_set1_pd(0x1.0p-53);
    const __m256d scale = _mm256_set1_pd(coder.scale);
    const __m256d lo = _mm256_set1_pd(coder.lo);
    const __m256d hi = _mm256_set1_pd(coder.hi);
    const int shift = __builtin_ctzll(static_cast<uint64_t>(coder.multiplier));

    __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(state));
    for (size_t i = 0; i < perLane; ++i) {
        const __m256i first = xorshiftStepAVX2(x);
        const __m256i second = xorshiftStepAVX2(first);
        x = second;
        const __m256d noise = _mm256_mul_pd(_mm256_sub_pd(drawAVX2(first), drawAVX2(second)), twoMinus53);
        const __m128 samples =
            _mm_setr_ps(source[i], source[perLane + i], source[2 * perLane + i], source[3 * perLane + i]);
        __m256d v = _mm256_add_pd(_mm256_mul_pd(scale, _mm256_cvtps_pd(samples)), noise);
        v = _mm256_and_pd(v, _mm256_cmp_pd(v, v, _CMP_ORD_Q)); // NaN gives 0
        v = _mm256_min_pd(_mm256_max_pd(v, lo), hi);
        const __m128i codes = _mm_slli_epi32(_mm256_cvtpd_epi32(v), shift);
        alignas(16) int32_t lanes[4];
        _mm_store_si128(reinterpret_cast<__m128i*>(lanes), codes);
        for (size_t j = 0; j < 4; ++j)
            out[(j * perLane + i) * stride] = lanes[j];
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(state), x);
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
        static const bool wideVectors = __builtin_cpu_supports("avx2");
        if (wideVectors) {
            quantizeDitheredLanesAVX2(coder, state, source, perLane, out, stride);
        } else {
            for (size_t i = 0; i < perLane; ++i)
                for (size_t j = 0; j < lanes; ++j) {
                    const size_t frame = j * perLane + i;
                    out[frame * stride] = coder.dithered(source[frame], state[j]);
                }
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

// GridQuantizer -------------------------------------------------------------------------------

GridQuantizer::GridQuantizer(int bits, int channels, std::unique_ptr<ChunkSink> next)
    : quantizer_(bits, true), next_(std::move(next)), planes_(static_cast<size_t>(channels)),
      views_(static_cast<size_t>(channels)) {
    HARLUNE_PRECONDITION(next_ != nullptr && channels > 0 && (bits == 16 || bits == 24),
                         "GridQuantizer needs 16 or 24 bits, channels and a next stage");
}

void GridQuantizer::consume(ChunkViews chunk) {
    if (chunk.empty() || chunk.front().empty())
        return;
    const size_t channels = planes_.size();
    const size_t frames = chunk.front().size();
    codes_.resize(frames * channels);
    quantizer_.quantize(chunk, codes_);
    // A code c stands in the top bits of a 32-bit integer: c × 2^(32 − bits) ÷ 2^31 is exact in a
    // float (at most 24 significant bits), and the writer's scale of 2^(bits − 1) gives back c.
    constexpr float unit = 0x1.0p-31f;
    for (size_t c = 0; c < channels; ++c) {
        planes_[c].resize(frames);
        float* plane = planes_[c].data();
        const int32_t* code = codes_.data() + c;
        for (size_t f = 0; f < frames; ++f)
            plane[f] = static_cast<float>(code[f * channels]) * unit;
        views_[c] = std::span<const float>(plane, frames);
    }
    next_->consume(views_);
}

void GridQuantizer::finish() {
    next_->finish();
}

void GridQuantizer::abort() noexcept {
    next_->abort();
}

// ResamplerStage ------------------------------------------------------------------------------

namespace {

SampleRateConverter makeConverter(int channels, double fromRate, double toRate) {
    try {
        return SampleRateConverter(channels, fromRate, toRate);
    } catch (const HarluneError&) {
        throw HarluneError::encodeFailed("can\u2019t convert " +
                                         std::to_string(static_cast<int64_t>(fromRate)) + " Hz to " +
                                         std::to_string(static_cast<int64_t>(toRate)) + " Hz");
    }
}

} // namespace

// Persistent threads for lanes 1 and up; lane 0 runs on the calling thread.
class ResamplerStage::LaneThreads {
public:
    explicit LaneThreads(size_t extra) {
        for (size_t k = 1; k <= extra; ++k)
            threads_.emplace_back([this, k] { work(k); });
    }
    ~LaneThreads() {
        {
            std::lock_guard lock(mutex_);
            quit_ = true;
        }
        changed_.notify_all();
        for (auto& thread : threads_)
            thread.join();
    }
    LaneThreads(const LaneThreads&) = delete;
    LaneThreads& operator=(const LaneThreads&) = delete;

    /// Runs body(0) here and body(1...) on the threads; returns when all are done. `body` must
    /// not throw.
    void run(const std::function<void(size_t)>& body) {
        {
            std::lock_guard lock(mutex_);
            body_ = &body;
            pending_ = threads_.size();
            ++generation_;
        }
        changed_.notify_all();
        body(0);
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return pending_ == 0; });
        body_ = nullptr;
    }

private:
    void work(size_t lane) {
        uint64_t seen = 0;
        while (true) {
            const std::function<void(size_t)>* body = nullptr;
            {
                std::unique_lock lock(mutex_);
                changed_.wait(lock, [&] { return quit_ || generation_ != seen; });
                if (quit_)
                    return;
                seen = generation_;
                body = body_;
            }
            (*body)(lane);
            {
                std::lock_guard lock(mutex_);
                --pending_;
            }
            changed_.notify_all();
        }
    }

    std::vector<std::thread> threads_;
    std::mutex mutex_;
    std::condition_variable changed_;
    const std::function<void(size_t)>* body_ = nullptr;
    uint64_t generation_ = 0;
    size_t pending_ = 0;
    bool quit_ = false;
};

// The converter takes chunks of any length and hands its output on in pieces as they come, so
// `maxChunk` sizes nothing here.
ResamplerStage::ResamplerStage(double fromRate, double toRate, int channels, int64_t maxChunk,
                               std::unique_ptr<ChunkSink> next, int threads)
    : channels_(channels), next_(std::move(next)), views_(static_cast<size_t>(std::max(channels, 0))) {
    HARLUNE_PRECONDITION(next_ != nullptr && maxChunk > 0, "ResamplerStage needs a next stage");
    const int laneCount = std::clamp(threads, 1, std::max(channels, 1));
    for (int k = 0; k < laneCount; ++k) {
        const int first = channels * k / laneCount;
        const int end = channels * (k + 1) / laneCount;
        lanes_.push_back(Lane{makeConverter(std::max(end - first, channels > 0 ? 1 : 0), fromRate, toRate),
                              static_cast<size_t>(first),
                              std::vector<std::vector<float>>(static_cast<size_t>(end - first)),
                              {},
                              nullptr});
    }
    if (lanes_.size() > 1)
        threads_ = std::make_unique<LaneThreads>(lanes_.size() - 1);
}

ResamplerStage::~ResamplerStage() = default;

void ResamplerStage::consume(ChunkViews chunk) {
    if (chunk.empty() || chunk.front().empty())
        return;
    HARLUNE_PRECONDITION(static_cast<int>(chunk.size()) == channels_,
                         "ResamplerStage got the wrong channel count");
    convert([](SampleRateConverter& converter, ChunkViews input,
               SampleRateConverter::Output output) { converter.process(input, output); },
            chunk);
}

void ResamplerStage::finish() {
    convert([](SampleRateConverter& converter, ChunkViews,
               SampleRateConverter::Output output) { converter.finish(output); },
            {});
    next_->finish();
}

// The converter's own failures read "sample-rate conversion failed: REASON"; what the stages
// behind it throw passes on unchanged.
void ResamplerStage::convert(
    FunctionRef<void(SampleRateConverter&, ChunkViews, SampleRateConverter::Output)> run, ChunkViews chunk) {
    bool inNext = false;
    try {
        if (lanes_.size() > 1) {
            convertInLanes(run, chunk);
            // The lanes gave pieces of the same lengths; together they are the pieces of one
            // converter over all channels.
            std::vector<size_t> offsets(lanes_.size(), 0);
            for (size_t p = 0; p < lanes_.front().pieces.size(); ++p) {
                const size_t length = lanes_.front().pieces[p];
                for (const Lane& lane : lanes_)
                    for (size_t c = 0; c < lane.output.size(); ++c)
                        views_[lane.firstChannel + c] =
                            std::span<const float>(lane.output[c].data() + offsets.front(), length);
                offsets.front() += length;
                inNext = true;
                next_->consume(views_);
                inNext = false;
            }
            return;
        }
        auto output = [&](ChunkViews out) {
            inNext = true;
            next_->consume(out);
            inNext = false;
        };
        run(lanes_.front().converter, chunk, output);
    } catch (const HarluneError& error) {
        if (inNext || error.kind() != HarluneError::Kind::encodeFailed)
            throw;
        throw HarluneError::encodeFailed("sample-rate conversion failed: " + error.detail());
    }
}

void ResamplerStage::convertInLanes(
    FunctionRef<void(SampleRateConverter&, ChunkViews, SampleRateConverter::Output)> run, ChunkViews chunk) {
    const std::function<void(size_t)> body = [&](size_t k) {
        Lane& lane = lanes_[k];
        lane.error = nullptr;
        lane.pieces.clear();
        for (auto& channel : lane.output)
            channel.clear();
        try {
            const ChunkViews input =
                chunk.empty() ? chunk : chunk.subspan(lane.firstChannel, lane.output.size());
            run(lane.converter, input, [&](ChunkViews out) {
                lane.pieces.push_back(out.front().size());
                for (size_t c = 0; c < out.size(); ++c)
                    lane.output[c].insert(lane.output[c].end(), out[c].begin(), out[c].end());
            });
        } catch (...) {
            lane.error = std::current_exception();
        }
    };
    threads_->run(body);
    for (const Lane& lane : lanes_) {
        if (lane.error)
            std::rethrow_exception(lane.error);
        HARLUNE_PRECONDITION(lane.pieces == lanes_.front().pieces, "converter lanes gave different pieces");
    }
}

void ResamplerStage::abort() noexcept {
    next_->abort();
}

} // namespace harlune
