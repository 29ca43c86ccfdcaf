// The saturator as the rack runs it: one 256-frame stereo callback at 48 kHz, with 4x
// oversampling in each curve, through the crusher, and during a crossfade between two curves
// (both run on the same oversampled signal). The per-callback CPU time against the callback's
// 5.33 ms budget is the figure that matters; "x real time" is that ratio.

#include "dsp/effects/DistortionProcessor.h"

#include <array>
#include <benchmark/benchmark.h>
#include <random>
#include <vector>

namespace harlune {
namespace {

constexpr double rate = 48000;
constexpr int frames = 256;

void runCallbacks(benchmark::State& state, SaturationMode mode, bool crossfading) {
    DistortionProcessor processor;
    DistortionSettings settings{.mode = mode, .driveDB = 18, .toneHz = 9000, .outputDB = -6, .mix = 0.9};
    processor.apply(settings);
    processor.prepare(rate, 2, frames);
    std::mt19937 generator(1);
    std::uniform_real_distribution<float> uniform(-0.5f, 0.5f);
    std::array<std::vector<float>, 2> input;
    for (auto& plane : input) {
        plane.resize(frames);
        for (float& x : plane)
            x = uniform(generator);
    }
    std::array<std::vector<float>, 2> buffers = input;
    std::array<float*, 2> pointers{buffers[0].data(), buffers[1].data()};
    const ChannelSpan span(ChannelPointers(pointers), frames);
    const DistortionSettings other = [&] {
        DistortionSettings s = settings;
        s.mode = SaturationMode::tube;
        return s;
    }();
    int64_t call = 0;
    for (auto _ : state) {
        if (crossfading && call % 4 == 0) // a 20 ms fade takes four callbacks of 256 frames
            processor.apply((call / 4) % 2 == 0 ? other : settings);
        buffers = input;
        processor.process(span);
        benchmark::DoNotOptimize(buffers[0].data());
        ++call;
    }
    state.counters["x real time"] =
        benchmark::Counter(frames / rate, benchmark::Counter::kIsIterationInvariantRate);
}

void BM_DistortionCallbackSoft(benchmark::State& state) {
    runCallbacks(state, SaturationMode::soft, false);
}
void BM_DistortionCallbackTube(benchmark::State& state) {
    runCallbacks(state, SaturationMode::tube, false);
}
void BM_DistortionCallbackHard(benchmark::State& state) {
    runCallbacks(state, SaturationMode::hard, false);
}
void BM_DistortionCallbackBitcrush(benchmark::State& state) {
    runCallbacks(state, SaturationMode::bitcrush, false);
}
void BM_DistortionCallbackCrossfading(benchmark::State& state) {
    runCallbacks(state, SaturationMode::soft, true);
}

BENCHMARK(BM_DistortionCallbackSoft)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DistortionCallbackTube)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DistortionCallbackHard)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DistortionCallbackBitcrush)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DistortionCallbackCrossfading)->Unit(benchmark::kMicrosecond);

} // namespace
} // namespace harlune
