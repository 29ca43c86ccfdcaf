#include "CliSupport.h"
#include "Commands.h"
#include "OpenAudio.h"
#include "engine/MainThreadQueue.h"
#include "engine/PlaybackEngine.h"
#include "engine/devices/DefaultAudioDevice.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <optional>
#include <string>
#include <unistd.h>

namespace harlune::cli {

namespace {

constexpr std::string_view usage = "harlune-cli play FILE [--loop] [--start SECONDS]";

volatile std::sig_atomic_t interrupted = 0;
void onInterrupt(int) {
    interrupted = 1;
}

struct Options {
    std::string file;
    bool loop = false;
    double start = 0;
};

Options parse(std::span<const std::string> arguments) {
    Options options;
    std::optional<std::string> file;
    ArgumentReader reader(arguments);
    while (reader.next()) {
        const std::string& argument = reader.current();
        if (!reader.isOption()) {
            if (file)
                throw UsageError{"one file at a time"};
            file = argument;
        } else if (argument == "--loop") {
            options.loop = true;
        } else if (argument == "--start") {
            const std::string& text = reader.value();
            size_t used = 0;
            try {
                options.start = std::stod(text, &used);
            } catch (const std::exception&) {
                used = 0;
            }
            if (used != text.size() || !std::isfinite(options.start) || options.start < 0)
                throw UsageError{"--start needs a number of seconds, not \u2018" + text + "\u2019"};
        } else {
            throw reader.unknownOption();
        }
    }
    if (!file)
        throw UsageError{"no file given"};
    options.file = *file;
    return options;
}

std::string clock(double seconds) {
    const auto tenths = static_cast<int64_t>(std::max(seconds, 0.0) * 10);
    char text[32];
    std::snprintf(text, sizeof text, "%lld:%02lld.%lld", static_cast<long long>(tenths / 600),
                  static_cast<long long>(tenths / 10 % 60), static_cast<long long>(tenths % 10));
    return text;
}

int runPlay(std::span<const std::string> arguments) {
    const Options options = parse(arguments);
    const OpenedAudio opened = openAudio(options.file, std::nullopt);
    const AudioContent& content = opened.content;
    const auto startFrame = static_cast<int64_t>(std::llround(options.start * content.sampleRate()));
    if (startFrame >= content.frameCount())
        throw UsageError{"--start lies at or past the end (" + clock(content.duration()) + ")"};

    MainThreadQueue mainThread;
    PlaybackEngine engine(makeDefaultOutputDevice(mainThread.poster()));
    // A loop plays the whole file; --start only says where the first pass begins.
    const FrameRange range =
        options.loop ? content.fullRange() : FrameRange{startFrame, content.frameCount()};
    engine.start(content, range, options.loop, 1.0f);
    engine.state().position.store(startFrame);

    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    const bool terminal = isatty(STDERR_FILENO) != 0;
    const std::string total = clock(content.duration());
    const std::string device = engine.device().name();
    std::optional<std::chrono::steady_clock::time_point> drainUntil;
    while (interrupted == 0) {
        mainThread.runFor(std::chrono::milliseconds(33));
        const double at = static_cast<double>(engine.audiblePosition()) / content.sampleRate();
        if (terminal)
            std::fprintf(stderr, "\r%s / %s  (%s)%s ", clock(at).c_str(), total.c_str(), device.c_str(),
                         options.loop ? "  looping" : "");
        if (engine.state().finished.load() && !drainUntil) {
            // What is still on its way to the speaker plays out before the stream goes.
            const auto latency = std::chrono::duration<double>(engine.device().presentationLatency() + 0.1);
            drainUntil = std::chrono::steady_clock::now() +
                         std::chrono::duration_cast<std::chrono::steady_clock::duration>(latency);
        }
        if (drainUntil && std::chrono::steady_clock::now() >= *drainUntil)
            break;
    }
    engine.pause();
    if (terminal)
        std::fprintf(stderr, "\n");
    std::printf("%s %s at %s\n", interrupted != 0 ? "stopped" : "played",
                std::filesystem::path(options.file).filename().string().c_str(),
                clock(static_cast<double>(engine.state().position.load()) / content.sampleRate()).c_str());
    return exitSuccess;
}

} // namespace

Command playCommand() {
    return {"play", "play a file through the sound server", usage, runPlay};
}

} // namespace harlune::cli
