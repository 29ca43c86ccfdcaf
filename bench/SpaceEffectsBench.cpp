// The reverb and the noise reduction as the rack runs them: CPU time per 256-frame stereo
// callback at 48 kHz, and the reverb's cost per block along a tail decaying into 60 s of silence,
// which must stay flat (no slow-down as the tail passes through the denormal range).
#include "dsp/effects/NoiseReductionProcessor.h"
#include "dsp/effects/ReverbProcessor.h"

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cmath>
#include <random>
#include <vector>

namespace harlune {
namespace {

constexpr double rate = 48000;
constexpr int block = 256;

struct StereoBlock {
    std::array<std::vector<float>, 2> planes;
    std::array<float*, 2> pointers{};

    explicit StereoBlock(uint32_t seed) {
        std::mt19937 random(seed);
        std::uniform_real_distribution<float> uniform(-0.3f, 0.3f);
        for (size_t c = 0; c < 2; ++c) {
            planes[c].resize(block);
            for (float& x : planes[c])
                x = uniform(random);
            pointers[c] = planes[c].data();
        }
    }
    ChannelSpan span() { return ChannelSpan(ChannelPointers(pointers), block); }
    void fill(float value) {
        for (auto& plane : planes)
            std::fill(plane.begin(), plane.end(), value);
    }
};

// Processes fresh noise each callback: a 256-frame copy from one second of noise, which costs
// little beside the effect (and less than pausing the timer would).
void runCallbacks(benchmark::State& state, EffectProcessor& processor) {
    const int blocks = static_cast<int>(rate) / block;
    std::vector<StereoBlock> source;
    for (int i = 0; i < blocks; ++i)
        source.emplace_back(static_cast<uint32_t>(i + 1));
    StereoBlock work(0);
    int next = 0;
    for (auto _ : state) {
        const StereoBlock& from = source[static_cast<size_t>(next)];
        next = (next + 1) % blocks;
        std::copy(from.planes[0].begin(), from.planes[0].end(), work.planes[0].begin());
        std::copy(from.planes[1].begin(), from.planes[1].end(), work.planes[1].begin());
        processor.process(work.span());
        benchmark::DoNotOptimize(work.planes[0].data());
    }
    state.counters["real-time factor"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * block / rate, benchmark::Counter::kIsRate);
}

void BM_ReverbStereoCallback(benchmark::State& state) {
    ReverbProcessor reverb;
    reverb.apply(ReverbSettings{});
    reverb.prepare(rate, 2, block);
    runCallbacks(state, reverb);
}
BENCHMARK(BM_ReverbStereoCallback)->Unit(benchmark::kMicrosecond);

void BM_NoiseReductionStereoCallback(benchmark::State& state) {
    NoiseProfile profile{2048, rate, std::vector<float>(1025, 0.001f)};
    NoiseReductionProcessor reduction;
    reduction.apply(NoiseReductionSettings{.profile = profile});
    reduction.prepare(rate, 2, block);
    runCallbacks(state, reduction);
}
BENCHMARK(BM_NoiseReductionStereoCallback)->Unit(benchmark::kMicrosecond);

// One second of noise into a 2 s reverb, then 60 s of silence in callbacks, so that the tail
// falls through the whole float range (denormals near 25 s): the median time per
// block over the first and the last second of silence, their ratio, and the slowest
// second's over the first (flat is 1).
void BM_ReverbTailIntoSilence(benchmark::State& state) {
    for (auto _ : state) {
        ReverbProcessor reverb;
        reverb.apply(ReverbSettings{.decaySeconds = 2, .size = 1, .damping = 0.3, .mix = 1});
        reverb.prepare(rate, 2, block);
        StereoBlock work(2);
        const int perSecond = static_cast<int>(rate) / block;
        for (int i = 0; i < perSecond; ++i) {
            StereoBlock noise(static_cast<uint32_t>(i + 10));
            reverb.process(noise.span());
        }
        std::vector<double> seconds(60 * static_cast<size_t>(perSecond));
        for (double& elapsed : seconds) {
            work.fill(0);
            const auto start = std::chrono::steady_clock::now();
            reverb.process(work.span());
            elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        }
        // Per second, the median block: robust to the odd preemption on a shared machine.
        std::vector<double> medians;
        for (size_t from = 0; from < seconds.size(); from += static_cast<size_t>(perSecond)) {
            std::vector<double> second(seconds.begin() + static_cast<long>(from),
                                       seconds.begin() + static_cast<long>(from) + perSecond);
            std::nth_element(second.begin(), second.begin() + perSecond / 2, second.end());
            medians.push_back(second[static_cast<size_t>(perSecond / 2)]);
        }
        const double first = medians.front();
        state.counters["first s us/block"] = first * 1e6;
        state.counters["last s us/block"] = medians.back() * 1e6;
        state.counters["last/first"] = medians.back() / first;
        state.counters["slowest/first"] = *std::max_element(medians.begin(), medians.end()) / first;
    }
}
BENCHMARK(BM_ReverbTailIntoSilence)->Unit(benchmark::kMillisecond)->Iterations(1);

} // namespace
} // namespace harlune
