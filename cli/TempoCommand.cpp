#include "CliSupport.h"
#include "Commands.h"
#include "EncodeOptions.h"
#include "OpenAudio.h"
#include "dsp/TempoDetector.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace harlune::cli {

namespace {

// As much as the editor analyses: the middle two minutes.
constexpr double analysedSeconds = 120;
constexpr int maxBeatsPerBar = 32;

int runTempo(std::span<const std::string> arguments) {
    bool json = false;
    int beatsPerBar = 4;
    std::optional<std::string> file;
    ArgumentReader reader(arguments);
    while (reader.next()) {
        if (!reader.isOption()) {
            if (file)
                throw UsageError{"expected one file"};
            file = reader.current();
        } else if (reader.current() == "--json") {
            json = true;
        } else if (reader.current() == "--beats-per-bar") {
            beatsPerBar = parsePositiveInteger(reader.value(), "--beats-per-bar");
            if (beatsPerBar > maxBeatsPerBar)
                throw UsageError{"--beats-per-bar is at most " + std::to_string(maxBeatsPerBar)};
        } else {
            throw reader.unknownOption();
        }
    }
    if (!file)
        throw UsageError{"expected a file"};

    OpenedAudio audio = openAudio(*file, {});
    refuseNonFiniteSamples(audio.content);
    const double rate = audio.content.sampleRate();
    const std::optional<TempoEstimate> estimate =
        TempoDetector::detect(audio.content, std::nullopt, beatsPerBar, analysedSeconds);
    keepUntilExit(std::move(audio.content));
    if (!estimate || !(estimate->confidence > 0)) {
        std::fprintf(stderr, "harlune-cli: no tempo found in \u2018%s\u2019\n", file->c_str());
        return exitFailure;
    }
    const double downbeatSeconds = static_cast<double>(estimate->downbeatFrame) / rate;
    if (json) {
        const nlohmann::ordered_json out = {
            {"bpm", estimate->bpm},
            {"downbeatSeconds", downbeatSeconds},
            {"downbeatFrame", estimate->downbeatFrame},
            {"firstBeatFrame", estimate->firstBeatFrame},
            {"beatsPerBar", beatsPerBar},
            {"confidence", estimate->confidence},
        };
        std::printf("%s\n", out.dump(2).c_str());
    } else {
        std::printf("%-12s %.2f BPM\n", "Tempo", estimate->bpm);
        std::printf("%-12s %.3f s (frame %lld)\n", "Downbeat", downbeatSeconds,
                    static_cast<long long>(estimate->downbeatFrame));
        std::printf("%-12s %.2f\n", "Confidence", estimate->confidence);
    }
    return exitSuccess;
}

} // namespace

Command tempoCommand() {
    return {"tempo", "find the tempo, the downbeat and how sure that is",
            "harlune-cli tempo [--beats-per-bar N] [--json] FILE", runTempo};
}

} // namespace harlune::cli
