#include "dsp/Resampler.h"

#include "base/HarluneError.h"
#include "dsp/SampleRateConverter.h"
#include "support/TestAudio.h"

#include <algorithm>
#include <cmath>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace harlune {
namespace {

using testing::noisePlanes;
using testing::Planes;

/// Runs a conversion and collects what it emits, checking that chunks are even across channels.
Planes resampled(const AudioSource& source, double to, double segmentSeconds,
                 std::optional<FrameRange> range = std::nullopt) {
    Planes out(static_cast<size_t>(source.channelCount()));
    Resampler::resample(source, range, to, segmentSeconds, std::nullopt, [&](ChunkViews chunk) {
        EXPECT_EQ(chunk.size(), out.size());
        for (size_t c = 0; c < chunk.size(); ++c) {
            EXPECT_EQ(chunk[c].size(), chunk.front().size());
            out[c].insert(out[c].end(), chunk[c].begin(), chunk[c].end());
        }
    });
    return out;
}

/// Level of `difference` against `reference` in dB: the worse of the RMS ratio and the peak ratio.
double differenceDB(const Planes& reference, const Planes& other) {
    double peakReference = 0, peakDifference = 0, energyReference = 0, energyDifference = 0;
    for (size_t c = 0; c < reference.size(); ++c)
        for (size_t i = 0; i < reference[c].size(); ++i) {
            const double r = reference[c][i];
            const double d = static_cast<double>(other[c][i]) - r;
            peakReference = std::max(peakReference, std::abs(r));
            peakDifference = std::max(peakDifference, std::abs(d));
            energyReference += r * r;
            energyDifference += d * d;
        }
    const double rms = 10 * std::log10(std::max(energyDifference, 1e-300) / energyReference);
    const double peak = 20 * std::log10(std::max(peakDifference, 1e-300) / peakReference);
    return std::max(rms, peak);
}

TEST(ResamplerTest, OutputFrameCountRoundsHalvesAwayFromZero) {
    EXPECT_EQ(Resampler::outputFrameCount(44100, 44100, 48000), 48000);
    EXPECT_EQ(Resampler::outputFrameCount(3, 2, 1), 2); // 1.5
    EXPECT_EQ(Resampler::outputFrameCount(5, 2, 1), 3); // 2.5
    EXPECT_EQ(Resampler::outputFrameCount(1, 48000, 44100), 1);
    EXPECT_EQ(Resampler::outputFrameCount(0, 48000, 44100), 0);
}

TEST(ResamplerTest, PlanFor44100To48000HasExactBordersAndAddsUpToTheTarget) {
    const int64_t frames = 44100 * 23 + 1234;
    const int64_t target = Resampler::outputFrameCount(frames, 44100, 48000);
    const auto plan = Resampler::segmentPlan(frames, 44100, 48000, target, 5);
    ASSERT_TRUE(plan);
    ASSERT_EQ(plan->size(), 5u); // four of 5 s, and a last one of 3 s and a bit
    int64_t total = 0;
    for (size_t i = 0; i < plan->size(); ++i) {
        const auto& segment = (*plan)[i];
        EXPECT_EQ(segment.inputStart, static_cast<int64_t>(i) * 220500);
        EXPECT_EQ(segment.inputStart % 147, 0);
        EXPECT_EQ(segment.warmupFrames, i == 0 ? 0 : 11025); // 250 ms, already a multiple of 147
        EXPECT_EQ(segment.warmupOutputFrames, i == 0 ? 0 : 12000);
        // Each border maps to an exact output frame.
        EXPECT_EQ(total, segment.inputStart / 147 * 160);
        total += segment.outputFrames;
    }
    EXPECT_EQ(plan->front().outputFrames, 240000);
    EXPECT_EQ(total, target);
}

TEST(ResamplerTest, AShortTailJoinsTheLastSegment) {
    const int64_t step = 220500;
    const auto count = [](int64_t frames) {
        const auto plan = Resampler::segmentPlan(frames, 44100, 48000,
                                                 Resampler::outputFrameCount(frames, 44100, 48000), 5);
        return plan ? static_cast<int>(plan->size()) : 0;
    };
    EXPECT_EQ(count(3 * step + step / 4 - 1), 3);
    EXPECT_EQ(count(3 * step + step / 4), 4);
    EXPECT_EQ(count(3 * step), 3);
}

TEST(ResamplerTest, NoPlanForOddRatesShortFilesOrNoSegments) {
    EXPECT_FALSE(Resampler::segmentPlan(44100 * 60, 44100.5, 48000, 1, 5));
    EXPECT_FALSE(Resampler::segmentPlan(44100 * 60, 44100, 47999.9, 1, 5));
    EXPECT_FALSE(Resampler::segmentPlan(44100 * 60, 10000000, 48000, 1, 5));
    EXPECT_FALSE(Resampler::segmentPlan(44100 * 10, 44100, 48000, 1, 5)); // at most twice a segment
    EXPECT_TRUE(Resampler::segmentPlan(44100 * 10 + 1, 44100, 48000, 1, 5));
    EXPECT_FALSE(Resampler::segmentPlan(44100 * 60, 44100, 48000, 1, 0));
    // A ratio whose exact step is longer than a segment cannot be split.
    EXPECT_FALSE(Resampler::segmentPlan(10000000, 99991, 7, 1, 0.5));
}

TEST(ResamplerTest, OutputLengthIsExactlyTheCountSplitOrNot) {
    const std::vector<std::pair<double, double>> rates{
        {44100, 48000}, {48000, 44100}, {44100, 22050}, {8000, 44100.5}};
    for (const auto& [from, to] : rates)
        for (const int64_t frames : {int64_t{1}, int64_t{7}, int64_t{1001}, int64_t{50000}}) {
            const ArraySource source(noisePlanes(1, frames), from);
            for (const double seconds : {0.0, 0.1}) {
                const auto out = resampled(source, to, seconds);
                EXPECT_EQ(static_cast<int64_t>(out[0].size()), Resampler::outputFrameCount(frames, from, to))
                    << from << " -> " << to << ", " << frames << " frames, segments of " << seconds << " s";
            }
        }
}

TEST(ResamplerTest, SplitConversionMatchesOnePassBelowMinus120dB) {
    const auto planes = noisePlanes(2, 44100 * 4 + 777, 7);
    for (const auto& [from, to] : {std::pair{44100.0, 48000.0}, std::pair{48000.0, 44100.0}}) {
        const ArraySource source(planes, from);
        ASSERT_GE(Resampler::segmentPlan(source.frameCount(), from, to, 1, 0.5)->size(), 7u);
        const auto whole = resampled(source, to, 0);
        const auto split = resampled(source, to, 0.5);
        ASSERT_EQ(whole[0].size(), split[0].size());
        EXPECT_LT(differenceDB(whole, split), -120.0) << from << " -> " << to;
        // The channels were not mixed up on the way.
        EXPECT_GT(differenceDB(whole, {split[1], split[0]}), -10.0);
    }
}

TEST(ResamplerTest, EqualRatesCopySamplesBitForBit) {
    const auto planes = noisePlanes(2, 100000, 3);
    const ArraySource source(planes, 44100);
    size_t largest = 0;
    Planes out(2);
    Resampler::resample(source, FrameRange{123, 99000}, 44100, std::nullopt, [&](ChunkViews chunk) {
        largest = std::max(largest, chunk[0].size());
        for (size_t c = 0; c < 2; ++c)
            out[c].insert(out[c].end(), chunk[c].begin(), chunk[c].end());
    });
    EXPECT_LE(largest, 32768u);
    for (size_t c = 0; c < 2; ++c)
        EXPECT_TRUE(
            std::equal(out[c].begin(), out[c].end(), planes[c].begin() + 123, planes[c].begin() + 99000));
}

TEST(ResamplerTest, OutputIsTimeAlignedWithTheInputSplitOrNot) {
    // An impulse at one second comes out at one second, also right beside a segment border.
    for (const int64_t at : {int64_t{44100}, int64_t{22050 * 5}, int64_t{22050 * 5 - 3}}) {
        std::vector<float> impulse(44100 * 8, 0.0f);
        impulse[static_cast<size_t>(at)] = 1.0f;
        const ArraySource source({impulse}, 44100);
        for (const double seconds : {0.0, 0.5}) {
            const auto out = resampled(source, 48000, seconds);
            const auto peak = std::max_element(out[0].begin(), out[0].end(),
                                               [](float a, float b) { return std::abs(a) < std::abs(b); });
            const double expected = static_cast<double>(at) * 48000.0 / 44100.0;
            EXPECT_NEAR(static_cast<double>(peak - out[0].begin()), expected, 0.5) << at << ", " << seconds;
        }
    }
}

TEST(ResamplerTest, APartOfTheFileSeesSilenceBeyondItsEnds) {
    const auto planes = noisePlanes(1, 30000, 5);
    const ArraySource whole(planes, 48000);
    const ArraySource part({std::vector<float>(planes[0].begin() + 10000, planes[0].begin() + 20000)}, 48000);
    EXPECT_EQ(resampled(whole, 44100, 0, FrameRange{10000, 20000}), resampled(part, 44100, 0));
    // A range past the end is clamped.
    EXPECT_EQ(resampled(whole, 44100, 0, FrameRange{20000, 90000}).front().size(),
              static_cast<size_t>(Resampler::outputFrameCount(10000, 48000, 44100)));
}

TEST(ResamplerTest, NothingToDoGivesNothing) {
    const ArraySource source(noisePlanes(1, 1000), 44100);
    EXPECT_TRUE(resampled(source, 0, 5)[0].empty());
    EXPECT_TRUE(resampled(source, -48000, 5)[0].empty());
    EXPECT_TRUE(resampled(source, 48000, 5, FrameRange{500, 500})[0].empty());
    const ArraySource noRate(noisePlanes(1, 1000), 0);
    EXPECT_TRUE(resampled(noRate, 48000, 5)[0].empty());
}

TEST(ResamplerTest, ProgressFalseCancelsBeforeAnythingOrBetweenBatches) {
    const ArraySource source(noisePlanes(1, 44100 * 6), 44100);
    const int64_t target = Resampler::outputFrameCount(source.frameCount(), 44100, 48000);
    for (const int allowedCalls : {0, 1}) {
        int calls = 0;
        int64_t emitted = 0;
        std::vector<double> fractions;
        try {
            Resampler::resample(
                source, std::nullopt, 48000, 0.25,
                [&](double fraction) {
                    fractions.push_back(fraction);
                    return calls++ < allowedCalls;
                },
                [&](ChunkViews chunk) { emitted += static_cast<int64_t>(chunk[0].size()); });
            ADD_FAILURE() << "not cancelled";
        } catch (const HarluneError& error) {
            EXPECT_TRUE(error.isCancelled());
        }
        EXPECT_EQ(static_cast<int>(fractions.size()), allowedCalls + 1);
        EXPECT_EQ(fractions.front(), 0.0);
        if (allowedCalls == 0)
            EXPECT_EQ(emitted, 0);
        else
            EXPECT_LT(emitted, target);
    }
    // Cancelling also works in one sequential pass and in a plain copy.
    for (const double to : {48000.0, 44100.0}) {
        int calls = 0;
        EXPECT_THROW(Resampler::resample(
                         source, std::nullopt, to, 0, [&](double) { return calls++ < 2; }, [](ChunkViews) {}),
                     HarluneError);
    }
}

TEST(ResamplerTest, ProgressRisesToOneAndEmitErrorsPassOn) {
    const ArraySource source(noisePlanes(1, 44100 * 3), 44100);
    std::vector<double> fractions;
    Resampler::resample(
        source, std::nullopt, 48000, 0.25,
        [&](double fraction) {
            fractions.push_back(fraction);
            return true;
        },
        [](ChunkViews) {});
    ASSERT_GE(fractions.size(), 3u);
    EXPECT_TRUE(std::is_sorted(fractions.begin(), fractions.end()));
    EXPECT_EQ(fractions.back(), 1.0);

    struct Full {};
    EXPECT_THROW(Resampler::resample(source, std::nullopt, 48000, 0.25, std::nullopt,
                                     [](ChunkViews) { throw Full{}; }),
                 Full);
}

TEST(SampleRateConverterTest, StreamingInAnyChunksMatchesOnePass) {
    const auto planes = noisePlanes(2, 70001, 9);
    const ArraySource source(planes, 48000);
    const auto reference = resampled(source, 44100, 0);

    SampleRateConverter converter(2, 48000, 44100);
    std::mt19937 random(4);
    for (int round = 0; round < 2; ++round) { // the second round after reset is a fresh stream
        Planes out(2);
        const auto collect = [&](ChunkViews chunk) {
            EXPECT_LE(chunk[0].size(), static_cast<size_t>(SampleRateConverter::maxOutputChunk));
            for (size_t c = 0; c < 2; ++c)
                out[c].insert(out[c].end(), chunk[c].begin(), chunk[c].end());
        };
        for (int64_t position = 0; position < source.frameCount();) {
            const int64_t n = std::min<int64_t>(std::uniform_int_distribution<int64_t>(0, 40000)(random),
                                                source.frameCount() - position);
            std::vector<std::span<const float>> views;
            for (const auto& plane : planes)
                views.emplace_back(plane.data() + position, static_cast<size_t>(n));
            converter.process(views, collect);
            position += n;
        }
        converter.finish(collect);
        EXPECT_EQ(converter.inputFrames(), source.frameCount());
        EXPECT_EQ(converter.outputFrames(), static_cast<int64_t>(reference[0].size()));
        ASSERT_EQ(out[0].size(), reference[0].size());
        EXPECT_LT(differenceDB(reference, out), -140.0);
        converter.reset();
    }
}

TEST(SampleRateConverterTest, RefusesWhatItCannotConvert) {
    const auto message = [](auto make) {
        try {
            make();
        } catch (const HarluneError& error) {
            EXPECT_EQ(error.kind(), HarluneError::Kind::unsupportedFormat);
            return error.detail();
        }
        return std::string("no error");
    };
    EXPECT_EQ(message([] { SampleRateConverter(0, 44100, 48000); }), "0 channels");
    EXPECT_EQ(message([] { SampleRateConverter(2, 44100, 0); }), "44100.0 Hz -> 0.0 Hz");
    EXPECT_EQ(message([] { SampleRateConverter(2, 44100.5, NAN); }), "44100.5 Hz -> nan Hz");
    // An empty stream ends with nothing.
    SampleRateConverter converter(1, 44100, 48000);
    int64_t frames = 0;
    converter.finish([&](ChunkViews chunk) { frames += static_cast<int64_t>(chunk[0].size()); });
    EXPECT_EQ(frames, 0);
}

} // namespace
} // namespace harlune
