#include "dsp/Buffers.h"
#include "dsp/effects/Space.h"

#include <cmath>
#include <complex>
#include <gtest/gtest.h>
#include <numbers>

namespace harlune {
namespace {

TEST(ChannelBuffersTest, ZeroedGrowOnlyBuffers) {
    ChannelBuffers buffers(3, 0);
    EXPECT_EQ(buffers.capacity(), 1);
    buffers.reserve(100);
    EXPECT_EQ(buffers.capacity(), 100);
    buffers.channel(1)[5] = 7;
    buffers.reserve(50);
    EXPECT_EQ(buffers.capacity(), 100);
    EXPECT_EQ(buffers.channel(1)[5], 7) << "no shrink, no loss";
    buffers.reserve(200);
    EXPECT_EQ(buffers.channel(1)[5], 0) << "growing replaces with zeros";
    const auto views = buffers.buffers(10);
    ASSERT_EQ(views.size(), 3u);
    EXPECT_EQ(views[2].size(), 10u);
    EXPECT_EQ(views[2].data(), buffers.channel(2));

    DoubleScratch scratch;
    EXPECT_EQ(scratch.capacity(), 0);
    scratch.reserve(10);
    double* first = scratch.pointer();
    scratch.reserve(5);
    EXPECT_EQ(scratch.pointer(), first);
    scratch.reserve(11);
    EXPECT_EQ(scratch.capacity(), 11);
}

TEST(ChannelBuffersTest, ReadZeroPaddedPlacesTheInsideAndClearsTheRest) {
    const ArraySource source({{1, 2, 3, 4, 5, 6}, {-1, -2, -3, -4, -5, -6}}, 48000);
    ChannelBuffers buffers(2, 4);
    for (int i = 0; i < 4; ++i)
        buffers.channel(0)[i] = 99;
    buffers.readZeroPadded(source, {-2, 4}, std::nullopt, 1);
    EXPECT_GE(buffers.capacity(), 7);
    EXPECT_EQ(std::vector<float>(buffers.channel(0), buffers.channel(0) + 7),
              (std::vector<float>{0, 0, 0, 1, 2, 3, 4}));
    buffers.readZeroPadded(source, {3, 9}, FrameRange{0, 4}, 0);
    EXPECT_EQ(std::vector<float>(buffers.channel(1), buffers.channel(1) + 6),
              (std::vector<float>{-4, 0, 0, 0, 0, 0}));
}

TEST(SpaceTest, StorageRefillsWithItsZeroAndRampSpansOneTick) {
    SpaceStorage<int> storage(5, -1);
    EXPECT_EQ(storage.count(), 5);
    EXPECT_EQ(storage[4], -1);
    storage[2] = 7;
    storage.clear();
    EXPECT_EQ(storage[2], -1);
    EXPECT_EQ(SpaceStorage<float>(0).count(), 1);

    SpaceRamp ramp;
    ramp.jump(1);
    ramp.advance(2);
    EXPECT_EQ(ramp.value(0), 1);
    EXPECT_FLOAT_EQ(ramp.value(16), 1.5f);
    EXPECT_FLOAT_EQ(ramp.value(32), 2);
    ramp.advance(2);
    EXPECT_EQ(ramp.step, 0);
    EXPECT_NEAR(spaceTickCoefficient(48000, 0.05), 1 - std::exp(-32.0 / 2400.0), 1e-15);
}

/// Steady-state gain of a filter at `frequency`, measured with a long sine.
template <class Step> double measuredGain(double frequency, double rate, Step step) {
    double peak = 0;
    for (int i = 0; i < 48000; ++i) {
        const auto x = static_cast<float>(std::sin(2 * std::numbers::pi * frequency * i / rate));
        const float y = step(x);
        if (i > 40000)
            peak = std::max(peak, static_cast<double>(std::abs(y)));
    }
    return peak;
}

TEST(SpaceTest, StateVariableFilterMatchesItsAnalogPrototype) {
    // The trapezoidal SVF is the bilinear transform of the analog low/high-pass with the cutoff
    // prewarped, so at the cutoff the magnitude is exactly q, and elsewhere it follows
    // |H(jΩ)| with Ω = tan(πf/fs) / tan(πfc/fs).
    const double rate = 48000;
    for (const double cutoff : {200.0, 1000.0, 5000.0}) {
        for (const double q : {0.5, 0.7071, 2.0}) {
            const SpaceSVFCoefficients c(cutoff, q, rate);
            for (const double f : {cutoff / 3, cutoff, cutoff * 2.5}) {
                const double w =
                    std::tan(std::numbers::pi * f / rate) / std::tan(std::numbers::pi * cutoff / rate);
                const std::complex<double> s(0, w);
                const auto denominator = s * s + s / q + 1.0;
                SpaceSVFState low;
                SpaceSVFState high;
                EXPECT_NEAR(measuredGain(f, rate, [&](float x) { return low.lowPass(c, x); }),
                            std::abs(1.0 / denominator), 2e-3)
                    << cutoff << " " << q << " " << f;
                EXPECT_NEAR(measuredGain(f, rate, [&](float x) { return high.highPass(c, x); }),
                            std::abs(s * s / denominator), 2e-3)
                    << cutoff << " " << q << " " << f;
            }
        }
    }
    // The cutoff is held within 1 Hz ... 0.49 of the rate.
    EXPECT_EQ(SpaceSVFCoefficients(1e9, 0.7, rate).a1, SpaceSVFCoefficients(0.49 * rate, 0.7, rate).a1);
    EXPECT_EQ(SpaceSVFCoefficients(-5, 0.7, rate).a3, SpaceSVFCoefficients(1, 0.7, rate).a3);
}

} // namespace
} // namespace harlune
