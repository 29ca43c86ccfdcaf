#include "BenchAudio.h"
#include "dsp/Resampler.h"

#include <benchmark/benchmark.h>

namespace harlune {
namespace {

// 48000 to 44100 Hz over ten minutes of stereo noise, read from and written to memory.
void resample48To44(benchmark::State& state) {
    const ArraySource& source = bench::tenMinutesOfStereoNoise();
    for (auto _ : state) {
        int64_t frames = 0;
        Resampler::resample(source, std::nullopt, 44100, std::nullopt, [&](ChunkViews chunk) {
            benchmark::DoNotOptimize(chunk[0].data());
            frames += static_cast<int64_t>(chunk[0].size());
        });
        benchmark::DoNotOptimize(frames);
    }
    state.counters["xRealTime"] =
        benchmark::Counter(600.0 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(resample48To44)->Apply([](benchmark::internal::Benchmark* b) { bench::repeatedWithMinimum(b, 5); });

} // namespace
} // namespace harlune
