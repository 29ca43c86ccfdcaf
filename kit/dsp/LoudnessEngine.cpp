#include "dsp/LoudnessEngine.h"

#include "dsp/FiniteSamples.h"
#include "dsp/LoudnessAnalyzer.h"
#include "dsp/ParallelFor.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace harlune {

namespace {

constexpr double negativeInfinity = -std::numeric_limits<double>::infinity();

double amplitudeDB(double linear) {
    return linear > 0 ? 20 * std::log10(linear) : negativeInfinity;
}

double sumOfSquares(const double* x, int count) {
    double sum = 0;
#pragma omp simd reduction(+ : sum)
    for (int i = 0; i < count; ++i)
        sum += x[i] * x[i];
    return sum;
}

float sumOfSquares(const float* x, int count) {
    float sum = 0;
#pragma omp simd reduction(+ : sum)
    for (int i = 0; i < count; ++i)
        sum += x[i] * x[i];
    return sum;
}

} // namespace

double loudnessOfEnergy(double energy) {
    return energy > 0 ? 10 * std::log10(energy) - 0.691 : negativeInfinity;
}

// LoudnessChannelState ---------------------------------------------------------------------------

LoudnessChannelState::LoudnessChannelState(double sampleRate, double channelWeight, bool tracksRMS,
                                           int maxCall, int maxSegments)
    : filter(sampleRate), peak(sampleRate), weight(channelWeight), trackRMS(tracksRMS),
      segmentSums(static_cast<size_t>(maxSegments)),
      clean_(std::make_unique_for_overwrite<float[]>(static_cast<size_t>(maxCall))) {}

void LoudnessChannelState::process(std::span<const float> samples,
                                   std::span<const LoudnessSegment> segments) {
    const int count = static_cast<int>(samples.size());
    float* clean = clean_.get();
    copyFinite(samples.data(), count, clean);
    const std::span<const float> cleaned(clean, samples.size());

    if (weight != 0 || measuredAlone) {
        const std::span<const double> filtered = filter.process(cleaned);
        for (size_t s = 0; s < segments.size(); ++s)
            segmentSums[s] = sumOfSquares(filtered.data() + segments[s].start, segments[s].count);
    }
    if (trackRMS) {
        constexpr int block = 4096;
        for (int start = 0; start < count; start += block)
            rawSumSquares += static_cast<double>(sumOfSquares(clean + start, std::min(block, count - start)));
    }
    peak.process(cleaned);
}

void LoudnessChannelState::flushTruePeak() {
    const int taps = peak.interpolator().taps;
    if (taps < 2)
        return;
    const float kept = peak.samplePeak;
    float zeros[64] = {};
    for (int left = taps / 2; left > 0; left -= 64)
        peak.process({zeros, static_cast<size_t>(std::min(left, 64))});
    peak.samplePeak = kept;
}

void LoudnessChannelState::reset() {
    filter.reset();
    peak.reset();
    rawSumSquares = 0;
    std::fill(segmentSums.begin(), segmentSums.end(), 0.0);
}

// LoudnessEngine ---------------------------------------------------------------------------------

LoudnessEngine::LoudnessEngine(int channelCount, double sampleRate,
                               const std::optional<std::vector<double>>& channelWeights, bool trackRMS,
                               ChannelFanout fanout)
    : channelCount_(std::max(0, channelCount)), sampleRate_(sampleRate), fanout_(fanout),
      weights_(LoudnessAnalyzer::resolvedWeights(channelWeights, channelCount_)),
      accum_(static_cast<size_t>(channelCount_)) {
    // Sub-blocks are never shorter than ceil(rate / 10 - 1) frames, nor than 1.
    const double shortest = std::max(1.0, std::ceil(sampleRate / 10 - 1));
    const int maxSegments = static_cast<int>(maxCall / shortest) + 3;
    segments_.reserve(static_cast<size_t>(maxSegments));
    completes_.reserve(static_cast<size_t>(maxSegments));
    channels_.reserve(static_cast<size_t>(channelCount_));
    for (int c = 0; c < channelCount_; ++c)
        channels_.emplace_back(sampleRate, weights_[static_cast<size_t>(c)], trackRMS, maxCall, maxSegments);
}

int64_t LoudnessEngine::subblockLength(int64_t index) const {
    // Borders at round(rate * i / 10), halves away from zero, so they never drift.
    const auto border = [this](int64_t i) {
        return std::llround(sampleRate_ * static_cast<double>(i) / 10);
    };
    return std::max<int64_t>(1, border(index + 1) - border(index));
}

void LoudnessEngine::process(ChunkViews chunk) {
    if (channelCount_ == 0 || static_cast<int>(chunk.size()) < channelCount_)
        return;
    const auto frames = static_cast<int64_t>(chunk[0].size());
    for (int c = 1; c < channelCount_; ++c)
        HARLUNE_PRECONDITION(static_cast<int64_t>(chunk[static_cast<size_t>(c)].size()) == frames,
                             "loudness chunk views differ in length");
    for (int64_t offset = 0; offset < frames; offset += maxCall)
        processPiece(chunk, static_cast<int>(offset),
                     static_cast<int>(std::min<int64_t>(maxCall, frames - offset)));
}

void LoudnessEngine::processPiece(ChunkViews chunk, int offset, int count) {
    segments_.clear();
    completes_.clear();
    {
        auto index = static_cast<int64_t>(subblockSums_.size());
        int64_t filled = fill_;
        for (int position = 0; position < count;) {
            const int64_t need = subblockLength(index) - filled;
            const int take = static_cast<int>(std::min<int64_t>(need, count - position));
            segments_.push_back({position, take});
            const bool complete = take == need;
            completes_.push_back(complete);
            filled = complete ? 0 : filled + take;
            index += complete ? 1 : 0;
            position += take;
        }
    }

    const auto runChannel = [&](int64_t c) {
        const auto& view = chunk[static_cast<size_t>(c)];
        channels_[static_cast<size_t>(c)].process(
            view.subspan(static_cast<size_t>(offset), static_cast<size_t>(count)), segments_);
    };
    const bool concurrent =
        fanout_ == ChannelFanout::parallel && channelCount_ > 1 && count >= parallelThreshold;
    parallelFor(channelCount_, concurrent, runChannel);

    for (size_t s = 0; s < segments_.size(); ++s) {
        for (size_t c = 0; c < channels_.size(); ++c)
            if (channels_[c].weight != 0 || channels_[c].measuredAlone)
                accum_[c] += channels_[c].segmentSums[s];
        fill_ += segments_[s].count;
        if (!completes_[s])
            continue;
        double sum = 0;
        for (size_t c = 0; c < channels_.size(); ++c)
            if (channels_[c].weight != 0)
                sum += weights_[c] * accum_[c];
        for (size_t c = 0; c < channelSubblockSums_.size(); ++c)
            channelSubblockSums_[c].push_back(accum_[c]);
        std::fill(accum_.begin(), accum_.end(), 0.0);
        subblockSums_.push_back(sum);
        subblockCounts_.push_back(fill_);
        fill_ = 0;
    }
    framesTotal_ += count;
}

void LoudnessEngine::reset() {
    for (auto& channel : channels_)
        channel.reset();
    subblockSums_.clear();
    for (auto& sums : channelSubblockSums_)
        sums.clear();
    subblockCounts_.clear();
    std::fill(accum_.begin(), accum_.end(), 0.0);
    fill_ = 0;
    framesTotal_ = 0;
}

void LoudnessEngine::reserveSubblocks(size_t count) {
    subblockSums_.reserve(count);
    subblockCounts_.reserve(count);
    for (auto& sums : channelSubblockSums_)
        sums.reserve(count);
}

void LoudnessEngine::trackChannelLoudness() {
    HARLUNE_PRECONDITION(framesTotal_ == 0, "channel loudness tracked from the start of a stream only");
    channelSubblockSums_.assign(channels_.size(), {});
    for (auto& channel : channels_)
        channel.measuredAlone = true;
    for (auto& sums : channelSubblockSums_)
        sums.reserve(subblockSums_.capacity());
}

std::vector<double> LoudnessEngine::channelIntegratedLUFS() const {
    std::vector<double> loudness;
    for (const auto& sums : channelSubblockSums_)
        loudness.push_back(LoudnessAnalyzer::gatedLoudness(windowEnergiesOf(sums, 4, true), -10));
    return loudness;
}

void LoudnessEngine::flushTruePeaks() {
    for (auto& channel : channels_)
        channel.flushTruePeak();
}

std::vector<double> LoudnessEngine::windowEnergies(int subblocks, bool completeOnly) const {
    return windowEnergiesOf(subblockSums_, subblocks, completeOnly);
}

std::vector<double> LoudnessEngine::windowEnergiesOf(const std::vector<double>& sums, int subblocks,
                                                     bool completeOnly) const {
    std::vector<double> energies;
    const auto finished = static_cast<int64_t>(sums.size());
    const int64_t n = std::max(1, subblocks);
    const int64_t first = completeOnly ? n - 1 : 0;
    if (finished <= first)
        return energies;
    energies.reserve(static_cast<size_t>(finished - first));
    for (int64_t i = first; i < finished; ++i) {
        double sum = 0;
        int64_t frames = 0;
        // Summed afresh for each window: a running difference would leave rounding residue
        // where silence follows loud audio.
        for (int64_t j = std::max<int64_t>(i - n + 1, 0); j <= i; ++j) {
            sum += sums[static_cast<size_t>(j)];
            frames += subblockCounts_[static_cast<size_t>(j)];
        }
        const auto missing = static_cast<double>(std::max<int64_t>(n - 1 - i, 0));
        energies.push_back(sum / (static_cast<double>(frames) + missing * sampleRate_ / 10));
    }
    return energies;
}

double LoudnessEngine::windowLUFS(int subblocks) const {
    const size_t finished = subblockSums_.size();
    if (finished == 0)
        return negativeInfinity;
    const size_t n = static_cast<size_t>(std::max(1, subblocks));
    const size_t taken = std::min(n, finished);
    double sum = 0;
    int64_t frames = 0;
    for (size_t j = finished - taken; j < finished; ++j) {
        sum += subblockSums_[j];
        frames += subblockCounts_[j];
    }
    return loudnessOfEnergy(
        sum / (static_cast<double>(frames) + static_cast<double>(n - taken) * sampleRate_ / 10));
}

LoudnessResult LoudnessEngine::result() const {
    LoudnessResult result;
    const std::vector<double> momentary = windowEnergies(4, false);
    const std::vector<double> shortTerm = windowEnergies(30, false);

    result.truePeakDBTP = negativeInfinity;
    result.samplePeakDBFS = negativeInfinity;
    double rawSum = 0;
    for (const auto& channel : channels_) {
        const double truePeak = amplitudeDB(std::max(channel.peak.samplePeak, channel.peak.interPeak));
        const double samplePeak = amplitudeDB(channel.peak.samplePeak);
        result.truePeakPerChannel.push_back(truePeak);
        result.samplePeakPerChannel.push_back(samplePeak);
        result.truePeakDBTP = std::max(result.truePeakDBTP, truePeak);
        result.samplePeakDBFS = std::max(result.samplePeakDBFS, samplePeak);
        rawSum += channel.rawSumSquares;
    }
    const double rms = framesTotal_ > 0 && channelCount_ > 0
                           ? std::sqrt(rawSum / (static_cast<double>(framesTotal_) * channelCount_))
                           : 0.0;
    result.rmsDBFS = amplitudeDB(rms);

    result.integratedLUFS = LoudnessAnalyzer::gatedLoudness(windowEnergies(4, true), -10);
    result.loudnessRangeLU = LoudnessAnalyzer::loudnessRange(windowEnergies(30, true));

    const auto largest = [](const std::vector<double>& energies) {
        return energies.empty() ? negativeInfinity
                                : loudnessOfEnergy(*std::max_element(energies.begin(), energies.end()));
    };
    result.maxMomentaryLUFS = largest(momentary);
    result.maxShortTermLUFS = largest(shortTerm);
    result.hopSeconds = 0.1;

    const auto curve = [](const std::vector<double>& energies) {
        std::vector<float> values(energies.size());
        for (size_t i = 0; i < energies.size(); ++i)
            values[i] = static_cast<float>(
                std::max(loudnessOfEnergy(energies[i]), LoudnessAnalyzer::silenceFloorLUFS));
        return values;
    };
    result.momentary = curve(momentary);
    result.shortTerm = curve(shortTerm);
    return result;
}

} // namespace harlune
