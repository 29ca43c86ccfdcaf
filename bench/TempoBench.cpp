// Tempo detection on ten minutes of stereo: the detector reads the middle two minutes, so the
// figure should not grow with the file (target: under 1 s).
#include "BenchAudio.h"
#include "dsp/TempoDetector.h"

namespace harlune::bench {
namespace {

void detectTempo(benchmark::State& state) {
    const ArraySource& source = tenMinutesOfStereoNoise();
    for (auto _ : state)
        benchmark::DoNotOptimize(TempoDetector::detect(source, std::nullopt, 4, 120));
}
BENCHMARK(detectTempo)->Apply([](benchmark::internal::Benchmark* b) { withMinimum(b); });

} // namespace
} // namespace harlune::bench
