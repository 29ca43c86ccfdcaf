// The inspector's figures: one spectrum frame of 8192 points as the panel takes it (through the
// envelopes, stereo), in microseconds per frame, and the signal statistics of an hour of stereo
// built from 64 distinct noise blocks (32 MB, more than a cache holds) repeated.
#include "BenchAudio.h"
#include "core/AudioContent.h"
#include "core/EnvelopedSource.h"
#include "dsp/SignalAnalysis.h"
#include "dsp/SpectrumAnalyzer.h"

namespace harlune::bench {
namespace {

AudioContent noiseContent(int64_t frames) {
    std::mt19937 generator(5);
    std::uniform_real_distribution<float> uniform(-0.5f, 0.5f);
    std::vector<AudioBlockRef> blocks;
    for (int b = 0; b < 64; ++b) {
        std::vector<std::vector<float>> planes(2, std::vector<float>(AudioBlock::preferredFrameCount));
        for (auto& plane : planes)
            std::generate(plane.begin(), plane.end(), [&] { return uniform(generator); });
        blocks.push_back(AudioBlock::make(std::move(planes)));
    }
    std::vector<Segment> segments;
    for (int64_t at = 0, b = 0; at < frames; at += AudioBlock::preferredFrameCount, ++b)
        segments.push_back(
            {blocks[static_cast<size_t>(b % 64)], 0, std::min(AudioBlock::preferredFrameCount, frames - at)});
    return AudioContent(2, 48000, std::move(segments));
}

void spectrumFrame8192(benchmark::State& state) {
    const EnvelopedSource source(noiseContent(48000 * 60), EnvelopeSet{});
    SpectrumAnalyzer analyzer(8192, WindowFunction::blackmanHarris);
    int64_t centre = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(analyzer.spectrum(source, centre));
        centre = (centre + 1600) % source.frameCount(); // a playhead at 30 updates per second
    }
}
BENCHMARK(spectrumFrame8192)->Unit(benchmark::kMicrosecond);

void statsOfAnHour(benchmark::State& state) {
    const AudioContent content = noiseContent(int64_t{48000} * 3600);
    for (auto _ : state)
        benchmark::DoNotOptimize(SignalAnalysis::stats(content, content.fullRange()));
}
BENCHMARK(statsOfAnHour)->Apply([](benchmark::internal::Benchmark* b) { withMinimum(b); });

} // namespace
} // namespace harlune::bench
