// A helper for the end-to-end playback tests, which run against real sound servers:
//   play  - plays a generated tone through a chosen back end and waits for its end;
//   check - reads what the server's sink recorded (WAV) and compares it with that tone;
//   silent-server - listens on a socket and never answers, as a server that hangs.
#include "ClickTrack.h"
#include "core/AudioContentBuilder.h"
#include "engine/MainThreadQueue.h"
#include "engine/PlaybackEngine.h"
#include "engine/devices/DefaultAudioDevice.h"
#include "engine/devices/JackDevice.h"
#include "engine/devices/PipeWireDevice.h"
#include "engine/devices/PortAudioDevice.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <numbers>
#include <optional>
#include <sndfile.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace harlune;

std::map<std::string, std::string> options(int argc, char** argv, int first) {
    std::map<std::string, std::string> result;
    for (int i = first; i + 1 < argc; i += 2)
        result[argv[i]] = argv[i + 1];
    return result;
}

double number(const std::map<std::string, std::string>& all, const std::string& key, double fallback) {
    const auto found = all.find(key);
    return found == all.end() ? fallback : std::stod(found->second);
}

// The test signal: `lead` seconds of silence, then `seconds` of a sine on every channel (the
// right one at `rightAmplitude`), then a short silence.
AudioContent toneContent(double rate, int channels, double lead, double seconds, double frequency,
                         double amplitude, double rightAmplitude) {
    const auto leadFrames = static_cast<int64_t>(lead * rate);
    const auto toneFrames = static_cast<int64_t>(seconds * rate);
    const auto tailFrames = static_cast<int64_t>(0.3 * rate);
    std::vector<std::vector<float>> planes(static_cast<size_t>(channels));
    for (int c = 0; c < channels; ++c) {
        auto& plane = planes[static_cast<size_t>(c)];
        plane.assign(static_cast<size_t>(leadFrames + toneFrames + tailFrames), 0.0f);
        const double a = c == 1 ? rightAmplitude : amplitude;
        for (int64_t i = 0; i < toneFrames; ++i)
            plane[static_cast<size_t>(leadFrames + i)] = static_cast<float>(
                a * std::sin(2 * std::numbers::pi * frequency * static_cast<double>(i) / rate));
    }
    AudioContentBuilder builder(channels, rate);
    builder.append(planes);
    return builder.build();
}

int play(const std::map<std::string, std::string>& all) {
    const std::string backendName = all.count("--backend") ? all.at("--backend") : "automatic";
    const OutputBackend backend = backendName == "pipewire"    ? OutputBackend::pipeWire
                                  : backendName == "jack"      ? OutputBackend::jack
                                  : backendName == "portaudio" ? OutputBackend::portAudio
                                                               : OutputBackend::automatic;
    const double rate = number(all, "--rate", 48000);
    const int channels = static_cast<int>(number(all, "--channels", 2));
    const double amplitude = number(all, "--amplitude", 0.5);
    AudioContent content =
        toneContent(rate, channels, number(all, "--lead", 0.5), number(all, "--seconds", 2),
                    number(all, "--frequency", 1000), amplitude, number(all, "--right-amplitude", amplitude));
    if (number(all, "--clicks", 0) != 0) {
        const std::vector<float> plane =
            e2e::clickTrack(rate, number(all, "--lead", 0.5), number(all, "--seconds", 2));
        AudioContentBuilder builder(channels, rate);
        builder.append(std::vector<std::vector<float>>(static_cast<size_t>(channels), plane));
        content = builder.build();
    }

    MainThreadQueue mainThread;
    PlaybackEngine engine(makeDefaultOutputDevice(mainThread.poster(), backend));
    // With --restart-after FILE the script takes the server away mid-play: the engine must hear
    // of it as a configuration change, on this thread. The restart waits until the script made
    // FILE (with no server, or one that does not answer, in place); the restart call is timed,
    // and the tool then waits for the sound to come back from the server the script starts next.
    const std::string restartAfter = all.count("--restart-after") ? all.at("--restart-after") : "";
    const bool expectLoss = !restartAfter.empty();
    bool changed = false;
    std::optional<int64_t> restartedAt;
    engine.device().setConfigurationChangeHandler([&] {
        changed = true;
        std::printf("configuration change\n");
        std::fflush(stdout);
        while (expectLoss && access(restartAfter.c_str(), F_OK) != 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const auto before = std::chrono::steady_clock::now();
        engine.handleConfigurationChange();
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - before;
        std::printf("restart call took %.3f s\n", took.count());
        std::fflush(stdout);
        restartedAt = engine.state().position.load();
    });
    engine.start(content, content.fullRange(), false, 1.0f);
    std::printf("playing %.0f Hz, %d channel(s) through %s\n", rate, channels,
                engine.device().name().c_str());
    std::fflush(stdout);
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::milliseconds(static_cast<int64_t>(content.duration() * 1250) + 10000);
    double latency = 0;
    while (!engine.state().finished.load() && !(expectLoss && changed) &&
           std::chrono::steady_clock::now() < deadline) {
        mainThread.runFor(std::chrono::milliseconds(20));
        latency = std::max(latency, engine.device().presentationLatency());
    }
    if (expectLoss) {
        // Sound is back when half a second more has been rendered after the restart.
        const auto resumeDeadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        bool resumed = false;
        while (!resumed && std::chrono::steady_clock::now() < resumeDeadline) {
            mainThread.runFor(std::chrono::milliseconds(20));
            resumed = engine.device().isRunning() &&
                      engine.state().position.load() > *restartedAt + static_cast<int64_t>(rate / 2);
        }
        std::printf("resumed: %s\n", resumed ? "yes" : "no");
        return resumed ? 0 : 1;
    }
    const bool finished = engine.state().finished.load();
    // Let the last frames reach the sink before the stream goes.
    mainThread.runFor(std::chrono::milliseconds(static_cast<int64_t>(latency * 1000) + 200));
    std::printf("finished: %s, position %lld of %lld, latency %.1f ms\n", finished ? "yes" : "no",
                static_cast<long long>(engine.state().position.load()),
                static_cast<long long>(content.frameCount()), latency * 1000);
    if (auto* pipeWire = dynamic_cast<PipeWireDevice*>(&engine.device()))
        std::printf("callbacks %lld, late %lld\n", static_cast<long long>(pipeWire->callbackCount()),
                    static_cast<long long>(pipeWire->lateCallbacks()));
    if (auto* portAudio = dynamic_cast<PortAudioDevice*>(&engine.device()))
        std::printf("host API %s at %.0f Hz\n", portAudio->hostApiName().c_str(), portAudio->deviceRate());
    if (auto* jack = dynamic_cast<JackDevice*>(&engine.device()))
        std::printf("JACK server at %.0f Hz\n", jack->deviceRate());
    engine.pause();
    return finished ? 0 : 1;
}

struct Recording {
    double rate = 0;
    std::vector<std::vector<float>> planes;
};

// What the server's sink recorded, as planes.
std::optional<Recording> readRecording(const std::string& path) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (file == nullptr)
        return std::nullopt;
    std::vector<float> interleaved(static_cast<size_t>(info.frames * info.channels));
    const auto frames = static_cast<size_t>(sf_readf_float(file, interleaved.data(), info.frames));
    sf_close(file);
    Recording recording{static_cast<double>(info.samplerate), {}};
    recording.planes.assign(static_cast<size_t>(info.channels), std::vector<float>(frames));
    for (size_t f = 0; f < frames; ++f)
        for (size_t c = 0; c < recording.planes.size(); ++c)
            recording.planes[c][f] = interleaved[f * recording.planes.size() + c];
    return recording;
}

int check(const std::string& path, const std::map<std::string, std::string>& all) {
    const auto recording = readRecording(path);
    if (!recording || recording->planes.empty()) {
        std::printf("FAIL: %s is no WAV file with audio\n", path.c_str());
        return 1;
    }
    const double seconds = number(all, "--seconds", 2);
    const double frequency = number(all, "--frequency", 1000);
    const double amplitude = number(all, "--amplitude", 0.5);
    const double rightAmplitude = number(all, "--right-amplitude", amplitude);
    const double rate = recording->rate;
    bool ok = true;
    for (size_t c = 0; c < recording->planes.size() && c < 2; ++c) {
        const auto& x = recording->planes[c];
        const double a = c == 1 ? rightAmplitude : amplitude;
        // The tone's extent: first and last sample above a quarter of its amplitude.
        int64_t first = -1, last = -1;
        for (size_t i = 0; i < x.size(); ++i) {
            if (std::abs(x[i]) > a / 4) {
                if (first < 0)
                    first = static_cast<int64_t>(i);
                last = static_cast<int64_t>(i);
            }
        }
        if (first < 0) {
            std::printf("FAIL: channel %zu holds no tone\n", c);
            ok = false;
            continue;
        }
        const double heard = static_cast<double>(last - first + 1) / rate;
        // A gap: several consecutive samples near zero inside the tone, where a sine of this
        // frequency passes zero within one sample.
        int64_t longestQuiet = 0, quiet = 0, quietEnd = 0;
        for (int64_t i = first; i <= last; ++i) {
            quiet = std::abs(x[static_cast<size_t>(i)]) < 0.05 * a ? quiet + 1 : 0;
            if (quiet > longestQuiet) {
                longestQuiet = quiet;
                quietEnd = i;
            }
        }
        // Level and pitch over the steady middle.
        const auto margin = static_cast<int64_t>(0.05 * rate);
        double sum = 0;
        int64_t crossings = 0;
        for (int64_t i = first + margin; i <= last - margin; ++i) {
            sum += static_cast<double>(x[static_cast<size_t>(i)]) * x[static_cast<size_t>(i)];
            if ((x[static_cast<size_t>(i - 1)] < 0) != (x[static_cast<size_t>(i)] < 0))
                ++crossings;
        }
        const double middle = static_cast<double>(last - first + 1 - 2 * margin);
        const double levelDB = 10 * std::log10(sum / middle / (a * a / 2));
        const double pitch = static_cast<double>(crossings) / 2 / (middle / rate);
        const bool good = std::abs(heard - seconds) < 0.01 && longestQuiet < 4 && std::abs(levelDB) < 0.1 &&
                          std::abs(pitch - frequency) < 0.005 * frequency;
        std::printf("%s: channel %zu: %.4f s of %.4f s, level %+.3f dB, pitch %.1f Hz, longest quiet run "
                    "%lld (ending %.4f s into the tone)\n",
                    good ? "ok" : "FAIL", c, heard, seconds, levelDB, pitch,
                    static_cast<long long>(longestQuiet), static_cast<double>(quietEnd - first) / rate);
        ok = ok && good;
    }
    if (recording->planes.size() < 2 && number(all, "--expect-channels", 2) >= 2) {
        std::printf("FAIL: the recording has %zu channel(s)\n", recording->planes.size());
        ok = false;
    }
    return ok ? 0 : 1;
}

// Binds a listening socket at `path` and never accepts: clients connect, then wait for an answer.
int silentServer(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path.c_str());
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd, 16) != 0) {
        std::perror("silent-server");
        return 1;
    }
    std::printf("listening\n");
    std::fflush(stdout);
    pause();
    return 0;
}

// Finds the click track (as `play --clicks 1 --lead L --seconds S` plays it) in a recorded file
// and counts the tenths of a second where the recording departs from it: a dropout or a repeat
// shifts everything after it, so each shows as at least one bad window.
int compareClicks(const std::string& path, const std::map<std::string, std::string>& all) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return 1;
    }
    std::vector<float> interleaved(static_cast<size_t>(info.frames * info.channels));
    sf_readf_float(file, interleaved.data(), info.frames);
    sf_close(file);
    std::vector<float> take(static_cast<size_t>(info.frames));
    for (size_t i = 0; i < take.size(); ++i)
        take[i] = interleaved[i * static_cast<size_t>(info.channels)];
    const double rate = info.samplerate;
    const std::vector<float> signal =
        e2e::clickTrack(rate, number(all, "--lead", 0.5), number(all, "--seconds", 2));
    // Aligned on the first seconds alone: the correlation over ten minutes would take too long.
    // The player may start a minute late on a loaded machine, so the take is searched that far.
    const size_t head = std::min(signal.size(), static_cast<size_t>(5 * rate));
    const size_t searched = std::min(take.size(), head + static_cast<size_t>(60 * rate));
    const int64_t offset =
        e2e::alignmentOffset(std::vector<float>(take.begin(), take.begin() + static_cast<long>(searched)),
                             std::vector<float>(signal.begin(), signal.begin() + static_cast<long>(head)));
    if (offset < 0) {
        std::printf("no click track found\n");
        return 1;
    }
    const auto window = static_cast<int64_t>(rate / 10);
    int64_t bad = 0;
    int64_t windows = 0;
    for (int64_t start = 0; start + window <= static_cast<int64_t>(signal.size()); start += window) {
        double error = 0;
        for (int64_t i = start; i < start + window; ++i) {
            const int64_t at = offset + i;
            const double got =
                at >= 0 && at < static_cast<int64_t>(take.size()) ? take[static_cast<size_t>(at)] : 0.0;
            error = std::max(error, std::fabs(got - signal[static_cast<size_t>(i)]));
        }
        ++windows;
        bad += error > 1e-4 ? 1 : 0;
    }
    std::printf("click track at frame %lld; %lld of %lld windows of 0.1 s depart from it\n",
                static_cast<long long>(offset), static_cast<long long>(bad), static_cast<long long>(windows));
    return bad == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc >= 3 && std::string(argv[1]) == "silent-server")
        return silentServer(argv[2]);
    if (argc >= 2 && std::string(argv[1]) == "play")
        return play(options(argc, argv, 2));
    if (argc >= 3 && std::string(argv[1]) == "check")
        return check(argv[2], options(argc, argv, 3));
    if (argc >= 3 && std::string(argv[1]) == "compare-clicks")
        return compareClicks(argv[2], options(argc, argv, 3));
    std::fprintf(
        stderr, "usage: harlune-e2e-tool play [--backend pipewire|jack|portaudio] [--rate R] [--channels C]\n"
                "           [--seconds S] [--lead S] [--frequency F] [--amplitude A] [--right-amplitude A]\n"
                "           [--clicks 1] (the click track of the recording checks instead of the tone)\n"
                "       harlune-e2e-tool check FILE.wav [--seconds S] [--frequency F] [--amplitude A]\n"
                "           [--right-amplitude A]\n"
                "       harlune-e2e-tool compare-clicks FILE [--lead S] [--seconds S]\n");
    return 2;
}
