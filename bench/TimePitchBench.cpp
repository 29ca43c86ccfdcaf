#include "BenchAudio.h"
#include "timepitch/TimePitch.h"

#include <benchmark/benchmark.h>

namespace harlune {
namespace {

// Tempo 125 % over ten minutes of stereo noise at 48 kHz, in memory. Argument 0 is R3, 1 is R2.
void stretchTempo125(benchmark::State& state) {
    const ArraySource& source = bench::tenMinutesOfStereoNoise();
    const auto engine = state.range(0) == 0 ? TimePitch::Engine::finer : TimePitch::Engine::faster;
    for (auto _ : state) {
        int64_t frames = 0;
        TimePitch::render(
            source, std::nullopt, 1.25, 0, std::nullopt,
            [&](ChunkViews chunk) {
                benchmark::DoNotOptimize(chunk[0].data());
                frames += static_cast<int64_t>(chunk[0].size());
            },
            engine);
        benchmark::DoNotOptimize(frames);
    }
    state.SetLabel(engine == TimePitch::Engine::finer ? "R3" : "R2");
}
BENCHMARK(stretchTempo125)->Arg(0)->Arg(1)->Apply([](benchmark::internal::Benchmark* b) {
    bench::repeatedWithMinimum(b, 3);
});

} // namespace
} // namespace harlune
