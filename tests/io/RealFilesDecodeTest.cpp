// Files of every kind the program reads, made by the real ffmpeg from 48 kHz sources, decoded
// through AudioDecoder and compared with ffmpeg's own float decode of the same file.
#include "io/AudioDecoder.h"
#include "io/IoTestSupport.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace harlune {
namespace {

using testing::TempDir;

struct Case {
    std::string file;
    std::vector<std::string> encode; ///< ffmpeg output options
    std::string container;
    std::string codec;
    std::string decoder;
    std::optional<ExportFormat> nativeFormat;
    std::optional<int> bitDepth;
    bool isFloat;
    /// Largest allowed sample difference from the reference: 0 for PCM and lossless files and
    /// for the ffmpeg road (the same decoder runs on both sides). The lossy files that libsndfile
    /// decodes go through other decoders (libvorbis, mpg123) than ffmpeg's, which differ in their
    /// float arithmetic only: 1e-5 (about -100 dBFS; 3e-7 and 1.1e-6 measured).
    float tolerance;
};

const std::vector<Case>& cases() {
    // clang-format off
    static const std::vector<Case> all{
        {"s16.wav",    {"-c:a", "pcm_s16le"}, "WAVE", "Linear PCM", "libsndfile", ExportFormat::wav, 16, false, 0},
        {"s24.wav",    {"-c:a", "pcm_s24le"}, "WAVE", "Linear PCM", "libsndfile", ExportFormat::wav, 24, false, 0},
        {"s32.wav",    {"-c:a", "pcm_s32le"}, "WAVE", "Linear PCM", "libsndfile", ExportFormat::wav, 32, false, 0},
        {"f32.wav",    {"-c:a", "pcm_f32le"}, "WAVE", "Linear PCM", "libsndfile", ExportFormat::wav, 32, true, 0},
        {"rf64.wav",   {"-c:a", "pcm_s24le", "-rf64", "always"}, "RF64", "Linear PCM", "libsndfile", ExportFormat::wav, 24, false, 0},
        {"s16.aiff",   {"-c:a", "pcm_s16be"}, "AIFF", "Linear PCM", "libsndfile", ExportFormat::aiff, 16, false, 0},
        {"sowt.aifc",  {"-c:a", "pcm_s16le", "-f", "aiff"}, "AIFF-C", "Linear PCM", "libsndfile", ExportFormat::aiff, 16, false, 0},
        {"s24.caf",    {"-c:a", "pcm_s24le"}, "CAF", "Linear PCM", "libsndfile", ExportFormat::caf, 24, false, 0},
        {"f32.caf",    {"-c:a", "pcm_f32le"}, "CAF", "Linear PCM", "libsndfile", ExportFormat::caf, 32, true, 0},
        {"s24.flac",   {"-c:a", "flac", "-sample_fmt", "s32"}, "FLAC", "FLAC", "libsndfile", ExportFormat::flac, 24, false, 0},
        {"vorbis.ogg", {"-c:a", "libvorbis"}, "Ogg", "Vorbis", "libsndfile", std::nullopt, std::nullopt, false, 1e-5f},
        {"mp3.mp3",    {"-c:a", "libmp3lame"}, "MPEG Audio", "MP3", "libsndfile", ExportFormat::mp3, std::nullopt, false, 1e-5f},
        {"opus.opus",  {"-c:a", "libopus"}, "Ogg", "Opus", "ffmpeg", ExportFormat::opus, std::nullopt, false, 0},
        {"aac.m4a",    {"-c:a", "aac"}, "MPEG-4", "AAC", "ffmpeg", ExportFormat::aac, std::nullopt, false, 0},
        {"alac.m4a",   {"-c:a", "alac"}, "MPEG-4", "Apple Lossless", "ffmpeg", ExportFormat::alac, 24, false, 0},
        {"wma.wma",    {"-c:a", "wmav2"}, "ASF", "WMA", "ffmpeg", std::nullopt, std::nullopt, false, 0},
    };
    // clang-format on
    return all;
}

class RealFilesDecode : public ::testing::TestWithParam<Case> {
protected:
    static void SetUpTestSuite() {
        folder = new TempDir;
        for (const auto& c : cases()) {
            auto arguments = testing::stereoSource(1.0);
            arguments.insert(arguments.end(), c.encode.begin(), c.encode.end());
            arguments.push_back((*folder / c.file).string());
            testing::ffmpeg(arguments);
        }
    }
    static void TearDownTestSuite() {
        delete folder;
        folder = nullptr;
    }
    static inline TempDir* folder = nullptr;
};

TEST_P(RealFilesDecode, labelsAndSamplesMatchAnIndependentDecode) {
    const Case& c = GetParam();
    const auto path = *folder / c.file;

    const AudioFileInfo probed = AudioDecoder::probe(path);
    EXPECT_EQ(probed.containerName, c.container);
    EXPECT_EQ(probed.codecName, c.codec);
    EXPECT_EQ(probed.decoderName, c.decoder);
    EXPECT_EQ(probed.nativeExportFormat, c.nativeFormat);
    EXPECT_EQ(probed.bitDepth, c.bitDepth);
    EXPECT_EQ(probed.isFloat, c.isFloat);
    EXPECT_EQ(probed.isLossy, c.tolerance > 0 || (c.decoder == "ffmpeg" && c.codec != "Apple Lossless"));
    EXPECT_EQ(probed.sampleRate, 48000);
    EXPECT_EQ(probed.channelCount, 2);
    EXPECT_EQ(probed.fileSize, static_cast<int64_t>(std::filesystem::file_size(path)));
    EXPECT_EQ(probed.bitRateKbps.has_value(), c.codec != "Linear PCM");

    const auto decoded = AudioDecoder::decodeToArrays(path);
    const auto reference = testing::referenceDecode(path, 2);
    ASSERT_EQ(decoded.channels.size(), 2u);
    EXPECT_EQ(decoded.info.frameCount, static_cast<int64_t>(decoded.channels[0].size()));
    const auto frames = std::min(decoded.channels[0].size(), reference[0].size());
    if (c.tolerance == 0)
        EXPECT_EQ(decoded.channels[0].size(), reference[0].size());
    else // decoders may disagree on the padding they trim at the end
        EXPECT_NEAR(static_cast<double>(decoded.channels[0].size()), static_cast<double>(reference[0].size()),
                    1152);
    float worst = 0;
    for (size_t ch = 0; ch < 2; ++ch)
        for (size_t i = 0; i < frames; ++i)
            worst = std::max(worst, std::abs(decoded.channels[ch][i] - reference[ch][i]));
    EXPECT_LE(worst, c.tolerance) << c.file;
    // The content itself is there, not silence: the left channel peaks near 0.6 (lossy codecs overshoot).
    const auto peak = std::abs(*std::max_element(decoded.channels[0].begin(), decoded.channels[0].end(),
                                                 [](float a, float b) { return std::abs(a) < std::abs(b); }));
    EXPECT_GT(peak, 0.5);
    EXPECT_LT(peak, 0.8);
}

INSTANTIATE_TEST_SUITE_P(Formats, RealFilesDecode, ::testing::ValuesIn(cases()), [](const auto& param) {
    std::string name = param.param.file;
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
});

TEST(RealFilesDecode, aVideoFileGivesItsAudioTrack) {
    TempDir folder;
    const auto path = folder / "clip.mp4";
    testing::ffmpeg({"-f", "lavfi", "-i", "testsrc=duration=1:size=96x64:rate=25", "-f", "lavfi", "-i",
                     "sine=frequency=440:sample_rate=48000:duration=1", "-c:v", "mpeg4", "-c:a", "aac",
                     path.string()});
    const auto decoded = AudioDecoder::decodeToArrays(path);
    EXPECT_EQ(decoded.info.decoderName, "ffmpeg");
    EXPECT_EQ(decoded.info.codecName, "AAC");
    ASSERT_EQ(decoded.channels.size(), 1u);
    EXPECT_EQ(decoded.channels[0], testing::referenceDecode(path, 1)[0]);
}

} // namespace
} // namespace harlune
