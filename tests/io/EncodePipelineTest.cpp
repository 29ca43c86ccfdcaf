#include "io/EncodePipeline.h"

#include "base/HarluneError.h"
#include "io/ChannelLayouts.h"
#include "io/EncodePlan.h"
#include "io/FileReplacement.h"
#include "support/TestAudio.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <unistd.h>

namespace harlune {
namespace {

using testing::Planes;

/// The end of a chain in tests: keeps every frame it is given.
class CollectingSink final : public ChunkSink {
public:
    explicit CollectingSink(Planes* into, bool* finished = nullptr, bool* aborted = nullptr)
        : into_(into), finished_(finished), aborted_(aborted) {}
    void consume(ChunkViews chunk) override {
        into_->resize(chunk.size());
        for (size_t c = 0; c < chunk.size(); ++c)
            (*into_)[c].insert((*into_)[c].end(), chunk[c].begin(), chunk[c].end());
        chunkSizes.push_back(chunk.front().size());
    }
    void finish() override {
        if (finished_)
            *finished_ = true;
    }
    void abort() noexcept override {
        if (aborted_)
            *aborted_ = true;
    }
    std::vector<size_t> chunkSizes;

private:
    Planes* into_;
    bool* finished_;
    bool* aborted_;
};

std::vector<std::span<const float>> viewsOf(const Planes& planes, size_t from = 0, size_t count = SIZE_MAX) {
    std::vector<std::span<const float>> views;
    for (const auto& plane : planes)
        views.emplace_back(plane.data() + from, std::min(count, plane.size() - from));
    return views;
}

// Downmix matrix ------------------------------------------------------------------------------

TEST(DownmixMatrix, StereoFoldsFollowTheSpeakerTableAndNeverSumAboveOne) {
    const float g = 0.70710677f;
    const auto six = ChannelLayouts::downmixMatrix(6, 2);
    // L R C LFE Ls Rs: row sums 1 + g + g = 2.414..., so each row is divided by it.
    const float sum = 1.0f + g + g;
    EXPECT_FLOAT_EQ(six[0][0], 1.0f / sum);
    EXPECT_FLOAT_EQ(six[0][2], g / sum);
    EXPECT_EQ(six[0][3], 0.0f);
    EXPECT_FLOAT_EQ(six[0][4], g / sum);
    EXPECT_EQ(six[0][5], 0.0f);
    EXPECT_FLOAT_EQ(six[1][5], g / sum);
    for (int n = 3; n <= 12; ++n)
        for (int m = 1; m < std::min(n, 4); ++m)
            for (const auto& row : ChannelLayouts::downmixMatrix(n, m)) {
                float total = 0;
                for (const float gain : row)
                    total += gain;
                EXPECT_LE(total, 1.0f + 1e-6f) << n << " to " << m;
            }
    const auto seven = ChannelLayouts::downmixMatrix(7, 2);
    EXPECT_FLOAT_EQ(seven[0][4] / seven[0][0], 0.5f); // the centre surround goes half to each side
}

TEST(DownmixMatrix, MonoAndOtherCountsFoldByIndex) {
    EXPECT_EQ(ChannelLayouts::downmixMatrix(2, 1), (std::vector<std::vector<float>>{{0.5f, 0.5f}}));
    const auto sixToMono = ChannelLayouts::downmixMatrix(6, 1);
    EXPECT_EQ(sixToMono[0][3], 0.0f); // no low-frequency channel in a mono fold
    EXPECT_FLOAT_EQ(sixToMono[0][0], 0.2f);
    const auto tenToStereo = ChannelLayouts::downmixMatrix(10, 2);
    EXPECT_FLOAT_EQ(tenToStereo[0][4], 0.2f);
    EXPECT_EQ(tenToStereo[1][4], 0.0f);
    EXPECT_FLOAT_EQ(tenToStereo[1][9], 0.2f);
    const auto fiveToThree = ChannelLayouts::downmixMatrix(5, 3);
    EXPECT_EQ(fiveToThree[0], (std::vector<float>{0.5f, 0, 0, 0.5f, 0}));
    EXPECT_EQ(fiveToThree[2], (std::vector<float>{0, 0, 1, 0, 0}));
}

TEST(ChannelLayoutTags, CountInTheLowBitsAndNoneOutsideOneToEight) {
    EXPECT_EQ(ChannelLayouts::canonicalTag(2), (101u << 16) | 2u);
    EXPECT_EQ(ChannelLayouts::alacTag(8), (127u << 16) | 8u);
    EXPECT_EQ(ChannelLayouts::aacTag(8), (183u << 16) | 8u);
    EXPECT_FALSE(ChannelLayouts::canonicalTag(9));
    EXPECT_FALSE(ChannelLayouts::canonicalTag(0));
}

// Stages --------------------------------------------------------------------------------------

TEST(ChannelMixer, MixesEveryRowAndGrowsWithLongerChunks) {
    Planes out;
    auto collector = std::make_unique<CollectingSink>(&out);
    ChannelMixer mixer(ChannelLayouts::downmixMatrix(3, 2), std::move(collector));
    const Planes input = testing::noisePlanes(3, 1000, 7);
    mixer.consume(viewsOf(input, 0, 10));
    mixer.consume(viewsOf(input, 10));
    ASSERT_EQ(out.size(), 2u);
    ASSERT_EQ(out[0].size(), 1000u);
    const auto& m = mixer.matrix();
    for (size_t f = 0; f < 1000; ++f)
        for (size_t o = 0; o < 2; ++o) {
            const float expected = m[o][0] * input[0][f] + m[o][1] * input[1][f] + m[o][2] * input[2][f];
            ASSERT_NEAR(out[o][f], expected, 1e-6f);
        }
}

TEST(LengthEnforcer, CutsTheExcessAndPadsWithSilence) {
    {
        Planes out;
        bool finished = false;
        LengthEnforcer enforcer(150, 2, std::make_unique<CollectingSink>(&out, &finished));
        const Planes input = testing::noisePlanes(2, 100, 3);
        enforcer.consume(viewsOf(input));
        enforcer.consume(viewsOf(input));
        enforcer.consume(viewsOf(input));
        enforcer.finish();
        EXPECT_TRUE(finished);
        ASSERT_EQ(out[1].size(), 150u);
        EXPECT_EQ(out[1][149], input[1][49]);
    }
    {
        Planes out;
        auto collector = std::make_unique<CollectingSink>(&out);
        CollectingSink* sink = collector.get();
        LengthEnforcer enforcer(20000, 1, std::move(collector));
        const Planes input{std::vector<float>(100, 0.5f)};
        enforcer.consume(viewsOf(input));
        enforcer.finish();
        ASSERT_EQ(out[0].size(), 20000u);
        EXPECT_EQ(out[0][99], 0.5f);
        for (size_t i = 100; i < 20000; ++i)
            ASSERT_EQ(out[0][i], 0.0f);
        EXPECT_EQ(sink->chunkSizes, (std::vector<size_t>{100, 8192, 8192, 3516}));
    }
}

TEST(LengthEnforcer, AbortReachesTheEnd) {
    Planes out;
    bool aborted = false;
    ChannelMixer mixer(
        ChannelLayouts::downmixMatrix(2, 1),
        std::make_unique<LengthEnforcer>(10, 1, std::make_unique<CollectingSink>(&out, nullptr, &aborted)));
    mixer.abort();
    EXPECT_TRUE(aborted);
}

TEST(ResamplerStage, GivesExactlyTheRoundedLengthAndKeepsThePitch) {
    const int64_t frames = 44100 + 4321;
    Planes sine(2, std::vector<float>(static_cast<size_t>(frames)));
    for (int64_t i = 0; i < frames; ++i) {
        sine[0][static_cast<size_t>(i)] =
            static_cast<float>(0.5 * std::sin(2 * M_PI * 1000.0 * static_cast<double>(i) / 44100.0));
        sine[1][static_cast<size_t>(i)] = -sine[0][static_cast<size_t>(i)];
    }
    const auto expected = static_cast<int64_t>(std::llround(frames * 48000.0 / 44100.0));
    Planes out;
    bool finished = false;
    ResamplerStage stage(
        44100, 48000, 2, 32768,
        std::make_unique<LengthEnforcer>(expected, 2, std::make_unique<CollectingSink>(&out, &finished)));
    size_t from = 0;
    for (const size_t length : {1u, 999u, 32768u, 7u}) {
        stage.consume(viewsOf(sine, from, length));
        from += length;
    }
    stage.consume(viewsOf(sine, from));
    stage.finish();
    EXPECT_TRUE(finished);
    ASSERT_EQ(out[0].size(), static_cast<size_t>(expected));
    // Away from the ends, the output is the same sine sampled at 48 kHz, in time with the input.
    double worst = 0;
    for (int64_t k = 2000; k < expected - 2000; ++k) {
        const double reference = 0.5 * std::sin(2 * M_PI * 1000.0 * static_cast<double>(k) / 48000.0);
        worst = std::max({worst, std::abs(out[0][static_cast<size_t>(k)] - reference),
                          std::abs(out[1][static_cast<size_t>(k)] + reference)});
    }
    EXPECT_LT(worst, 1e-4);
}

/// The end of a chain that refuses everything, as a full disk would.
class FailingSink final : public ChunkSink {
public:
    void consume(ChunkViews) override {
        throw HarluneError::encodeFailed("Writing audio failed (disk full)");
    }
    void finish() override {}
    void abort() noexcept override {}
};

TEST(ResamplerStage, RefusedRatesAndFailuresBehindItKeepTheirMessages) {
    try {
        ResamplerStage stage(-1, 48000, 1, 32768, std::make_unique<FailingSink>());
        FAIL() << "a negative rate was taken";
    } catch (const HarluneError& error) {
        EXPECT_EQ(error.detail(), "can\u2019t convert -1 Hz to 48000 Hz");
    }
    ResamplerStage stage(44100, 48000, 1, 32768, std::make_unique<FailingSink>());
    const Planes input = testing::noisePlanes(1, 40000);
    try {
        stage.consume(viewsOf(input));
        stage.finish();
        FAIL() << "the failure behind the converter was lost";
    } catch (const HarluneError& error) {
        EXPECT_EQ(error.detail(), "Writing audio failed (disk full)");
    }
}

// Quantizer -----------------------------------------------------------------------------------

// An independent reference: the generator written out again, rounding by the C library.
struct ReferenceQuantizer {
    int bits;
    bool dither;
    uint64_t x = 0x9E3779B97F4A7C15ULL;
    double draw() {
        x ^= x >> 12;
        x ^= x << 25;
        x ^= x >> 27;
        return std::ldexp(static_cast<double>((x * 0x2545F4914F6CDD1DULL) >> 11), -53);
    }
    int64_t code(float s) {
        const double scale = std::ldexp(1.0, bits - 1);
        double v = scale * s;
        if (dither && bits < 32) {
            const double u1 = draw();
            const double u2 = draw();
            v += u1 - u2;
        }
        if (std::isnan(v))
            return 0;
        return static_cast<int64_t>(std::clamp(std::nearbyint(v), -scale, scale - 1));
    }
};

Planes awkwardSamples() {
    Planes planes = testing::noisePlanes(2, 4000, 11);
    // Ties, both ends, beyond the ends, infinities and NaN.
    const std::vector<float> special{0.5f / 32768,
                                     1.5f / 32768,
                                     -2.5f / 32768,
                                     0.5f / 8388608,
                                     1.0f,
                                     -1.0f,
                                     1.5f,
                                     -3.0f,
                                     std::numeric_limits<float>::infinity(),
                                     -std::numeric_limits<float>::infinity(),
                                     std::nanf(""),
                                     0.0f,
                                     -0.0f};
    for (size_t i = 0; i < special.size(); ++i) {
        planes[0][i] = special[i];
        planes[1][planes[1].size() - 1 - i] = special[i];
    }
    return planes;
}

TEST(Quantizer, MatchesAReferenceForEveryDepthWithAndWithoutDither) {
    const Planes planes = awkwardSamples();
    for (const int bits : {16, 24, 32})
        for (const bool dither : {false, true}) {
            Quantizer quantizer(bits, dither);
            std::vector<int32_t> out(planes[0].size() * 2);
            quantizer.quantize(viewsOf(planes), out);
            ReferenceQuantizer reference{bits, dither};
            for (size_t c = 0; c < 2; ++c)
                for (size_t f = 0; f < planes[c].size(); ++f) {
                    const int64_t expected = reference.code(planes[c][f]) * (int64_t{1} << (32 - bits));
                    ASSERT_EQ(out[f * 2 + c], expected)
                        << bits << " bits, dither " << dither << ", channel " << c << ", frame " << f
                        << ", sample " << planes[c][f];
                }
        }
}

// (The longest piece is quantized channel by channel on two threads.)
TEST(Quantizer, TheNoiseRunsOnAcrossChunksOfAnyLength) {
    const Planes planes = testing::noisePlanes(2, 14000, 12);
    std::vector<int32_t> whole(28000);
    Quantizer(24, true).quantize(viewsOf(planes), whole);
    Quantizer pieces(24, true);
    std::vector<int32_t> joined;
    size_t from = 0;
    for (const size_t length : {300u, 1001u, 7u, 255u, 256u, 3181u, 9000u}) {
        std::vector<int32_t> part(length * 2);
        pieces.quantize(viewsOf(planes, from, length), part);
        joined.insert(joined.end(), part.begin(), part.end());
        from += length;
    }
    ASSERT_EQ(from, 14000u);
    // Chunked, the draws come channel by channel within each chunk: compare with a reference.
    ReferenceQuantizer reference{24, true};
    from = 0;
    size_t at = 0;
    for (const size_t length : {300u, 1001u, 7u, 255u, 256u, 3181u, 9000u}) {
        std::vector<int64_t> expected(length * 2);
        for (size_t c = 0; c < 2; ++c)
            for (size_t f = 0; f < length; ++f)
                expected[f * 2 + c] = reference.code(planes[c][from + f]) * 256;
        for (size_t i = 0; i < expected.size(); ++i)
            ASSERT_EQ(joined[at + i], expected[i]) << "chunk at " << from << ", value " << i;
        at += expected.size();
        from += length;
    }
    EXPECT_EQ(pieces.rng, reference.x);
    EXPECT_NE(joined, whole); // the order of draws differs, the material does not
}

TEST(Quantizer, DitheredSilenceIsOneBitOfRepeatableNoise) {
    const Planes zeros(2, std::vector<float>(20000, 0.0f));
    std::vector<int32_t> first(40000);
    std::vector<int32_t> second(40000);
    Quantizer(16, true).quantize(viewsOf(zeros), first);
    Quantizer(16, true).quantize(viewsOf(zeros), second);
    EXPECT_EQ(first, second);
    int counts[3] = {0, 0, 0};
    for (const int32_t value : first) {
        const int code = value >> 16;
        ASSERT_GE(code, -1);
        ASSERT_LE(code, 1);
        ++counts[code + 1];
    }
    // Triangular noise of ±1 rounds to ±1 an eighth of the time each.
    EXPECT_NEAR(counts[0] / 40000.0, 0.125, 0.01);
    EXPECT_NEAR(counts[2] / 40000.0, 0.125, 0.01);
}

// Plan ----------------------------------------------------------------------------------------

TEST(EncodePlan, RatesGoToTheNearestTheFormatCarries) {
    EXPECT_EQ(EncodePlan::resolveRate(ExportFormat::mp3, 96000), 48000);
    EXPECT_EQ(EncodePlan::resolveRate(ExportFormat::mp3, 38050), 44100); // equal distance: the higher
    EXPECT_EQ(EncodePlan::resolveRate(ExportFormat::opus, 44100), 48000);
    EXPECT_EQ(EncodePlan::resolveRate(ExportFormat::aac, 50000), 48000);
    EXPECT_EQ(EncodePlan::resolveRate(ExportFormat::aac, 7000), 8000);
    EXPECT_EQ(EncodePlan::resolveRate(ExportFormat::wav, 12345), 12345);
    EXPECT_EQ(EncodePlan::resolveRate(ExportFormat::wav, 0), 48000);
    EXPECT_EQ(CodecCapabilities::nearest(5, std::vector<double>{1, 9, 3, 7}), 7);
}

TEST(EncodePlan, ChannelsAreCappedByTheFormatAndFramesFollowTheRate) {
    const ArraySource eight(testing::noisePlanes(8, 1000), 44100);
    const EncodePlan opus =
        EncodePlan::make(eight, std::nullopt, EncodeSettings::defaults(ExportFormat::opus));
    EXPECT_EQ(opus.outputChannels, 2);
    EXPECT_EQ(opus.outputRate, 48000);
    EXPECT_EQ(opus.outputFrames, 1088); // 1000 × 48000 / 44100 = 1088.43
    const EncodePlan wav =
        EncodePlan::make(eight, FrameRange{100, 200}, EncodeSettings::defaults(ExportFormat::wav));
    EXPECT_EQ(wav.outputChannels, 8);
    EXPECT_EQ(wav.outputFrames, 100);
    EXPECT_EQ(wav.outputRate, 44100);

    const ArraySource odd(testing::noisePlanes(1, 147), 44100);
    EncodeSettings half = EncodeSettings::defaults(ExportFormat::wav);
    half.sampleRate = 22050; // 73.5 frames: a half rounds away from zero
    EXPECT_EQ(EncodePlan::make(odd, std::nullopt, half).outputFrames, 74);
}

TEST(EncodePlan, BadSourcesAndRangesFailWithTheirMessages) {
    const ArraySource source(testing::noisePlanes(2, 100), 48000);
    const ArraySource rateless(testing::noisePlanes(2, 100), 0);
    const struct {
        const ArraySource& source;
        std::optional<FrameRange> range;
        std::string message;
    } cases[] = {
        {rateless, std::nullopt, "the source has no audio"},
        {source, FrameRange{-1, 10}, "range -1..<10 is outside the audio (0..<100)"},
        {source, FrameRange{50, 101}, "range 50..<101 is outside the audio (0..<100)"},
        {source, FrameRange{40, 40}, "there\u2019s no audio to export (the range is empty)"},
    };
    for (const auto& c : cases) {
        try {
            EncodePlan::make(c.source, c.range, EncodeSettings::defaults(ExportFormat::wav));
            ADD_FAILURE() << "no error for: " << c.message;
        } catch (const HarluneError& error) {
            EXPECT_EQ(error.kind(), HarluneError::Kind::encodeFailed);
            EXPECT_EQ(error.detail(), c.message);
        }
    }
}

TEST(EncodePlan, WavBecomesRF64AtTheSizeThreshold) {
    EncodePlan plan;
    plan.settings = EncodeSettings::defaults(ExportFormat::wav);
    plan.settings.bitDepth = PCMBitDepth::int16;
    plan.outputChannels = 2;
    plan.outputFrames = 4293918720LL / 4 - 1;
    EXPECT_EQ(plan.pcmFileType(), SndFileWriter::Container::wave);
    plan.outputFrames = 4293918720LL / 4;
    EXPECT_EQ(plan.pcmFileType(), SndFileWriter::Container::rf64);
    plan.settings.format = ExportFormat::caf;
    EXPECT_EQ(plan.pcmFileType(), SndFileWriter::Container::caf);
}

TEST(EncodePlan, SettingsAreNormalisedAndAlacStopsAt24Bits) {
    const ArraySource source(testing::noisePlanes(1, 10), 48000);
    EncodeSettings alac = EncodeSettings::defaults(ExportFormat::alac);
    alac.bitDepth = PCMBitDepth::int32;
    EXPECT_EQ(EncodePlan::make(source, std::nullopt, alac).settings.bitDepth, PCMBitDepth::int24);
    EncodeSettings flac = EncodeSettings::defaults(ExportFormat::flac);
    flac.bitDepth = PCMBitDepth::float32;
    EXPECT_EQ(EncodePlan::make(source, std::nullopt, flac).settings.bitDepth, PCMBitDepth::int24);
    EncodeSettings mp3 = EncodeSettings::defaults(ExportFormat::mp3);
    mp3.bitRateKbps = 500;
    EXPECT_EQ(EncodePlan::make(source, std::nullopt, mp3).settings.bitRateKbps, 320);
}

// Whether `name` is `prefix`, an upper-case version 4 UUID, ".", this process's id and `suffix`
// (std::regex trips a false warning of g++ 12 under the sanitizers).
bool isTemporaryName(const std::string& name, const std::string& prefix, const std::string& suffix) {
    std::string tail = ".";
    tail.append(std::to_string(::getpid())).append(suffix);
    if (!name.starts_with(prefix) || !name.ends_with(tail) || name.size() != prefix.size() + 36 + tail.size())
        return false;
    const std::string uuid = name.substr(prefix.size(), 36);
    for (size_t i = 0; i < uuid.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        const char c = uuid[i];
        if (dash != (c == '-') || (!dash && !((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))))
            return false;
    }
    return uuid[14] == '4' && std::string("89AB").find(uuid[19]) != std::string::npos;
}

// Hidden, beside the destination, with a version 4 UUID in upper case and the writer's process id.
TEST(FileReplacement, TemporaryNamesAreHiddenBesideTheDestination) {
    const auto a = FileReplacement::temporaryPath("/music/song.final.flac", ExportFormat::flac);
    EXPECT_EQ(a.parent_path(), "/music");
    EXPECT_TRUE(isTemporaryName(a.filename().string(), ".song.final-", ".tmp.flac")) << a;
    EXPECT_NE(a, FileReplacement::temporaryPath("/music/song.final.flac", ExportFormat::flac));
    const auto b = FileReplacement::temporaryPath("/music/noextension", ExportFormat::alac);
    EXPECT_TRUE(isTemporaryName(b.filename().string(), ".noextension-", ".tmp.m4a")) << b;
    EXPECT_FALSE(isTemporaryName(".noextension-12345678-1234-1234-8234-123456789ABC.1.tmp.m4a",
                                 ".noextension-", ".tmp.m4a"));
}

} // namespace
} // namespace harlune
