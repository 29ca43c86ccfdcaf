// Envelopes in the callback: sample-accurate gains per chunk from absolute frames, and no gain
// work at all for a flat set.
#include "engine/EngineTestSupport.h"
#include "support/TestAudio.h"

#include <atomic>
#include <cmath>
#include <gtest/gtest.h>
#include <thread>

namespace harlune {
namespace {

using testing::EngineOnTestDevice;
using testing::noisePlanes;

EnvelopeSet curvedSet() {
    GainEnvelope master;
    master.insert(1000, 0.0);
    master.insert(5000, -12.0);
    master.insert(9000, 6.0);
    GainEnvelope right;
    right.insert(2000, -3.0);
    right.insert(7000, 3.0);
    return EnvelopeSet(master, {GainEnvelope{}, right}, {1.5, 0.0});
}

// The reference is the set's own dB curve, frame by frame, in double precision.
TEST(EnvelopePlayback, GainsFollowTheCurveAcrossCallbacksAndChunks) {
    const auto planes = noisePlanes(2, 12000, 11);
    const EnvelopeSet envelopes = curvedSet();
    for (const int callback : {1000, 5000, 12000}) {
        EngineOnTestDevice fixture;
        fixture.engine->setEnvelopes(envelopes);
        fixture.engine->start(AudioContent(planes, 48000), {500, 11500}, false, 0.5f);
        EXPECT_TRUE(fixture.engine->state().program.envelopeActive);
        const auto capture = fixture.device->pull(11000, callback);
        for (int c = 0; c < 2; ++c) {
            for (int64_t i = 0; i < 11000; ++i) {
                const int64_t frame = 500 + i;
                const double gain = std::pow(10.0, envelopes.gainDB(c, static_cast<double>(frame)) / 20.0);
                const double expected =
                    planes[static_cast<size_t>(c)][static_cast<size_t>(frame)] * gain * 0.5;
                ASSERT_NEAR(capture.planes[static_cast<size_t>(c)][static_cast<size_t>(i)], expected,
                            2e-5 * std::abs(expected) + 1e-7)
                    << "channel " << c << " frame " << frame << " callback " << callback;
            }
        }
    }
}

// With no set or a flat one, the program does no gain work: samples times `gain`, bit for bit.
TEST(EnvelopePlayback, FlatOrNoSetPassesSamplesBitForBitTimesGain) {
    const auto planes = noisePlanes(2, 9000, 12);
    GainEnvelope zero;
    zero.insert(100, 0.0);
    zero.insert(4000, 0.0);
    for (const bool flatSet : {false, true})
        for (const float gain : {1.0f, 0.7f, 0.3162f}) {
            EngineOnTestDevice fixture;
            if (flatSet)
                fixture.engine->setEnvelopes(EnvelopeSet(zero, {zero}, {0.0, 0.0}));
            fixture.engine->start(AudioContent(planes, 48000), {0, 9000}, false, gain);
            EXPECT_FALSE(fixture.engine->state().program.envelopeActive);
            const auto capture = fixture.device->pull(9000, 4500);
            for (size_t c = 0; c < 2; ++c)
                for (size_t i = 0; i < 9000; ++i)
                    ASSERT_EQ(capture.planes[c][i], planes[c][i] * gain)
                        << flatSet << " " << gain << " " << i;
        }
}

TEST(EnvelopePlayback, NewSetTakesEffectAtTheNextCallback) {
    const auto planes = noisePlanes(1, 4000, 13);
    EngineOnTestDevice fixture;
    fixture.engine->start(AudioContent(planes, 48000), {0, 4000}, false, 1.0f);
    fixture.device->pull(1000, 1000);
    GainEnvelope minus6;
    minus6.insert(0, -6.0);
    fixture.engine->setEnvelopes(EnvelopeSet(minus6));
    const auto capture = fixture.device->pull(1000, 1000);
    const float gain = std::pow(10.0f, -6.0f / 20.0f);
    EXPECT_NEAR(capture.planes[0][10], planes[0][1010] * gain, 1e-6f);
    // The start of a play keeps the set and recomputes whether it is active.
    fixture.engine->start(AudioContent(planes, 48000), {0, 4000}, false, 1.0f);
    EXPECT_TRUE(fixture.engine->state().program.envelopeActive);
}

// Content and envelopes are one state: each pair below renders at 0.01, so a callback that saw
// the content of one pair with the envelopes of the other would hear 0.1 or 0.001.
TEST(EnvelopePlayback, ContentAndEnvelopesSwapInTogetherWhilePlaying) {
    const auto constantPlanes = [](float value) {
        return std::vector<std::vector<float>>(1, std::vector<float>(48000, value));
    };
    const AudioContent loud(constantPlanes(0.1f), 48000);
    const AudioContent quiet(constantPlanes(0.01f), 48000);
    GainEnvelope minus20;
    minus20.insert(0, -20.0);
    const EnvelopeSet down(minus20);

    EngineOnTestDevice fixture;
    fixture.engine->setEnvelopes(down);
    fixture.engine->start(loud, {0, 48000}, true, 1.0f);
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    std::thread listener([&] {
        while (!done.load()) {
            const auto capture = fixture.device->pull(64, 64);
            // A callback that found the program lock busy is silent by design.
            for (const float sample : capture.planes[0])
                if (sample != 0.0f && std::abs(sample - 0.01f) > 1e-4f)
                    wrong.fetch_add(1);
        }
    });
    for (int round = 0; round < 4000; ++round) {
        if (round % 2 == 0)
            fixture.engine->setAudio(quiet, EnvelopeSet{}, {0, 48000});
        else
            fixture.engine->setAudio(loud, down, {0, 48000});
    }
    done.store(true);
    listener.join();
    EXPECT_EQ(wrong.load(), 0);
}

} // namespace
} // namespace harlune
