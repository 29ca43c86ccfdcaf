// The preview runtime as the callback drives it: masks, versions, a busy effects lock.
#include "engine/EngineTestSupport.h"
#include "support/TestAudio.h"

#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::EngineOnTestDevice;
using testing::noisePlanes;

// Scales every channel; enough to see whether and where a processor ran.
class ScaleProcessor final : public PreviewProcessor {
public:
    explicit ScaleProcessor(float factor) : factor_(factor) {}
    void process(std::span<float* const> channels, int frameCount) noexcept override {
        ++calls;
        for (float* channel : channels)
            for (int i = 0; i < frameCount; ++i)
                channel[i] *= factor_;
    }
    int calls = 0;

private:
    float factor_;
};

struct Rack {
    std::shared_ptr<ScaleProcessor> processor = std::make_shared<ScaleProcessor>(0.5f);
    std::shared_ptr<PreviewRuntime> runtime;

    explicit Rack(int channels)
        : runtime(std::make_shared<PreviewRuntime>(std::vector<std::shared_ptr<PreviewProcessor>>{processor},
                                                   std::vector<bool>{false}, channels)) {}

    void publish(RenderState& state, bool enabled, int version, std::vector<char> mask, bool active = true) {
        const SpinLockGuard lock(state.effectsLock);
        state.effects.runtime = runtime;
        state.effects.enabled = {static_cast<char>(enabled)};
        state.effects.versions = {version};
        state.effects.processMask = std::move(mask);
        state.effects.isActive = active;
    }
};

TEST(PreviewEffects, RunsAfterEnvelopesAndBeforeGainWithAMaskedChannelBitIdentical) {
    const auto planes = noisePlanes(2, 600, 4);
    EngineOnTestDevice fixture;
    Rack rack(2);
    rack.publish(fixture.engine->state(), true, 1, {1, 0});
    fixture.engine->start(AudioContent(planes, 48000), {0, 600}, false, 0.25f);
    const auto capture = fixture.device->pull(600, 256);
    for (size_t i = 0; i < 600; ++i) {
        ASSERT_EQ(capture.planes[0][i], planes[0][i] * 0.5f * 0.25f);
        ASSERT_EQ(capture.planes[1][i], planes[1][i] * 0.25f);
    }
    EXPECT_EQ(rack.runtime->appliedVersions[0], 1);
}

TEST(PreviewEffects, VersionBumpTogglesAProcessorWithoutARebuild) {
    const auto planes = noisePlanes(1, 1000, 5);
    EngineOnTestDevice fixture;
    Rack rack(1);
    auto& state = fixture.engine->state();
    rack.publish(state, true, 1, {});
    fixture.engine->start(AudioContent(planes, 48000), {0, 1000}, false, 1.0f);
    auto capture = fixture.device->pull(100, 100);
    EXPECT_EQ(capture.planes[0][0], planes[0][0] * 0.5f);

    // Same version: a changed flag is not picked up.
    rack.publish(state, false, 1, {});
    capture = fixture.device->pull(100, 100);
    EXPECT_EQ(capture.planes[0][0], planes[0][100] * 0.5f);

    rack.publish(state, false, 2, {});
    capture = fixture.device->pull(100, 100);
    EXPECT_EQ(capture.planes[0][0], planes[0][200]);
    EXPECT_EQ(rack.runtime->enabled[0], 0);
}

TEST(PreviewEffects, BusyLockKeepsTheCachedRuntimeAndInactiveDropsIt) {
    const auto planes = noisePlanes(1, 1000, 6);
    EngineOnTestDevice fixture;
    Rack rack(1);
    auto& state = fixture.engine->state();
    rack.publish(state, true, 1, {});
    fixture.engine->start(AudioContent(planes, 48000), {0, 1000}, false, 1.0f);
    fixture.device->pull(100, 100);

    state.effectsLock.lock();
    auto capture = fixture.device->pull(100, 100);
    state.effectsLock.unlock();
    EXPECT_EQ(capture.planes[0][0], planes[0][100] * 0.5f);

    rack.publish(state, true, 1, {}, false);
    capture = fixture.device->pull(100, 100);
    EXPECT_EQ(capture.planes[0][0], planes[0][200]);
}

TEST(PreviewEffects, MismatchedChannelCountPassesAudioUnchanged) {
    const auto planes = noisePlanes(2, 300, 7);
    EngineOnTestDevice fixture;
    Rack rack(1); // prepared for mono, content is stereo
    rack.publish(fixture.engine->state(), true, 1, {});
    fixture.engine->start(AudioContent(planes, 48000), {0, 300}, false, 1.0f);
    const auto capture = fixture.device->pull(300, 300);
    EXPECT_EQ(capture.planes, planes);
    EXPECT_EQ(rack.processor->calls, 0);
}

} // namespace
} // namespace harlune
