#include "CliSupport.h"
#include "Commands.h"
#include "EncodeOptions.h"
#include "OpenAudio.h"
#include "core/LoudnessProcessing.h"
#include "dsp/LoudnessAnalyzer.h"
#include "dsp/LoudnessNormalization.h"
#include "io/AudioEncoder.h"
#include "io/EncodePlan.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <optional>
#include <string>

namespace harlune::cli {

namespace {

constexpr std::string_view usage =
    "harlune-cli normalize --target LUFS [--ceiling DBTP] [--no-limit] [--format F] "
    "[--bits 16|24|32|float] [--bitrate KBPS] [--rate HZ] [--dither none|tpdf] IN OUT";

// The editor applies with the same figures.
constexpr double tolerance = 0.1;
constexpr int maxPasses = 5;

struct NormalizeRequest {
    std::optional<double> target;
    double ceiling = -1;
    bool limit = true;
    EncodeOptions encode;
    std::string input;
    std::string output;
};

double parseLevel(const std::string& text, const std::string& option) {
    double value = 0;
    // from_chars takes no leading plus; "+3" is a fair way to write a level.
    const char* first = text.data() + (text.starts_with('+') && text.size() > 1 && text[1] != '-' ? 1 : 0);
    const auto [end, error] = std::from_chars(first, text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
        throw UsageError{option + " needs a number, not \u2018" + text + "\u2019"};
    return value;
}

NormalizeRequest parse(std::span<const std::string> arguments) {
    NormalizeRequest request;
    std::vector<std::string> positional;
    ArgumentReader reader(arguments);
    while (reader.next()) {
        const std::string& argument = reader.current();
        if (!reader.isOption())
            positional.push_back(argument);
        else if (argument == "--no-limit")
            request.limit = false;
        else if (argument == "--target")
            request.target = parseLevel(reader.value(), argument);
        else if (argument == "--ceiling")
            request.ceiling = parseLevel(reader.value(), argument);
        else if (!request.encode.parse(reader))
            throw reader.unknownOption();
    }
    if (!request.target)
        throw UsageError{"--target is required"};
    if (positional.size() != 2)
        throw UsageError{"expected an input and an output file"};
    request.input = positional[0];
    request.output = positional[1];
    request.encode.resolveFormat(request.output);
    return request;
}

std::string figure(double value, const char* unit) {
    if (!std::isfinite(value))
        return "-inf " + std::string(unit);
    char text[64];
    std::snprintf(text, sizeof text, "%.1f %s", value, unit);
    return text;
}

void reportStop(const LoudnessAdjustment& adjustment, double target) {
    switch (adjustment.stop) {
    case LoudnessAdjustStop::plainGain:
    case LoudnessAdjustStop::singlePass:
    case LoudnessAdjustStop::reachedTarget:
        break;
    case LoudnessAdjustStop::notMeasurable:
        std::printf("gave up: the limited audio measures as silence\n");
        break;
    case LoudnessAdjustStop::gainLimit:
        std::printf("gave up: %.1f LUFS would take more than 12 dB over the planned gain; kept pass %d\n",
                    target, adjustment.passes);
        break;
    case LoudnessAdjustStop::maxPasses:
        std::printf("gave up: %.1f LUFS not reached within %d passes; kept the last\n", target,
                    adjustment.passes);
        break;
    }
}

int runNormalize(std::span<const std::string> arguments) {
    const NormalizeRequest request = parse(arguments);

    OpenedAudio opened = openAudioShowingProgress(request.input);
    refuseNonFiniteSamples(opened.content);
    const LoudnessResult measured = [&] {
        ProgressBar bar("measuring ");
        auto update = [&](double fraction) {
            return bar.update(fraction);
        };
        return LoudnessAnalyzer::analyze(opened.content, std::nullopt, std::nullopt,
                                         FunctionRef<bool(double)>(update));
    }();
    const auto plan = LoudnessNormalization::plan(measured, *request.target, request.ceiling);
    std::printf("measured: %s, true peak %s\n", figure(measured.integratedLUFS, "LUFS").c_str(),
                figure(measured.truePeakDBTP, "dBTP").c_str());
    std::printf("gain: %+.2f dB\n", plan.gainDB);
    std::printf("predicted: %s, true peak %s%s\n", figure(plan.predictedIntegratedLUFS, "LUFS").c_str(),
                figure(plan.predictedTruePeakDBTP, "dBTP").c_str(),
                plan.needsLimiting ? (request.limit ? " (over the ceiling: limiting)" : " (over the ceiling)")
                                   : "");
    std::fflush(stdout);

    const LoudnessAdjustment adjustment = [&] {
        ProgressBar bar("adjusting ");
        auto update = [&](double fraction) {
            return bar.update(fraction);
        };
        return adjustLoudness(opened.content, std::nullopt, plan, *request.target, request.ceiling,
                              request.limit, tolerance, maxPasses, FunctionRef<bool(double)>(update));
    }();
    const LoudnessResult reached = LoudnessAnalyzer::analyze(adjustment.content);
    if (adjustment.passes > 0)
        std::printf("limiter passes: %d, final gain %+.2f dB\n", adjustment.passes, adjustment.gainDB);
    std::printf("reached: %s, true peak %s\n", figure(reached.integratedLUFS, "LUFS").c_str(),
                figure(reached.truePeakDBTP, "dBTP").c_str());
    reportStop(adjustment, *request.target);

    writeAudio(adjustment.content, request.output, request.encode);
    keepUntilExit(std::move(opened.content));
    keepUntilExit(std::move(adjustment.content));
    return exitSuccess;
}

} // namespace

Command normalizeCommand() {
    return {"normalize", "bring a file to a loudness target under a true-peak ceiling", usage, runNormalize};
}

} // namespace harlune::cli
