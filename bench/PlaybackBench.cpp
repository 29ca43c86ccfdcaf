// The render callback's cost: microseconds per 256-frame callback at 48 kHz stereo, dry and with
// a 20-point envelope set on the master and both channels. "x_realtime" is seconds of audio
// rendered per second of CPU; its inverse is the callback's share of real time.
#include "engine/PlaybackEngine.h"
#include "engine/devices/TestAudioDevice.h"

#include <benchmark/benchmark.h>
#include <memory>
#include <vector>

namespace harlune {
namespace {

constexpr double rate = 48000;
constexpr int callbackFrames = 256;

AudioContent tenSecondsOfStereo() {
    std::vector<std::vector<float>> planes(2, std::vector<float>(static_cast<size_t>(10 * rate)));
    uint32_t state = 7;
    for (auto& plane : planes)
        for (auto& x : plane) {
            state = state * 1664525u + 1013904223u;
            x = static_cast<float>(static_cast<int32_t>(state)) / 4294967296.0f;
        }
    return AudioContent(std::move(planes), rate);
}

GainEnvelope twentyPoints(double offset) {
    GainEnvelope envelope;
    for (int i = 0; i < 20; ++i)
        envelope.insert(static_cast<int64_t>(i * rate / 2), (i % 2 == 0 ? -12.0 : 3.0) + offset);
    return envelope;
}

void renderCallbacks(benchmark::State& state, bool withEnvelopes) {
    PlaybackEngine engine(std::make_unique<TestAudioDevice>());
    const AudioContent content = tenSecondsOfStereo();
    if (withEnvelopes)
        engine.setEnvelopes(EnvelopeSet(twentyPoints(0), {twentyPoints(-1), twentyPoints(1)}, {0.5, -0.5}));
    engine.start(content, content.fullRange(), true, 0.8f);
    std::vector<float> left(callbackFrames), right(callbackFrames);
    float* outputs[] = {left.data(), right.data()};
    RenderState& render = engine.state();
    for (auto _ : state) {
        bool silence = false;
        render.render(callbackFrames, outputs, silence);
        benchmark::DoNotOptimize(left.data());
        benchmark::DoNotOptimize(right.data());
    }
    state.counters["x_realtime"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * callbackFrames / rate, benchmark::Counter::kIsRate);
}

void BM_RenderCallbackDry(benchmark::State& state) {
    renderCallbacks(state, false);
}
void BM_RenderCallbackEnvelopes(benchmark::State& state) {
    renderCallbacks(state, true);
}

BENCHMARK(BM_RenderCallbackDry)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RenderCallbackEnvelopes)->Unit(benchmark::kMicrosecond);

} // namespace
} // namespace harlune
