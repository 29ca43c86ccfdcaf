// What the listener hears of the rack through the engine: parameter changes that keep filter
// state, disabled slots that freeze, the dry gap of a rebuild, masked channels, no clicks when
// a band moves, a clean loop seam, and a callback that allocates nothing while the main thread
// changes the rack as fast as it can.
#include "dsp/effects/EQProcessor.h"
#include "engine/RackTestSupport.h"
#include "support/AllocationCounter.h"
#include "support/TestAudio.h"

#include <atomic>
#include <cmath>
#include <complex>
#include <gtest/gtest.h>
#include <numbers>
#include <thread>

namespace harlune {
namespace {

using namespace std::chrono_literals;
using testing::bell;
using testing::noisePlanes;
using testing::Planes;
using testing::RackOnEngine;
using testing::sinePlanes;

/// An EQ that runs uninterrupted over `input` in blocks of 256, as the callback feeds the rack;
/// `changes` gives settings to apply before the block that starts at that frame (absent: skip
/// the block, as a disabled slot).
Planes referenceEQ(const Planes& input, const EffectSettings& initial,
                   const std::vector<std::pair<int64_t, std::optional<EffectSettings>>>& changes) {
    EQProcessor eq;
    eq.apply(initial);
    eq.prepare(48000, static_cast<int>(input.size()), PreviewRuntime::defaultMaxFrames);
    Planes output = input;
    bool running = true;
    const auto frames = static_cast<int>(input[0].size());
    for (int start = 0; start < frames; start += 256) {
        for (const auto& [at, settings] : changes)
            if (at == start) {
                running = settings.has_value();
                if (settings)
                    eq.apply(*settings);
            }
        std::vector<float*> pointers;
        for (auto& plane : output)
            pointers.push_back(plane.data() + start);
        if (running)
            eq.process(ChannelSpan(pointers, std::min(256, frames - start)));
    }
    return output;
}

TEST(EffectsRackAudio, AKnobMoveSoundsAtTheNextCallbackAndKeepsFilterState) {
    RackOnEngine fixture(noisePlanes(2, 48000, 7));
    const Uuid id = fixture.rack.add(bell(0));
    fixture.scheduler.advance(60ms);
    const auto runtime = fixture.rack.runtime();

    Planes heard = fixture.play(2048);
    fixture.edit(id, [](EffectSlot& slot) { slot.source = bell(9); });
    const Planes after = fixture.play(2048);
    fixture.edit(id, [](EffectSlot& slot) { slot.isEnabled = false; });
    const Planes disabled = fixture.play(1024);
    fixture.edit(id, [](EffectSlot& slot) { slot.isEnabled = true; });
    const Planes enabled = fixture.play(2048);
    EXPECT_EQ(fixture.rack.runtime(), runtime) << "no rebuild";
    for (size_t c = 0; c < 2; ++c) {
        heard[c].insert(heard[c].end(), after[c].begin(), after[c].end());
        heard[c].insert(heard[c].end(), disabled[c].begin(), disabled[c].end());
        heard[c].insert(heard[c].end(), enabled[c].begin(), enabled[c].end());
    }

    Planes input = fixture.planes;
    for (auto& plane : input)
        plane.resize(heard[0].size());
    const Planes expected =
        referenceEQ(input, bell(0), {{2048, bell(9)}, {4096, std::nullopt}, {5120, bell(9)}});
    const Planes unchanged = referenceEQ(input, bell(0), {});
    for (size_t c = 0; c < 2; ++c) {
        for (size_t i = 0; i < heard[c].size(); ++i)
            ASSERT_EQ(heard[c][i], expected[c][i]) << "channel " << c << " frame " << i;
        EXPECT_NE(heard[c][2048 + 8], unchanged[c][2048 + 8]) << "the new band sounds at once";
        for (size_t i = 4096; i < 5120; ++i)
            ASSERT_EQ(heard[c][i], input[c][i]) << "a disabled slot passes the audio untouched";
    }
}

TEST(EffectsRackAudio, AReorderPlaysDryNotSilentUntilTheNewRuntimeAndAMaskedChannelStaysBitIdentical) {
    RackOnEngine fixture(noisePlanes(2, 48000, 8));
    EffectsRack& rack = fixture.rack;
    rack.add(bell(12));
    const Uuid mixer = rack.addPlugin(PluginDescriptor{"urn:mix", "Mixer"});
    fixture.scheduler.runBackgroundJobs();
    fixture.scheduler.advance(60ms);
    fixture.play(1024);

    rack.move(mixer, -1);
    const Planes gap = fixture.play(1024);
    for (size_t c = 0; c < 2; ++c)
        for (size_t i = 0; i < 1024; ++i)
            ASSERT_EQ(gap[c][i], fixture.planes[c][2048 - 1024 + i]);
    fixture.scheduler.advance(60ms);
    rack.setProcessMask({true, false});
    const Planes masked = fixture.play(1024);
    for (size_t i = 0; i < 1024; ++i)
        ASSERT_EQ(masked[1][i], fixture.planes[1][2048 + i]) << "frame " << i;
    // The mixer saw the right channel although its output of it is discarded; the EQ starts
    // afresh with the new runtime.
    Planes mixed(2, std::vector<float>(1024));
    for (size_t i = 0; i < 1024; ++i) {
        const float left = fixture.planes[0][2048 + i];
        const float right = fixture.planes[1][2048 + i];
        mixed[0][i] = 0.5f * (left + right);
        mixed[1][i] = 0.5f * (left - right);
    }
    const Planes expected = referenceEQ(mixed, bell(12), {});
    for (size_t i = 0; i < 1024; ++i)
        ASSERT_NEAR(masked[0][i], expected[0][i], 1e-6) << "frame " << i;
    EXPECT_EQ(rack.slots()[0].id, mixer);
}

/// dB of the strongest Hann-windowed DFT bin more than 500 Hz from `tone`, relative to the
/// strongest bin at the tone: energy that a click or a sudden step puts around a tone.
double spreadAroundToneDB(const std::vector<float>& signal, double rate, double tone) {
    const size_t n = signal.size();
    std::vector<double> windowed(n);
    for (size_t i = 0; i < n; ++i)
        windowed[i] =
            signal[i] *
            (0.5 - 0.5 * std::cos(2 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(n)));
    double toneLevel = 0;
    double spread = 0;
    for (size_t k = 1; k < n / 2; ++k) {
        const double frequency = static_cast<double>(k) * rate / static_cast<double>(n);
        // Goertzel for bin k.
        const double coefficient =
            2 * std::cos(2 * std::numbers::pi * static_cast<double>(k) / static_cast<double>(n));
        double s1 = 0;
        double s2 = 0;
        for (double x : windowed) {
            const double s0 = x + coefficient * s1 - s2;
            s2 = s1;
            s1 = s0;
        }
        const double power = s1 * s1 + s2 * s2 - coefficient * s1 * s2;
        if (std::abs(frequency - tone) < 20)
            toneLevel = std::max(toneLevel, power);
        else if (std::abs(frequency - tone) > 500)
            spread = std::max(spread, power);
    }
    return 10 * std::log10(std::max(spread, 1e-30) / toneLevel);
}

TEST(EffectsRackAudio, MovingABandTo12dBDuringATonePutsNoEnergyAwayFromIt) {
    RackOnEngine fixture(sinePlanes(1, 96000, 48000, 1000, 0.2));
    const Uuid id = fixture.rack.add(bell(0, 1000, 2));
    fixture.scheduler.advance(60ms);
    fixture.play(8192);
    const std::vector<float> before = fixture.play(2048)[0];
    fixture.edit(id, [](EffectSlot& slot) { slot.source = bell(12, 1000, 2); });
    std::vector<float> around = before;
    const auto rest = fixture.play(8192 - 2048)[0];
    around.insert(around.end(), rest.begin(), rest.end());
    const double spread = spreadAroundToneDB(around, 48000, 1000);
    EXPECT_LT(spread, -60);
    RecordProperty("spreadDB", std::to_string(spread));

    // The measure does see a step of the same size taken at once.
    std::vector<float> step(fixture.planes[0].begin(), fixture.planes[0].begin() + 8192);
    for (size_t i = 2048; i < step.size(); ++i)
        step[i] *= 3.98f;
    const double stepSpread = spreadAroundToneDB(step, 48000, 1000);
    EXPECT_GT(stepSpread, -60);
    RecordProperty("stepSpreadDB", std::to_string(stepSpread));
}

TEST(EffectsRackAudio, ALoopOverWholePeriodsHasNoSeam) {
    // 100 periods of 480 Hz at 48 kHz, looped, through a running EQ: the output must match the
    // same EQ over an endless sine.
    const int64_t period = 100;
    RackOnEngine fixture(sinePlanes(1, 100 * period, 48000, 480, 0.5));
    fixture.rack.add(bell(6, 2000));
    fixture.scheduler.advance(60ms);
    const std::vector<float> heard = fixture.play(3 * 100 * period)[0];

    Planes endless = sinePlanes(1, static_cast<int64_t>(heard.size()), 48000, 480, 0.5);
    const std::vector<float> expected = referenceEQ(endless, bell(6, 2000), {})[0];
    double residual = 0;
    double peak = 0;
    for (size_t i = 0; i < heard.size(); ++i) {
        residual = std::max(residual, std::abs(static_cast<double>(heard[i]) - expected[i]));
        peak = std::max(peak, std::abs(static_cast<double>(expected[i])));
    }
    EXPECT_LT(20 * std::log10(std::max(residual, 1e-12) / peak), -90);
}

TEST(EffectsRackAudio, TheCallbackAllocatesNothingWhileTheRackChangesAsFastAsItCan) {
    RackOnEngine fixture(noisePlanes(2, 48000, 9));
    EffectsRack& rack = fixture.rack;
    const Uuid eq = rack.add(bell(3));
    const Uuid plugin = rack.addPlugin(PluginDescriptor{"urn:scale", "Scaler"});
    fixture.scheduler.runBackgroundJobs();
    fixture.scheduler.advance(60ms);

    std::atomic<bool> stop{false};
    int64_t allocations = -1;
    int64_t releases = -1;
    int64_t callbacks = 0;
    std::thread audio([&] {
        fixture.device->pullAndDiscard(1024, 1024);
        const testing::AllocationCounter counter;
        for (; !stop.load(); ++callbacks)
            fixture.device->pullAndDiscard(256 + (callbacks % 3) * 384, 1024);
        allocations = counter.count();
        releases = counter.releases();
    });
    for (int round = 0; round < 3000; ++round) {
        switch (round % 5) {
        case 0:
            fixture.edit(eq, [&](EffectSlot& slot) { slot.source = bell(round % 24 - 12); });
            break;
        case 1:
            fixture.edit(plugin, [&](EffectSlot& slot) {
                std::get<EffectSlot::Plugin>(slot.source).state =
                    "{\"gain\":" + std::to_string(round % 4) + "}";
            });
            break;
        case 2:
            fixture.edit(eq, [&](EffectSlot& slot) { slot.isEnabled = round % 2 == 0; });
            rack.setProcessMask({true, round % 3 == 0});
            break;
        case 3:
            rack.move(plugin, round % 2 == 0 ? -1 : 1); // a new runtime 60 ms later
            fixture.scheduler.advance(61ms);
            break;
        case 4:
            rack.setPreviewEnabled(round % 4 != 0);
            fixture.scheduler.advance(500ms); // retired runtimes go, on this thread
            break;
        }
    }
    stop = true;
    audio.join();
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(releases, 0);
    EXPECT_GT(callbacks, 10);
}

} // namespace
} // namespace harlune
