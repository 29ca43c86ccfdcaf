// ebur128-reference: times libebur128 (EBUR128_MODE_I | EBUR128_MODE_LRA | EBUR128_MODE_TRUE_PEAK)
// over the same hour of stereo audio that harlune-bench's loudness benchmarks measure, so that
// the two can be compared. Usage: ebur128-reference [pink|music]... (both by default)
#include "LoudnessBenchSignals.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <ebur128.h>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    std::vector<std::string> kinds(argv + 1, argv + argc);
    if (kinds.empty())
        kinds = {"pink", "music"};
    for (const std::string& kind : kinds) {
        const harlune::bench::Planes planes = harlune::bench::benchHour(kind);
        // libebur128 reads interleaved frames; interleaving is left out of the timing.
        const size_t frames = planes[0].size();
        std::vector<float> interleaved(frames * 2);
        for (size_t i = 0; i < frames; ++i) {
            interleaved[2 * i] = planes[0][i];
            interleaved[2 * i + 1] = planes[1][i];
        }
        const auto start = std::chrono::steady_clock::now();
        const std::clock_t cpuStart = std::clock();
        ebur128_state* state =
            ebur128_init(2, 48000, EBUR128_MODE_I | EBUR128_MODE_LRA | EBUR128_MODE_TRUE_PEAK);
        // In chunks of 65536 frames, as the analyzer walks a source.
        for (size_t at = 0; at < frames; at += 65536)
            ebur128_add_frames_float(state, interleaved.data() + 2 * at,
                                     std::min<size_t>(65536, frames - at));
        double integrated = 0, range = 0, peak0 = 0, peak1 = 0;
        ebur128_loudness_global(state, &integrated);
        ebur128_loudness_range(state, &range);
        ebur128_true_peak(state, 0, &peak0);
        ebur128_true_peak(state, 1, &peak1);
        ebur128_destroy(&state);
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        const double cpu = static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC;
        std::printf("%s: %.2f s wall, %.2f s CPU; I %.2f LUFS, LRA %.2f LU, true peak %.2f dBTP\n",
                    kind.c_str(), seconds, cpu, integrated, range, 20 * std::log10(std::max(peak0, peak1)));
    }
    return 0;
}
