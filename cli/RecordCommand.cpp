#include "CliSupport.h"
#include "Commands.h"
#include "EncodeOptions.h"
#include "engine/MainThreadQueue.h"
#include "engine/Recorder.h"
#include "engine/SafetyFile.h"
#include "engine/devices/DefaultInputDevice.h"

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <optional>
#include <string>
#include <unistd.h>

namespace harlune::cli {

namespace {

constexpr std::string_view usage =
    "harlune-cli record [--device UID] [--input N|N-M|all] [--rate HZ] [--duration S] [--list] "
    "[--format F] [--bits 16|24|32|float] [--bitrate KBPS] [--dither none|tpdf] OUT";

volatile std::sig_atomic_t interrupted = 0;
void onInterrupt(int) {
    interrupted = 1;
}

struct Options {
    EncodeOptions encode;
    std::optional<std::string> output;
    std::optional<std::string> device;
    std::optional<std::string> input;
    std::optional<double> duration;
    bool list = false;
};

Options parse(std::span<const std::string> arguments) {
    Options options;
    ArgumentReader reader(arguments);
    while (reader.next()) {
        const std::string& argument = reader.current();
        if (!reader.isOption()) {
            if (options.output)
                throw UsageError{"one output file"};
            options.output = argument;
        } else if (argument == "--list") {
            options.list = true;
        } else if (argument == "--device") {
            options.device = reader.value();
        } else if (argument == "--input") {
            options.input = reader.value();
        } else if (argument == "--duration" || argument == "--seconds") {
            const std::string& text = reader.value();
            size_t used = 0;
            double seconds = 0;
            try {
                seconds = std::stod(text, &used);
            } catch (const std::exception&) {
                used = 0;
            }
            if (used != text.size() || !std::isfinite(seconds) || seconds <= 0)
                throw UsageError{"--duration needs a number of seconds, not \u2018" + text + "\u2019"};
            options.duration = seconds;
        } else if (!options.encode.parse(reader)) {
            throw reader.unknownOption();
        }
    }
    if (!options.list) {
        if (!options.output)
            throw UsageError{"no output file given"};
        options.encode.resolveFormat(*options.output);
    }
    return options;
}

/// The input choice a text names: "3" is input 3 alone, "1-2" inputs 1 and 2, "all" every input.
std::optional<InputChoice> namedChoice(const std::string& text, const std::vector<InputChoice>& choices) {
    std::vector<int> wanted;
    if (text == "all") {
        if (choices.empty())
            return std::nullopt;
        const auto widest =
            std::max_element(choices.begin(), choices.end(), [](const auto& a, const auto& b) {
                return a.channels.size() < b.channels.size();
            });
        return *widest;
    }
    int first = 0;
    int last = 0;
    char dash = 0;
    char extra = 0;
    const int fields = std::sscanf(text.c_str(), "%d%c%d%c", &first, &dash, &last, &extra);
    if (fields == 1)
        last = first;
    else if (fields != 3 || dash != '-' || last < first)
        return std::nullopt;
    for (int channel = first; channel <= last; ++channel)
        wanted.push_back(channel - 1); // users count inputs from 1
    const auto it = std::find_if(choices.begin(), choices.end(),
                                 [&](const InputChoice& choice) { return choice.channels == wanted; });
    return it != choices.end() ? std::optional(*it) : std::nullopt;
}

/// Keeps the finished take.
struct TakeKeeper final : RecorderClient {
    std::optional<AudioContent> take;
    void beginRecording(double, int) override {}
    void updateLiveTake(const AudioContent&) override {}
    void finishRecording(std::optional<AudioContent> content) override { take = std::move(content); }
};

std::string meterText(const std::vector<double>& peaks, const std::vector<bool>& clipped) {
    std::string text;
    for (size_t c = 0; c < peaks.size(); ++c) {
        char field[32];
        std::snprintf(field, sizeof field, " %6.1f dB%s", std::max(peaks[c], -99.9),
                      c < clipped.size() && clipped[c] ? " CLIP" : "");
        text += field;
    }
    return text;
}

int runRecord(std::span<const std::string> arguments) {
    const Options options = parse(arguments);
    MainThreadQueue mainThread;
    std::shared_ptr<AudioInputDevice> device;
    try {
        device = makeDefaultInputDevice(mainThread.poster());
    } catch (const std::exception& error) {
        printError(std::string("Couldn\u2019t open the input: ") + error.what());
        return exitFailure;
    }
    const std::vector<InputDevice> devices = device->inputDevices();
    if (options.list) {
        const std::optional<uint32_t> fallback = device->defaultInputDevice();
        for (const InputDevice& input : devices)
            std::printf("%s\t%d channels\t%s\t%s%s\n", input.uid.c_str(), input.channelCount,
                        input.sampleRate > 0
                            ? (std::to_string(static_cast<long>(input.sampleRate)) + " Hz").c_str()
                            : "rate set by the server",
                        input.name.c_str(), fallback == input.id ? "\t(default)" : "");
        return exitSuccess;
    }

    TakeKeeper keeper;
    Recorder recorder(device, Recorder::Options{Recorder::TapDriving::thread, recordingsFolder(), {}});
    recorder.setClient(&keeper);
    if (options.device) {
        const auto it = std::find_if(devices.begin(), devices.end(),
                                     [&](const InputDevice& d) { return d.uid == *options.device; });
        if (it == devices.end()) {
            printError("no input device " + *options.device + " (see --list)");
            return exitFailure;
        }
        recorder.setDeviceID(it->id);
    }
    recorder.arm();
    if (!recorder.isArmed()) {
        printError(recorder.errorMessage().value_or("Couldn\u2019t open the input"));
        return exitFailure;
    }
    if (options.input) {
        const std::optional<InputChoice> choice = namedChoice(*options.input, recorder.inputChoices());
        if (!choice) {
            std::string offered;
            for (const InputChoice& c : recorder.inputChoices())
                offered += "\n  " + c.title();
            printError("the device has no input " + *options.input + "; it offers:" + offered);
            return exitFailure;
        }
        recorder.setInputChoice(choice);
        if (!recorder.isArmed()) {
            printError(recorder.errorMessage().value_or("Couldn\u2019t open the input"));
            return exitFailure;
        }
    }

    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    recorder.start();
    const bool terminal = isatty(STDERR_FILENO) != 0;
    const auto started = std::chrono::steady_clock::now();
    bool warned = false;
    while (interrupted == 0 && recorder.isRecording()) {
        mainThread.runFor(std::chrono::milliseconds(33));
        recorder.poll();
        const double elapsed = static_cast<double>(recorder.elapsedFrames()) / recorder.deviceSampleRate();
        if (!warned && recorder.buffer() && recorder.buffer()->safetyFileFailed()) {
            warned = true;
            std::fprintf(stderr,
                         "\nharlune-cli: the safety copy on disk stopped; the take goes on in memory\n");
        }
        if (terminal)
            std::fprintf(stderr, "\r%7.1f s%s ", elapsed,
                         meterText(recorder.peaksDB(), recorder.clipped()).c_str());
        if (options.duration &&
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count() >=
                *options.duration)
            break;
    }
    if (terminal)
        std::fprintf(stderr, "\n");
    const std::optional<std::string> lost = recorder.errorMessage();
    recorder.stop();
    const int64_t overruns = recorder.buffer() ? recorder.buffer()->ring().overruns() : 0;
    if (overruns > 0)
        std::fprintf(
            stderr,
            "harlune-cli: the take has %lld gaps: the computer was too busy to keep up (ring overruns)\n",
            static_cast<long long>(overruns));
    recorder.disarm();
    if (lost)
        printError(*lost);
    if (!keeper.take || keeper.take->frameCount() == 0) {
        if (recorder.safetyPath())
            removeSafetyFile(*recorder.safetyPath());
        printError("nothing was recorded");
        return exitFailure;
    }
    // The safety file goes only once the take is written: a failed write leaves the take on disk.
    try {
        writeAudio(*keeper.take, *options.output, options.encode);
    } catch (const std::exception&) {
        if (recorder.safetyPath())
            printError("the take is kept in " + recorder.safetyPath()->string());
        throw;
    }
    if (recorder.safetyPath())
        removeSafetyFile(*recorder.safetyPath());
    return exitSuccess;
}

} // namespace

Command recordCommand() {
    return {"record", "record from an input device into a file", usage, runRecord};
}

} // namespace harlune::cli
