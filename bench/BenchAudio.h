#pragma once

#include "base/AudioSource.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdint>
#include <random>
#include <vector>

namespace harlune::bench {

/// Ten minutes of stereo noise at 48 kHz in memory, made once per process.
inline const ArraySource& tenMinutesOfStereoNoise() {
    static const ArraySource source = [] {
        std::mt19937 generator(1);
        std::uniform_real_distribution<float> uniform(-0.5f, 0.5f);
        std::vector<std::vector<float>> planes(2, std::vector<float>(48000 * 600));
        for (auto& plane : planes)
            std::generate(plane.begin(), plane.end(), [&] { return uniform(generator); });
        return ArraySource(std::move(planes), 48000);
    }();
    return source;
}

/// Repeated runs on a shared machine: the minimum is the figure least disturbed by others.
inline benchmark::internal::Benchmark* repeatedWithMinimum(benchmark::internal::Benchmark* b,
                                                           int repetitions) {
    return b->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->MeasureProcessCPUTime() // the CPU column counts every thread
        ->Iterations(1)
        ->Repetitions(repetitions)
        ->ComputeStatistics(
            "min", [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); });
}

} // namespace harlune::bench
