#include "core/AudioBlock.h"

#include "base/Precondition.h"
#include "base/Vectorize.h"

#include <algorithm>
#include <cmath>

namespace harlune {

namespace {
std::atomic<int64_t> liveBlockBytes{0};
} // namespace

namespace vec {

HARLUNE_VECTOR_CLONES MinMaxSquares minMaxSquares(const float* samples, int64_t count) {
    float lo = 3.4028235e38f;
    float hi = -3.4028235e38f;
    float sum = 0;
#pragma omp simd reduction(min : lo) reduction(max : hi) reduction(+ : sum)
    for (int64_t i = 0; i < count; ++i) {
        const float x = samples[i];
        lo = std::min(lo, x);
        hi = std::max(hi, x);
        sum += x * x;
    }
    return {lo, hi, sum};
}

HARLUNE_VECTOR_CLONES MinMaxSquares mergePoints(const float* mins, const float* maxs, const float* squares,
                                                int64_t count) {
    float lo = 3.4028235e38f;
    float hi = -3.4028235e38f;
    float sum = 0;
#pragma omp simd reduction(min : lo) reduction(max : hi) reduction(+ : sum)
    for (int64_t i = 0; i < count; ++i) {
        lo = std::min(lo, mins[i]);
        hi = std::max(hi, maxs[i]);
        sum += squares[i];
    }
    return {lo, hi, sum};
}

} // namespace vec

WaveSummary WaveSummary::make(const std::vector<std::vector<float>>& samples, int64_t frameCount) {
    WaveSummary summary;
    const size_t channels = samples.size();
    const auto points = static_cast<size_t>((frameCount + stride - 1) / stride);
    summary.mins.assign(channels, std::vector<float>(points));
    summary.maxs.assign(channels, std::vector<float>(points));
    summary.sumSquares.assign(channels, std::vector<float>(points));
    const auto coarsePoints = static_cast<size_t>(frameCount / coarseStride);
    summary.coarseMins.assign(channels, std::vector<float>(coarsePoints));
    summary.coarseMaxs.assign(channels, std::vector<float>(coarsePoints));
    summary.coarseSumSquares.assign(channels, std::vector<float>(coarsePoints));
    summary.blockMin.assign(channels, 0.0f);
    summary.blockMax.assign(channels, 0.0f);
    summary.blockSumSquares.assign(channels, 0.0f);

    for (size_t c = 0; c < channels; ++c) {
        const float* data = samples[c].data();
        float* mins = summary.mins[c].data();
        float* maxs = summary.maxs[c].data();
        float* squares = summary.sumSquares[c].data();
        for (size_t p = 0; p < points; ++p) {
            const int64_t start = static_cast<int64_t>(p) * stride;
            const auto run = vec::minMaxSquares(data + start, std::min(stride, frameCount - start));
            mins[p] = run.min;
            maxs[p] = run.max;
            squares[p] = run.sumSquares;
        }
        for (size_t q = 0; q < coarsePoints; ++q) {
            const auto run = vec::mergePoints(mins + q * coarseFactor, maxs + q * coarseFactor,
                                              squares + q * coarseFactor, coarseFactor);
            summary.coarseMins[c][q] = run.min;
            summary.coarseMaxs[c][q] = run.max;
            summary.coarseSumSquares[c][q] = run.sumSquares;
        }
        if (points > 0) {
            float lo = mins[0];
            float hi = maxs[0];
            float sum = 0;
            for (size_t p = 0; p < points; ++p) {
                lo = std::min(lo, mins[p]);
                hi = std::max(hi, maxs[p]);
                sum += squares[p]; // in order, as the whole-block figure is defined
            }
            summary.blockMin[c] = lo;
            summary.blockMax[c] = hi;
            summary.blockSumSquares[c] = sum;
        }
    }
    return summary;
}

std::shared_ptr<const AudioBlock> AudioBlock::make(std::vector<std::vector<float>> samples) {
    return std::make_shared<const AudioBlock>(Token{}, std::move(samples));
}

AudioBlock::AudioBlock(Token, std::vector<std::vector<float>> samples)
    : frameCount_(samples.empty() ? 0 : static_cast<int64_t>(samples.front().size())),
      samples_(std::move(samples)) {
    HARLUNE_PRECONDITION(frameCount_ <= preferredFrameCount, "AudioBlock longer than 65536 frames");
    for (const auto& channel : samples_)
        HARLUNE_PRECONDITION(static_cast<int64_t>(channel.size()) == frameCount_,
                             "AudioBlock channels differ in length");
    summary_ = WaveSummary::make(samples_, frameCount_);
    const auto points = static_cast<int64_t>(summary_.mins.empty() ? 0 : summary_.mins.front().size());
    const int64_t coarsePoints = frameCount_ / WaveSummary::coarseStride;
    bytes_ = static_cast<int64_t>(samples_.size()) * (frameCount_ + 3 * points + 3 * coarsePoints + 3) *
             static_cast<int64_t>(sizeof(float));
    liveBlockBytes.fetch_add(bytes_, std::memory_order_relaxed);
}

AudioBlock::~AudioBlock() {
    liveBlockBytes.fetch_sub(bytes_, std::memory_order_relaxed);
}

int64_t AudioBlock::liveBytes() {
    return liveBlockBytes.load(std::memory_order_relaxed);
}

float PeakSummary::rms() const {
    if (count < 1)
        return 0.0f;
    return std::sqrt(sumSquares / static_cast<float>(count));
}

} // namespace harlune
