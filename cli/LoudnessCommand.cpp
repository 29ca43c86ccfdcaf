#include "CliSupport.h"
#include "Commands.h"
#include "OpenAudio.h"
#include "dsp/LoudnessAnalyzer.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace harlune::cli {

namespace {

// A level, or null where there is none (negative infinity).
nlohmann::ordered_json level(double value) {
    return std::isfinite(value) ? nlohmann::ordered_json(value) : nlohmann::ordered_json(nullptr);
}

template <class T> nlohmann::ordered_json levels(const std::vector<T>& values) {
    nlohmann::ordered_json array = nlohmann::ordered_json::array();
    for (const T v : values)
        array.push_back(level(static_cast<double>(v)));
    return array;
}

nlohmann::ordered_json toJSON(const LoudnessResult& r, bool curves) {
    nlohmann::ordered_json json = {
        {"integratedLUFS", level(r.integratedLUFS)},
        {"loudnessRangeLU", level(r.loudnessRangeLU)},
        {"truePeakDBTP", level(r.truePeakDBTP)},
        {"truePeakPerChannel", levels(r.truePeakPerChannel)},
        {"samplePeakDBFS", level(r.samplePeakDBFS)},
        {"samplePeakPerChannel", levels(r.samplePeakPerChannel)},
        {"maxMomentaryLUFS", level(r.maxMomentaryLUFS)},
        {"maxShortTermLUFS", level(r.maxShortTermLUFS)},
        {"rmsDBFS", level(r.rmsDBFS)},
        {"hopSeconds", r.hopSeconds},
    };
    if (curves) {
        json["momentary"] = levels(r.momentary);
        json["shortTerm"] = levels(r.shortTerm);
    }
    return json;
}

// "%.1f" and the unit, as the loudness panel shows a figure; a dash where there is none.
std::string figure(double value, const char* unit) {
    if (!std::isfinite(value))
        return std::string("\u2014 ") + unit;
    char text[64];
    std::snprintf(text, sizeof text, "%.1f %s", value, unit);
    return text;
}

void printText(const LoudnessResult& r, bool curves) {
    const auto row = [](const char* name, const std::string& value) {
        std::printf("%-16s %s\n", name, value.c_str());
    };
    row("Integrated", figure(r.integratedLUFS, "LUFS"));
    row("Short-term max", figure(r.maxShortTermLUFS, "LUFS"));
    row("Momentary max", figure(r.maxMomentaryLUFS, "LUFS"));
    row("Loudness range", figure(r.loudnessRangeLU, "LU"));
    row("True peak", figure(r.truePeakDBTP, "dBTP"));
    row("Sample peak", figure(r.samplePeakDBFS, "dBFS"));
    row("RMS", figure(r.rmsDBFS, "dBFS"));
    for (size_t c = 0; c < r.truePeakPerChannel.size() && r.truePeakPerChannel.size() > 1; ++c)
        std::printf("Channel %-8zu true peak %s, sample peak %s\n", c + 1,
                    figure(r.truePeakPerChannel[c], "dBTP").c_str(),
                    figure(r.samplePeakPerChannel[c], "dBFS").c_str());
    if (!curves)
        return;
    std::printf("\n%-10s %-12s %s\n", "Time", "Momentary", "Short-term");
    for (size_t i = 0; i < r.momentary.size(); ++i)
        std::printf("%-10.1f %-12s %s\n", static_cast<double>(i + 1) * r.hopSeconds,
                    figure(r.momentary[i], "LUFS").c_str(), figure(r.shortTerm[i], "LUFS").c_str());
}

int runLoudness(std::span<const std::string> arguments) {
    bool json = false, curves = false;
    std::optional<std::string> file;
    ArgumentReader reader(arguments);
    while (reader.next()) {
        if (!reader.isOption()) {
            if (file)
                throw UsageError{"expected one file"};
            file = reader.current();
        } else if (reader.current() == "--json") {
            json = true;
        } else if (reader.current() == "--curves") {
            curves = true;
        } else {
            throw reader.unknownOption();
        }
    }
    if (!file)
        throw UsageError{"expected a file"};

    // One bar over both halves of the work, shown only once it has taken a moment.
    ProgressBar bar(std::filesystem::path(*file).filename().string());
    const auto begin = std::chrono::steady_clock::now();
    double base = 0;
    const auto progress = [&](double fraction) {
        if (std::chrono::steady_clock::now() - begin > std::chrono::milliseconds(400))
            bar.update(base + fraction / 2);
        return true;
    };
    OpenedAudio audio = openAudio(*file, progress);
    refuseNonFiniteSamples(audio.content);
    base = 0.5;
    const LoudnessResult result =
        LoudnessAnalyzer::analyze(audio.content, std::nullopt, std::nullopt, progress);
    if (json)
        std::printf("%s\n", toJSON(result, curves).dump(2).c_str());
    else
        printText(result, curves);
    keepUntilExit(std::move(audio.content));
    return exitSuccess;
}

} // namespace

Command loudnessCommand() {
    return {"loudness", "measure loudness (EBU R 128), true peak and RMS",
            "harlune-cli loudness [--json] [--curves] FILE", runLoudness};
}

} // namespace harlune::cli
