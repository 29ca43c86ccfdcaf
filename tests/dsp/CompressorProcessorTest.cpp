// The compressor against closed forms: the static curve written out here on its own, the
// exponential approach of a one-pole smoother to a level step, and a mono run on the loudest
// channel as the reference for a linked pair.
#include "dsp/effects/CompressorProcessor.h"

#include "DynamicsTestSupport.h"
#include "dsp/effects/EffectSettings.h"
#include "support/TestAudio.h"

#include <cmath>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <nlohmann/json.hpp>

namespace harlune {
namespace {

using testing::Planes;
constexpr double rate = 48000;

// The curve from its description: unity below the knee, 1/ratio above it, and between the two
// the parabola that meets both lines tangentially.
double referenceReductionDB(double x, double threshold, double ratio, double knee) {
    const double low = threshold - knee / 2, high = threshold + knee / 2;
    const double slope = 1 / ratio;
    if (x <= low)
        return 0;
    if (x >= high)
        return (x - threshold) * slope + threshold - x;
    const double t = (x - low) / knee; // 0...1 across the knee
    return (slope - 1) * knee * t * t / 2;
}

TEST(CompressorProcessorTest, CurveAndAutomaticMakeup) {
    CompressorSettings s{.thresholdDB = -20, .ratio = 4, .kneeDB = 10};
    for (double x = -80; x <= 10; x += 0.25)
        EXPECT_NEAR(s.staticOutputDB(x) - x, referenceReductionDB(x, -20, 4, 10), 1e-12) << x;
    EXPECT_DOUBLE_EQ(s.staticOutputDB(-20), -20.9375);
    s.autoMakeup = true;
    s.makeupGainDB = 2;
    EXPECT_DOUBLE_EQ(s.effectiveMakeupDB(), 2 + 7.5); // half of the 15 dB that 0 dBFS loses
    s.ratio = 0.5;                                    // below 1:1 behaves as 1:1
    EXPECT_DOUBLE_EQ(s.staticOutputDB(-3), -3);
    s = {.thresholdDB = -20, .ratio = 4, .kneeDB = -5}; // a hard corner
    EXPECT_DOUBLE_EQ(s.staticOutputDB(-20.001), -20.001);
    EXPECT_DOUBLE_EQ(s.staticOutputDB(-12), -18);
}

// Steady levels across the range settle on the curve plus makeup, with both detectors, knee
// included; the meter leaves makeup out.
TEST(CompressorProcessorTest, DCSettlesOnTheStaticCurveAndTheMeterIgnoresMakeup) {
    for (const DetectionMode detection : {DetectionMode::peak, DetectionMode::rms}) {
        const CompressorSettings settings{.thresholdDB = -24,
                                          .ratio = 5,
                                          .kneeDB = 12,
                                          .attackMs = 5,
                                          .releaseMs = 50,
                                          .makeupGainDB = 3,
                                          .detection = detection};
        for (double level = -60; level <= 0; level += 1.5) {
            SCOPED_TRACE(std::string(rawValue(detection)) + " at " + std::to_string(level) + " dBFS");
            CompressorProcessor compressor;
            compressor.apply(settings);
            compressor.prepare(rate, 2, 512);
            Planes planes{testing::dc(level, 24000), testing::dc(level, 24000)};
            testing::runAll(compressor, planes);
            const double reduction = referenceReductionDB(level, -24, 5, 12);
            EXPECT_NEAR(testing::gainDB(testing::dc(level, 1)[0], planes[0].back()), reduction + 3, 0.01);
            EXPECT_NEAR(testing::gainDB(testing::dc(level, 1)[0], planes[1].back()), reduction + 3, 0.01);
            EXPECT_NEAR(compressor.gainReductionDB(), -reduction, 0.01);
        }
    }
}

// A step up from under the threshold reaches 1 - 1/e of its reduction after the attack time, a
// step back down gives up all but 1/e of it after the release time: to the frame.
TEST(CompressorProcessorTest, LevelStepsFollowAttackAndReleaseTimeConstants) {
    for (const auto& [attackMs, releaseMs] : {std::pair{20.0, 200.0}, std::pair{2.0, 35.0}}) {
        SCOPED_TRACE(std::to_string(attackMs) + " / " + std::to_string(releaseMs) + " ms");
        CompressorProcessor compressor;
        compressor.apply(CompressorSettings{
            .thresholdDB = -30, .ratio = 10, .kneeDB = 0, .attackMs = attackMs, .releaseMs = releaseMs});
        compressor.prepare(rate, 1, 1024);
        const size_t up = 24000, down = 72000, end = 144000;
        std::vector<float> input = testing::dc(-40, up);
        const auto loud = testing::dc(-10, down - up), quiet = testing::dc(-40, end - down);
        input.insert(input.end(), loud.begin(), loud.end());
        input.insert(input.end(), quiet.begin(), quiet.end());
        Planes planes{input};
        testing::runAll(compressor, planes);
        const auto reduction = [&](size_t i) {
            return -testing::gainDB(input[i], planes[0][i]);
        };
        const double full = 18; // 20 dB over at 10:1

        const auto firstFrom = [&](size_t from, auto condition) {
            size_t i = from;
            while (i < end && !condition(reduction(i)))
                ++i;
            return static_cast<double>(i - from);
        };
        const double attackFrames = attackMs / 1000 * rate, releaseFrames = releaseMs / 1000 * rate;
        // Frame k after the step has had k + 1 smoothing steps.
        EXPECT_NEAR(firstFrom(up, [&](double r) { return r >= full * (1 - std::exp(-1.0)); }) + 1,
                    attackFrames, 1.0);
        EXPECT_NEAR(firstFrom(down, [&](double r) { return r <= full * std::exp(-1.0); }) + 1, releaseFrames,
                    1.0);
        // And the whole shape is the exponential.
        for (const double tau : {0.5, 2.0, 4.0}) {
            const auto k = static_cast<size_t>(tau * attackFrames);
            EXPECT_NEAR(reduction(up + k - 1), full * (1 - std::exp(-static_cast<double>(k) / attackFrames)),
                        0.01);
            const auto j = static_cast<size_t>(tau * releaseFrames);
            EXPECT_NEAR(reduction(down + j - 1), full * std::exp(-static_cast<double>(j) / releaseFrames),
                        0.01);
        }
    }
}

Planes stereoProgramme() {
    Planes planes{testing::sine(220, 0.9, rate, 48000), testing::sine(3100, 0.05, rate, 48000)};
    for (size_t i = 12000; i < 30000; ++i) { // the left falls quiet while the right gets loud
        planes[0][i] *= 0.01f;
        planes[1][i] *= 16;
    }
    return planes;
}

TEST(CompressorProcessorTest, LinkedChannelsShareTheGainOfTheLoudestChannel) {
    const CompressorSettings settings{
        .thresholdDB = -20, .ratio = 8, .kneeDB = 4, .attackMs = 1, .releaseMs = 60};
    const Planes input = stereoProgramme();
    CompressorProcessor linked;
    linked.apply(settings);
    linked.prepare(rate, 2, 256);
    Planes output = input;
    testing::runAll(linked, output, 100);

    // The reference: a mono compressor fed the larger magnitude of each frame.
    Planes loudest{std::vector<float>(input[0].size())};
    for (size_t i = 0; i < loudest[0].size(); ++i)
        loudest[0][i] = std::max(std::abs(input[0][i]), std::abs(input[1][i]));
    const Planes loudestIn = loudest;
    CompressorProcessor mono;
    mono.apply(settings);
    mono.prepare(rate, 1, 256);
    testing::runAll(mono, loudest, 100);

    int compared = 0;
    for (size_t i = 0; i < input[0].size(); ++i) {
        const double expected = loudest[0][i] / loudestIn[0][i];
        for (int c = 0; c < 2; ++c)
            if (std::abs(input[c][i]) > 1e-3f) {
                ASSERT_NEAR(output[c][i] / input[c][i], expected, 1e-5 * expected)
                    << "channel " << c << " frame " << i;
                ++compared;
            }
    }
    EXPECT_GT(compared, 60000);

    // Unlinked, the quiet right channel keeps its level while the left is compressed.
    CompressorSettings separate = settings;
    separate.stereoLink = false;
    CompressorProcessor unlinked;
    unlinked.apply(separate);
    unlinked.prepare(rate, 2, 256);
    Planes apart = input;
    testing::runAll(unlinked, apart);
    EXPECT_NEAR(testing::gainDB(input[1][10000], apart[1][10000]), 0, 1e-3);
    EXPECT_LT(testing::gainDB(input[0][10000], apart[0][10000]), -10);
}

// Switching the link on while the channels sit at different gains: no jump, and the gains meet.
TEST(CompressorProcessorTest, SwitchingTheLinkOnConvergesWithoutAJump) {
    CompressorSettings settings{.thresholdDB = -20, .ratio = 6, .kneeDB = 0, .attackMs = 5, .releaseMs = 80};
    settings.stereoLink = false;
    CompressorProcessor compressor;
    compressor.apply(settings);
    compressor.prepare(rate, 2, 256);
    const size_t frames = 96000, change = 24000;
    const Planes input{testing::dc(-6, frames), testing::dc(-24, frames)};
    Planes output = input;
    testing::runFrames(compressor, output, 0, change);
    settings.stereoLink = true;
    compressor.apply(settings);
    testing::runFrames(compressor, output, change, frames);

    double largestStep = 0;
    for (size_t i = 1; i < frames; ++i)
        for (int c = 0; c < 2; ++c)
            largestStep = std::max(largestStep, std::abs(testing::gainDB(input[c][i], output[c][i]) -
                                                         testing::gainDB(input[c][i - 1], output[c][i - 1])));
    // The quiet channel, uncompressed before, now moves toward the common gain at the attack
    // rate, and by no more than one attack step at a time.
    const double common = -14 * (1 - 1.0 / 6);
    EXPECT_NEAR(testing::gainDB(input[1][change - 1], output[1][change - 1]), 0, 1e-3);
    EXPECT_LT(largestStep, -common * (1 - std::exp(-1 / (0.005 * rate))) * 1.01);
    EXPECT_NEAR(testing::gainDB(input[0].back(), output[0].back()), common, 0.01);
    EXPECT_NEAR(testing::gainDB(input[1].back(), output[1].back()), common, 0.01);
    EXPECT_EQ(output[0].back() / input[0].back(), output[1].back() / input[1].back());
}

TEST(CompressorProcessorTest, MixBlendsInTheGainDomain) {
    for (const double mix : {0.0, 0.35}) {
        CompressorProcessor compressor;
        compressor.apply(CompressorSettings{.thresholdDB = -20, .ratio = 4, .kneeDB = 0, .mix = mix});
        compressor.prepare(rate, 1, 256);
        Planes planes{testing::dc(0, 24000)};
        testing::runAll(compressor, planes);
        const double wet = std::pow(10.0, -15.0 / 20);
        EXPECT_NEAR(planes[0].back(), wet * mix + (1 - mix), 1e-5) << mix;
        if (mix == 0) {
            EXPECT_EQ(planes[0].back(), 1.0f);
        }
    }
}

// Each level parameter jumps during a 1 kHz tone; the gain glides, so nothing spreads beyond
// 500 Hz of the tone. A hard switch of the same size would, which the first check confirms.
TEST(CompressorProcessorTest, ParameterJumpsDoNotClick) {
    {
        Planes planes{testing::sine(1000, 0.5, rate, 96000)};
        for (size_t i = 48000; i < planes[0].size(); ++i)
            planes[0][i] *= 0.25f;
        EXPECT_GT(testing::worstSidebandDB(planes[0], 48000 - 4096, 16384, rate, 1000, 500), -60);
    }
    const CompressorSettings base{.thresholdDB = -24,
                                  .ratio = 4,
                                  .kneeDB = 6,
                                  .attackMs = 10,
                                  .releaseMs = 120,
                                  .detection = DetectionMode::rms};
    const auto with = [&](auto change) {
        CompressorSettings s = base;
        change(s);
        return s;
    };
    struct Jump {
        const char* name;
        CompressorSettings before, after;
        double amplitude = 0.5;
    };
    const Jump jumps[] = {
        {"threshold", with([](auto& s) { s.thresholdDB = -3; }), with([](auto& s) { s.thresholdDB = -36; })},
        {"ratio", with([](auto& s) { s.ratio = 1.2; }), with([](auto& s) { s.ratio = 20; })},
        {"knee", with([](auto& s) { s.thresholdDB = -12, s.kneeDB = 0; }),
         with([](auto& s) { s.thresholdDB = -12, s.kneeDB = 24; })},
        {"makeup", base, with([](auto& s) { s.makeupGainDB = 12; })},
        {"auto makeup", base, with([](auto& s) { s.autoMakeup = true; })},
        {"mix", base, with([](auto& s) { s.mix = 0.1; })},
        {"makeup, peak, under the threshold", with([](auto& s) { s.detection = DetectionMode::peak; }),
         with([](auto& s) { s.detection = DetectionMode::peak, s.makeupGainDB = -15; }), 0.02},
    };
    for (const Jump& jump : jumps) {
        CompressorProcessor compressor;
        EXPECT_LT(testing::sidebandsAcrossChange(compressor, jump.before, jump.after, jump.amplitude), -60)
            << jump.name;
    }
}

// Beyond 8 channels the rest pass unchanged; a rate of 0 or less is taken as 48 kHz.
TEST(CompressorProcessorTest, ChannelsAndRateAreClamped) {
    const auto run = [](double sampleRate, int channels) {
        CompressorProcessor compressor;
        compressor.apply(CompressorSettings{.thresholdDB = -30, .attackMs = 1, .stereoLink = false});
        compressor.prepare(sampleRate, channels, 256);
        Planes planes = testing::noisePlanes(channels, 6000, 2);
        testing::runAll(compressor, planes);
        return planes;
    };
    const Planes input = testing::noisePlanes(10, 6000, 2);
    const Planes ten = run(48000, 10);
    for (size_t c = 0; c < 10; ++c)
        EXPECT_EQ(ten[c] == input[c], c >= 8) << "channel " << c;
    EXPECT_EQ(run(0, 1), run(48000, 1));
    EXPECT_EQ(run(-1, 1), run(48000, 1));
    EXPECT_NE(run(44100, 1), run(48000, 1));
}

TEST(CompressorProcessorTest, BadSettingsNeverReachTheSignal) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    constexpr double inf = std::numeric_limits<double>::infinity();
    const auto output = [](const CompressorSettings& settings) {
        CompressorProcessor compressor;
        compressor.apply(settings);
        compressor.prepare(rate, 2, 256);
        Planes planes = testing::noisePlanes(2, 20000, 4);
        testing::runAll(compressor, planes);
        return planes;
    };
    // NaN takes the default.
    CompressorSettings nans{nan, nan, nan, nan, nan, nan, false, DetectionMode::peak, true, nan};
    EXPECT_EQ(output(nans), output(CompressorSettings{}));
    // Infinities and extremes are clamped into something finite.
    for (const CompressorSettings& extreme :
         {CompressorSettings{-inf, inf, inf, 0, inf, inf, true, DetectionMode::rms, true, -inf},
          CompressorSettings{inf, -inf, -inf, -inf, -inf, -inf, true, DetectionMode::peak, false, inf},
          CompressorSettings{-1e300, 1e300, 1e300, 1e300, -5, 1e300, true, DetectionMode::peak, true, 0.5}})
        for (const auto& plane : output(extreme))
            for (const float x : plane)
                ASSERT_TRUE(std::isfinite(x));
    // Wrong JSON types are refused with a message.
    EXPECT_THAT(
        [] {
            nlohmann::json::parse(
                R"({"compressor":{"_0":{"thresholdDB":-18,"ratio":"4","kneeDB":6,"attackMs":10,
                "releaseMs":120,"makeupGainDB":0,"autoMakeup":false,"detection":"peak","stereoLink":true,"mix":1}}})")
                .get<EffectSettings>();
        },
        ::testing::ThrowsMessage<nlohmann::json::exception>(::testing::HasSubstr("number")));
    EXPECT_THROW(
        nlohmann::json::parse(R"({"compressor":{"_0":{"thresholdDB":-18,"ratio":4,"kneeDB":6,"attackMs":10,
                "releaseMs":120,"makeupGainDB":0,"autoMakeup":false,"detection":"loud","stereoLink":true,"mix":1}}})")
            .get<EffectSettings>(),
        nlohmann::json::exception);
    // A setting of another kind is ignored.
    CompressorProcessor compressor;
    compressor.apply(EffectSettings::defaultSettings(EffectKind::gate));
    compressor.prepare(rate, 1, 64);
    Planes planes{testing::dc(0, 4800)};
    testing::runAll(compressor, planes);
    EXPECT_NEAR(compressor.gainReductionDB(), 13.5, 0.01);
}

} // namespace
} // namespace harlune
