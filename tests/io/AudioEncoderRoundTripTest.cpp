// Every writer checked against the real ffmpeg decoding the file it wrote.
#include "EncodeTestSupport.h"
#include "base/HarluneError.h"
#include "io/AudioEncoder.h"
#include "io/EncodeStream.h"
#include "io/M4aWriter.h"
#include "io/SndFileWriter.h"
#include "support/TestAudio.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <string_view>

namespace harlune {
namespace {

using testing::Planes;

class AudioEncoderRoundTrip : public ::testing::Test {
protected:
    void SetUp() override {
        if (!testing::haveTool("ffmpeg") || !testing::haveTool("ffprobe"))
            GTEST_SKIP() << "ffmpeg is needed to check the files";
    }
    testing::TemporaryFolder folder;
};

EncodeSettings settings(ExportFormat format, PCMBitDepth depth, DitherMode dither = DitherMode::none) {
    EncodeSettings s = EncodeSettings::defaults(format);
    s.bitDepth = depth;
    s.dither = dither;
    return s;
}

// Largest difference between two sets of planes, in units of the given step.
double largestError(const Planes& expected, const Planes& actual, double step) {
    double worst = 0;
    for (size_t c = 0; c < expected.size(); ++c)
        for (size_t f = 0; f < expected[c].size(); ++f)
            worst = std::max(worst, std::abs(static_cast<double>(expected[c][f]) - actual[c][f]) / step);
    return worst;
}

TEST_F(AudioEncoderRoundTrip, LosslessFormatsGiveBackTheSamplesWithinOneQuantisationStep) {
    // Uneven length, more than one chunk, and values over the whole scale including both ends.
    Planes planes = testing::noisePlanes(2, 40001, 5);
    planes[0][0] = 1.0f;
    planes[1][0] = -1.0f;
    const ArraySource source(planes, 44100);
    struct Case {
        ExportFormat format;
        PCMBitDepth depth;
        const char* extension;
        DitherMode dither = DitherMode::none;
    };
    const Case cases[] = {
        {ExportFormat::wav, PCMBitDepth::int16, "wav"},
        {ExportFormat::wav, PCMBitDepth::int24, "wav"},
        {ExportFormat::wav, PCMBitDepth::int32, "wav"},
        {ExportFormat::aiff, PCMBitDepth::int16, "aiff"},
        {ExportFormat::aiff, PCMBitDepth::int24, "aiff"},
        {ExportFormat::aiff, PCMBitDepth::int32, "aif"},
        {ExportFormat::caf, PCMBitDepth::int16, "caf"},
        {ExportFormat::caf, PCMBitDepth::int24, "caf"},
        {ExportFormat::caf, PCMBitDepth::int32, "caf"},
        {ExportFormat::flac, PCMBitDepth::int16, "flac"},
        {ExportFormat::flac, PCMBitDepth::int24, "flac"},
        {ExportFormat::alac, PCMBitDepth::int16, "m4a"},
        {ExportFormat::alac, PCMBitDepth::int24, "m4a"},
        {ExportFormat::flac, PCMBitDepth::int16, "flac", DitherMode::tpdf},
        {ExportFormat::wav, PCMBitDepth::int24, "wav", DitherMode::tpdf},
    };
    for (const Case& c : cases) {
        const auto path = folder / (std::string("out-") + std::to_string(rawValue(c.depth)) +
                                    (c.dither == DitherMode::tpdf ? "-dither." : ".") + c.extension);
        AudioEncoder::write(source, std::nullopt, path, settings(c.format, c.depth, c.dither));
        const auto decoded = testing::decodeWithFFmpeg(path, 2);
        ASSERT_TRUE(decoded) << path;
        ASSERT_EQ((*decoded)[0].size(), planes[0].size()) << path;
        if (c.format == ExportFormat::alac) {
            EXPECT_EQ(testing::probeStream(path, "sample_rate"), "44100") << path;
        }
        // Rounding to nearest is off by half a step at most, once the top of the scale, which
        // has no code of its own, is clipped one step below full scale.
        const double step = std::ldexp(1.0, 1 - bits(c.depth));
        Planes clipped = planes;
        for (auto& plane : clipped)
            for (float& x : plane)
                x = static_cast<float>(std::min<double>(x, 1.0 - step));
        // A 32-bit code decodes into a float of 24 bits of precision: 2^-25 is 64 steps of 2^-31.
        // Dither adds at most one step, and is really there.
        const double bound = c.depth == PCMBitDepth::int32 ? 64.0 : c.dither == DitherMode::tpdf ? 1.5 : 0.5;
        const double error = largestError(clipped, *decoded, step);
        EXPECT_LE(error, bound + 1e-9) << path;
        EXPECT_TRUE(c.dither == DitherMode::none || error > 0.5) << path;
    }
}

TEST_F(AudioEncoderRoundTrip, FloatWavAndCafAreBitExact) {
    Planes planes = testing::noisePlanes(3, 40000, 9);
    planes[0][5] = 1.75f; // float files keep values beyond full scale
    planes[2][6] = -3.0e-8f;
    const ArraySource source(planes, 96000);
    for (const auto* extension : {"wav", "caf"}) {
        const auto path = folder / (std::string("float.") + extension);
        const auto format = std::string(extension) == "wav" ? ExportFormat::wav : ExportFormat::caf;
        AudioEncoder::write(source, std::nullopt, path, settings(format, PCMBitDepth::float32));
        const auto decoded = testing::decodeWithFFmpeg(path, 3);
        ASSERT_TRUE(decoded);
        EXPECT_EQ(*decoded, planes) << extension;
    }
}

// The same material gives the same bytes: in two writes from memory, and streamed in pieces of
// any length as from a decoder (dither on and off, with and without a change of rate).
TEST_F(AudioEncoderRoundTrip, ExportsAndStreamsOfTheSameMaterialAreTheSameBytes) {
    const Planes planes = testing::noisePlanes(2, 100003, 2);
    const ArraySource source(planes, 48000);
    EncodeSettings resampled = settings(ExportFormat::wav, PCMBitDepth::int16);
    resampled.sampleRate = 44100;
    const std::pair<const char*, EncodeSettings> cases[] = {
        {"copy.wav", settings(ExportFormat::wav, PCMBitDepth::int24, DitherMode::tpdf)},
        {"copy.flac", settings(ExportFormat::flac, PCMBitDepth::int16, DitherMode::tpdf)},
        {"resampled.wav", resampled},
        {"copy.m4a", settings(ExportFormat::alac, PCMBitDepth::int24)},
    };
    for (const auto& [name, chosen] : cases) {
        const auto whole = folder / (std::string("whole-") + name);
        const auto again = folder / (std::string("again-") + name);
        const auto streamed = folder / (std::string("streamed-") + name);
        AudioEncoder::write(source, std::nullopt, whole, chosen);
        AudioEncoder::write(source, std::nullopt, again, chosen);
        EXPECT_EQ(testing::readFile(whole), testing::readFile(again)) << name;
        // Announced a little short, as a decoder's estimate may be.
        EncodeStream stream(streamed, chosen, 48000, 2, 90000);
        const size_t pieces[] = {7919, 32768, 1, 40000};
        for (size_t start = 0, i = 0; start < planes[0].size(); start += pieces[i++ % 4]) {
            const size_t length = std::min(planes[0].size() - start, pieces[i % 4]);
            const std::span<const float> views[] = {std::span(planes[0]).subspan(start, length),
                                                    std::span(planes[1]).subspan(start, length)};
            stream.consume(views);
        }
        stream.finish();
        EXPECT_EQ(testing::readFile(whole), testing::readFile(streamed)) << name;
    }
}

// A stream given up before its end leaves the old file and nothing else.
TEST_F(AudioEncoderRoundTrip, AnAbandonedStreamLeavesTheOldFile) {
    const auto destination = folder / "old.flac";
    testing::writeFile(destination, "old");
    for (const auto naming : {FileReplacement::Naming::automatic, FileReplacement::Naming::named}) {
        EncodeStream stream(destination, EncodeSettings::defaults(ExportFormat::flac), 48000, 1, 48000,
                            naming);
        const Planes planes = testing::noisePlanes(1, 48000);
        const std::span<const float> views[] = {planes[0]};
        stream.consume(views);
    }
    EXPECT_EQ(testing::readFile(destination), "old");
    EXPECT_EQ(folder.entries(), std::vector<std::string>{"old.flac"});
}

TEST_F(AudioEncoderRoundTrip, ARangeWritesOnlyThoseFramesAndProgressEndsAtOne) {
    const Planes planes = testing::noisePlanes(1, 100000, 6);
    const ArraySource source(planes, 48000);
    const auto path = folder / "range.wav";
    std::vector<double> reports;
    AudioEncoder::write(source, FrameRange{1000, 71000}, path,
                        settings(ExportFormat::wav, PCMBitDepth::float32), [&](double fraction) {
                            reports.push_back(fraction);
                            return true;
                        });
    const auto decoded = testing::decodeWithFFmpeg(path, 1);
    ASSERT_TRUE(decoded);
    EXPECT_EQ((*decoded)[0], std::vector<float>(planes[0].begin() + 1000, planes[0].begin() + 71000));
    ASSERT_EQ(reports.size(), 4u); // three chunks, then the final report
    EXPECT_DOUBLE_EQ(reports[0], 32768.0 / 70000.0);
    EXPECT_DOUBLE_EQ(reports[2], 1.0);
    EXPECT_DOUBLE_EQ(reports[3], 1.0);
}

// The tag of the layout chunk of a CAF ("chan") or AIFF ("CHAN") file, which precedes the audio:
// libsndfile reads back only the tags of its own table, and ffmpeg 5 names neither 6.1 nor 7.1.
std::optional<uint32_t> layoutTag(const std::filesystem::path& file, bool caf) {
    const std::vector<uint8_t> bytes = testing::readBytes(file);
    const std::string_view id = caf ? "chan" : "CHAN";
    const auto found = std::search(bytes.begin(), bytes.end(), id.begin(), id.end());
    const auto at = static_cast<size_t>(found - bytes.begin()) + id.size() + (caf ? 8 : 4); // id, size
    if (at + 4 > bytes.size())
        return std::nullopt;
    return uint32_t{bytes[at]} << 24 | uint32_t{bytes[at + 1]} << 16 | uint32_t{bytes[at + 2]} << 8 |
           bytes[at + 3];
}

TEST_F(AudioEncoderRoundTrip, SurroundFilesKeepTheirChannelLayout) {
    const ArraySource eight(testing::noisePlanes(8, 4800, 1), 48000);
    const auto wav = folder / "eight.wav";
    AudioEncoder::write(eight, std::nullopt, wav, settings(ExportFormat::wav, PCMBitDepth::int24));
    EXPECT_EQ(testing::probeStream(wav, "channel_layout"), "7.1");

    // Apple's layout numbers: 121 is MPEG 5.1 A, 188 and 189 are WAVE 6.1 and 7.1.
    struct Case {
        ExportFormat format;
        int channels;
        unsigned layout;
        const char* ffmpegName;
    };
    for (const Case test :
         {Case{ExportFormat::caf, 6, 121, "5.1(side)"}, Case{ExportFormat::caf, 7, 188, "6.1"},
          Case{ExportFormat::caf, 8, 189, "7.1"}, Case{ExportFormat::aiff, 7, 188, "6.1"},
          Case{ExportFormat::aiff, 8, 189, "7.1"}}) {
        const bool caf = test.format == ExportFormat::caf;
        const auto path = folder / (std::to_string(test.channels) + (caf ? ".caf" : ".aiff"));
        const auto planes = testing::noisePlanes(test.channels, 4800, 2);
        AudioEncoder::write(ArraySource(planes, 48000), std::nullopt, path,
                            settings(test.format, PCMBitDepth::int16));
        EXPECT_EQ(layoutTag(path, caf), test.layout << 16 | static_cast<unsigned>(test.channels)) << path;
        // ffmpeg as an independent reader, where it knows the tag.
        const std::string named = testing::probeStream(path, "channel_layout");
        if (named != "unknown") {
            EXPECT_EQ(named, test.ffmpegName) << path;
        }
        const auto decoded = testing::decodeWithFFmpeg(path, test.channels);
        ASSERT_TRUE(decoded) << path;
        EXPECT_LE(largestError(planes, *decoded, 1.0 / 32768), 0.5 + 1e-9) << path;
    }
}

TEST_F(AudioEncoderRoundTrip, AlacTakesTheChannelCountsWhoseDefaultLayoutItRefuses) {
    for (const int channels : {3, 7, 8}) {
        Planes planes = testing::noisePlanes(channels, 5000, static_cast<uint32_t>(channels));
        for (auto& plane : planes)
            for (float& x : plane)
                x *= 0.5f;
        const ArraySource source(planes, 48000);
        const auto path = folder / ("surround" + std::to_string(channels) + ".m4a");
        AudioEncoder::write(source, std::nullopt, path, settings(ExportFormat::alac, PCMBitDepth::int16));
        const auto decoded = testing::decodeWithFFmpeg(path, channels);
        ASSERT_TRUE(decoded) << channels;
        ASSERT_EQ((*decoded)[0].size(), 5000u);
        EXPECT_LE(largestError(planes, *decoded, 1.0 / 32768), 0.5 + 1e-9) << channels;
    }
}

TEST_F(AudioEncoderRoundTrip, AacKeepsTheLengthClassAndTheBitRateTheEncoderTook) {
    const ArraySource source(testing::noisePlanes(2, 48000, 3), 48000);
    const auto path = folder / "lossy.m4a";
    AudioEncoder::write(source, std::nullopt, path, EncodeSettings::defaults(ExportFormat::aac));
    EXPECT_EQ(testing::probeStream(path, "codec_name"), "aac");
    EXPECT_EQ(testing::probeStream(path, "sample_rate"), "48000");
    const auto decoded = testing::decodeWithFFmpeg(path, 2);
    ASSERT_TRUE(decoded);
    // The container's edit list removes the encoder's priming; a frame of slack for the tail.
    EXPECT_NEAR(static_cast<double>((*decoded)[0].size()), 48000.0, 1024.0);

    // Mono AAC at 48 kHz carries at most 6144 bits per 1024 frames: 288 kbps.
    M4aWriter::Spec spec;
    spec.codec = M4aWriter::Codec::aac;
    spec.channels = 1;
    spec.sampleRate = 48000;
    spec.bitRate = 500000;
    M4aWriter writer(folder / "mono.m4a", spec);
    EXPECT_EQ(writer.appliedBitRate(), 288000);
    writer.abort();
}

} // namespace
} // namespace harlune
