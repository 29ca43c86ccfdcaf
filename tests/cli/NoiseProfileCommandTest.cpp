// harlune-cli noise-profile and process --learn-noise / --noise-profile, run as a user runs
// them, on white noise made by ffmpeg and read back by it.
#include "cli/CliTestSupport.h"

#include <cmath>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace harlune {
namespace {

using Planes = std::vector<std::vector<float>>;

double meanSquare(const std::vector<float>& x, size_t from, size_t to) {
    double sum = 0;
    for (size_t i = from; i < to; ++i)
        sum += double{x[i]} * x[i];
    return sum / static_cast<double>(to - from);
}

class NoiseProfileCommand : public testing::SharedFolderTest<NoiseProfileCommand> {
protected:
    static void SetUpTestSuite() {
        makeFolder();
        // Three seconds of white noise at 48 kHz, as float, so that it reads back exactly.
        testing::ffmpeg({"-f", "lavfi", "-i", "anoisesrc=a=0.05:c=white:r=48000:d=3:seed=7", "-c:a",
                         "pcm_f32le", file("noise.wav")});
        testing::writeFile(file("reduce.json"),
                           R"([{"noiseReduction":{"_0":{"reductionDB":12,"sensitivityDB":0,"smoothing":0.5,)"
                           R"("outputNoiseOnly":false}}}])");
    }

    static testing::CliResult run(std::vector<std::string> arguments) {
        return testing::cli(std::move(arguments));
    }

    static std::string failure(std::vector<std::string> arguments) {
        const testing::CliResult result = run(std::move(arguments));
        EXPECT_EQ(result.status, 1) << result.err;
        return result.err;
    }
};

TEST_F(NoiseProfileCommand, WritesTheProfileOfTheSelectedNoise) {
    ASSERT_EQ(run({"noise-profile", file("noise.wav"), "--select", "0:2", "-o", file("profile.json")}).status,
              0);
    const auto profile = nlohmann::json::parse(testing::readFile(file("profile.json")));
    EXPECT_EQ(profile["fftSize"], 2048);
    EXPECT_EQ(profile["sampleRate"], 48000.0);
    const auto bins = profile["binPower"].get<std::vector<double>>();
    ASSERT_EQ(bins.size(), 1025u);
    double mean = 0;
    for (const double p : bins)
        mean += p / 1025;
    const Planes noise = testing::referenceDecode(file("noise.wav"), 1);
    EXPECT_NEAR(mean, meanSquare(noise[0], 0, 96000), 0.01 * meanSquare(noise[0], 0, 96000));
}

TEST_F(NoiseProfileCommand, ProcessLearnsTheNoiseAndCutsIt) {
    ASSERT_EQ(run({"process", "--learn-noise", "0:2", "--effects", file("reduce.json"), "--bits", "float",
                   file("noise.wav"), file("learnt.wav")})
                  .status,
              0);
    const Planes input = testing::referenceDecode(file("noise.wav"), 1);
    const Planes output = testing::referenceDecode(file("learnt.wav"), 1);
    ASSERT_EQ(output[0].size(), input[0].size());
    const double change =
        10 * std::log10(meanSquare(output[0], 24000, 144000) / meanSquare(input[0], 24000, 144000));
    EXPECT_NEAR(change, -12, 0.5);

    // A profile written by noise-profile gives the same result.
    ASSERT_EQ(run({"noise-profile", file("noise.wav"), "--select", "0:2", "-o", file("same.json")}).status,
              0);
    ASSERT_EQ(run({"process", "--noise-profile", file("same.json"), "--effects", file("reduce.json"),
                   "--bits", "float", file("noise.wav"), file("read.wav")})
                  .status,
              0);
    EXPECT_EQ(testing::readBytes(file("read.wav")), testing::readBytes(file("learnt.wav")));

    // The profile can also stand as the effect's settings file: the default reduction, 18 dB.
    ASSERT_EQ(run({"process", "--effect", "noiseReduction=@" + file("same.json"), "--bits", "float",
                   file("noise.wav"), file("effect.wav")})
                  .status,
              0);
    const Planes viaEffect = testing::referenceDecode(file("effect.wav"), 1);
    EXPECT_NEAR(10 *
                    std::log10(meanSquare(viaEffect[0], 24000, 144000) / meanSquare(input[0], 24000, 144000)),
                -18, 0.5);
}

TEST_F(NoiseProfileCommand, BadProfilesAndSpansAreNamed) {
    ASSERT_EQ(run({"noise-profile", file("noise.wav"), "--select", "0:1", "-o", file("good.json")}).status,
              0);
    const std::string good = testing::readFile(file("good.json"));
    testing::writeFile(file("cut.json"), good.substr(0, good.size() / 2));
    auto wrongRate = nlohmann::json::parse(good);
    wrongRate["sampleRate"] = 44100;
    testing::writeFile(file("rate.json"), wrongRate.dump());
    auto fewer = nlohmann::json::parse(good);
    fewer["binPower"].erase(fewer["binPower"].begin() + 10, fewer["binPower"].end());
    testing::writeFile(file("fewer.json"), fewer.dump());

    const auto withProfile = [&](const std::string& name) {
        return failure({"process", "--noise-profile", file(name), "--effects", file("reduce.json"),
                        file("noise.wav"), file("bad.wav")});
    };
    EXPECT_NE(withProfile("cut.json").find("is not complete JSON"), std::string::npos);
    EXPECT_NE(withProfile("reduce.json").find("is not a noise profile"), std::string::npos);
    EXPECT_NE(withProfile("rate.json").find("learnt at 44100 Hz, but the audio is at 48000 Hz"),
              std::string::npos);
    EXPECT_NE(withProfile("fewer.json").find("has 10 bin values where an FFT size of 2048 needs 1025"),
              std::string::npos);
    EXPECT_NE(failure({"noise-profile", file("noise.wav"), "--select", "2:4", "-o", file("bad.json")})
                  .find("lies outside the audio"),
              std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(file("bad.wav")));
    EXPECT_FALSE(std::filesystem::exists(file("bad.json")));
}

} // namespace
} // namespace harlune
