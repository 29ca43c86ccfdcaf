#include "dsp/effects/EffectRenderer.h"

#include "base/HarluneError.h"
#include "support/TestAudio.h"
#include "support/TestProcessors.h"

#include <gtest/gtest.h>

namespace harlune {
namespace {

using Chain = std::vector<std::shared_ptr<EffectProcessor>>;
using testing::noisePlanes;
using testing::Planes;

struct Rendered {
    Planes planes;
    int64_t returned = 0;
};

Rendered renderAll(const AudioSource& source, FrameRange range, const Chain& chain, bool tail,
                   double maxTailSeconds = 30, const EffectRenderer::Progress& progress = {}) {
    Rendered out;
    out.planes.resize(static_cast<size_t>(source.channelCount()));
    out.returned =
        EffectRenderer::render(source, range, chain, tail, maxTailSeconds, progress, [&](ChunkViews views) {
            EXPECT_LE(views.front().size(), static_cast<size_t>(EffectRenderer::blockSize));
            for (size_t c = 0; c < views.size(); ++c)
                out.planes[c].insert(out.planes[c].end(), views[c].begin(), views[c].end());
        });
    return out;
}

Planes slicePlanes(const Planes& planes, int64_t lo, int64_t hi) {
    Planes out;
    for (const auto& p : planes)
        out.emplace_back(p.begin() + lo, p.begin() + hi);
    return out;
}

// A chain without a tail, asked for its tail, gives back exactly the range, aligned frame for
// frame whatever its latency: the latency is run at the end and dropped from the front.
TEST(EffectRendererTest, OutputAlignsWithTheInputWhateverTheLatency) {
    struct Case {
        int channels;
        FrameRange range;
        std::vector<int> latencies;
    };
    // 4096 + 37 crosses a block border inside the latency; 47 over 10 frames runs 57 and emits 10.
    for (const Case& test :
         {Case{3, {1234, 9876}, {}}, Case{1, {3, 20'000}, {4133, 7}}, Case{2, {3, 20'000}, {4133, 7}},
          Case{5, {3, 20'000}, {4133, 7}}, Case{2, {20, 30}, {47}}}) {
        const auto planes = noisePlanes(test.channels, 20'011);
        Chain chain;
        for (const int latency : test.latencies)
            chain.push_back(std::make_shared<testing::LatencyProcessor>(latency));
        const auto out = renderAll(ArraySource(planes, 44100), test.range, chain, true);
        EXPECT_EQ(out.returned, test.range.length());
        EXPECT_EQ(out.planes, slicePlanes(planes, test.range.lower, test.range.upper)) << test.channels;
    }
}

TEST(EffectRendererTest, TailFollowsTheRangeAndIsNotShortenedByLatency) {
    const auto planes = noisePlanes(2, 9000);
    const ArraySource source(planes, 48000);
    const int echo = 5000;
    const Chain chain{std::make_shared<testing::LatencyProcessor>(100),
                      std::make_shared<testing::EchoProcessor>(echo)};
    const auto out = renderAll(source, {0, 9000}, chain, true);
    ASSERT_EQ(out.returned, 9000 + echo);
    for (size_t c = 0; c < 2; ++c)
        for (size_t f = 0; f < 9000 + echo; ++f) {
            const float dry = f < 9000 ? planes[c][f] : 0.0f;
            const float wet = f >= echo ? planes[c][f - echo] : 0.0f;
            ASSERT_EQ(out.planes[c][f], dry + 0.5f * wet) << c << " " << f;
        }

    const auto withoutTail = renderAll(source, {0, 9000}, chain, false);
    EXPECT_EQ(withoutTail.returned, 9000);
    EXPECT_EQ(withoutTail.planes, slicePlanes(out.planes, 0, 9000));
}

// The tail stops at the limit; and an empty range emits the tail of a chain that was reset, so
// the state a previous render left behind is gone.
TEST(EffectRendererTest, TailIsCutAtTheLimitAndStartsFromAReset) {
    const ArraySource source(noisePlanes(2, 1000), 1000);
    const Chain chain{std::make_shared<testing::EchoProcessor>(5000)};
    EXPECT_EQ(renderAll(source, {0, 1000}, chain, true, 2.5).returned, 1000 + 2500);
    EXPECT_EQ(renderAll(source, {0, 1000}, chain, true, 0).returned, 1000);

    renderAll(source, {0, 1000}, chain, false);
    const auto out = renderAll(source, {500, 500}, chain, true);
    EXPECT_EQ(out.returned, 5000);
    EXPECT_EQ(out.planes, Planes(2, std::vector<float>(5000, 0.0f)));
}

TEST(EffectRendererTest, ProgressReportsAndCancels) {
    const ArraySource source(noisePlanes(1, 10'000), 48000);
    const Chain chain{std::make_shared<testing::SmoothingProcessor>()};
    std::vector<double> fractions;
    renderAll(source, {0, 10'000}, chain, false, 30, [&](double f) {
        fractions.push_back(f);
        return true;
    });
    EXPECT_EQ(fractions, (std::vector<double>{4096.0 / 10000, 8192.0 / 10000, 1.0}));

    int emits = 0;
    int calls = 0;
    const auto refuse = [&](double) {
        return ++calls, false;
    };
    try {
        EffectRenderer::render(source, {0, 10'000}, chain, false, 30, refuse, [&](ChunkViews) { ++emits; });
        FAIL() << "a refused progress must cancel";
    } catch (const HarluneError& error) {
        EXPECT_TRUE(error.isCancelled());
    }
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(emits, 1) << "the render ends after the first block";
}

TEST(EffectRendererTest, FailuresOfPrepareAndEmitPassOn) {
    struct Failing final : EffectProcessor {
        int tailFrames() const override { return 0; }
        int latencyFrames() const override { return 0; }
        void doPrepare(double, int, int) override { throw HarluneError::codecUnavailable("nope"); }
        void doProcess(ChannelSpan) noexcept override {}
        void doReset() noexcept override {}
    };
    const ArraySource source(noisePlanes(1, 10), 48000);
    int emits = 0;
    EXPECT_THROW(EffectRenderer::render(source, {0, 10}, Chain{std::make_shared<Failing>()}, false, 30, {},
                                        [&](ChunkViews) { ++emits; }),
                 HarluneError);
    EXPECT_EQ(emits, 0);
    EXPECT_THROW(EffectRenderer::render(source, {0, 10}, {}, false, 30, {},
                                        [](ChunkViews) { throw std::runtime_error("disk full"); }),
                 std::runtime_error);
}

} // namespace
} // namespace harlune
