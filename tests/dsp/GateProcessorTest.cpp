// The gate against closed forms of its detector: steady levels either side of the threshold and
// of the hysteresis, the frame at which a falling level closes it (detector hold, decay, hold
// time), and the closed gain.
#include "dsp/effects/GateProcessor.h"

#include "DynamicsTestSupport.h"
#include "dsp/effects/EffectSettings.h"
#include "support/TestAudio.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <nlohmann/json.hpp>

namespace harlune {
namespace {

using testing::Planes;
constexpr double rate = 48000;

double linear(double db) {
    return std::pow(10.0, db / 20);
}

std::vector<float> levels(std::initializer_list<std::pair<double, size_t>> stretches) {
    std::vector<float> out;
    for (const auto& [db, frames] : stretches) {
        const auto part = testing::dc(db, frames);
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

// With instant ramps the gain is 1 or the range, so each frame says whether the gate is open.
TEST(GateProcessorTest, OpensAtTheThresholdAndClosesUnderTheHysteresisAfterTheHold) {
    const double threshold = -40, hysteresis = 6, range = -30;
    for (const double holdMs : {0.0, 50.0}) {
        SCOPED_TRACE("hold " + std::to_string(holdMs) + " ms");
        GateProcessor gate;
        gate.apply(GateSettings{.thresholdDB = threshold,
                                .rangeDB = range,
                                .attackMs = 0,
                                .holdMs = holdMs,
                                .releaseMs = 0,
                                .hysteresisDB = hysteresis});
        gate.prepare(rate, 1, 512);
        // Under both levels, between them, over the threshold, between again, then far under.
        const size_t stretch = 9600;
        const std::vector<float> input =
            levels({{-50, stretch}, {-43, stretch}, {-39.5, stretch}, {-45.5, stretch}, {-80, 3 * stretch}});
        Planes planes{input};
        testing::runAll(gate, planes, 300);
        const auto open = [&](size_t i) {
            return std::abs(testing::gainDB(input[i], planes[0][i])) < 1e-4;
        };
        const auto closed = [&](size_t i) {
            return std::abs(testing::gainDB(input[i], planes[0][i]) - range) < 0.01;
        };

        for (size_t i = 0; i < 2 * stretch; ++i)
            ASSERT_TRUE(closed(i)) << "frame " << i; // a closed gate stays closed between the levels
        for (size_t i = 2 * stretch; i < 4 * stretch; ++i)
            ASSERT_TRUE(open(i)) << "frame " << i; // opens at once, stays open between the levels

        // The fall to -80 dB: the envelope holds 20 ms, then decays by e every 10 ms until it is
        // under the close level; then the hold time runs out.
        const size_t fall = 4 * stretch;
        const double decayPerFrame = std::exp(-1 / (0.01 * rate));
        const double decays =
            std::ceil(std::log(linear(threshold - hysteresis) / linear(-45.5)) / std::log(decayPerFrame));
        const double expected = 0.02 * rate + decays + holdMs / 1000 * rate;
        size_t firstClosed = fall;
        while (firstClosed < input.size() && open(firstClosed))
            ++firstClosed;
        EXPECT_NEAR(static_cast<double>(firstClosed - fall), expected, 1.0);
        for (size_t i = firstClosed; i < input.size(); ++i)
            ASSERT_TRUE(closed(i)) << "frame " << i;
    }
}

TEST(GateProcessorTest, ClosedGainIsTheRangeAndTheMeterReadsIt) {
    for (const double range : {-12.0, -40.0, -80.0}) {
        GateProcessor gate;
        gate.apply(GateSettings{.thresholdDB = -45, .rangeDB = range});
        gate.prepare(rate, 2, 256);
        EXPECT_NEAR(gate.gainReductionDB(), -range, 0.01); // a new gate is closed
        const Planes input{testing::sine(440, 0.0003, rate, 9600), testing::sine(97, 0.0002, rate, 9600)};
        Planes output = input;
        testing::runAll(gate, output);
        for (size_t c = 0; c < 2; ++c)
            for (size_t i = 0; i < input[c].size(); ++i)
                if (input[c][i] != 0) {
                    ASSERT_NEAR(testing::gainDB(input[c][i], output[c][i]), range, 0.01)
                        << range << " dB, frame " << i;
                }
        EXPECT_NEAR(gate.gainReductionDB(), -range, 0.01);
    }
    // Above 0 dB the range does nothing; a closed gate with a range of -1000 dB is silent.
    for (const auto& [range, meter] : {std::pair{6.0, 0.0}, std::pair{-1000.0, 200.0}}) {
        GateProcessor gate;
        gate.apply(GateSettings{.rangeDB = range});
        gate.prepare(rate, 1, 256);
        Planes planes{testing::sine(440, 0.001, rate, 4800)};
        const Planes input = planes;
        testing::runAll(gate, planes);
        EXPECT_EQ(planes[0][1000], range > 0 ? input[0][1000] : 0.0f);
        EXPECT_NEAR(gate.gainReductionDB(), meter, 1e-3);
    }
}

// Attack and release walk the position linearly through a smoothstep: fully open after the
// attack time and fully closed after the release time, to the frame.
TEST(GateProcessorTest, AttackAndReleaseTakeTheirTimes) {
    GateProcessor gate;
    gate.apply(GateSettings{
        .thresholdDB = -30, .rangeDB = -60, .attackMs = 10, .holdMs = 0, .releaseMs = 40, .hysteresisDB = 0});
    gate.prepare(rate, 1, 512);
    const std::vector<float> input = levels({{-20, 4800}, {-35, 9600}});
    Planes planes{input};
    testing::runAll(gate, planes);
    const auto gain = [&](size_t i) {
        return static_cast<double>(planes[0][i] / input[i]);
    };
    const double floor = linear(-60);
    const auto expectedGain = [&](double p) {
        return floor + (1 - floor) * p * p * (3 - 2 * p);
    };
    EXPECT_NEAR(gain(239), expectedGain(0.5), 1e-5); // half way after 240 steps of 1/480
    EXPECT_LT(gain(478), 1.0);
    EXPECT_EQ(gain(479), 1.0);
    // From the first frame that closes, 1920 release steps of 1/1920 reach the floor.
    size_t closing = 4800;
    while (gain(closing) == 1.0)
        ++closing;
    const size_t closedAt = closing + 1919;
    EXPECT_GT(gain(closedAt - 1), floor + 1e-9);
    EXPECT_NEAR(gain(closedAt), floor, 1e-9);
}

TEST(GateProcessorTest, TheLinkOpensEveryChannelWithTheLoudest) {
    const Planes input{testing::sine(300, 0.5, rate, 9600), testing::sine(300, 0.001, rate, 9600)};
    for (const bool link : {true, false}) {
        GateProcessor gate;
        gate.apply(GateSettings{.thresholdDB = -30, .attackMs = 0, .stereoLink = link});
        gate.prepare(rate, 2, 256);
        Planes output = input;
        testing::runAll(gate, output);
        EXPECT_EQ(output[0][5000], input[0][5000]);
        if (link)
            EXPECT_EQ(output[1][5000], input[1][5000]);
        else
            EXPECT_NEAR(testing::gainDB(input[1][5000], output[1][5000]), -60, 0.01);
    }
    // Switched off while closed, both stay closed; switched on, one open channel opens both.
    GateProcessor gate;
    gate.apply(GateSettings{.thresholdDB = -30, .attackMs = 0, .stereoLink = true});
    gate.prepare(rate, 2, 256);
    Planes quiet{testing::dc(-50, 4800), testing::dc(-50, 4800)};
    testing::runAll(gate, quiet);
    gate.apply(GateSettings{.thresholdDB = -30, .attackMs = 0, .stereoLink = false});
    Planes output = input;
    testing::runFrames(gate, output, 0, 4800);
    EXPECT_NEAR(testing::gainDB(input[1][4000], output[1][4000]), -60, 0.01);
    gate.apply(GateSettings{.thresholdDB = -30, .attackMs = 0, .stereoLink = true});
    testing::runFrames(gate, output, 4800, 9600);
    EXPECT_EQ(output[1][9000], input[1][9000]);
}

// The range glides, on its own or while the gate is open; nothing spreads beyond 500 Hz.
TEST(GateProcessorTest, RangeJumpsDoNotClick) {
    for (const auto& [from, to] : {std::pair{-20.0, -60.0}, std::pair{-60.0, 0.0}, std::pair{-3.0, -90.0}}) {
        GateProcessor gate;
        EXPECT_LT(testing::sidebandsAcrossChange(gate, GateSettings{.thresholdDB = -20, .rangeDB = from},
                                                 GateSettings{.thresholdDB = -20, .rangeDB = to}, 0.05),
                  -60)
            << from << " to " << to;
    }
}

TEST(GateProcessorTest, ChannelsAndRateAreClamped) {
    const auto run = [](double sampleRate, int channels) {
        GateProcessor gate;
        gate.apply(GateSettings{.thresholdDB = -6, .holdMs = 5, .stereoLink = false});
        gate.prepare(sampleRate, channels, 256);
        Planes planes = testing::noisePlanes(channels, 6000, 2);
        testing::runAll(gate, planes);
        return planes;
    };
    const Planes input = testing::noisePlanes(10, 6000, 2);
    const Planes ten = run(48000, 10);
    for (size_t c = 0; c < 10; ++c)
        EXPECT_EQ(ten[c] == input[c], c >= 8) << "channel " << c;
    EXPECT_EQ(run(0, 1), run(48000, 1));
    EXPECT_NE(run(44100, 1), run(48000, 1));
}

TEST(GateProcessorTest, BadSettingsNeverReachTheSignal) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    constexpr double inf = std::numeric_limits<double>::infinity();
    const auto output = [](const GateSettings& settings) {
        GateProcessor gate;
        gate.apply(settings);
        gate.prepare(rate, 2, 256);
        Planes planes = testing::noisePlanes(2, 20000, 4);
        for (auto& plane : planes)
            for (size_t i = 5000; i < 15000; ++i)
                plane[i] *= 1e-4f;
        testing::runAll(gate, planes);
        return planes;
    };
    // Each non-finite setting falls back to its own fixed value.
    EXPECT_EQ(output(GateSettings{nan, nan, nan, nan, nan, nan, true}),
              output(GateSettings{-45, -60, 1, 0, 150, 0, true}));
    for (const GateSettings& extreme : {GateSettings{inf, -inf, inf, inf, inf, inf, false},
                                        GateSettings{-inf, inf, -inf, -inf, -inf, -inf, true},
                                        GateSettings{1e300, -1e300, 1e300, 1e300, 1e300, 1e300, true}})
        for (const auto& plane : output(extreme))
            for (const float x : plane)
                ASSERT_TRUE(std::isfinite(x));
    EXPECT_THROW(nlohmann::json::parse(R"({"gate":{"_0":{"thresholdDB":-45,"rangeDB":null,"attackMs":1,
        "holdMs":50,"releaseMs":150,"hysteresisDB":3,"stereoLink":true}}})")
                     .get<EffectSettings>(),
                 nlohmann::json::exception);
    EXPECT_THROW(nlohmann::json::parse(R"({"gate":{"_0":{"thresholdDB":-45,"rangeDB":-60,"attackMs":1,
        "holdMs":50,"releaseMs":150,"hysteresisDB":3,"stereoLink":"yes"}}})")
                     .get<EffectSettings>(),
                 nlohmann::json::exception);
}

} // namespace
} // namespace harlune
