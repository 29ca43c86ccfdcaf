// CPU of the dynamics and tone processors per 256-frame stereo callback at 48 kHz, as the live
// rack runs them. The input is one second of pink-ish noise with a tone, cut into callbacks and
// copied fresh into the callback buffer each time (the copy is part of every figure). The
// "coreShare" counter is the fraction of one core the effect needs in real time (so 1.2m
// reads 0.12 %).
#include "dsp/effects/CompressorProcessor.h"
#include "dsp/effects/EQProcessor.h"
#include "dsp/effects/GateProcessor.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cmath>
#include <memory>
#include <numbers>
#include <random>
#include <vector>

namespace harlune {
namespace {

constexpr double rate = 48000;
constexpr int channels = 2;
constexpr int callback = 256;

std::vector<std::vector<float>> programme() {
    std::mt19937 random(7);
    std::normal_distribution<float> normal(0.0f, 0.1f);
    std::vector<std::vector<float>> planes(channels, std::vector<float>(static_cast<size_t>(rate)));
    for (int c = 0; c < channels; ++c) {
        float smooth = 0;
        for (size_t i = 0; i < planes[0].size(); ++i) {
            smooth = 0.9f * smooth + 0.1f * normal(random);
            // Louder and quieter stretches, so that compressor and gate both move.
            const double swell =
                0.55 + 0.45 * std::sin(2 * std::numbers::pi * 1.5 * static_cast<double>(i) / rate);
            planes[static_cast<size_t>(c)][i] = static_cast<float>(
                swell *
                (3 * smooth + 0.3 * std::sin(2 * std::numbers::pi * 997 * static_cast<double>(i) / rate)));
        }
    }
    return planes;
}

void runChain(benchmark::State& state, const std::vector<std::shared_ptr<ConfigurableEffect>>& chain) {
    const auto input = programme();
    std::array<std::vector<float>, channels> buffers;
    std::array<float*, channels> pointers{};
    for (int c = 0; c < channels; ++c) {
        buffers[static_cast<size_t>(c)].resize(callback);
        pointers[static_cast<size_t>(c)] = buffers[static_cast<size_t>(c)].data();
    }
    for (const auto& effect : chain)
        effect->prepare(rate, channels, 1024);
    const ChannelSpan span(ChannelPointers(pointers), callback);
    size_t at = 0;
    for (auto _ : state) {
        for (int c = 0; c < channels; ++c)
            std::copy_n(input[static_cast<size_t>(c)].begin() + static_cast<std::ptrdiff_t>(at), callback,
                        pointers[static_cast<size_t>(c)]);
        for (const auto& effect : chain)
            effect->process(span);
        benchmark::DoNotOptimize(pointers[0][callback - 1]);
        at = at + 2 * callback <= input[0].size() ? at + callback : 0;
    }
    state.counters["coreShare"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * callback / rate,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

std::shared_ptr<ConfigurableEffect> compressor(DetectionMode detection) {
    auto effect = std::make_shared<CompressorProcessor>();
    effect->apply(CompressorSettings{.thresholdDB = -20,
                                     .ratio = 4,
                                     .kneeDB = 6,
                                     .attackMs = 10,
                                     .releaseMs = 120,
                                     .makeupGainDB = 3,
                                     .detection = detection});
    return effect;
}

std::shared_ptr<ConfigurableEffect> gate() {
    auto effect = std::make_shared<GateProcessor>();
    effect->apply(GateSettings{.thresholdDB = -30, .rangeDB = -40});
    return effect;
}

std::shared_ptr<ConfigurableEffect> eq() {
    auto effect = std::make_shared<EQProcessor>();
    effect->apply(
        EQSettings{.bands = {{.type = EQBandType::lowCut, .frequency = 60, .q = 0.7},
                             {.type = EQBandType::lowShelf, .frequency = 150, .gainDB = 3, .q = 0.7},
                             {.type = EQBandType::peak, .frequency = 2500, .gainDB = -4, .q = 1.5},
                             {.type = EQBandType::highShelf, .frequency = 9000, .gainDB = 2, .q = 0.7}}});
    return effect;
}

void BM_CompressorPeak(benchmark::State& state) {
    runChain(state, {compressor(DetectionMode::peak)});
}
BENCHMARK(BM_CompressorPeak);

void BM_CompressorRMS(benchmark::State& state) {
    runChain(state, {compressor(DetectionMode::rms)});
}
BENCHMARK(BM_CompressorRMS);

void BM_Gate(benchmark::State& state) {
    runChain(state, {gate()});
}
BENCHMARK(BM_Gate);

void BM_EQFourBands(benchmark::State& state) {
    runChain(state, {eq()});
}
BENCHMARK(BM_EQFourBands);

// The three together, as a typical rack: EQ, then compressor, then gate.
void BM_EQCompressorGate(benchmark::State& state) {
    runChain(state, {eq(), compressor(DetectionMode::peak), gate()});
}
BENCHMARK(BM_EQCompressorGate);

} // namespace
} // namespace harlune
