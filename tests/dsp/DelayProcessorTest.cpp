// The delay against plain expectations: a tone burst measured back by cross-correlation and
// energy, impulses through ping-pong, the tempo-synced time, and settings outside their ranges.
#include "dsp/effects/DelayProcessor.h"

#include "dsp/effects/DelaySync.h"
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

DelayProcessor preparedDelay(const DelaySettings& settings, double rate, int channels) {
    DelayProcessor delay;
    delay.apply(settings);
    delay.prepare(rate, channels, 512);
    return delay;
}

// A Hann-windowed 1 kHz burst of 20 ms, clear of both cuts.
std::vector<float> burstAt(double rate) {
    const auto length = static_cast<size_t>(rate / 50);
    std::vector<float> burst(length);
    for (size_t i = 0; i < length; ++i) {
        const double x = static_cast<double>(i);
        burst[i] =
            static_cast<float>(0.5 * std::sin(2 * std::numbers::pi * 1000 * x / rate) *
                               std::pow(std::sin(std::numbers::pi * x / static_cast<double>(length)), 2));
    }
    return burst;
}

double correlation(const std::vector<float>& signal, const std::vector<float>& pattern, int64_t at) {
    double sum = 0;
    for (size_t i = 0; i < pattern.size(); ++i)
        sum += double{signal[static_cast<size_t>(at) + i]} * pattern[i];
    return sum;
}

double energy(const std::vector<float>& signal, int64_t from, size_t count) {
    double sum = 0;
    for (size_t i = 0; i < count; ++i)
        sum += double{signal[static_cast<size_t>(from) + i]} * signal[static_cast<size_t>(from) + i];
    return sum;
}

struct Repeat {
    /// Frames, between frames where the match is best.
    double at;
    double energy;
};

// The copy of `burst` in `signal` that matches best within 20 frames of `guess`, by
// cross-correlation refined by a parabola, with its energy.
Repeat findRepeat(const std::vector<float>& signal, const std::vector<float>& burst, double guess) {
    const auto near = static_cast<int64_t>(std::llround(guess));
    int64_t best = near - 20;
    for (int64_t at = near - 20; at <= near + 20; ++at)
        if (correlation(signal, burst, at) > correlation(signal, burst, best))
            best = at;
    const double left = correlation(signal, burst, best - 1);
    const double middle = correlation(signal, burst, best);
    const double right = correlation(signal, burst, best + 1);
    return {static_cast<double>(best) + 0.5 * (left - right) / (left - 2 * middle + right),
            energy(signal, best - 100, burst.size() + 200)};
}

double dB(double energyRatio) {
    return 10 * std::log10(energyRatio);
}

TEST(DelayProcessor, ABurstRepeatsAtTheSetTimeAndFallsByTheFeedback) {
    constexpr double rate = 48000;
    constexpr double timeMs = 251.3; // 12062.4 frames: the read falls between samples
    constexpr double feedback = 0.6;
    const DelaySettings settings{
        .timeMs = timeMs, .feedback = feedback, .mix = 1, .lowCutHz = 20, .highCutHz = 20000};
    const std::vector<float> burst = burstAt(rate);
    const double period = timeMs / 1000 * rate;
    Planes planes(2, std::vector<float>(static_cast<size_t>(6 * period)));
    std::copy(burst.begin(), burst.end(), planes[0].begin());
    std::copy(burst.begin(), burst.end(), planes[1].begin());
    DelayProcessor delay = preparedDelay(settings, rate, 2);
    runInPieces(delay, planes, 100);

    for (const auto& plane : planes) {
        // As if a repeat 0 at mix 1.
        Repeat previous{0, energy(burst, 0, burst.size()) / (feedback * feedback)};
        for (int k = 1; k <= 5; ++k) {
            const Repeat repeat = findRepeat(plane, burst, k * period);
            EXPECT_NEAR(repeat.at - previous.at, period, 1.0) << "repeat " << k;
            EXPECT_NEAR(dB(repeat.energy / previous.energy), 20 * std::log10(feedback), 0.1)
                << "repeat " << k;
            previous = repeat;
        }
    }
}

TEST(DelayProcessor, LinesRunAtTheirOwnTimesAndPingPongCrosses) {
    constexpr double rate = 44100;
    const std::vector<float> burst = burstAt(rate);
    std::vector<float> input(20000);
    std::copy(burst.begin(), burst.end(), input.begin());
    DelaySettings settings{
        .timeMs = 100, .rightTimeRatio = 1.5, .feedback = 0.5, .mix = 1, .lowCutHz = 20, .highCutHz = 20000};
    const double inputEnergy = energy(burst, 0, burst.size());
    const double halfDB = 20 * std::log10(0.5);
    // Left repeats every 4410 frames, right every 6615; a third channel opens a new pair and
    // takes the left time.
    Planes three{input, input, input};
    DelayProcessor normal = preparedDelay(settings, rate, 3);
    runInPieces(normal, three, 333);
    EXPECT_NEAR(findRepeat(three[0], burst, 4410).at, 4410, 1);
    EXPECT_NEAR(findRepeat(three[0], burst, 8820).at, 8820, 1);
    EXPECT_NEAR(findRepeat(three[1], burst, 6615).at, 6615, 1);
    EXPECT_NEAR(findRepeat(three[1], burst, 13230).at, 13230, 1);
    EXPECT_NEAR(findRepeat(three[2], burst, 4410).at, 4410, 1);
    EXPECT_NEAR(findRepeat(three[2], burst, 8820).at, 8820, 1);

    // Mono ping-pong: the left line at 4410, its repeat through the right line 6615 later,
    // then back through the left; each crossing takes the feedback once.
    settings.pingPong = true;
    Planes mono{input};
    DelayProcessor pingPong = preparedDelay(settings, rate, 1);
    runInPieces(pingPong, mono, 64);
    const Repeat first = findRepeat(mono[0], burst, 4410);
    const Repeat second = findRepeat(mono[0], burst, 11025);
    const Repeat third = findRepeat(mono[0], burst, 15435);
    EXPECT_NEAR(first.at, 4410, 1);
    EXPECT_NEAR(second.at, 11025, 1.5);
    EXPECT_NEAR(third.at, 15435, 2);
    EXPECT_NEAR(dB(first.energy / inputEnergy), 0, 0.1);
    EXPECT_NEAR(dB(second.energy / first.energy), halfDB, 0.1);
    EXPECT_NEAR(dB(third.energy / second.energy), halfDB, 0.1);
}

// A jump from 100 ms to 2000 ms while a tone runs: the read point slides (the pitch bends)
// and the output moves no faster than the fastest slide makes the tone move.
TEST(DelayProcessor, AChangeOfTimeGlidesWithoutAJump) {
    constexpr double rate = 48000;
    Planes tone(1, std::vector<float>(4 * 48000));
    for (size_t i = 0; i < tone[0].size(); ++i)
        tone[0][i] = static_cast<float>(std::sin(2 * std::numbers::pi * 100 * static_cast<double>(i) / rate));
    DelayProcessor delay = preparedDelay({.timeMs = 100, .feedback = 0, .mix = 1}, rate, 1);
    Planes before = {std::vector<float>(tone[0].begin(), tone[0].begin() + 24000)};
    Planes after = {std::vector<float>(tone[0].begin() + 24000, tone[0].end())};
    runInPieces(delay, before, 512);
    delay.apply(DelaySettings{.timeMs = 2000, .feedback = 0, .mix = 1});
    runInPieces(delay, after, 512);
    float largestStep = 0;
    for (size_t i = 1; i < after[0].size(); ++i)
        largestStep = std::max(largestStep, std::abs(after[0][i] - after[0][i - 1]));
    // The tone moves at most 0.013 per frame; the slide reads up to some 8 times as fast.
    EXPECT_LT(largestStep, 0.15f);
    EXPECT_GT(largestStep, 0.02f); // it did bend
}

TEST(DelayProcessor, SettingsOutsideTheirRangesAreHeldToThem) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    const DelaySettings bad{
        .timeMs = nan, .rightTimeRatio = 100, .feedback = 5, .mix = 2, .lowCutHz = nan, .highCutHz = 1e9};
    const DelaySettings held{
        .timeMs = 375, .rightTimeRatio = 4, .feedback = 0.95, .mix = 1, .lowCutHz = 80, .highCutHz = 20000};
    const Planes input = testing::noisePlanes(2, 60000, 3);
    Planes fromBad = input;
    Planes fromHeld = input;
    DelayProcessor badDelay = preparedDelay(DelaySettings{}, 48000, 2);
    badDelay.apply(bad);
    badDelay.reset();
    DelayProcessor heldDelay = preparedDelay(held, 48000, 2);
    runInPieces(badDelay, fromBad, 256);
    runInPieces(heldDelay, fromHeld, 256);
    EXPECT_EQ(fromBad, fromHeld);
    EXPECT_EQ(badDelay.tailFrames(), heldDelay.tailFrames());
    // Full feedback on loud noise stays bounded by the limiter in the loop (under 2), and the
    // filters' overshoot after it.
    for (const auto& plane : fromBad)
        for (const float y : plane)
            ASSERT_LE(std::abs(y), 3.0f);
}

TEST(DelayProcessor, ARateThatIsNoRateRunsAs48kHz) {
    for (const double rate : {0.0, -44100.0, std::numeric_limits<double>::quiet_NaN()}) {
        DelayProcessor delay = preparedDelay({.timeMs = 10, .pingPong = true}, rate, 2);
        EXPECT_EQ(delay.tailFrames(), 6240); // 8 repeats of 480 frames and 50 ms
        Planes planes = testing::noisePlanes(2, 2000, 8);
        runInPieces(delay, planes, 100);
        for (const auto& plane : planes)
            for (const float y : plane)
                ASSERT_TRUE(std::isfinite(y));
    }
}

TEST(DelayProcessor, SyncedTimesFollowTheTempo) {
    EXPECT_DOUBLE_EQ(syncedDelayTimeMs(120, 1), 500);
    EXPECT_DOUBLE_EQ(syncedDelayTimeMs(120, 0.75), 375);
    EXPECT_DOUBLE_EQ(syncedDelayTimeMs(90, 1.0 / 3), 60000.0 / 90 / 3);
    EXPECT_DOUBLE_EQ(syncedDelayTimeMs(1000, 1), 150); // the grid's fastest, 400 bpm
    EXPECT_DOUBLE_EQ(syncedDelayTimeMs(std::numeric_limits<double>::quiet_NaN(), 2), 1000);
}

} // namespace
} // namespace harlune
