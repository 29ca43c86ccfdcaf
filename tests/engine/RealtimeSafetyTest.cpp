// The callback allocates nothing and never frees, however hard the main thread replaces content,
// envelopes, effects and the program meanwhile. Built with RealtimeSanitizer, the same runs also
// prove that no lock, system call or free happens inside the callback.
#include "engine/EngineTestSupport.h"
#include "engine/Realtime.h"
#include "support/AllocationCounter.h"
#include "support/TestAudio.h"
#include "support/TestProcessors.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

namespace harlune {
namespace {

using testing::EngineOnTestDevice;
using testing::noisePlanes;

// A runtime of one processor prepared for up to six channels.
std::shared_ptr<PreviewRuntime> runtimeFor(int channels) {
    auto processor = std::make_shared<testing::ScaleProcessor>();
    processor->prepare(48000, 6, PreviewRuntime::defaultMaxFrames);
    return std::make_shared<PreviewRuntime>(std::vector<std::shared_ptr<EffectProcessor>>{processor},
                                            std::vector<bool>{true}, channels);
}

void publish(RenderState& state, std::shared_ptr<PreviewRuntime> runtime, int version, bool active) {
    state.updateEffects([&](PreviewEffectsState& effects) {
        effects.runtime = std::move(runtime);
        effects.versions = {version};
        effects.enabled = {1};
        effects.settings = {DistortionSettings{}};
        effects.isActive = active;
    });
}

TEST(RealtimeSafety, CallbackAllocatesNothingWhileTheMainThreadReplacesEverything) {
    EngineOnTestDevice fixture;
    PlaybackEngine& engine = *fixture.engine;
    const AudioContent stereo(noisePlanes(2, 200000, 1), 48000);
    const AudioContent surround(noisePlanes(6, 50000, 2), 48000);
    engine.start(stereo, {0, 100000}, true, 1.0f);

    std::atomic<bool> stop{false};
    int64_t allocations = -1;
    int64_t releases = -1;
    int64_t callbacks = 0;
    std::thread audio([&] {
        fixture.device->pullAndDiscard(2056, 2056); // sizes the device's own buffers for the largest callback
        const harlune::testing::AllocationCounter counter;
        for (; !stop.load(); ++callbacks) {
            const int frames = 256 + static_cast<int>(callbacks % 7) * 300;
            fixture.device->pullAndDiscard(frames, frames);
        }
        allocations = counter.count();
        releases = counter.releases();
    });

    GainEnvelope ramp;
    ramp.insert(1000, -20.0);
    ramp.insert(60000, 6.0);
    const EnvelopeSet curved(ramp, {ramp, GainEnvelope{}}, {2.0, -1.0});
    int64_t round = 0;
    while (round < 8000) {
        ++round;
        // Fresh segment lists each time, so that every replaced content is the last of its kind.
        switch (round % 6) {
        case 0:
            engine.setAudio(stereo.slice({round % 1000, 150000}), curved, {0, 140000});
            break;
        case 1:
            engine.setAudio(surround.slice({0, 40000 + round % 100}), EnvelopeSet{}, {100, 30000});
            break;
        case 2:
            engine.setEnvelopes(round % 4 == 0 ? EnvelopeSet{} : curved);
            break;
        case 3:
            engine.setGain(static_cast<float>(round % 10) / 10.0f);
            engine.setLooping(round % 4 != 0);
            break;
        case 4:
            engine.start(stereo.slice({0, 120000}), {round % 5000, 100000}, round % 2 == 0, 0.9f);
            break;
        case 5:
            publish(engine.state(), runtimeFor(round % 2 == 0 ? 2 : 6), static_cast<int>(round),
                    round % 3 != 0);
            break;
        }
        if (round % 64 == 0)
            std::this_thread::yield();
    }
    stop = true;
    audio.join();
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(releases, 0);
    EXPECT_GT(callbacks, 100);
}

// The rack keeps a replaced runtime for 2 s. A pause longer than that used to leave the callback
// with the last reference, which it then dropped on resuming: a free on the audio thread.
TEST(RealtimeSafety, ARuntimeRetiredDuringALongPauseIsNotFreedByTheCallback) {
    using Clock = std::chrono::steady_clock;
    EngineOnTestDevice fixture;
    PlaybackEngine& engine = *fixture.engine;
    const AudioContent content(noisePlanes(2, 48000, 3), 48000);
    publish(engine.state(), runtimeFor(2), 1, true);
    engine.start(content, {0, 48000}, true, 1.0f);
    fixture.device->pullAndDiscard(256, 256);

    std::shared_ptr<PreviewRuntime> retired;
    engine.state().updateEffects(
        [&](PreviewEffectsState& effects) { retired = std::exchange(effects.runtime, runtimeFor(2)); });
    const std::weak_ptr<PreviewRuntime> first = retired;
    const Clock::time_point retiredAt = Clock::now();
    engine.pause();
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    if (Clock::now() - retiredAt > std::chrono::seconds(2))
        retired.reset();

    engine.start(content, {0, 48000}, true, 1.0f);
    const testing::AllocationCounter counter;
    fixture.device->pullAndDiscard(256, 256);
    EXPECT_EQ(counter.releases(), 0);
    EXPECT_EQ(counter.count(), 0);
    EXPECT_FALSE(first.expired()) << "the callback kept it until the main thread takes it back";
    engine.state().updateEffects([](PreviewEffectsState&) {});
    EXPECT_TRUE(first.expired());
}

} // namespace
} // namespace harlune

// Only in the RealtimeSanitizer build: proves the checker is armed, so that a clean run above
// means something.
#if defined(__has_feature)
#if __has_feature(realtime_sanitizer)
namespace harlune {
namespace {

[[gnu::noinline]] void allocateInsideTheCallbackPath(int size) noexcept HARLUNE_NONBLOCKING {
    std::vector<float> buffer(static_cast<size_t>(size));
    asm volatile("" : : "r"(buffer.data()) : "memory");
}

TEST(RealtimeSafetyDeathTest, SanitizerFlagsAnAllocationInANonblockingFunction) {
    EXPECT_DEATH(allocateInsideTheCallbackPath(64), "RealtimeSanitizer");
}

} // namespace
} // namespace harlune
#endif
#endif
