// The live effects rack. Render callback: microseconds per 256-frame callback at 48 kHz stereo
// with one 8-band EQ and with an 8-band EQ on each of 8 slots ("x_realtime" as in
// PlaybackBench). Rebuild: the main thread's work from a structural change to the new runtime
// published, with the 60 ms pause taken out (a hand-driven clock), and the wall time of the same
// through the command line's scheduler, pause included.
#include "engine/EffectsRack.h"
#include "engine/ManualRackScheduler.h"
#include "engine/PlaybackEngine.h"
#include "engine/QueueRackScheduler.h"
#include "engine/devices/TestAudioDevice.h"

#include <benchmark/benchmark.h>
#include <memory>
#include <vector>

namespace harlune {
namespace {

using namespace std::chrono_literals;

constexpr double rate = 48000;
constexpr int callbackFrames = 256;

AudioContent tenSecondsOfNoise() {
    std::vector<std::vector<float>> planes(2, std::vector<float>(static_cast<size_t>(10 * rate)));
    uint32_t state = 11;
    for (auto& plane : planes)
        for (auto& x : plane) {
            state = state * 1664525u + 1013904223u;
            x = static_cast<float>(static_cast<int32_t>(state)) / 4294967296.0f;
        }
    return AudioContent(std::move(planes), rate);
}

/// Eight bands, all doing something: cuts at both ends, shelves, four bells.
EffectSettings eightBands(double offsetDB) {
    EQSettings settings;
    settings.bands = {
        EQBand{.type = EQBandType::lowCut, .frequency = 40, .slopeDBPerOctave = 24},
        EQBand{.type = EQBandType::lowShelf, .frequency = 120, .gainDB = 3 + offsetDB},
        EQBand{.type = EQBandType::peak, .frequency = 300, .gainDB = -4 + offsetDB, .q = 1.5},
        EQBand{.type = EQBandType::peak, .frequency = 800, .gainDB = 2 + offsetDB, .q = 2},
        EQBand{.type = EQBandType::peak, .frequency = 2500, .gainDB = -3 + offsetDB, .q = 1},
        EQBand{.type = EQBandType::peak, .frequency = 5000, .gainDB = 4 + offsetDB, .q = 3},
        EQBand{.type = EQBandType::highShelf, .frequency = 9000, .gainDB = -2 + offsetDB},
        EQBand{.type = EQBandType::highCut, .frequency = 18000, .slopeDBPerOctave = 12},
    };
    return settings;
}

void BM_RenderCallbackRackEQ(benchmark::State& state) {
    PlaybackEngine engine(std::make_unique<TestAudioDevice>());
    ManualRackScheduler scheduler;
    EffectsRack rack(scheduler);
    for (int64_t slot = 0; slot < state.range(0); ++slot)
        rack.add(eightBands(static_cast<double>(slot) * 0.5));
    const AudioContent content = tenSecondsOfNoise();
    engine.start(content, content.fullRange(), true, 0.8f);
    rack.activate(engine.renderState(), rate, 2);

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
BENCHMARK(BM_RenderCallbackRackEQ)->Arg(1)->Arg(8)->ArgName("slots")->Unit(benchmark::kMicrosecond);

// The first slot made anew (another id: a structural change whatever the slot count).
void replaceFirstSlot(EffectsRack& rack) {
    auto slots = rack.slots();
    slots.front().id = Uuid::random();
    rack.setSlots(std::move(slots));
}

// A structural change, then the clock jumps over the pause: what is timed is scheduling,
// making and preparing every processor, and publishing. Pruning runs untimed.
void BM_RackRebuildWithoutPause(benchmark::State& state) {
    PlaybackEngine engine(std::make_unique<TestAudioDevice>());
    ManualRackScheduler scheduler;
    EffectsRack rack(scheduler);
    for (int64_t slot = 0; slot < state.range(0); ++slot)
        rack.add(eightBands(0));
    rack.activate(engine.renderState(), rate, 2);
    for (auto _ : state) {
        replaceFirstSlot(rack);
        scheduler.advance(60ms);
        state.PauseTiming();
        scheduler.advance(2500ms);
        state.ResumeTiming();
    }
}
BENCHMARK(BM_RackRebuildWithoutPause)->Arg(1)->Arg(8)->ArgName("slots")->Unit(benchmark::kMicrosecond);

// The same through the command line's queue: from the change to the new runtime in the render
// state, in wall time, the 60 ms included.
void BM_RackRebuildWithPause(benchmark::State& state) {
    PlaybackEngine engine(std::make_unique<TestAudioDevice>());
    MainThreadQueue queue;
    QueueRackScheduler scheduler(queue);
    EffectsRack rack(scheduler);
    for (int64_t slot = 0; slot < state.range(0); ++slot)
        rack.add(eightBands(0));
    rack.activate(engine.renderState(), rate, 2);
    for (auto _ : state) {
        const auto before = rack.runtime();
        replaceFirstSlot(rack);
        while (rack.runtime() == before)
            queue.runFor(100ms);
    }
}
BENCHMARK(BM_RackRebuildWithPause)
    ->Arg(1)
    ->Arg(8)
    ->ArgName("slots")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(20);

} // namespace
} // namespace harlune
