#pragma once

#include "core/AudioContent.h"
#include "engine/MainThreadQueue.h"
#include "engine/PlaybackEngine.h"
#include "engine/devices/TestAudioDevice.h"

#include <cmath>
#include <memory>
#include <numbers>
#include <vector>

namespace harlune::testing {

/// An engine on a test device that the fixture keeps a handle to.
struct EngineOnTestDevice {
    MainThreadQueue mainThread;
    TestAudioDevice* device = nullptr;
    std::unique_ptr<PlaybackEngine> engine;

    EngineOnTestDevice() {
        auto owned = std::make_unique<TestAudioDevice>(mainThread.poster());
        device = owned.get();
        engine = std::make_unique<PlaybackEngine>(std::move(owned));
    }
};

/// `channels` planes of a sine of `frequency` Hz at `amplitude`, each channel phase-shifted.
inline std::vector<std::vector<float>> sinePlanes(int channels, int64_t frames, double rate, double frequency,
                                                  double amplitude = 0.5) {
    std::vector<std::vector<float>> planes(static_cast<size_t>(channels),
                                           std::vector<float>(static_cast<size_t>(frames)));
    for (size_t c = 0; c < planes.size(); ++c)
        for (int64_t i = 0; i < frames; ++i)
            planes[c][static_cast<size_t>(i)] = static_cast<float>(
                amplitude * std::sin(2 * std::numbers::pi * frequency * static_cast<double>(i) / rate +
                                     0.3 * static_cast<double>(c)));
    return planes;
}

} // namespace harlune::testing
