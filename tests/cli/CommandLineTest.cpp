// What every harlune-cli command owes its user whatever it is given: hostile files, wrong command
// lines, a request for help, a file name that begins with a dash.
#include "base/AudioSource.h"
#include "cli/CliTestSupport.h"
#include "io/AudioEncoder.h"
#include "io/IoTestSupport.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <nlohmann/json.hpp>
#include <random>

namespace harlune {
namespace {

using testing::cli;
using testing::CliResult;

const std::string readFailure = "Couldn\u2019t read the audio: ";
const std::string cannotOpen = "the built-in decoder can\u2019t open the file (";

// Every decoding command on a file, as a user would type it; writing ones write into `out`.
std::vector<std::vector<std::string>> decodingCommands(const std::string& file, const std::string& out) {
    return {{"info", file},
            {"info", "--decode", file},
            {"loudness", file},
            {"normalize", "--target", "-16", file, out},
            {"process", "--gain", "-1", file, out},
            {"convert", file, out}};
}

bool measures(const std::vector<std::string>& command) {
    return command[0] == "loudness" || command[0] == "normalize" || command[0] == "process";
}

class CommandLine : public testing::SharedFolderTest<CommandLine> {
protected:
    static void SetUpTestSuite() {
        makeFolder();
        // Each also cut off after a few kilobytes, as an interrupted copy leaves it.
        for (const std::string name : {"tone.wav", "tone.flac", "tone.mp3", "tone.m4a"}) {
            auto arguments = testing::stereoSource(2.0);
            arguments.push_back(file(name));
            testing::ffmpeg(arguments);
            std::filesystem::copy_file(file(name), file("cut-" + name));
            std::filesystem::resize_file(file("cut-" + name), 6000);
        }
        std::mt19937 random(11);
        std::string noise(20000, '\0');
        std::generate(noise.begin(), noise.end(), [&] { return static_cast<char>(random()); });
        testing::writeFile(file("noise.wav"), noise);
        testing::writeFile(file("empty.wav"), "");
        testing::writeFile(file("notes.txt"), "Shopping: bread, milk.\n");
        std::filesystem::create_directory(file("folder.wav"));
        std::filesystem::copy_file(file("tone.flac"), file("-take1.flac"));

        // A float WAV keeps what no integer file can hold: a NaN and an infinity.
        std::vector<float> samples(48000, 0.25f);
        samples[1000] = std::numeric_limits<float>::quiet_NaN();
        samples[2000] = std::numeric_limits<float>::infinity();
        EncodeSettings settings = EncodeSettings::defaults(ExportFormat::wav);
        settings.bitDepth = PCMBitDepth::float32;
        AudioEncoder::write(ArraySource({samples}, 48000), std::nullopt, file("nan.wav"), settings);
    }
};

TEST_F(CommandLine, hostileFilesGetTheirMessageAndNothingElse) {
    enum class Outcome { reads, refused, notFinite };
    struct Case {
        const char* name;
        Outcome outcome;
        std::string decodeText; ///< the error's text after "Couldn’t read the audio: "
        std::string probeText;  ///< the same from info without --decode, which only probes
    };
    const std::string missing = "the file doesn\u2019t exist or can\u2019t be read";
    const std::string invalid = "invalid data found when processing input";
    const std::vector<Case> cases = {
        {"absent.wav", Outcome::refused, missing, missing},
        {"empty.wav", Outcome::refused, cannotOpen + "the file is empty); " + invalid, invalid},
        {"noise.wav", Outcome::refused, cannotOpen + "not a known audio format); " + invalid, invalid},
        {"notes.txt", Outcome::refused, cannotOpen + "not a known audio format); " + invalid, invalid},
        {"folder.wav", Outcome::refused, cannotOpen + "it is a folder); is a directory", "is a directory"},
        {"cut-tone.flac", Outcome::refused, cannotOpen + "unknown error in flac decoder); end of file",
         "end of file"},
        {"cut-tone.m4a", Outcome::refused,
         cannotOpen + "not a known audio format); moov atom not found; " + invalid,
         "moov atom not found; " + invalid},
        // What is there of a cut WAV or MP3 reads, and the MP3 decoder's notices stay quiet.
        {"cut-tone.wav", Outcome::reads, "", ""},
        {"cut-tone.mp3", Outcome::reads, "", ""},
        {"nan.wav", Outcome::notFinite, "", ""},
    };
    const std::string out = file("out.wav");
    for (const Case& c : cases) {
        auto commands = decodingCommands(file(c.name), out);
        if (c.outcome == Outcome::refused)
            commands.push_back({"play", file(c.name)}); // fails before any device is opened
        for (const auto& command : commands) {
            SCOPED_TRACE(c.name + std::string(" ") + command[0] + " " + command[1]);
            std::filesystem::remove(out);
            const CliResult result = cli(command);
            const bool fails =
                c.outcome == Outcome::refused || (c.outcome == Outcome::notFinite && measures(command));
            EXPECT_EQ(result.status, fails ? 1 : 0) << result.err;
            EXPECT_EQ(std::filesystem::exists(out), !fails && command.back() == out);
            if (!fails) {
                EXPECT_EQ(result.err, "");
                continue;
            }
            EXPECT_EQ(result.err.find('\n'), std::string::npos) << result.err;
            for (const char* leak : {"sndfile", "mpg123", "@ 0x", "file:", "Warning"})
                EXPECT_EQ(result.err.find(leak), std::string::npos) << result.err;
            if (c.outcome == Outcome::notFinite) {
                EXPECT_EQ(result.err, "harlune-cli: the audio holds 2 samples that are not finite numbers "
                                      "(NaN or infinity), so it can\u2019t be measured or processed");
                continue;
            }
            // info names the file, as it may have been given several.
            const std::string prefix = "harlune-cli: " + (command[0] == "info" ? file(c.name) + ": " : "");
            const bool probes = command == std::vector<std::string>{"info", file(c.name)};
            EXPECT_EQ(result.err, prefix + readFailure + (probes ? c.probeText : c.decodeText));
        }
    }
}

TEST_F(CommandLine, tempoNamesTheTempoOrSaysThereIsNone) {
    // Clicks at 120 BPM from 0.25 s, loud on each bar's first beat.
    std::vector<float> clicks(48000 * 12, 0.0f);
    for (int k = 0; 12000 + k * 24000 + 400 < static_cast<int>(clicks.size()); ++k)
        for (int i = 0; i < 400; ++i)
            clicks[static_cast<size_t>(12000 + k * 24000 + i)] =
                (k % 4 == 0 ? 0.8f : 0.3f) * static_cast<float>(std::sin(i * 0.2) * std::exp(-i / 80.0));
    // Float, so that no dither turns the silence into noise.
    EncodeSettings settings = EncodeSettings::defaults(ExportFormat::wav);
    settings.bitDepth = PCMBitDepth::float32;
    AudioEncoder::write(ArraySource({clicks}, 48000), std::nullopt, file("clicks.wav"), settings);
    AudioEncoder::write(ArraySource({std::vector<float>(48000 * 10, 0.0f)}, 48000), std::nullopt,
                        file("silence.wav"), settings);
    AudioEncoder::write(ArraySource({std::vector<float>(24000, 0.3f)}, 48000), std::nullopt,
                        file("short.wav"), settings);

    const CliResult found = cli({"tempo", "--json", file("clicks.wav")});
    ASSERT_EQ(found.status, 0) << found.err;
    const auto json = nlohmann::json::parse(found.out);
    EXPECT_NEAR(json["bpm"].get<double>(), 120, 0.5);
    EXPECT_NEAR(json["downbeatSeconds"].get<double>(), 0.25, 0.04);
    EXPECT_GT(json["confidence"].get<double>(), 0);
    EXPECT_TRUE(cli({"tempo", file("clicks.wav")}).out.starts_with("Tempo        1"));

    for (const char* name : {"silence.wav", "short.wav"}) {
        const CliResult none = cli({"tempo", file(name)});
        EXPECT_EQ(none.status, 1);
        EXPECT_EQ(none.err, "harlune-cli: no tempo found in \u2018" + file(name) + "\u2019");
    }
    const CliResult corrupt = cli({"tempo", file("noise.wav")});
    EXPECT_EQ(corrupt.status, 1);
    EXPECT_NE(corrupt.err.find(readFailure), std::string::npos) << corrupt.err;
    EXPECT_EQ(cli({"tempo", file("nan.wav")}).status, 1);
    EXPECT_EQ(cli({"tempo", "--beats-per-bar", "0", file("clicks.wav")}).status, 2);
}

TEST_F(CommandLine, aDashedFileNameIsAnUnknownOptionUntilTheOptionsEnd) {
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(folder->path());
    for (const auto& command : decodingCommands("-take1.flac", "out.wav")) {
        SCOPED_TRACE(command[0] + " " + command[1]);
        const CliResult refused = cli(command);
        EXPECT_EQ(refused.status, 2);
        EXPECT_TRUE(refused.err.starts_with(
            "harlune-cli: unknown option -take1.flac; to open a file of that name, write -- -take1.flac\n"
            "usage: harlune-cli " +
            command[0]))
            << refused.err;
        auto ended = command;
        ended.insert(std::find(ended.begin(), ended.end(), std::string("-take1.flac")), "--");
        const CliResult opened = cli(ended);
        EXPECT_EQ(opened.status, 0) << opened.err;
    }
    std::filesystem::current_path(previous);
    // An unknown option that names no file gets no such advice.
    EXPECT_EQ(cli({"info", "--loud", file("tone.wav")}).err.find("write --"), std::string::npos);
}

TEST_F(CommandLine, everyCommandAnswersHelpOnStandardOutput) {
    for (const char* name :
         {"info", "loudness", "normalize", "process", "convert", "play", "tempo", "effects"})
        for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
                 {name, "--help"}, {name, "-h"}, {name, "--gain", "--help"}, {"help", name}}) {
            SCOPED_TRACE(arguments[0] + " " + arguments[1]);
            const CliResult result = cli(arguments);
            EXPECT_EQ(result.status, 0);
            EXPECT_TRUE(result.out.starts_with("usage: harlune-cli " + std::string(name))) << result.out;
            EXPECT_EQ(result.err, "");
        }
    const CliResult overview = cli({"--help"});
    EXPECT_EQ(overview.status, 0);
    EXPECT_NE(overview.out.find("  normalize  "), std::string::npos) << overview.out;
    const CliResult nothing = cli({});
    EXPECT_EQ(nothing.status, 2);
    EXPECT_NE(nothing.err.find("usage: harlune-cli COMMAND"), std::string::npos);
}

TEST_F(CommandLine, wrongCommandLinesExitTwoWithTheReasonAndTheUsage) {
    const std::string tone = file("tone.wav"), out = file("never.wav");
    struct Case {
        std::vector<std::string> arguments;
        std::string reason;
    };
    const std::vector<Case> cases = {
        {{"info"}, "no file given"},
        {{"info", "--loud", tone}, "unknown option --loud"},
        {{"loudness"}, "expected a file"},
        {{"loudness", tone, tone}, "expected one file"},
        {{"play"}, "no file given"},
        {{"play", tone, "--start", "abc"}, "--start needs a number of seconds"},
        {{"play", tone, "--start", "-1"}, "--start needs a number of seconds"},
        {{"play", tone, "--start", "2.5"}, "--start lies at or past the end"}, // the file lasts 2 s
        {{"play", tone, "--bounce"}, "unknown option --bounce"},
        {{"play", tone, tone}, "one file at a time"},
        {{"convert", tone, file("out.xyz")}, "use --format"},
        {{"convert", "--bits", "20", tone, out}, "--bits takes 16, 24, 32 or float"},
        {{"convert", "--bitrate", "-5", tone, out}, "--bitrate needs a positive number"},
        {{"convert", tone}, "expected an input and an output file"},
        {{"normalize", tone, out}, "--target is required"},
        {{"normalize", "--target", "loud", tone, out}, "--target needs a number"},
        {{"normalize", "--target", "-16", "--ceiling", "nan", tone, out}, "--ceiling needs a number"},
        {{"normalize", "--target", "-16", "--loud", "1", tone, out}, "unknown option --loud"},
        {{"normalize", "--target"}, "--target needs a value"},
        {{"process", "--louder", tone, out}, "unknown option --louder"},
        {{"process", "--fade-shape", "wobbly", "--fade-in", tone, out}, "unknown fade shape"},
        {{"process", "--stretch-engine", "R4", "--tempo", "90", tone, out}, "unknown stretch engine"},
        {{"process", "--select", "0.5", tone, out}, "--select takes START:END"},
        {{"process", "--independent", tone, out}, "--independent belongs right after --normalize-peak"},
        {{"process", "--gain"}, "--gain needs a value"},
        {{"tempo"}, "expected a file"},
        {{"process", "--time-pitch", "1.25", tone, out}, "--time-pitch takes RATE:CENTS"},
        {{"process", "--time-pitch", "0:100", tone, out}, "--time-pitch needs a rate above 0"},
        {{"tempo", "--beats-per-bar", "99", tone}, "--beats-per-bar is at most 32"},
        {{"process", "--effect", "echo", tone, out}, "--effect: unknown effect \u2018echo\u2019"},
        {{"process", "--effect", "delay={", tone, out}, "--effect delay: not valid JSON"},
        {{"process", "--effect", "delay=[1]", tone, out}, "delay settings must be an object"},
        {{"process", "--effect", R"(delay={"feedbak": 0.5})", tone, out},
         "unknown key \u201cfeedbak\u201d for delay"},
        {{"process", "--effect", R"(delay={"mix": "half"})", tone, out}, "mix must be a number, not string"},
        {{"process", "--effect", R"(delay={"pingPong": 1})", tone, out}, "pingPong must be true or false"},
        {{"process", "--effect", R"(delay={"feedback": 3})", tone, out}, "feedback 3 lies outside 0 to 0.95"},
        {{"process", "--effect", R"(chorus={"voices": 2.5})", tone, out}, "voices must be a whole number"},
        {{"process", "--effect", R"(chorus={"mode": "vibrato"})", tone, out},
         "mode must be one of chorus, flanger"},
        {{"process", "--effect", R"(eq={"bands": [{"q": 0}]})", tone, out}, "bands[0].q 0 lies outside"},
        {{"process", "--effect", "gate@/nonexistent/gate.json", tone, out}, "--effect gate: can\u2019t read"},
        {{"process", "--effect", "lv2:", tone, out}, "needs the plug-in\u2019s URI"},
        {{"process", "--effect", "lv2:urn:nothing", tone, out}, "no LV2 plug-in \u2018urn:nothing\u2019"},
        {{"process", "--effect"}, "--effect needs a value"},
        {{"process", "--tail", "wrap", "--effect", "eq", tone, out}, "--tail takes keep, cut or mix"},
        {{"effects", "--bogus"}, "unknown option --bogus"},
        {{"play", tone, "--watch"}, "--watch watches the file of --effects, and there is none"},
        {{"play", tone, "--effects"}, "--effects needs a value"},
        {{"effects", tone}, "effects takes no file"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.arguments[0] + " " + c.reason);
        const CliResult result = cli(c.arguments);
        EXPECT_EQ(result.status, 2);
        EXPECT_TRUE(result.err.starts_with("harlune-cli: ")) << result.err;
        EXPECT_NE(result.err.find(c.reason), std::string::npos) << result.err;
        EXPECT_NE(result.err.find("\nusage: harlune-cli " + c.arguments[0]), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_FALSE(std::filesystem::exists(out));
    }
}

} // namespace
} // namespace harlune
