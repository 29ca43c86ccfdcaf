#include "core/Processing.h"

#include "base/HarluneError.h"
#include "support/TestAudio.h"
#include "support/TestProcessors.h"

#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <numbers>

namespace harlune {
namespace {

using testing::Planes;

constexpr int64_t frames = 200'003;

/// Noise in a few segments cut away from block borders: few enough that edits don't compact.
AudioContent makeContent(int channels, uint32_t seed = 1) {
    return testing::fragmented(testing::noisePlanes(channels, frames, seed), 48000, {1000, 65'549, 140'000});
}

/// The ranges every operation is tried on: inside one block, across block and segment borders,
/// the whole content, and an odd short one.
const std::vector<std::optional<FrameRange>> ranges{std::nullopt, FrameRange{500, 150'001},
                                                    FrameRange{65'530, 65'541}, FrameRange{131'000, 131'077}};

std::vector<std::optional<ChannelSet>> channelChoices(int channels) {
    std::vector<std::optional<ChannelSet>> choices{std::nullopt, ChannelSet{0}};
    if (channels > 1)
        choices.push_back(ChannelSet{channels - 1});
    if (channels > 2)
        choices.push_back(ChannelSet{0, 2});
    return choices;
}

float at(const std::vector<float>& plane, int64_t frame) {
    return plane[static_cast<size_t>(frame)];
}

/// Where `frame` lies in `range`, 0 at the first frame and 1 at the last.
double position(int64_t frame, FrameRange range) {
    return static_cast<double>(frame - range.lower) /
           static_cast<double>(std::max<int64_t>(range.length() - 1, 1));
}

/// The plain mean of one channel over a range.
double mean(const Planes& planes, int c, FrameRange range) {
    double sum = 0;
    for (int64_t f = range.lower; f < range.upper; ++f)
        sum += at(planes[static_cast<size_t>(c)], f);
    return sum / static_cast<double>(range.length());
}

bool isActive(const std::optional<ChannelSet>& channels, int c) {
    return !channels || channels->contains(c);
}

/// The block and offset holding a frame.
std::pair<const AudioBlock*, int64_t> blockAt(const AudioContent& content, int64_t frame) {
    const auto i = static_cast<size_t>(content.locate(frame));
    const Segment& segment = content.segments()[i];
    return {segment.block.get(), segment.offset + frame - content.starts()[i]};
}

/// Frames outside `range` must still be read from the very same blocks.
void expectBlocksKeptOutside(const AudioContent& before, const AudioContent& after, FrameRange range) {
    ASSERT_EQ(before.frameCount(), after.frameCount());
    std::vector<int64_t> probes{0, range.lower - 1, range.upper, before.frameCount() - 1};
    for (int64_t f = 0; f < before.frameCount(); f += 997)
        probes.push_back(f);
    for (const int64_t f : probes)
        if (f >= 0 && f < before.frameCount() && !range.contains(f)) {
            ASSERT_EQ(blockAt(before, f), blockAt(after, f)) << "frame " << f;
        }
}

double referenceShape(FadeShape shape, double t) {
    t = std::min(std::max(t, 0.0), 1.0);
    switch (shape) {
    case FadeShape::linear:
        return t;
    case FadeShape::logarithmic:
        return 1 - std::pow(1 - t, 2);
    case FadeShape::exponential:
        return std::pow(t, 3);
    case FadeShape::sCurve:
        return (1 - std::cos(std::numbers::pi * t)) / 2;
    case FadeShape::equalPower:
        return std::sin(std::numbers::pi / 2 * t);
    }
    return 0;
}

// The per-sample operations, each beside its closed form.
struct PerSampleCase {
    std::string name;
    std::function<AudioContent(const AudioContent&, std::optional<FrameRange>,
                               const std::optional<ChannelSet>&)>
        operation;
    std::function<float(const std::vector<float>&, int64_t, FrameRange)> expected;
    float tolerance = 0;
};

std::vector<PerSampleCase> perSampleCases() {
    const auto g = static_cast<float>(std::pow(10.0, -7.3 / 20.0));
    std::vector<PerSampleCase> cases{
        {"gain", [](const auto& c, auto range, const auto& ch) { return applyingGain(c, -7.3, range, ch); },
         [g](const auto& in, int64_t f, FrameRange) {
             return at(in, f) * g;
         }},
        {"ramp straight in dB",
         [](const auto& c, auto range, const auto& ch) { return applyingGainRamp(c, -20, 6, range, ch); },
         [](const auto& in, int64_t f, FrameRange r) {
             return at(in, f) * static_cast<float>(std::pow(10.0, (-20 + 26 * position(f, r)) / 20.0));
         }},
        {"inverted", [](const auto& c, auto range, const auto& ch) { return inverted(c, range, ch); },
         [](const auto& in, int64_t f, FrameRange) {
             return -at(in, f);
         }},
        {"silenced",
         [](const auto& c, auto range, const auto& ch) {
             return silenced(c, range.value_or(c.fullRange()), ch);
         },
         [](const auto&, int64_t, FrameRange) {
             return 0.0f;
         }},
        {"reversed", [](const auto& c, auto range, const auto& ch) { return reversed(c, range, ch); },
         [](const auto& in, int64_t f, FrameRange r) {
             return at(in, r.upper - 1 - (f - r.lower));
         }},
    };
    for (const FadeShape shape : allFadeShapes())
        for (const FadeDirection direction : {FadeDirection::fadeIn, FadeDirection::fadeOut})
            cases.push_back({std::string("fade ") + (direction == FadeDirection::fadeIn ? "in " : "out ") +
                                 std::string(rawValue(shape)),
                             [=](const auto& c, auto range, const auto& ch) {
                                 return applyingFade(c, direction, shape, range, ch);
                             },
                             [=](const auto& in, int64_t f, FrameRange r) {
                                 const double t = position(f, r);
                                 return at(in, f) *
                                        static_cast<float>(referenceShape(
                                            shape, direction == FadeDirection::fadeOut ? 1 - t : t));
                             },
                             2e-7f});
    return cases;
}

/// Every case over all channel counts, ranges and channel sets: each sample against the closed
/// form for active channels in range, unchanged samples and blocks elsewhere.
TEST(ProcessingTest, PerSampleOperationsFollowTheirClosedForms) {
    for (const int channels : {1, 2, 3}) {
        const AudioContent content = makeContent(channels, static_cast<uint32_t>(channels));
        const Planes original = testing::planesOf(content);
        for (const PerSampleCase& test : perSampleCases()) {
            for (const auto& range : ranges) {
                for (const auto& active : channelChoices(channels)) {
                    const AudioContent result = test.operation(content, range, active);
                    const FrameRange r = range.value_or(content.fullRange());
                    const Planes out = testing::planesOf(result);
                    for (int c = 0; c < channels; ++c) {
                        const auto& in = original[static_cast<size_t>(c)];
                        const auto& got = out[static_cast<size_t>(c)];
                        for (int64_t f = 0; f < frames; ++f) {
                            const float want =
                                r.contains(f) && isActive(active, c) ? test.expected(in, f, r) : at(in, f);
                            ASSERT_NEAR(at(got, f), want, test.tolerance)
                                << test.name << ", " << channels << "ch c" << c << " f" << f;
                        }
                    }
                    expectBlocksKeptOutside(content, result, r);
                }
            }
        }
    }
}

TEST(ProcessingTest, FadeEndsAreExact) {
    // Long enough for several chunks, so the ends are far from where the gains were seeded.
    const AudioContent ones(Planes{std::vector<float>(150'001, 1.0f)}, 48000);
    for (const FadeShape shape : allFadeShapes()) {
        const auto in = testing::planesOf(applyingFade(ones, FadeDirection::fadeIn, shape))[0];
        EXPECT_EQ(in.front(), 0.0f) << rawValue(shape);
        EXPECT_EQ(in.back(), 1.0f) << rawValue(shape);
        const auto out = testing::planesOf(applyingFade(ones, FadeDirection::fadeOut, shape))[0];
        EXPECT_EQ(out.front(), 1.0f) << rawValue(shape);
        EXPECT_EQ(out.back(), 0.0f) << rawValue(shape);
        EXPECT_NEAR(in[75'000], gain(shape, 0.5), 1e-7);
    }

    // One frame: t is 0, so a fade in silences it and a fade out gives gain(1) = 1.
    const AudioContent single(Planes{{0.5f}}, 48000);
    for (const FadeShape shape : allFadeShapes()) {
        EXPECT_EQ(applyingFade(single, FadeDirection::fadeIn, shape).sample(0, 0), 0.0f);
        EXPECT_EQ(applyingFade(single, FadeDirection::fadeOut, shape).sample(0, 0), 0.5f);
    }
}

TEST(FadeShapeTest, GainClampsAndFollowsTheClosedForms) {
    for (const FadeShape shape : allFadeShapes())
        for (const double t : {-0.5, 0.0, 0.25, 0.5, 0.8, 1.0, 1.5})
            EXPECT_NEAR(gain(shape, t), referenceShape(shape, t), 1e-7) << rawValue(shape) << " at " << t;
}

TEST(FadeShapeTest, RawValuesNamesAndJSON) {
    const std::pair<std::string_view, std::string_view> texts[] = {{"linear", "Linear"},
                                                                   {"logarithmic", "Logarithmic (fast)"},
                                                                   {"exponential", "Exponential (slow)"},
                                                                   {"sCurve", "S-Curve"},
                                                                   {"equalPower", "Equal Power"}};
    ASSERT_EQ(allFadeShapes().size(), std::size(texts));
    for (size_t i = 0; i < std::size(texts); ++i) {
        const FadeShape shape = allFadeShapes()[i];
        EXPECT_EQ(rawValue(shape), texts[i].first);
        EXPECT_EQ(displayName(shape), texts[i].second);
        EXPECT_EQ(nlohmann::json(shape), texts[i].first);
        EXPECT_EQ(nlohmann::json(texts[i].first).get<FadeShape>(), shape);
    }
    EXPECT_THROW(nlohmann::json("SCurve").get<FadeShape>(), nlohmann::json::exception);
    EXPECT_EQ(rawValue(EffectTailMode::mixIntoFollowing), "mixIntoFollowing");
    EXPECT_EQ(effectTailModeFromRawValue("truncate"), EffectTailMode::truncate);
    EXPECT_FALSE(effectTailModeFromRawValue("mix"));
}

// Peaks, DC and normalising ------------------------------------------------------------------

TEST(ProcessingTest, SamplePeaksAndDCOffsetsMatchANaiveScan) {
    for (const int channels : {1, 2, 3}) {
        const AudioContent content = makeContent(channels, 9);
        const Planes planes = testing::planesOf(content);
        for (const auto& range : ranges) {
            const FrameRange r = range.value_or(content.fullRange());
            const auto peaks = samplePeaks(content, range);
            const auto offsets = dcOffsets(content, range);
            ASSERT_EQ(peaks.size(), static_cast<size_t>(channels));
            for (int c = 0; c < channels; ++c) {
                float peak = 0;
                for (int64_t f = r.lower; f < r.upper; ++f)
                    peak = std::max(peak, std::abs(at(planes[static_cast<size_t>(c)], f)));
                EXPECT_EQ(peaks[static_cast<size_t>(c)], peak);
                EXPECT_NEAR(offsets[static_cast<size_t>(c)], mean(planes, c, r), 1e-6);
            }
        }
        EXPECT_EQ(samplePeaks(content, FrameRange{10, 10}),
                  std::vector<float>(static_cast<size_t>(channels)));
        EXPECT_EQ(dcOffsets(content, FrameRange{7, 7}), std::vector<double>(static_cast<size_t>(channels)));
    }
}

TEST(ProcessingTest, NormalizingPeakLandsOnTheTarget) {
    for (const bool independent : {false, true}) {
        for (const int channels : {1, 2, 3}) {
            const AudioContent content = applyingGain(makeContent(channels, 4), -12);
            for (const auto& range : ranges) {
                for (const auto& active : channelChoices(channels)) {
                    const FrameRange r = range.value_or(content.fullRange());
                    const auto result = normalizingPeak(content, -1, range, active, independent);
                    const auto before = samplePeaks(content, r);
                    const auto after = samplePeaks(result, r);
                    float loudest = 0;
                    for (int c = 0; c < channels; ++c)
                        if (isActive(active, c))
                            loudest = std::max(loudest, after[static_cast<size_t>(c)]);
                    EXPECT_NEAR(loudest, std::pow(10.0, -1.0 / 20.0), 1e-6);
                    for (int c = 0; c < channels; ++c) {
                        const auto i = static_cast<size_t>(c);
                        if (!isActive(active, c)) {
                            EXPECT_EQ(after[i], before[i]);
                        } else if (independent) {
                            EXPECT_NEAR(after[i], std::pow(10.0, -1.0 / 20.0), 1e-6);
                        }
                    }
                    expectBlocksKeptOutside(content, result, r);
                }
            }
        }
    }
}

TEST(ProcessingTest, NormalizingGainsPerChannelOrShared) {
    const AudioContent content(Planes{{0.5f, -0.25f, 0.1f}, {0.1f, 0.25f, -0.2f}}, 48000);
    const auto independent = testing::planesOf(normalizingPeak(content, 0, std::nullopt, std::nullopt, true));
    EXPECT_EQ(independent, (Planes{{1.0f, -0.5f, 0.2f}, {0.4f, 1.0f, -0.8f}}));
    const auto shared = testing::planesOf(normalizingPeak(content, 0));
    for (size_t c = 0; c < 2; ++c)
        for (size_t i = 0; i < 3; ++i)
            EXPECT_NEAR(shared[c][i], 2 * testing::planesOf(content)[c][i], 1e-6);
}

/// Operations with nothing to do hand back the very same blocks rather than copies.
TEST(ProcessingTest, NothingToDoKeepsTheBlocks) {
    const auto expectSameBlocks = [](const AudioContent& result, const AudioContent& original) {
        ASSERT_EQ(result.segmentCount(), original.segmentCount());
        for (size_t i = 0; i < original.segments().size(); ++i)
            EXPECT_EQ(result.segments()[i].block, original.segments()[i].block) << i;
    };
    const AudioContent silence = AudioContent::silence(100'000, 2, 48000);
    expectSameBlocks(normalizingPeak(silence, 0), silence);
    expectSameBlocks(normalizingPeak(silence, 0, std::nullopt, std::nullopt, true), silence);
    const AudioContent content = makeContent(2);
    expectSameBlocks(reversed(content, FrameRange{70'000, 70'001}), content);
    expectSameBlocks(silenced(content, {frames + 5, frames + 9}), content);
    expectSameBlocks(remixed(content, 2), content);
    expectSameBlocks(
        applyingEffects(content, {}, std::nullopt, std::nullopt, EffectTailMode::mixIntoFollowing), content);
}

TEST(ProcessingTest, SilencingAllChannelsPutsInNewZeroBlocks) {
    const AudioContent content = makeContent(2);
    const FrameRange r{500, 150'001};
    for (const auto& all : {std::optional<ChannelSet>{}, std::optional<ChannelSet>{ChannelSet{0, 1}}}) {
        const auto result = silenced(content, r, all);
        for (int64_t f = r.lower; f < r.upper; f += 4999) {
            const auto [block, offset] = blockAt(result, f);
            EXPECT_EQ(block->channel(0)[offset], 0.0f);
            for (const auto& old : content.segments())
                EXPECT_NE(block, old.block.get());
        }
        // The quick path leaves whole zero blocks, so their summaries say silence without reading.
        EXPECT_EQ(samplePeaks(result, r), (std::vector<float>{0, 0}));
    }
}

TEST(ProcessingTest, RemovingDCOffsetSubtractsEachChannelsMean) {
    for (const int channels : {1, 2, 3}) {
        Planes planes = testing::noisePlanes(channels, frames, 5);
        for (size_t c = 0; c < planes.size(); ++c)
            for (float& x : planes[c])
                x = 0.5f * x + 0.1f * static_cast<float>(c + 1); // a bias of its own per channel
        const AudioContent content = testing::fragmented(planes, 48000, {1000, 65'549, 140'000});
        for (const auto& range : ranges) {
            for (const auto& active : channelChoices(channels)) {
                const FrameRange r = range.value_or(content.fullRange());
                const AudioContent result = removingDCOffset(content, range, active);
                const Planes out = testing::planesOf(result);
                for (int c = 0; c < channels; ++c) {
                    const auto& in = planes[static_cast<size_t>(c)];
                    const double m = mean(planes, c, r);
                    for (int64_t f = 0; f < frames; f += 7)
                        ASSERT_NEAR(at(out[static_cast<size_t>(c)], f),
                                    r.contains(f) && isActive(active, c) ? at(in, f) - m : at(in, f), 1e-6)
                            << channels << "ch c" << c << " f" << f;
                }
                expectBlocksKeptOutside(content, result, r);
            }
        }
    }
}

// Channel layout ------------------------------------------------------------------------------

TEST(ProcessingTest, RemixedAveragesDownAndRepeatsUp) {
    // Fewer channels: the mean of source channels d, d + n, d + 2n...; more: source d mod count.
    for (const auto& [from, to] : {std::pair{3, 1}, {6, 2}, {4, 3}, {2, 3}, {2, 4}, {1, 2}}) {
        const AudioContent content = makeContent(from, static_cast<uint32_t>(from * 10 + to));
        const Planes in = testing::planesOf(content);
        const Planes out = testing::planesOf(remixed(content, to));
        ASSERT_EQ(out.size(), static_cast<size_t>(to));
        for (int d = 0; d < to; ++d) {
            for (size_t i = 0; i < static_cast<size_t>(frames); i += 3) {
                double want = in[static_cast<size_t>(d % from)][i];
                if (to < from) {
                    double sum = 0;
                    int n = 0;
                    for (int source = d; source < from; source += to, ++n)
                        sum += in[static_cast<size_t>(source)][i];
                    want = sum / n;
                }
                ASSERT_NEAR(out[static_cast<size_t>(d)][i], want, 1e-6) << from << " to " << to << ", " << d;
            }
        }
    }
}

TEST(ProcessingTest, RearrangingChannelsPicksAndOrders) {
    const AudioContent content = makeContent(3, 12);
    const Planes in = testing::planesOf(content);
    const std::vector<int> order{2, 0, 0};
    const FrameRange r{65'000, 140'100};
    const auto result = rearrangingChannels(content, order, r);
    ASSERT_EQ(result.channelCount(), 3);
    ASSERT_EQ(result.frameCount(), r.length());
    const Planes out = testing::planesOf(result);
    for (size_t i = 0; i < order.size(); ++i)
        EXPECT_EQ(out[i], std::vector<float>(in[static_cast<size_t>(order[i])].begin() + r.lower,
                                             in[static_cast<size_t>(order[i])].begin() + r.upper));
    const std::vector<int> swap{1, 0};
    const auto swapped = testing::planesOf(rearrangingChannels(makeContent(2, 2), swap));
    EXPECT_EQ(swapped[0], testing::planesOf(makeContent(2, 2))[1]);
}

TEST(ProcessingDeathTest, BadChannelArgumentsStop) {
    const AudioContent content = makeContent(2);
    EXPECT_DEATH(remixed(content, 0), "at least one channel");
    const std::vector<int> bad{0, 2};
    EXPECT_DEATH(rearrangingChannels(content, bad), "out of range");
    EXPECT_DEATH(rearrangingChannels(content, std::vector<int>{}), "at least one channel");
}

// Effects -------------------------------------------------------------------------------------

using Chain = std::vector<std::shared_ptr<EffectProcessor>>;

TEST(ApplyingEffectsTest, OutputIsTheSameWhateverTheSegmentLayout) {
    const Planes planes = testing::noisePlanes(2, 100'001, 3);
    const std::vector<std::vector<int64_t>> layouts{{}, {1}, {4095, 4097, 8192}, {12'345, 65'536, 99'999}};
    std::optional<Planes> first;
    for (const auto& cuts : layouts) {
        const AudioContent content = testing::fragmented(planes, 48000, cuts);
        const Chain chain{std::make_shared<testing::SmoothingProcessor>(),
                          std::make_shared<testing::EchoProcessor>(777),
                          std::make_shared<testing::LatencyProcessor>(47)};
        const auto out = testing::planesOf(applyingEffects(content, chain, FrameRange{3, 90'000},
                                                           std::nullopt, EffectTailMode::mixIntoFollowing));
        if (!first)
            first = out;
        else
            EXPECT_EQ(out, *first);
    }
}

TEST(ApplyingEffectsTest, LatencyComesOutAligned) {
    const AudioContent content = makeContent(2);
    const Chain chain{std::make_shared<testing::LatencyProcessor>(4100)};
    const auto result =
        applyingEffects(content, chain, FrameRange{10, 150'000}, std::nullopt, EffectTailMode::truncate);
    EXPECT_EQ(testing::planesOf(result), testing::planesOf(content));
    expectBlocksKeptOutside(content, result, {10, 150'000});
}

TEST(ApplyingEffectsTest, TailMixesIntoWhatFollows) {
    const AudioContent content = makeContent(2);
    const Planes in = testing::planesOf(content);
    const int echo = 3000;
    const Chain chain{std::make_shared<testing::EchoProcessor>(echo)};
    const FrameRange r{1000, 50'000};
    const auto mixed =
        testing::planesOf(applyingEffects(content, chain, r, std::nullopt, EffectTailMode::mixIntoFollowing));
    const auto cut =
        testing::planesOf(applyingEffects(content, chain, r, std::nullopt, EffectTailMode::truncate));
    for (size_t c = 0; c < 2; ++c)
        for (int64_t f = 0; f < frames; f += 7) {
            const float x = in[c][static_cast<size_t>(f)];
            const float echoed = f - echo >= r.lower && f - echo < r.upper
                                     ? 0.5f * in[c][static_cast<size_t>(f - echo)]
                                     : 0.0f;
            const float inside = r.contains(f) ? x + echoed : x;
            ASSERT_NEAR(cut[c][static_cast<size_t>(f)], inside, 1e-6) << f;
            ASSERT_NEAR(mixed[c][static_cast<size_t>(f)], r.contains(f) ? inside : x + echoed, 1e-6) << f;
        }
}

TEST(ApplyingEffectsTest, InactiveChannelsStayBitIdentical) {
    const AudioContent content = makeContent(3);
    const Planes in = testing::planesOf(content);
    const Chain chain{std::make_shared<testing::EchoProcessor>(5000)};
    const FrameRange r{frames - 20'000, frames - 1000};
    // The tail runs 4000 frames past the end: the content grows, unless the tail is cut.
    const auto result = applyingEffects(content, chain, r, ChannelSet{1}, EffectTailMode::mixIntoFollowing);
    EXPECT_EQ(result.frameCount(), frames + 4000);
    EXPECT_EQ(applyingEffects(content, chain, r, ChannelSet{1}, EffectTailMode::truncate).frameCount(),
              frames);
    const Planes out = testing::planesOf(result);
    for (const size_t c : {size_t{0}, size_t{2}}) {
        EXPECT_TRUE(std::equal(in[c].begin(), in[c].end(), out[c].begin())) << "channel " << c;
        for (int64_t f = frames; f < frames + 4000; ++f)
            ASSERT_EQ(out[c][static_cast<size_t>(f)], 0.0f);
    }
    EXPECT_NE(out[1], std::vector<float>(out[1].size()));
    for (int64_t f = r.lower + 5000; f < r.upper; f += 101)
        ASSERT_NEAR(out[1][static_cast<size_t>(f)],
                    in[1][static_cast<size_t>(f)] + 0.5f * in[1][static_cast<size_t>(f - 5000)], 1e-6);
}

TEST(ApplyingEffectsTest, EmptyRangeReturnsTheContentAndCancelThrows) {
    const AudioContent content = makeContent(2);
    const Chain chain{std::make_shared<testing::EchoProcessor>(10)};
    EXPECT_EQ(
        applyingEffects(content, chain, FrameRange{5, 5}, std::nullopt, EffectTailMode::mixIntoFollowing)
            .frameCount(),
        frames);
    try {
        applyingEffects(content, chain, std::nullopt, std::nullopt, EffectTailMode::truncate,
                        [](double) { return false; });
        FAIL();
    } catch (const HarluneError& error) {
        EXPECT_TRUE(error.isCancelled());
    }
}

} // namespace
} // namespace harlune
