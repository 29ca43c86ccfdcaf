// harlune-cli process, run as a user runs it; each result is read back by the real ffmpeg and
// checked against the same operation computed here on the samples of the input.
#include "base/AudioSource.h"
#include "cli/CliTestSupport.h"
#include "dsp/ChannelLoudness.h"
#include "dsp/effects/EffectSettings.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace harlune {
namespace {

using testing::TempDir;
using Planes = std::vector<std::vector<float>>;

using testing::CliResult;

CliResult process(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "process");
    return testing::cli(std::move(arguments));
}

class ProcessCommand : public ::testing::Test {
protected:
    void SetUp() override {
        // One second of float stereo at 48 kHz, so that the output (also float) compares exactly.
        auto tone = testing::stereoSource(1.0);
        tone.insert(tone.end(), {"-c:a", "pcm_f32le", file("in.wav")});
        testing::ffmpeg(tone);
        input = testing::referenceDecode(file("in.wav"), 2);
        ASSERT_EQ(input[0].size(), 48000u);
    }
    std::string file(const std::string& name) const { return (folder / name).string(); }

    /// Runs process with `operations` on in.wav into a float WAV and reads it back.
    Planes run(std::vector<std::string> operations, int channels = 2) {
        operations.insert(operations.end(), {"--bits", "float", file("in.wav"), file("out.wav")});
        const CliResult result = process(operations);
        EXPECT_EQ(result.status, 0) << result.err;
        return testing::referenceDecode(file("out.wav"), channels);
    }

    /// Runs a command line that must fail and leave no output; returns standard error.
    std::string fails(std::vector<std::string> operations) {
        operations.insert(operations.end(), {file("in.wav"), file("bad.wav")});
        const CliResult result = process(operations);
        EXPECT_EQ(result.status, 1) << result.err;
        EXPECT_FALSE(std::filesystem::exists(file("bad.wav")));
        EXPECT_TRUE(result.err.starts_with("harlune-cli: ")) << result.err;
        return result.err;
    }

    TempDir folder;
    Planes input;
};

TEST_F(ProcessCommand, GainActsOnTheSelectionOnly) {
    const Planes out = run({"--select", "0.25:0.5", "--gain", "-6"});
    ASSERT_EQ(out[0].size(), 48000u);
    const auto factor = static_cast<float>(std::pow(10.0, -6.0 / 20.0));
    for (size_t c = 0; c < 2; ++c)
        for (size_t f = 0; f < 48000; ++f) {
            const bool inside = f >= 12000 && f < 24000;
            ASSERT_FLOAT_EQ(out[c][f], inside ? input[c][f] * factor : input[c][f]) << c << " " << f;
        }
}

TEST_F(ProcessCommand, FadesStartAtSilenceAndEndUnchanged) {
    const Planes in = run({"--fade-shape", "linear", "--select", "0:0.5", "--fade-in"});
    for (size_t c = 0; c < 2; ++c) {
        EXPECT_EQ(in[c][0], 0.0f);
        EXPECT_NEAR(in[c][23999], input[c][23999], 1e-6);
        EXPECT_NEAR(in[c][12000], input[c][12000] * 0.5f, 1e-3);
        EXPECT_EQ(in[c][24000], input[c][24000]);
    }
    // The default shape is the S-curve: half way at the middle, but flat at the ends.
    const Planes out = run({"--select", "0.5:1", "--fade-out"});
    for (size_t c = 0; c < 2; ++c) {
        EXPECT_NEAR(out[c][24000], input[c][24000], 1e-6);
        EXPECT_EQ(out[c][47999], 0.0f);
        EXPECT_NEAR(out[c][24100], input[c][24100], std::abs(input[c][24100]) * 1e-3 + 1e-7);
        EXPECT_EQ(out[c][23999], input[c][23999]);
    }
}

TEST_F(ProcessCommand, NormalizeBringsThePeakToTheTarget) {
    auto peak = [](const std::vector<float>& plane) {
        float result = 0;
        for (float sample : plane)
            result = std::max(result, std::abs(sample));
        return result;
    };
    const double target = std::pow(10.0, -3.0 / 20.0);
    const Planes linked = run({"--normalize-peak", "-3"});
    EXPECT_NEAR(std::max(peak(linked[0]), peak(linked[1])), target, 1e-5);
    EXPECT_NEAR(peak(linked[1]) / peak(linked[0]), peak(input[1]) / peak(input[0]), 1e-4);

    const Planes independent = run({"--normalize-peak", "-3", "--independent"});
    EXPECT_NEAR(peak(independent[0]), target, 1e-5);
    EXPECT_NEAR(peak(independent[1]), target, 1e-5);
}

TEST_F(ProcessCommand, ReverseInvertAndSwap) {
    const Planes reversed = run({"--select", "0.25:0.5", "--reverse"});
    for (size_t c = 0; c < 2; ++c)
        for (size_t k = 0; k < 12000; ++k)
            ASSERT_EQ(reversed[c][12000 + k], input[c][23999 - k]);
    EXPECT_EQ(reversed[0][11999], input[0][11999]);

    const Planes inverted = run({"--invert"}); // no selection: the whole file
    for (size_t f = 0; f < 48000; f += 97)
        ASSERT_EQ(inverted[1][f], -input[1][f]);

    // Swapping works on the whole file whatever the selection.
    const Planes swapped = run({"--select", "0:0.1", "--swap-channels"});
    for (size_t f = 0; f < 48000; f += 97) {
        ASSERT_EQ(swapped[0][f], input[1][f]);
        ASSERT_EQ(swapped[1][f], input[0][f]);
    }
}

TEST_F(ProcessCommand, DeleteTrimAndChannelsChangeTheShape) {
    const Planes deleted = run({"--select", "0.25:0.5", "--delete"});
    ASSERT_EQ(deleted[0].size(), 36000u);
    EXPECT_EQ(deleted[0][11999], input[0][11999]);
    EXPECT_EQ(deleted[0][12000], input[0][24000]);

    const Planes trimmed = run({"--select", "0.25:0.5", "--trim"});
    ASSERT_EQ(trimmed[1].size(), 12000u);
    EXPECT_EQ(trimmed[1][0], input[1][12000]);
    EXPECT_EQ(trimmed[1][11999], input[1][23999]);

    // The selection is gone after a delete, so a following trim has none.
    fails({"--select", "0.25:0.5", "--delete", "--trim"});

    const Planes mono = run({"--channels", "1"}, 1);
    ASSERT_EQ(mono[0].size(), 48000u);
    for (size_t f = 0; f < 48000; f += 97)
        ASSERT_NEAR(mono[0][f], (input[0][f] + input[1][f]) / 2, 1e-6);
    EXPECT_NE(fails({"--channels", "1", "--swap-channels"}).find("2 channels"), std::string::npos);
}

TEST_F(ProcessCommand, EnvelopesAreRenderedIntoTheWholeFile) {
    const nlohmann::json envelope = {
        {"master",
         {{"points", {{{"id", "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"}, {"frame", 0}, {"gainDB", -6.0}}}}}},
        {"channels", nlohmann::json::array()},
        {"trimDB", {0.0, 6.0}}};
    testing::writeFile(file("envelope.json"), envelope.dump());
    const Planes out = run({"--envelope", file("envelope.json")});
    for (size_t f = 0; f < 48000; f += 97) {
        ASSERT_NEAR(out[0][f], input[0][f] * std::pow(10.0, -6.0 / 20.0), 1e-6);
        ASSERT_NEAR(out[1][f], input[1][f], 1e-6);
    }
}

TEST_F(ProcessCommand, ResampleAndTempoGiveTheExpectedLengths) {
    const Planes resampled = run({"--resample", "44100"});
    EXPECT_EQ(resampled[0].size(), 44100u);

    // Ten seconds played 1.25 times as fast last exactly eight.
    testing::ffmpeg({"-f", "lavfi", "-i", "aevalsrc=0.5*sin(2*PI*440*t):s=8000:d=10", "-c:a", "pcm_f32le",
                     file("long.wav")});
    const CliResult tempo = process({"--tempo", "125", file("long.wav"), file("fast.wav")});
    ASSERT_EQ(tempo.status, 0) << tempo.err;
    const Planes finer = testing::referenceDecode(file("fast.wav"), 1);
    EXPECT_EQ(finer[0].size(), 64000u);

    // The other engine keeps the length but renders differently, so the choice reaches it.
    const CliResult r2 =
        process({"--stretch-engine", "faster", "--tempo", "125", file("long.wav"), file("fast2.wav")});
    ASSERT_EQ(r2.status, 0) << r2.err;
    const Planes faster = testing::referenceDecode(file("fast2.wav"), 1);
    ASSERT_EQ(faster[0].size(), 64000u);
    EXPECT_NE(faster[0], finer[0]);
}

TEST_F(ProcessCommand, OperationsThatCannotRunStopWithoutAFile) {
    EXPECT_NE(fails({"--select", "0.5:2", "--gain", "1"}).find("outside the file"), std::string::npos);
    EXPECT_NE(fails({"--fade-in"}).find("needs a selection"), std::string::npos);
    EXPECT_NE(fails({"--silence"}).find("needs a selection"), std::string::npos);

    testing::writeFile(file("broken.json"), "[{\"eq\": ");
    EXPECT_NE(fails({"--effects", file("broken.json")}).find("not valid JSON"), std::string::npos);
    testing::writeFile(file("unknown.json"), R"([{"flanger": {"_0": {}}}])");
    fails({"--effects", file("unknown.json")});
    testing::writeFile(file("notenvelope.json"), R"({"master": 3})");
    fails({"--envelope", file("notenvelope.json")});

    // A known effect either runs or, in a build without its processor, fails cleanly.
    nlohmann::json chain = nlohmann::json::array();
    chain.push_back(defaultSettings(EffectKind::delay));
    testing::writeFile(file("delay.json"), chain.dump());
    const CliResult delay = process({"--effects", file("delay.json"), file("in.wav"), file("delayed.wav")});
    EXPECT_EQ(std::filesystem::exists(file("delayed.wav")), delay.status == 0) << delay.err;
}

TEST_F(ProcessCommand, ConvertChangesTheRateForEveryLosslessFormat) {
    for (const std::string name : {"out.wav", "out.flac", "out.aiff", "out.caf"}) {
        const CliResult result = testing::cli({"convert", "--rate", "44100", file("in.wav"), file(name)});
        ASSERT_EQ(result.status, 0) << name << ": " << result.err;
        EXPECT_EQ(testing::referenceDecode(file(name), 2)[0].size(), 44100u) << name;
    }
}

TEST_F(ProcessCommand, BalanceChannelsLevelsTheirLoudness) {
    // Left 6 dB under right: the balance meets in the middle, +3 and -3 dB.
    testing::ffmpeg({"-f", "lavfi", "-i", "aevalsrc=0.1*sin(2*PI*1000*t)|0.2*sin(2*PI*1000*t):d=3:s=48000",
                     "-c:a", "pcm_f32le", file("uneven.wav")});
    const CliResult result =
        process({"--balance-channels", "--bits", "float", file("uneven.wav"), file("balanced.wav")});
    ASSERT_EQ(result.status, 0) << result.err;
    const Planes before = testing::referenceDecode(file("uneven.wav"), 2);
    const Planes after = testing::referenceDecode(file("balanced.wav"), 2);
    const auto loudness = measureChannels(ArraySource(after, 48000));
    ASSERT_EQ(loudness.size(), 2u);
    EXPECT_NEAR(loudness[0], loudness[1], 0.1);
    const size_t f = 12345;
    EXPECT_NEAR(20 * std::log10(after[0][f] / before[0][f]), 3.0, 0.05);
    EXPECT_NEAR(20 * std::log10(after[1][f] / before[1][f]), -3.0, 0.05);

    // Mono has nothing to balance.
    testing::ffmpeg({"-f", "lavfi", "-i", "sine=f=440:d=1", "-c:a", "pcm_f32le", file("mono.wav")});
    const CliResult mono = process({"--balance-channels", file("mono.wav"), file("never.wav")});
    EXPECT_EQ(mono.status, 1);
    EXPECT_NE(mono.err.find("--balance-channels needs 2 to 8 channels"), std::string::npos) << mono.err;
}

TEST_F(ProcessCommand, TimePitchSpellingsAgree) {
    const Planes pair = run({"--tempo", "125", "--pitch", "-100"});
    const Planes spelled = run({"--time-pitch", "1.25:-100"});
    ASSERT_EQ(pair[0].size(), 38400u);
    EXPECT_EQ(spelled, pair);
    const Planes converted = run({"--convert-channels", "1"}, 1);
    ASSERT_EQ(converted.size(), 1u);
    EXPECT_NEAR(converted[0][100], (input[0][100] + input[1][100]) / 2, 1e-6);
}

} // namespace
} // namespace harlune
