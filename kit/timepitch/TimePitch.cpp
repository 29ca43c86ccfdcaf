#include "timepitch/TimePitch.h"

#include "base/DoubleText.h"
#include "base/HarluneError.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <rubberband/RubberBandStretcher.h>
#include <thread>
#include <vector>

namespace harlune::TimePitch {

namespace {

using RubberBand::RubberBandStretcher;

/// Planar buffers of `chunkFrames` per channel, with the pointer and view lists to match.
struct ChunkBuffers {
    explicit ChunkBuffers(int channels)
        : planes(static_cast<size_t>(channels), std::vector<float>(static_cast<size_t>(chunkFrames))),
          pointers(planes.size()), views(planes.size()) {
        for (size_t c = 0; c < planes.size(); ++c)
            pointers[c] = planes[c].data();
    }
    ChunkViews first(int64_t frames) {
        for (size_t c = 0; c < planes.size(); ++c)
            views[c] = std::span<const float>(planes[c].data(), static_cast<size_t>(frames));
        return views;
    }

    std::vector<std::vector<float>> planes;
    std::vector<float*> pointers;
    std::vector<std::span<const float>> views;
};

RubberBandStretcher::Options optionsFor(Engine engine) {
    // Channels together: the stereo image is kept, rather than each channel stretched apart.
    const auto shared =
        RubberBandStretcher::OptionProcessOffline | RubberBandStretcher::OptionChannelsTogether;
    if (engine == Engine::finer)
        return shared | RubberBandStretcher::OptionEngineFiner;
    // R2 resets phases at every detected transient by default, and its detector fires on steady
    // tones too, which leaves a pure sine with sidebands a few dB below it. Mixed transients keep
    // the resets out of the range of musical fundamentals.
    return shared | RubberBandStretcher::OptionEngineFaster | RubberBandStretcher::OptionTransientsMixed;
}

} // namespace

std::string_view rawValue(Engine engine) {
    return engine == Engine::finer ? "finer" : "faster";
}

std::optional<Engine> engineFromRawValue(std::string_view raw) {
    for (const Engine engine : {Engine::finer, Engine::faster})
        if (raw == rawValue(engine))
            return engine;
    return std::nullopt;
}

int64_t outputFrameCount(int64_t inputFrames, double rate) {
    return static_cast<int64_t>(std::round(static_cast<double>(inputFrames) / rate));
}

void render(const AudioSource& source, std::optional<FrameRange> range, double rate, double pitchCents,
            Progress progress, Emit emit, Engine engine) {
    if (!std::isfinite(rate) || rate < minimumRate || rate > maximumRate)
        throw HarluneError::unsupportedFormat("Tempo rate " + doubleText(rate) + " is outside " +
                                              doubleText(minimumRate) + "..." + doubleText(maximumRate));
    if (!std::isfinite(pitchCents) || std::abs(pitchCents) > maximumCents)
        throw HarluneError::unsupportedFormat("Pitch shift " + doubleText(pitchCents) + " cents is outside " +
                                              doubleText(-maximumCents) + "..." + doubleText(maximumCents));

    const FrameRange walk = range.value_or(source.fullRange()).clamped(source.fullRange());
    const int channels = source.channelCount();
    const int64_t outputFrames = outputFrameCount(walk.length(), rate);
    if (outputFrames < 1 || channels < 1)
        return;

    const auto sampleRate = static_cast<size_t>(std::max(1.0, std::round(source.sampleRate())));
    RubberBandStretcher stretcher(sampleRate, static_cast<size_t>(channels), optionsFor(engine), 1.0 / rate,
                                  std::pow(2.0, pitchCents / 1200.0));
    // Knowing the input length is what makes offline mode keep the length.
    stretcher.setExpectedInputDuration(static_cast<size_t>(walk.length()));
    stretcher.setMaxProcessSize(static_cast<size_t>(chunkFrames));

    ChunkBuffers input(channels);
    ChunkBuffers output(channels);
    int64_t emitted = 0;
    const auto report = [&] {
        if (progress && !(*progress)(static_cast<double>(emitted) / static_cast<double>(outputFrames)))
            throw HarluneError::cancelled();
    };
    const auto deliver = [&](int64_t frames) {
        const int64_t n = std::min(frames, outputFrames - emitted);
        if (n > 0) {
            emit(output.first(n));
            emitted += n;
        }
        report();
    };
    const auto drain = [&] {
        for (int available = stretcher.available(); available > 0; available = stretcher.available()) {
            const auto frames =
                stretcher.retrieve(output.pointers.data(), std::min(static_cast<size_t>(available),
                                                                    static_cast<size_t>(chunkFrames)));
            deliver(static_cast<int64_t>(frames));
        }
    };

    report();
    // The study pass lets the stretcher place its transients and its stretch over the whole range.
    for (int64_t position = walk.lower; position < walk.upper;) {
        const int64_t n = std::min(chunkFrames, walk.upper - position);
        source.read({position, position + n}, input.pointers);
        position += n;
        stretcher.study(input.pointers.data(), static_cast<size_t>(n), position == walk.upper);
        report();
    }
    for (int64_t position = walk.lower; position < walk.upper;) {
        const int64_t n = std::min(chunkFrames, walk.upper - position);
        source.read({position, position + n}, input.pointers);
        position += n;
        stretcher.process(input.pointers.data(), static_cast<size_t>(n), position == walk.upper);
        drain();
    }
    // Until the stretcher says it is done (-1): the faster engine may still be working in its own
    // threads when it reports nothing available.
    while (stretcher.available() >= 0) {
        drain();
        if (stretcher.available() == 0)
            std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    // Rubber Band's rounding of the length may differ from ours by a frame.
    for (auto& plane : output.planes)
        std::fill(plane.begin(), plane.end(), 0.0f);
    while (emitted < outputFrames)
        deliver(std::min(chunkFrames, outputFrames - emitted));
}

} // namespace harlune::TimePitch
