// Whole-content processing, peak measurement and envelope reads over long content built from
// shared blocks: one minute of stereo noise repeated by segments, so the source costs little
// memory. A whole-content transform writes new blocks, so those run on ten minutes (230 MB of
// new float data per pass); figures are reported as bytes of float data per second.

#include "core/AudioContentBuilder.h"
#include "core/EnvelopedSource.h"
#include "core/Processing.h"

#include <benchmark/benchmark.h>
#include <random>

namespace harlune {
namespace {

constexpr double rate = 48000;
constexpr int channels = 2;

const AudioContent& oneMinute() {
    static const AudioContent minute = [] {
        std::mt19937 random(1);
        std::uniform_real_distribution<float> uniform(-0.5f, 0.5f);
        std::vector<std::vector<float>> planes(channels, std::vector<float>(static_cast<size_t>(60 * rate)));
        for (auto& plane : planes)
            for (auto& x : plane)
                x = uniform(random);
        return AudioContent(std::move(planes), rate);
    }();
    return minute;
}

AudioContent repeatedMinutes(int minutes) {
    AudioContentBuilder builder(channels, rate);
    for (int i = 0; i < minutes; ++i)
        builder.append(oneMinute());
    return builder.build();
}

void setBytes(benchmark::State& state, const AudioContent& content) {
    state.SetBytesProcessed(state.iterations() * content.frameCount() * content.channelCount() *
                            static_cast<int64_t>(sizeof(float)));
}

void BM_ApplyingGain(benchmark::State& state) {
    const AudioContent content = repeatedMinutes(10);
    for (auto _ : state) {
        AudioContent result = applyingGain(content, -3);
        benchmark::DoNotOptimize(result);
    }
    setBytes(state, content);
}
BENCHMARK(BM_ApplyingGain)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_ApplyingFade(benchmark::State& state) {
    const AudioContent content = repeatedMinutes(10);
    for (auto _ : state) {
        AudioContent result = applyingFade(content, FadeDirection::fadeIn, FadeShape::sCurve);
        benchmark::DoNotOptimize(result);
    }
    setBytes(state, content);
}
BENCHMARK(BM_ApplyingFade)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_Reversed(benchmark::State& state) {
    const AudioContent content = repeatedMinutes(10);
    for (auto _ : state) {
        AudioContent result = reversed(content);
        benchmark::DoNotOptimize(result);
    }
    setBytes(state, content);
}
BENCHMARK(BM_Reversed)->Unit(benchmark::kMillisecond)->Iterations(3);

/// The measuring half of normalising one hour: peaks from the summaries, over a range that
/// starts and ends inside blocks.
void BM_NormalizingPeakMeasure(benchmark::State& state) {
    const AudioContent content = repeatedMinutes(60);
    const FrameRange range{12'345, content.frameCount() - 54'321};
    for (auto _ : state)
        benchmark::DoNotOptimize(samplePeaks(content, range));
}
BENCHMARK(BM_NormalizingPeakMeasure)->Unit(benchmark::kMillisecond);

/// Normalising one hour of silence-free content to where it already is: the peak is measured
/// and the gain of 0 dB is still applied, so this is measurement plus one whole transform.
void BM_NormalizingPeakTenMinutes(benchmark::State& state) {
    const AudioContent content = repeatedMinutes(10);
    for (auto _ : state) {
        AudioContent result = normalizingPeak(content, -1);
        benchmark::DoNotOptimize(result);
    }
    setBytes(state, content);
}
BENCHMARK(BM_NormalizingPeakTenMinutes)->Unit(benchmark::kMillisecond)->Iterations(3);

/// Reads of one hour through a 100-point master envelope, in chunks of `state.range(0)` frames.
/// Items are frames per channel.
void BM_EnvelopedSourceRead(benchmark::State& state) {
    const AudioContent content = repeatedMinutes(60);
    GainEnvelope master;
    for (int i = 0; i < 100; ++i)
        master.insert(content.frameCount() * i / 99, -20.0 + (i % 5) * 4.5);
    const EnvelopedSource source(content, master);
    const int64_t chunk = state.range(0);
    std::vector<std::vector<float>> buffers(channels, std::vector<float>(static_cast<size_t>(chunk)));
    std::vector<float*> pointers{buffers[0].data(), buffers[1].data()};
    int64_t frames = 0;
    for (auto _ : state) {
        for (int64_t at = 0; at + chunk <= content.frameCount(); at += chunk) {
            source.read({at, at + chunk}, pointers);
            frames += chunk;
        }
        benchmark::DoNotOptimize(buffers[0].data());
    }
    state.SetItemsProcessed(frames * channels);
}
BENCHMARK(BM_EnvelopedSourceRead)->Arg(4096)->Arg(65536)->Unit(benchmark::kMillisecond)->Iterations(2);

} // namespace
} // namespace harlune
