// The preview runtime as the callback drives it: masks, versions and settings, a busy effects
// lock. How the callback lets go of a runtime is in RealtimeSafetyTest.
#include "engine/EngineTestSupport.h"
#include "support/TestAudio.h"
#include "support/TestProcessors.h"

#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::noisePlanes;

// An engine playing noise with one scaling processor in its runtime, published as a rack would.
struct Preview : testing::EngineOnTestDevice {
    testing::Planes planes;
    std::shared_ptr<testing::ScaleProcessor> processor = std::make_shared<testing::ScaleProcessor>(0.5f);
    std::shared_ptr<PreviewRuntime> runtime;

    Preview(int contentChannels, int runtimeChannels, float gain = 1.0f)
        : planes(noisePlanes(contentChannels, 1000, 4)) {
        processor->prepare(48000, runtimeChannels, PreviewRuntime::defaultMaxFrames);
        runtime = std::make_shared<PreviewRuntime>(std::vector<std::shared_ptr<EffectProcessor>>{processor},
                                                   std::vector<bool>{false}, runtimeChannels);
        engine->start(AudioContent(planes, 48000), {0, 1000}, false, gain);
    }

    void publish(bool enabled, int version, std::vector<char> mask = {}, bool active = true,
                 std::optional<EffectSettings> settings = {}) {
        engine->state().updateEffects([&](PreviewEffectsState& effects) {
            effects.runtime = runtime;
            effects.settings = {std::move(settings)};
            effects.enabled = {static_cast<char>(enabled)};
            effects.versions = {version};
            effects.processMask = std::move(mask);
            effects.isActive = active;
        });
    }
    /// The first sample of the next callback of 100 frames.
    float next() { return device->pull(100, 100).planes[0][0]; }
};

TEST(PreviewEffects, RunsAfterEnvelopesAndBeforeGainWithAMaskedChannelBitIdentical) {
    Preview preview(2, 2, 0.25f);
    preview.publish(true, 1, {1, 0});
    const auto capture = preview.device->pull(600, 256);
    for (size_t i = 0; i < 600; ++i) {
        ASSERT_EQ(capture.planes[0][i], preview.planes[0][i] * 0.5f * 0.25f);
        ASSERT_EQ(capture.planes[1][i], preview.planes[1][i] * 0.25f);
    }
    EXPECT_EQ(preview.runtime->appliedVersions[0], 1);
}

// Enabled flags and settings travel only with a new version, and never rebuild anything.
TEST(PreviewEffects, AVersionBumpHandsOverFlagsAndSettings) {
    Preview preview(1, 1);
    const auto& planes = preview.planes[0];
    preview.publish(true, 1);
    EXPECT_EQ(preview.next(), planes[0] * 0.5f);
    preview.publish(false, 1);
    EXPECT_EQ(preview.next(), planes[100] * 0.5f) << "same version: not picked up";
    preview.publish(false, 2);
    EXPECT_EQ(preview.next(), planes[200]);
    preview.publish(true, 3, {}, true, DistortionSettings{.outputDB = -20});
    EXPECT_FLOAT_EQ(preview.next(), planes[300] * 0.1f);
    preview.publish(true, 4, {}, true, GateSettings{});
    EXPECT_FLOAT_EQ(preview.next(), planes[400] * 0.1f) << "settings of another kind are ignored";
    EXPECT_EQ(preview.runtime->appliedVersions[0], 4);
}

TEST(PreviewEffects, BusyLockKeepsTheCachedRuntimeAndInactiveRunsDry) {
    Preview preview(1, 1);
    const auto& planes = preview.planes[0];
    preview.publish(true, 1);
    preview.next();
    preview.engine->state().effectsLock.lock();
    const float whileBusy = preview.next();
    preview.engine->state().effectsLock.unlock();
    EXPECT_EQ(whileBusy, planes[100] * 0.5f);
    preview.publish(true, 1, {}, false);
    EXPECT_EQ(preview.next(), planes[200]);
}

TEST(PreviewEffects, MismatchedChannelCountPassesAudioUnchanged) {
    Preview preview(2, 1); // prepared for mono, content is stereo
    preview.publish(true, 1);
    EXPECT_EQ(preview.device->pull(1000, 300).planes, preview.planes);
    EXPECT_EQ(preview.processor->calls, 0);
}

} // namespace
} // namespace harlune
