#pragma once

// The loudness engine (ITU-R BS.1770-4, EBU R 128 and Tech 3341/3342) behind both the offline
// analyzer and the live meter. The stream is K-weighted once and cut into sub-blocks of 100 ms
// whose borders are fixed by the frame count alone (they never drift, whatever the rate). Only
// the weighted sum of squares of each finished sub-block is kept: every momentary window (4
// sub-blocks), short-term window (30), gate and range is then built from those sums, in double
// precision. Channels are independent until their sums are weighted together, so a long call
// runs them in parallel.

#include "base/AudioSource.h"
#include "dsp/KWeighting.h"
#include "dsp/LoudnessResult.h"
#include "dsp/TruePeak.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace harlune {

/// A run of frames of one call that lies inside one sub-block.
struct LoudnessSegment {
    int start = 0;
    int count = 0;
};

/// Whether a long call spreads its channels over threads (offline) or keeps to the caller's
/// thread (live use, where starting threads would allocate).
enum class ChannelFanout { parallel, serial };

/// One channel's share of the engine: filter, peaks, raw energy and the sums of one call.
class LoudnessChannelState {
public:
    LoudnessChannelState(double sampleRate, double channelWeight, bool tracksRMS, int maxCall,
                         int maxSegments);

    /// `samples` holds the frames of all `segments`, in order. Fills `segmentSums`.
    void process(std::span<const float> samples, std::span<const LoudnessSegment> segments);
    /// Feeds the true-peak filter zeros so that it reaches the last samples; the sample peak
    /// stays as it was.
    void flushTruePeak();
    void reset();

    KWeightingFilter filter;
    TruePeakDetector peak;
    /// 0 leaves the channel out of loudness (no filtering unless `measuredAlone`); its peaks and
    /// RMS still count.
    double weight;
    /// The channel's own loudness is kept too (see `LoudnessEngine::trackChannelLoudness`).
    bool measuredAlone = false;
    bool trackRMS;
    /// Sum of squares of the unfiltered, cleaned samples.
    double rawSumSquares = 0;
    /// Sum of squares of the K-weighted signal per segment of the call in progress.
    std::vector<double> segmentSums;

private:
    // The call's samples with non-finite values replaced by 0.
    std::unique_ptr<float[]> clean_;
};

class LoudnessEngine {
public:
    /// Weights as `LoudnessAnalyzer::resolvedWeights` makes them. A rate below 10 Hz makes every
    /// sub-block one frame long.
    LoudnessEngine(int channelCount, double sampleRate,
                   const std::optional<std::vector<double>>& channelWeights, bool trackRMS,
                   ChannelFanout fanout = ChannelFanout::parallel);

    /// One view per channel, all of one length; a call with fewer views than channels, or with
    /// no frames, is ignored. Allocates nothing while the sub-block lists have room
    /// (`reserveSubblocks`) and with `ChannelFanout::serial`.
    void process(ChunkViews chunk);
    /// Back to the state of a new engine (list capacity kept).
    void reset();
    /// Everything measured so far; changes nothing.
    LoudnessResult result() const;

    /// LUFS of the last `subblocks` finished sub-blocks (fewer at the start count as silence);
    /// negative infinity before the first.
    double windowLUFS(int subblocks) const;
    /// Mean-square energy of the window of `subblocks` that ends at each finished sub-block. With
    /// `completeOnly` the first window is the first full one; otherwise windows start at the first
    /// sub-block, padded with silence in front.
    std::vector<double> windowEnergies(int subblocks, bool completeOnly) const;

    /// Keeps each channel's own sub-block sums as well, from the start of the stream, so that
    /// one pass also gives what a pass with weight 1 for that channel and 0 for the others would.
    /// For offline use: the lists grow as they go. Call before the first `process`.
    void trackChannelLoudness();
    /// Integrated loudness of each channel alone, LUFS; empty unless tracked.
    std::vector<double> channelIntegratedLUFS() const;

    /// Makes room for `count` finished sub-blocks.
    void reserveSubblocks(size_t count);
    /// See `LoudnessChannelState::flushTruePeak`; for the end of a stream.
    void flushTruePeaks();

    /// Frames of sub-block `index` (from 0 at the start of the stream).
    int64_t subblockLength(int64_t index) const;

    int channelCount() const { return channelCount_; }
    double sampleRate() const { return sampleRate_; }
    const std::vector<double>& weights() const { return weights_; }
    const std::vector<LoudnessChannelState>& channels() const { return channels_; }
    /// Weighted sum over channels of each finished sub-block's sums of squares.
    const std::vector<double>& subblockSums() const { return subblockSums_; }
    /// Frames of each finished sub-block.
    const std::vector<int64_t>& subblockCounts() const { return subblockCounts_; }
    /// Frames of the sub-block in progress.
    int64_t fill() const { return fill_; }
    int64_t framesTotal() const { return framesTotal_; }

    /// Frames per call that the work buffers hold; longer calls go in pieces.
    static constexpr int maxCall = 65536;
    /// From this many frames per call, channels run in parallel.
    static constexpr int parallelThreshold = 8192;

private:
    void processPiece(ChunkViews chunk, int offset, int count);
    /// `windowEnergies` over other sub-block sums (one channel's).
    std::vector<double> windowEnergiesOf(const std::vector<double>& sums, int subblocks,
                                         bool completeOnly) const;

    int channelCount_;
    double sampleRate_;
    ChannelFanout fanout_;
    std::vector<double> weights_;
    std::vector<LoudnessChannelState> channels_;
    std::vector<double> subblockSums_;
    /// Per channel, when tracked: that channel's share of each finished sub-block, unweighted.
    std::vector<std::vector<double>> channelSubblockSums_;
    std::vector<int64_t> subblockCounts_;
    std::vector<double> accum_;
    int64_t fill_ = 0;
    int64_t framesTotal_ = 0;
    std::vector<LoudnessSegment> segments_;
    std::vector<bool> completes_;
};

/// 10 log10(E) - 0.691 for a mean-square energy, negative infinity for 0 or less.
double loudnessOfEnergy(double energy);

} // namespace harlune
