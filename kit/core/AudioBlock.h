#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace harlune {

/// Minimum, maximum and energy of a block at three levels: one point per 256 frames, one coarse
/// point per 4096 frames and one value for the whole block. The strides never depend on rate,
/// block size or zoom, so that a window shifted by an edit still finds its points by simple
/// arithmetic. The coarse level keeps a query over a long stretch from reading hundreds of
/// points (a column of an hour at fit spans some 350).
struct WaveSummary {
    static constexpr int64_t stride = 256;
    /// Points per coarse point.
    static constexpr int64_t coarseFactor = 16;
    static constexpr int64_t coarseStride = stride * coarseFactor;

    std::vector<std::vector<float>> mins;       ///< per channel, one per 256-frame run
    std::vector<std::vector<float>> maxs;       ///< per channel
    std::vector<std::vector<float>> sumSquares; ///< per channel, float sums
    /// Per channel, one per whole 4096-frame run (a short run at the end has none).
    std::vector<std::vector<float>> coarseMins;
    std::vector<std::vector<float>> coarseMaxs;
    std::vector<std::vector<float>> coarseSumSquares;
    std::vector<float> blockMin;        ///< per channel; 0 without points
    std::vector<float> blockMax;        ///< per channel; 0 without points
    std::vector<float> blockSumSquares; ///< per channel; 0 without points

    /// Computed in one pass per channel; the last point may cover fewer than 256 frames.
    static WaveSummary make(const std::vector<std::vector<float>>& samples, int64_t frameCount);
};

/// An immutable, shared run of at most 65536 planar frames with its summary. Nothing of a block
/// changes after it is made; the last segment that holds it frees it.
class AudioBlock {
public:
    static constexpr int64_t preferredFrameCount = 65536;

    /// Takes the planes (all of one length, at most `preferredFrameCount`) and builds the summary.
    static std::shared_ptr<const AudioBlock> make(std::vector<std::vector<float>> samples);

    ~AudioBlock();
    AudioBlock(const AudioBlock&) = delete;
    AudioBlock& operator=(const AudioBlock&) = delete;

    int64_t frameCount() const { return frameCount_; }
    int channelCount() const { return static_cast<int>(samples_.size()); }
    const std::vector<std::vector<float>>& samples() const { return samples_; }
    const float* channel(int index) const { return samples_[static_cast<size_t>(index)].data(); }
    const WaveSummary& summary() const { return summary_; }

    /// Bytes of sample and summary memory held by all blocks alive in this process. An
    /// instrument for tests and benchmarks of sharing; it costs one relaxed atomic per block.
    static int64_t liveBytes();

private:
    struct Token {};

public:
    AudioBlock(Token, std::vector<std::vector<float>> samples);

private:
    int64_t frameCount_;
    std::vector<std::vector<float>> samples_;
    WaveSummary summary_;
    int64_t bytes_;
};

using AudioBlockRef = std::shared_ptr<const AudioBlock>;

/// A window `offset ..< offset + count` into one block.
struct Segment {
    AudioBlockRef block;
    int64_t offset = 0;
    int64_t count = 0;
};

/// The result of any peak query.
struct PeakSummary {
    float min = 3.4028235e38f;
    float max = -3.4028235e38f;
    float sumSquares = 0;
    int64_t count = 0;

    static constexpr PeakSummary empty() { return {}; }
    bool isEmpty() const { return count == 0; }
    /// Root mean square in float; 0 with no frames.
    float rms() const;
    void merge(float otherMin, float otherMax, float otherSumSquares, int64_t otherCount) {
        if (otherMin < min)
            min = otherMin;
        if (otherMax > max)
            max = otherMax;
        sumSquares += otherSumSquares;
        count += otherCount;
    }
};

namespace vec {
/// Vector minimum, maximum and sum of squares of a stretch, in float. Empty gives
/// (+max float, -max float, 0).
struct MinMaxSquares {
    float min;
    float max;
    float sumSquares;
};
MinMaxSquares minMaxSquares(const float* samples, int64_t count);
/// Merges `count` summary points: least of `mins`, greatest of `maxs`, sum of `squares`.
MinMaxSquares mergePoints(const float* mins, const float* maxs, const float* squares, int64_t count);
} // namespace vec

} // namespace harlune
