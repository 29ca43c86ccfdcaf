// Loudness measurement of one hour of stereo 48 kHz audio held in memory: integrated loudness,
// loudness range and true peak in one pass (what the editor measures after every edit). The
// matching libebur128 figure comes from ebur128-reference, over the same samples.
#include "LoudnessBenchSignals.h"
#include "base/AudioSource.h"
#include "dsp/LoudnessAnalyzer.h"
#include "dsp/LoudnessEngine.h"
#include "dsp/TruePeakLimiter.h"

#include <benchmark/benchmark.h>

namespace harlune {
namespace {

const ArraySource& hourOf(const char* kind) {
    static const ArraySource pink(bench::benchHour("pink"), bench::benchRate);
    static const ArraySource music(bench::benchHour("music"), bench::benchRate);
    return std::string_view(kind) == "pink" ? pink : music;
}

void analyzeHour(benchmark::State& state, const char* kind) {
    const ArraySource& source = hourOf(kind);
    LoudnessResult result;
    for (auto _ : state) {
        result = LoudnessAnalyzer::analyze(source);
        benchmark::DoNotOptimize(result);
    }
    state.counters["integratedLUFS"] = result.integratedLUFS;
    state.counters["rangeLU"] = result.loudnessRangeLU;
    state.counters["truePeakDBTP"] = result.truePeakDBTP;
    state.SetItemsProcessed(state.iterations() * bench::hourFrames * 2);
}
BENCHMARK_CAPTURE(analyzeHour, pink, "pink")
    ->Unit(benchmark::kSecond)
    ->Iterations(3)
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(analyzeHour, music, "music")
    ->Unit(benchmark::kSecond)
    ->Iterations(3)
    ->MeasureProcessCPUTime();

// The same work on one thread: what the machine's other cores do not help with.
void analyzeHourOneThread(benchmark::State& state, const char* kind) {
    const ArraySource& source = hourOf(kind);
    LoudnessResult result;
    for (auto _ : state) {
        LoudnessEngine engine(2, bench::benchRate, std::nullopt, true, ChannelFanout::serial);
        source.forEachChunk(std::nullopt, 65536, [&](ChunkViews chunk, int64_t) { engine.process(chunk); });
        engine.flushTruePeaks();
        result = engine.result();
        benchmark::DoNotOptimize(result);
    }
    state.counters["integratedLUFS"] = result.integratedLUFS;
    state.SetItemsProcessed(state.iterations() * bench::hourFrames * 2);
}
BENCHMARK_CAPTURE(analyzeHourOneThread, pink, "pink")
    ->Unit(benchmark::kSecond)
    ->Iterations(3)
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(analyzeHourOneThread, music, "music")
    ->Unit(benchmark::kSecond)
    ->Iterations(3)
    ->MeasureProcessCPUTime();

// The limiter over ten minutes of the music, once pushed 10 dB into a -1 dBTP ceiling and once
// left under it (the fast path).
void limitTenMinutes(benchmark::State& state) {
    const ArraySource& source = hourOf("music");
    const double preGain = static_cast<double>(state.range(0));
    for (auto _ : state) {
        double sum = 0;
        TruePeakLimiter::render(source, {0, 600 * 48000}, preGain, -1, 2, 80, std::nullopt,
                                [&](ChunkViews chunk) { sum += chunk[0][0]; });
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * 600 * 48000 * 2);
}
BENCHMARK(limitTenMinutes)
    ->Arg(10)
    ->Arg(-20)
    ->Unit(benchmark::kSecond)
    ->Iterations(2)
    ->MeasureProcessCPUTime();

} // namespace
} // namespace harlune
