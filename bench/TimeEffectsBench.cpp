// The time-based effects as the audio thread runs them: CPU per 256-frame stereo callback at
// 48 kHz (a callback lasts 5.33 ms; "x real time" is that over the measured time), and a check
// that a decaying delay tail costs the same per block all the way into silence, through the
// range where its samples turn denormal.

#include "dsp/effects/ChorusProcessor.h"
#include "dsp/effects/DelayProcessor.h"

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <ctime>
#include <random>
#include <vector>

namespace harlune {
namespace {

constexpr double rate = 48000;
constexpr int callback = 256;

/// Ten seconds of stereo noise, read in turn by the callbacks.
const std::vector<std::vector<float>>& noise() {
    static const auto planes = [] {
        std::mt19937 generator(2);
        std::uniform_real_distribution<float> uniform(-0.5f, 0.5f);
        std::vector<std::vector<float>> result(2, std::vector<float>(static_cast<size_t>(10 * rate)));
        for (auto& plane : result)
            std::generate(plane.begin(), plane.end(), [&] { return uniform(generator); });
        return result;
    }();
    return planes;
}

void timeCallbacks(benchmark::State& state, const EffectSettings& settings, ConfigurableEffect& effect) {
    effect.apply(settings);
    effect.prepare(rate, 2, callback);
    std::array<std::vector<float>, 2> buffer{std::vector<float>(callback), std::vector<float>(callback)};
    std::array<float*, 2> pointers{buffer[0].data(), buffer[1].data()};
    const ChannelSpan span(ChannelPointers(pointers), callback);
    const size_t length = noise()[0].size();
    size_t at = 0;
    for (auto _ : state) {
        for (size_t c = 0; c < 2; ++c)
            std::copy_n(noise()[c].begin() + static_cast<std::ptrdiff_t>(at), callback, buffer[c].begin());
        effect.process(span);
        benchmark::DoNotOptimize(buffer[0].data());
        at = at + 2 * callback <= length ? at + callback : 0;
    }
    state.counters["x real time"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * callback / rate, benchmark::Counter::kIsRate);
}

void BM_DelayCallback(benchmark::State& state) {
    DelayProcessor delay;
    timeCallbacks(state, DelaySettings{.timeMs = 375, .rightTimeRatio = 1.5, .feedback = 0.5, .mix = 0.4},
                  delay);
}
BENCHMARK(BM_DelayCallback)->Unit(benchmark::kMicrosecond);

void BM_DelayPingPongCallback(benchmark::State& state) {
    DelayProcessor delay;
    timeCallbacks(state, DelaySettings{.timeMs = 375, .feedback = 0.5, .mix = 0.4, .pingPong = true}, delay);
}
BENCHMARK(BM_DelayPingPongCallback)->Unit(benchmark::kMicrosecond);

void BM_ChorusCallback(benchmark::State& state) {
    ChorusProcessor chorus;
    timeCallbacks(state, ChorusSettings{.voices = 4, .mix = 0.5}, chorus);
}
BENCHMARK(BM_ChorusCallback)->Unit(benchmark::kMicrosecond);

void BM_ChorusTwoVoicesCallback(benchmark::State& state) {
    ChorusProcessor chorus;
    timeCallbacks(state, ChorusSettings{}, chorus);
}
BENCHMARK(BM_ChorusTwoVoicesCallback)->Unit(benchmark::kMicrosecond);

void BM_FlangerCallback(benchmark::State& state) {
    ChorusProcessor flanger;
    timeCallbacks(state,
                  ChorusSettings{.mode = ModulationMode::flanger,
                                 .rateHz = 0.3,
                                 .depth = 0.8,
                                 .delayMs = 3,
                                 .feedback = 0.6,
                                 .mix = 0.5},
                  flanger);
}
BENCHMARK(BM_FlangerCallback)->Unit(benchmark::kMicrosecond);

// CPU time of this thread, so that other load on the machine does not count.
double threadSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// One second of noise into a 50 ms delay with feedback 0.5, then 60 s of silence: the repeats
// fall 6 dB each, through the denormal range some 7 s in, and on to zero. The time of each
// second of callbacks is taken; "slowest / first" compares the slowest second of the tail with
// its first, which would climb far above 1 if denormals were computed.
void BM_DelayTailIntoSilence(benchmark::State& state) {
    constexpr int secondsOfTail = 60;
    constexpr int callbacksPerSecond = static_cast<int>(rate) / callback;
    DelayProcessor delay;
    delay.apply(DelaySettings{.timeMs = 50, .feedback = 0.5, .mix = 0.5, .lowCutHz = 20, .highCutHz = 20000});
    delay.prepare(rate, 2, callback);
    std::array<std::vector<float>, 2> buffer{std::vector<float>(callback), std::vector<float>(callback)};
    std::array<float*, 2> pointers{buffer[0].data(), buffer[1].data()};
    const ChannelSpan span(ChannelPointers(pointers), callback);
    std::vector<double> seconds(secondsOfTail);
    for (auto _ : state) {
        delay.reset();
        for (int k = 0; k < callbacksPerSecond; ++k) {
            for (size_t c = 0; c < 2; ++c)
                std::copy_n(noise()[c].begin() + k * callback, callback, buffer[c].begin());
            delay.process(span);
        }
        for (int s = 0; s < secondsOfTail; ++s) {
            const double start = threadSeconds();
            for (int k = 0; k < callbacksPerSecond; ++k) {
                std::fill(buffer[0].begin(), buffer[0].end(), 0.0f);
                std::fill(buffer[1].begin(), buffer[1].end(), 0.0f);
                delay.process(span);
                benchmark::DoNotOptimize(buffer[0].data());
            }
            seconds[static_cast<size_t>(s)] = threadSeconds() - start;
        }
    }
    state.counters["first s (us)"] = seconds.front() * 1e6;
    state.counters["slowest s (us)"] = *std::max_element(seconds.begin(), seconds.end()) * 1e6;
    state.counters["slowest / first"] = *std::max_element(seconds.begin(), seconds.end()) / seconds.front();
}
BENCHMARK(BM_DelayTailIntoSilence)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace
} // namespace harlune
