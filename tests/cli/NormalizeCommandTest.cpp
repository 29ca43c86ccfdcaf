// harlune-cli normalize on loud masters made here, its output read back by the real ffmpeg and
// measured with the analyzer.
#include "base/AudioSource.h"
#include "cli/CliTestSupport.h"
#include "dsp/LoudnessAnalyzer.h"
#include "dsp/LoudnessSignals.h"
#include "io/AudioEncoder.h"
#include "io/IoTestSupport.h"

#include <cmath>
#include <gtest/gtest.h>
#include <numbers>

namespace harlune {
namespace {

using testing::TempDir;

constexpr double rate = 48000;

using testing::cli;
using testing::CliResult;

double loudness(const std::vector<std::vector<float>>& channels) {
    return LoudnessAnalyzer::analyze(ArraySource(channels, rate)).integratedLUFS;
}

// Pushed into hard clipping at +-1 until about -9 LUFS, as a loud master is: sample peaks at 0 dBFS.
std::vector<std::vector<float>> mastered(const std::vector<std::vector<float>>& raw) {
    double gain = 1;
    std::vector<std::vector<float>> out = raw;
    for (int i = 0; i < 8; ++i) {
        for (size_t c = 0; c < raw.size(); ++c)
            for (size_t n = 0; n < raw[c].size(); ++n)
                out[c][n] = std::clamp(static_cast<float>(raw[c][n] * gain), -1.0f, 1.0f);
        gain *= std::pow(10.0, (-9 - loudness(out)) / 20);
    }
    return out;
}

// Pink noise on both channels, mastered.
std::vector<std::vector<float>> pinkNoise(double seconds) {
    const auto frames = static_cast<int64_t>(seconds * rate);
    return mastered({testing::pinkNoise(frames, 7), testing::pinkNoise(frames, 8)});
}

// Chords of harmonic tones struck on every beat, with a kick drum under them.
std::vector<std::vector<float>> musicLike(double seconds) {
    const auto frames = static_cast<size_t>(seconds * rate);
    std::vector<std::vector<float>> channels(2, std::vector<float>(frames));
    const double chords[4][3] = {
        {220, 277.2, 329.6}, {196, 246.9, 293.7}, {174.6, 220, 261.6}, {164.8, 207.7, 246.9}};
    for (size_t n = 0; n < frames; ++n) {
        const double t = static_cast<double>(n) / rate;
        const double beat = std::fmod(t, 0.5);
        const auto& chord = chords[static_cast<int>(t / 2) % 4];
        double left = 0, right = 0;
        for (int note = 0; note < 3; ++note)
            for (int harmonic = 1; harmonic <= 6; ++harmonic) {
                const double v = std::sin(2 * std::numbers::pi * chord[note] * harmonic * t) / harmonic *
                                 (0.4 + 0.6 * std::exp(-beat * 4));
                left += v * (note == 0 ? 0.8 : 0.5);
                right += v * (note == 2 ? 0.8 : 0.5);
            }
        const double kick = std::sin(2 * std::numbers::pi * (50 + 100 * std::exp(-beat * 30)) * beat) *
                            std::exp(-beat * 12) * 3;
        channels[0][n] = static_cast<float>(0.1 * left + kick);
        channels[1][n] = static_cast<float>(0.1 * right + kick);
    }
    return mastered(channels);
}

class NormalizeCommand : public testing::SharedFolderTest<NormalizeCommand> {
protected:
    static void SetUpTestSuite() {
        makeFolder();
        EncodeSettings settings = EncodeSettings::defaults(ExportFormat::wav);
        settings.bitDepth = PCMBitDepth::float32;
        AudioEncoder::write(ArraySource(pinkNoise(8), rate), std::nullopt, file("pink.wav"), settings);
        AudioEncoder::write(ArraySource(musicLike(8), rate), std::nullopt, file("music.wav"), settings);
    }
};

TEST_F(NormalizeCommand, theMastersAreLoudWithFullScalePeaks) {
    for (const char* name : {"pink.wav", "music.wav"}) {
        const auto r = LoudnessAnalyzer::analyze(ArraySource(testing::referenceDecode(file(name), 2), rate));
        EXPECT_NEAR(r.integratedLUFS, -9, 0.3) << name;
        EXPECT_NEAR(r.samplePeakDBFS, 0, 0.01) << name;
    }
}

TEST_F(NormalizeCommand, reachesTheTargetUnderTheCeilingInFloatAndTwentyFourBits) {
    for (const char* name : {"pink", "music"})
        for (const char* bits : {"float", "24"}) {
            const std::string out = file(std::string(name) + "-" + bits + ".wav");
            const CliResult result = cli({"normalize", "--target", "-16", "--ceiling", "-1", "--bits", bits,
                                          file(std::string(name) + ".wav"), out});
            ASSERT_EQ(result.status, 0) << result.err;
            EXPECT_NE(result.out.find("measured: -9."), std::string::npos) << result.out;
            EXPECT_NE(result.out.find("predicted: -16.0 LUFS"), std::string::npos) << result.out;
            EXPECT_NE(result.out.find("reached: "), std::string::npos) << result.out;
            const auto r = LoudnessAnalyzer::analyze(ArraySource(testing::referenceDecode(out, 2), rate));
            EXPECT_NEAR(r.integratedLUFS, -16, 0.1) << name << " " << bits << "\n" << result.out;
            EXPECT_LE(r.truePeakDBTP, -1.0) << name << " " << bits << "\n" << result.out;
        }
}

TEST_F(NormalizeCommand, withoutLimitingAppliesThePlainGain) {
    const std::string out = file("plain.wav");
    const CliResult result = cli({"normalize", "--target", "-20", "--no-limit", file("music.wav"), out});
    ASSERT_EQ(result.status, 0) << result.err;
    const auto in = testing::referenceDecode(file("music.wav"), 2);
    const auto got = testing::referenceDecode(out, 2);
    ASSERT_EQ(got[0].size(), in[0].size());
    const double gain = std::pow(10.0, (-20 - loudness(in)) / 20);
    for (size_t n = 0; n < in[0].size(); n += 997)
        EXPECT_NEAR(got[0][n], in[0][n] * gain, 1e-4);
}

TEST_F(NormalizeCommand, saysWhenTheTargetIsOutOfReach) {
    // +30 dB into a -1 dBTP ceiling: the limiter can't make it that loud.
    const CliResult result =
        cli({"normalize", "--target", "+21", "--ceiling", "-1", file("pink.wav"), file("hot.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("gave up"), std::string::npos) << result.out;
    const auto r = LoudnessAnalyzer::analyze(ArraySource(testing::referenceDecode(file("hot.wav"), 2), rate));
    EXPECT_LE(r.truePeakDBTP, -1.0);
}

} // namespace
} // namespace harlune
