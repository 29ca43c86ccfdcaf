#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

#include "CliSupport.h"
#include "Commands.h"
#include "DemoSound.h"
#include "base/Decibels.h"

namespace harlune::cli {

namespace {

int runInfo(std::span<const std::string> arguments) {
    if (arguments.size() != 1 || arguments[0] != "--demo")
        throw UsageError{"expected --demo"};
    const AudioContent demo = makeDemoSound();
    std::printf("demo sound\n");
    std::printf("  sample rate: %.0f Hz\n", demo.sampleRate());
    std::printf("  channels:    %d\n", demo.channelCount());
    std::printf("  frames:      %lld\n", static_cast<long long>(demo.frameCount()));
    std::printf("  duration:    %.3f s\n", demo.duration());
    std::printf("  blocks:      %lld\n", static_cast<long long>(demo.segmentCount()));
    for (int c = 0; c < demo.channelCount(); ++c) {
        const PeakSummary peaks = demo.peaks(c, demo.fullRange());
        const double peak = std::max(std::abs(peaks.min), std::abs(peaks.max));
        std::printf("  channel %d:   peak %.1f dBFS, RMS %.1f dBFS\n", c + 1, Decibels::fromLinear(peak),
                    Decibels::fromLinear(peaks.rms()));
    }
    return exitSuccess;
}

} // namespace

Command infoCommand() {
    return {"info", "describe audio files", "harlune-cli info --demo", runInfo};
}

} // namespace harlune::cli
