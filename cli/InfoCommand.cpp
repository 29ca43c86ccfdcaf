#include "CliSupport.h"
#include "Commands.h"
#include "OpenAudio.h"
#include "base/Decibels.h"
#include "base/HarluneError.h"
#include "core/DemoSound.h"
#include "io/AudioDecoder.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace harlune::cli {

namespace {

using nlohmann::json;

constexpr std::string_view usage = "harlune-cli info [--json] [--decode] FILE...\n"
                                   "       harlune-cli info --demo";

int runDemo() {
    const AudioContent demo = makeDemoSound();
    std::printf("demo sound\n");
    std::printf("  sample rate: %.0f Hz\n", demo.sampleRate());
    std::printf("  channels:    %d\n", demo.channelCount());
    std::printf("  frames:      %lld\n", static_cast<long long>(demo.frameCount()));
    std::printf("  duration:    %.3f s\n", demo.duration());
    std::printf("  blocks:      %lld\n", static_cast<long long>(demo.segmentCount()));
    for (int c = 0; c < demo.channelCount(); ++c) {
        const PeakSummary peaks = demo.peaks(c, demo.fullRange());
        const double peak = std::max(std::abs(peaks.min), std::abs(peaks.max));
        std::printf("  channel %d:   peak %.1f dBFS, RMS %.1f dBFS\n", c + 1, Decibels::fromLinear(peak),
                    Decibels::fromLinear(peaks.rms()));
    }
    return exitSuccess;
}

struct Options {
    bool json = false;
    bool decode = false;
    std::vector<std::string> files;
};

Options parse(std::span<const std::string> arguments) {
    Options options;
    ArgumentReader reader(arguments);
    while (reader.next()) {
        if (!reader.isOption())
            options.files.push_back(reader.current());
        else if (reader.current() == "--json")
            options.json = true;
        else if (reader.current() == "--decode")
            options.decode = true;
        else
            throw reader.unknownOption();
    }
    if (options.files.empty())
        throw UsageError{"no file given"};
    return options;
}

// Unlike `Decibels::fromLinear`, silence stays negative infinity here: the report tells "no
// signal" apart from a very quiet one.
double levelDB(double linear) {
    return linear > 0 ? 20.0 * std::log10(linear) : -INFINITY;
}

json levelJSON(double dB) {
    return std::isfinite(dB) ? json(dB) : json(nullptr);
}

std::string levelText(double dB) {
    if (!std::isfinite(dB))
        return "-inf";
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", dB);
    return text;
}

std::string fileURL(const std::filesystem::path& path) {
    std::error_code error;
    const std::string absolute = std::filesystem::absolute(path, error).string();
    std::string url = "file://";
    static constexpr char hex[] = "0123456789ABCDEF";
    for (const char ch : absolute) {
        const auto c = static_cast<unsigned char>(ch);
        if (std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~')
            url += static_cast<char>(c);
        else {
            url += '%';
            url += hex[c >> 4];
            url += hex[c & 15];
        }
    }
    return url;
}

struct Report {
    std::string path;
    AudioFileInfo info;
    std::optional<int64_t> decodedFrames;
    std::vector<double> peakDBFS;
    std::vector<double> rmsDBFS;
};

template <class T> json optionalJSON(const std::optional<T>& value) {
    return value ? json(*value) : json(nullptr);
}

json toJSON(const Report& report) {
    const AudioFileInfo& info = report.info;
    json object = {
        {"path", report.path},
        {"url", info.url ? json(fileURL(*info.url)) : json(nullptr)},
        {"containerName", info.containerName},
        {"codecName", info.codecName},
        {"sampleRate", info.sampleRate},
        {"channelCount", info.channelCount},
        {"bitDepth", optionalJSON(info.bitDepth)},
        {"isFloat", info.isFloat},
        {"bitRateKbps", optionalJSON(info.bitRateKbps)},
        {"frameCount", info.frameCount},
        {"duration", info.duration()},
        {"fileSize", optionalJSON(info.fileSize)},
        {"isLossy", info.isLossy},
        {"nativeExportFormat",
         info.nativeExportFormat ? json(std::string(rawValue(*info.nativeExportFormat))) : json(nullptr)},
        {"decoderName", info.decoderName},
    };
    if (report.decodedFrames) {
        object["decodedFrames"] = *report.decodedFrames;
        json peaks = json::array();
        json rms = json::array();
        for (const double dB : report.peakDBFS)
            peaks.push_back(levelJSON(dB));
        for (const double dB : report.rmsDBFS)
            rms.push_back(levelJSON(dB));
        object["peakDBFS"] = std::move(peaks);
        object["rmsDBFS"] = std::move(rms);
    }
    return object;
}

void printText(const Report& report) {
    const AudioFileInfo& info = report.info;
    const auto line = [](const char* label, const std::string& value) {
        std::printf("  %-16s%s\n", label, value.c_str());
    };
    const auto orDash = [](const auto& value, const char* unit) {
        return value ? std::to_string(*value) + unit : std::string("-");
    };
    char buffer[64];
    std::printf("%s\n", report.path.c_str());
    line("container:", info.containerName);
    line("codec:", info.codecName);
    std::snprintf(buffer, sizeof buffer, "%g Hz", info.sampleRate);
    line("sample rate:", buffer);
    line("channels:", std::to_string(info.channelCount));
    line("bit depth:", orDash(info.bitDepth, info.isFloat ? " (float)" : ""));
    line("bit rate:", orDash(info.bitRateKbps, " kbit/s"));
    line("frames:", std::to_string(info.frameCount));
    std::snprintf(buffer, sizeof buffer, "%.3f s", info.duration());
    line("duration:", buffer);
    line("file size:", orDash(info.fileSize, " bytes"));
    line("lossy:", info.isLossy ? "yes" : "no");
    line("native format:", info.nativeExportFormat ? std::string(rawValue(*info.nativeExportFormat)) : "-");
    line("decoder:", info.decoderName);
    if (report.decodedFrames) {
        line("decoded frames:", std::to_string(*report.decodedFrames));
        for (size_t c = 0; c < report.peakDBFS.size(); ++c) {
            const std::string label = "channel " + std::to_string(c + 1) + ":";
            line(label.c_str(), "peak " + levelText(report.peakDBFS[c]) + " dBFS, RMS " +
                                    levelText(report.rmsDBFS[c]) + " dBFS");
        }
    }
}

Report describe(const std::string& path, bool decode) {
    Report report{path, {}, std::nullopt, {}, {}};
    if (!decode) {
        report.info = AudioDecoder::probe(path);
        return report;
    }
    // The bar appears only once a decode has taken a moment, so quick files print cleanly.
    ProgressBar bar(std::filesystem::path(path).filename().string());
    const auto begin = std::chrono::steady_clock::now();
    const auto progress = [&](double fraction) {
        if (std::chrono::steady_clock::now() - begin > std::chrono::milliseconds(400))
            bar.update(fraction);
        return true;
    };
    releaseKeptContents(); // no more than one decoded file is ever held
    OpenedAudio opened = openAudio(path, progress);
    report.info = opened.announced;
    report.decodedFrames = opened.content.frameCount();
    for (int c = 0; c < opened.content.channelCount(); ++c) {
        const PeakSummary peaks = opened.content.peaks(c, opened.content.fullRange());
        const double peak = peaks.isEmpty() ? 0.0 : std::max(std::abs(peaks.min), std::abs(peaks.max));
        report.peakDBFS.push_back(levelDB(peak));
        report.rmsDBFS.push_back(levelDB(peaks.rms()));
    }
    keepUntilExit(std::move(opened.content));
    return report;
}

int runInfo(std::span<const std::string> arguments) {
    if (arguments.size() == 1 && arguments[0] == "--demo")
        return runDemo();
    const Options options = parse(arguments);
    json reports = json::array();
    int result = exitSuccess;
    for (const auto& file : options.files) {
        try {
            const Report report = describe(file, options.decode);
            if (options.json)
                reports.push_back(toJSON(report));
            else
                printText(report);
        } catch (const HarluneError& error) {
            // One unreadable file does not hide the others; the exit status tells that one failed.
            std::fflush(stdout);
            printError(file + ": " + error.what());
            result = exitFailure;
        }
    }
    if (options.json && !reports.empty()) {
        const json& output = options.files.size() == 1 ? reports.front() : reports;
        std::printf("%s\n", output.dump(2, ' ', false, json::error_handler_t::replace).c_str());
    }
    return result;
}

} // namespace

Command infoCommand() {
    return {"info", "describe audio files", usage, runInfo};
}

} // namespace harlune::cli
