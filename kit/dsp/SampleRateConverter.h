#pragma once

#include "base/AudioSource.h"
#include "base/FunctionRef.h"

#include <cstdint>
#include <vector>

struct soxr;

namespace harlune {

/// A streaming fixed-ratio converter of planar float audio at mastering quality (libsoxr, very
/// high quality: 28-bit precision, passband to about 91 % of the lower Nyquist frequency).
///
/// The output is time-aligned with the input: output frame k stands at input time
/// k × inputRate ÷ outputRate, with no leading delay to trim. That is what lets a long file be
/// converted in segments with warm-up, and lets an export stage simply pass frames on.
/// One object converts one stream; it is not shared between threads.
class SampleRateConverter {
public:
    /// Receives output as it comes: one view per channel, at most `maxOutputChunk` frames. The
    /// views are valid only during the call.
    using Output = FunctionRef<void(ChunkViews)>;

    static constexpr int64_t maxOutputChunk = 16384;

    /// Both rates in Hz. A channel count below 1 throws `unsupportedFormat` with "N channels";
    /// rates the converter refuses throw it with "44100.0 Hz -> 48000.0 Hz".
    SampleRateConverter(int channelCount, double inputRate, double outputRate);
    ~SampleRateConverter();
    SampleRateConverter(SampleRateConverter&& other) noexcept;
    SampleRateConverter& operator=(SampleRateConverter&& other) noexcept;
    SampleRateConverter(const SampleRateConverter&) = delete;
    SampleRateConverter& operator=(const SampleRateConverter&) = delete;

    int channelCount() const { return channelCount_; }
    double inputRate() const { return inputRate_; }
    double outputRate() const { return outputRate_; }
    /// Frames fed since the start of the stream.
    int64_t inputFrames() const { return inputFrames_; }
    /// Frames handed to `Output` since the start of the stream.
    int64_t outputFrames() const { return outputFrames_; }

    /// Feeds one chunk (one view per channel, all of one length) and passes on what output is
    /// ready. A failure of the converter throws `encodeFailed`.
    void process(ChunkViews input, Output output);
    /// Ends the stream: the filter's tail goes out, and the whole stream's output is made exactly
    /// `outputFrameCount(inputFrames())` long, trimmed or padded with zeros.
    void finish(Output output);
    /// Ready for a fresh stream with the same settings.
    void reset();

    /// round(outputRate × frames ÷ inputRate), halves away from zero: the length of a whole
    /// stream's output.
    static int64_t outputFrameCount(int64_t inputFrames, double inputRate, double outputRate);

private:
    void run(const float* const* input, int64_t frames, Output output, int64_t limit);
    void deliver(int64_t frames, Output output);

    int channelCount_;
    double inputRate_;
    double outputRate_;
    soxr* converter_ = nullptr;
    int64_t inputFrames_ = 0;
    int64_t outputFrames_ = 0;
    std::vector<std::vector<float>> scratch_;
    std::vector<float*> scratchPointers_;
    std::vector<const float*> inputPointers_;
    std::vector<std::span<const float>> views_;
};

} // namespace harlune
