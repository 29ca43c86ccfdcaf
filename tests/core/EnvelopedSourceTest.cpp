#include "core/EnvelopedSource.h"

#include "core/Processing.h"
#include "support/TestAudio.h"

#include <cmath>
#include <gtest/gtest.h>
#include <random>

namespace harlune {
namespace {

using testing::Planes;

GainEnvelope randomEnvelope(std::mt19937& random, int points, int64_t frames) {
    std::uniform_int_distribution<int64_t> frame(-100, frames + 100);
    std::uniform_real_distribution<double> gain(-60, 24);
    GainEnvelope e;
    for (int i = 0; i < points; ++i)
        e.insert(frame(random), gain(random));
    return e;
}

/// Reads `source` in pieces of random length, as playback and export do.
Planes readInPieces(const AudioSource& source, std::mt19937& random) {
    Planes out(static_cast<size_t>(source.channelCount()),
               std::vector<float>(static_cast<size_t>(source.frameCount())));
    std::uniform_int_distribution<int64_t> length(1, 30000);
    for (int64_t at = 0; at < source.frameCount();) {
        const int64_t n = std::min(length(random), source.frameCount() - at);
        std::vector<float*> pointers;
        for (auto& plane : out)
            pointers.push_back(plane.data() + at);
        source.read({at, at + n}, pointers);
        at += n;
    }
    return out;
}

TEST(EnvelopedSourceTest, RandomEnvelopesMatchGainDBPerSample) {
    std::mt19937 random(11);
    for (const int channels : {1, 2, 3}) {
        const int64_t frames = 100'003;
        // Full-scale positive samples, so each output's level in dB is the gain itself.
        Planes planes(static_cast<size_t>(channels), std::vector<float>(static_cast<size_t>(frames)));
        std::uniform_real_distribution<float> level(0.25f, 1.0f);
        for (auto& plane : planes)
            for (auto& x : plane)
                x = level(random);
        const auto content = testing::fragmented(planes, 48000, {1, 70000, 70001, 99999});
        EnvelopeSet set(randomEnvelope(random, 12, frames));
        // Fewer channel curves than channels: the last channel has the master alone.
        for (int c = 0; c + 1 < channels; ++c)
            set.channels.push_back(randomEnvelope(random, 1 + c * 5, frames));
        if (channels > 1)
            set.setTrim(0, -7.5, channels);

        const EnvelopedSource source(content, set);
        EXPECT_EQ(source.channelCount(), channels);
        EXPECT_EQ(source.frameCount(), frames);
        const Planes out = readInPieces(source, random);
        for (int c = 0; c < channels; ++c) {
            for (int64_t f = 0; f < frames; ++f) {
                const auto i = static_cast<size_t>(f);
                const double measured =
                    20 * std::log10(out[static_cast<size_t>(c)][i] /
                                    static_cast<double>(planes[static_cast<size_t>(c)][i]));
                ASSERT_NEAR(measured, set.gainDB(c, static_cast<double>(f)), 1e-4)
                    << channels << " channels, channel " << c << ", frame " << f;
            }
        }
    }
}

TEST(EnvelopedSourceTest, AgreesBitForBitWithTheAudioThreadPath) {
    std::mt19937 random(3);
    const auto planes = testing::noisePlanes(2, 9000);
    const AudioContent content(planes, 44100);
    EnvelopeSet set(randomEnvelope(random, 6, 9000), {randomEnvelope(random, 3, 9000)}, {1.0, -2.0});
    const EnvelopedSource source(content, set);
    const auto out = testing::planesOf(source);
    std::vector<float> into(9000), scratch(9000);
    for (int c = 0; c < 2; ++c) {
        set.fillLinearGains(c, {0, 9000}, into.data(), scratch.data());
        for (size_t i = 0; i < 9000; ++i)
            ASSERT_EQ(out[static_cast<size_t>(c)][i], planes[static_cast<size_t>(c)][i] * into[i])
                << c << " " << i;
    }
}

TEST(EnvelopedSourceTest, AFlatSetReadsThePlainContent) {
    const auto planes = testing::noisePlanes(2, 5000);
    const AudioContent content(planes, 48000);
    EnvelopeSet flat;
    flat.master.insert(100, 0);
    flat.trimDB = {0, 0};
    EXPECT_EQ(testing::planesOf(EnvelopedSource(content, flat)), planes);
    EXPECT_EQ(testing::planesOf(EnvelopedSource(content, GainEnvelope())), planes);
}

TEST(ApplyingEnvelopesTest, AFlatSetReturnsTheSameBlocks) {
    const auto content = testing::fragmented(testing::noisePlanes(2, 200'000), 48000, {70'000});
    const auto same = applyingEnvelopes(content, EnvelopeSet(GainEnvelope({EnvelopePoint(5, 0)})));
    ASSERT_EQ(same.segmentCount(), content.segmentCount());
    for (size_t i = 0; i < content.segments().size(); ++i)
        EXPECT_EQ(same.segments()[i].block, content.segments()[i].block);
    EXPECT_EQ(applyingEnvelope(content, GainEnvelope()).segments()[0].block, content.segments()[0].block);
}

/// Ramps restart at each chunk of a read, so differently chunked reads agree to rounding only.
void expectClose(const Planes& a, const Planes& b) {
    ASSERT_EQ(a.size(), b.size());
    for (size_t c = 0; c < a.size(); ++c) {
        ASSERT_EQ(a[c].size(), b[c].size());
        for (size_t i = 0; i < a[c].size(); ++i)
            ASSERT_NEAR(a[c][i], b[c][i], 2e-5f * std::abs(b[c][i]) + 1e-30f) << c << " " << i;
    }
}

TEST(ApplyingEnvelopesTest, RendersTheGainIntoNewBlocks) {
    std::mt19937 random(5);
    const auto planes = testing::noisePlanes(2, 150'001);
    const auto content = testing::fragmented(planes, 48000, {65'535, 65'537});
    const EnvelopeSet set(randomEnvelope(random, 9, 150'001), {}, {0, 3});
    const auto rendered = applyingEnvelopes(content, set);
    expectClose(testing::planesOf(rendered), testing::planesOf(EnvelopedSource(content, set)));
    EXPECT_EQ(rendered.sampleRate(), 48000);
    for (const auto& segment : rendered.segments())
        for (const auto& old : content.segments())
            EXPECT_NE(segment.block, old.block);
    const auto master = applyingEnvelope(content, set.master);
    expectClose(testing::planesOf(master), testing::planesOf(EnvelopedSource(content, set.master)));
}

} // namespace
} // namespace harlune
