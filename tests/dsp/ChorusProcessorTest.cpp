// The chorus and flanger against the delay curve worked out in closed form: a ramp read through
// a delay gives back the delay itself, so depth, rate and stereo offset can be checked exactly.
#include "dsp/effects/ChorusProcessor.h"

#include "support/TestAudio.h"

#include <array>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <numbers>

namespace harlune {
namespace {

using testing::Planes;

void runInPieces(EffectProcessor& processor, Planes& planes, int piece) {
    std::array<float*, 8> pointers{};
    for (size_t c = 0; c < planes.size(); ++c)
        pointers.at(c) = planes[c].data();
    const ChannelSpan whole(ChannelPointers(pointers).first(planes.size()),
                            static_cast<int>(planes[0].size()));
    for (int done = 0; done < whole.frameCount(); done += piece)
        processor.process(whole.frames(done, std::min(piece, whole.frameCount() - done)));
}

// The flanger's delay in frames at frame n of channel c of two: the sine is sampled at each
// 32-frame tick (the first tick already one step on) and drawn as straight lines in between.
double flangerDelay(const ChorusSettings& s, double rate, int channel, int64_t n) {
    const auto atTick = [&](int64_t tick) {
        const double phase = static_cast<double>(tick) * s.rateHz * 32 / rate + s.stereoSpread * channel / 2;
        return rate / 1000 * s.delayMs * (1 + 0.95 * s.depth * std::sin(2 * std::numbers::pi * phase));
    };
    const int64_t tick = n / 32;
    const double r = static_cast<double>(n % 32) / 32;
    return atTick(tick) + (atTick(tick + 1) - atTick(tick)) * r;
}

TEST(ChorusProcessor, AFlangerReadsTheDelayCurveOfItsSettings) {
    constexpr double rate = 48000;
    constexpr int frames = 65536;
    for (const ChorusSettings settings : {ChorusSettings{.mode = ModulationMode::flanger,
                                         .rateHz = 2,
                                         .depth = 0.6,
                                         .delayMs = 4,
                                         .feedback = 0,
                                         .stereoSpread = 0.5,
                                         .mix = 1},
                                          ChorusSettings{.mode = ModulationMode::flanger,
                                          .rateHz = 0.3,
                                          .depth = 1,
                                          .delayMs = 2,
                                          .feedback = 0,
                                          .voices = 4,
                                          .stereoSpread = 1,
                                          .mix = 1}}) {
        Planes planes(2, std::vector<float>(frames));
        for (auto& plane : planes)
            for (int n = 0; n < frames; ++n)
                plane[static_cast<size_t>(n)] = 1e-6f * static_cast<float>(n);
        ChorusProcessor flanger;
        flanger.apply(settings);
        flanger.prepare(rate, 2, 1024);
        runInPieces(flanger, planes, 1000);
        double worst = 0;
        for (int c = 0; c < 2; ++c)
            for (int n = 1024; n < frames; ++n) {
                const double measured = n - planes[static_cast<size_t>(c)][static_cast<size_t>(n)] / 1e-6;
                worst = std::max(worst, std::abs(measured - flangerDelay(settings, rate, c, n)));
            }
        EXPECT_LT(worst, 0.02) << "frames off the curve at rate " << settings.rateHz;
    }
}

TEST(ChorusProcessor, SettingsOutsideTheirRangesAreHeldToThem) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    constexpr double inf = std::numeric_limits<double>::infinity();
    const ChorusSettings bad{.rateHz = 50,
                             .depth = nan,
                             .delayMs = -3,
                             .feedback = -9,
                             .voices = 99,
                             .stereoSpread = inf,
                             .mix = 7};
    const ChorusSettings held{.rateHz = 10,
                              .depth = 0.5,
                              .delayMs = 0.5,
                              .feedback = -0.95,
                              .voices = 4,
                              .stereoSpread = 0.5,
                              .mix = 1};
    const Planes input = testing::noisePlanes(2, 30000, 4);
    Planes fromBad = input;
    Planes fromHeld = input;
    ChorusProcessor badChorus;
    badChorus.prepare(44100, 2, 256);
    badChorus.apply(bad);
    badChorus.reset();
    ChorusProcessor heldChorus;
    heldChorus.apply(held);
    heldChorus.prepare(44100, 2, 256);
    runInPieces(badChorus, fromBad, 256);
    runInPieces(heldChorus, fromHeld, 256);
    EXPECT_EQ(fromBad, fromHeld);
    EXPECT_EQ(badChorus.tailFrames(), heldChorus.tailFrames());
    for (const auto& plane : fromBad)
        for (const float y : plane)
            ASSERT_TRUE(std::isfinite(y) && std::abs(y) <= 3.0f);
}

// From chorus to flanger: the extra voices fade over the 50 ms glide, with no jump.
TEST(ChorusProcessor, AChangeOfModeFadesTheVoices) {
    constexpr double rate = 48000;
    Planes tone(1, std::vector<float>(48000));
    for (size_t i = 0; i < tone[0].size(); ++i)
        tone[0][i] =
            static_cast<float>(0.5 * std::sin(2 * std::numbers::pi * 200 * static_cast<double>(i) / rate));
    ChorusProcessor chorus;
    chorus.apply(ChorusSettings{.voices = 4, .mix = 1});
    chorus.prepare(rate, 1, 512);
    Planes before = {std::vector<float>(tone[0].begin(), tone[0].begin() + 9600)};
    Planes after = {std::vector<float>(tone[0].begin() + 9600, tone[0].end())};
    runInPieces(chorus, before, 512);
    chorus.apply(ChorusSettings{.mode = ModulationMode::flanger, .voices = 4, .mix = 1});
    runInPieces(chorus, after, 512);
    float largestStep = std::abs(after[0][0] - before[0].back());
    for (size_t i = 1; i < after[0].size(); ++i)
        largestStep = std::max(largestStep, std::abs(after[0][i] - after[0][i - 1]));
    EXPECT_LT(largestStep, 0.03f); // a 200 Hz tone of 0.5 moves at most 0.013 per frame
}

} // namespace
} // namespace harlune
