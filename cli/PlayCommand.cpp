#include "CliSupport.h"
#include "Commands.h"
#include "OpenAudio.h"
#include "RackWatch.h"
#include "dsp/plugins/PluginEffect.h"
#include "engine/EffectsRack.h"
#include "engine/MainThreadQueue.h"
#include "engine/PlaybackEngine.h"
#include "engine/QueueRackScheduler.h"
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

constexpr std::string_view usage =
    "harlune-cli play FILE [--loop] [--start SECONDS] [--effects RACK.json [--watch]]\n"
    "  --effects  plays through a saved rack (or a list of effect settings), as the editor's live\n"
    "             rack does; what can't be loaded is skipped with a message\n"
    "  --watch    re-reads the rack file when it changes: a changed value is heard at once, a\n"
    "             changed list of effects after a short rebuild";

volatile std::sig_atomic_t interrupted = 0;
void onInterrupt(int) {
    interrupted = 1;
}

struct Options {
    std::string file;
    bool loop = false;
    double start = 0;
    std::optional<std::string> effects;
    bool watch = false;
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
        } else if (argument == "--effects") {
            options.effects = reader.value();
        } else if (argument == "--watch") {
            options.watch = true;
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
    if (options.watch && !options.effects)
        throw UsageError{"--watch watches the file of --effects, and there is none"};
    options.file = *file;
    return options;
}

/// The rack file behind --effects: read leniently, its messages printed, and re-read on change.
class LiveRackFile {
public:
    /// Throws when the file holds no rack at all.
    explicit LiveRackFile(std::string path) : path_(std::move(path)), watch_(path_) {
        auto reading = read();
        if (!reading.rack)
            throw std::runtime_error(
                "--effects: \u2018" + path_ +
                "\u2019: " + (reading.messages.empty() ? std::string("no rack") : reading.messages.front()));
        report(reading.messages);
        saved_ = std::move(*reading.rack);
    }

    void install(EffectsRack& rack) const {
        rack.setTailMode(saved_.tailMode);
        rack.setPreviewEnabled(saved_.previewEnabled);
        rack.setSlots(saved_.slots);
        std::printf("effects: %s%s\n", rack.chainName().c_str(),
                    saved_.previewEnabled ? "" : " (preview off)");
        std::fflush(stdout); // a script that waits for this line may read a pipe or a file
    }

    /// Applies a changed file as the rack applies any edit: the same slot ids make a changed value
    /// a parameter change, anything else a rebuild. Returns whether anything was printed.
    bool reloadIfChanged(EffectsRack& rack) {
        if (!watch_.changed())
            return false;
        auto reading = read();
        if (!reading.rack) {
            reading.messages.push_back("kept the rack as it was");
            report(reading.messages);
            return true;
        }
        SavedRack next = std::move(*reading.rack);
        carryOverIDs(saved_.slots, reading.storedIDs, next.slots);
        const auto changes = describeRackChange(saved_, next);
        report(reading.messages);
        for (const auto& change : changes)
            std::printf("%s\n", change.c_str());
        std::fflush(stdout);
        rack.setTailMode(next.tailMode);
        rack.setPreviewEnabled(next.previewEnabled);
        rack.setSlots(next.slots);
        saved_ = std::move(next);
        return !changes.empty() || !reading.messages.empty();
    }

private:
    RackFileReading read() const {
        const auto installed = PluginEffect::installedPlugins();
        return RackFile::readFile(path_, [&](const PluginDescriptor& plugin) {
            return std::any_of(installed.begin(), installed.end(),
                               [&](const PluginDescriptor& p) { return p.id == plugin.id; });
        });
    }
    void report(const std::vector<std::string>& messages) const {
        for (const auto& message : messages)
            printError(path_ + ": " + message);
    }

    std::string path_;
    FileWatch watch_;
    SavedRack saved_;
};

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

    std::optional<LiveRackFile> rackFile;
    if (options.effects)
        rackFile.emplace(*options.effects); // a rack that can't be read stops here, before any sound

    MainThreadQueue mainThread;
    QueueRackScheduler scheduler(mainThread);
    PlaybackEngine engine(makeDefaultOutputDevice(mainThread.poster()));
    EffectsRack rack(scheduler);
    if (rackFile) {
        rackFile->install(rack);
        rack.onChange = [&rack] {
            if (rack.lastError()) {
                printError(*rack.lastError());
                rack.dismissError();
            }
        };
        engine.ensureGraph(content);
        const StreamFormat format = *engine.nodeFormat();
        rack.activate(engine.renderState(), format.sampleRate, format.channelCount);
    }
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
    auto lastPoll = std::chrono::steady_clock::now();
    while (interrupted == 0) {
        mainThread.runFor(std::chrono::milliseconds(33));
        if (options.watch && std::chrono::steady_clock::now() - lastPoll >= std::chrono::milliseconds(200)) {
            lastPoll = std::chrono::steady_clock::now();
            if (rackFile->reloadIfChanged(rack) && terminal)
                std::fprintf(stderr, "\n");
        }
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
