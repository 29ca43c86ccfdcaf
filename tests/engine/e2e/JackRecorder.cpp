// Records what other JACK clients play, for the end-to-end test of the PortAudio back end on
// JACK's dummy driver (which has no monitor to record from). It connects the output ports of
// every client but the server's own to its two inputs, in port order, and writes a float WAV
// when it gets SIGINT or SIGTERM, or after the longest recording it holds.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <jack/jack.h>
#include <set>
#include <sndfile.h>
#include <string>
#include <thread>
#include <vector>

namespace {

std::atomic<bool> stopRequested{false};
void onSignal(int) {
    stopRequested = true;
}

struct Recorder {
    jack_port_t* inputs[2]{};
    std::vector<float> samples[2];
    std::atomic<size_t> frames{0};
};

int process(jack_nframes_t count, void* data) {
    auto& recorder = *static_cast<Recorder*>(data);
    const size_t at = recorder.frames.load();
    const size_t n = std::min<size_t>(count, recorder.samples[0].size() - at);
    for (int c = 0; c < 2; ++c) {
        const auto* in = static_cast<const float*>(jack_port_get_buffer(recorder.inputs[c], count));
        std::memcpy(recorder.samples[c].data() + at, in, n * sizeof(float));
    }
    recorder.frames.store(at + n);
    return 0;
}

bool writeWav(const char* path, const Recorder& recorder, uint32_t rate) {
    SF_INFO info{};
    info.samplerate = static_cast<int>(rate);
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* file = sf_open(path, SFM_WRITE, &info);
    if (file == nullptr)
        return false;
    const size_t frames = recorder.frames.load();
    std::vector<float> interleaved(frames * 2);
    for (size_t f = 0; f < frames; ++f)
        for (size_t c = 0; c < 2; ++c)
            interleaved[f * 2 + c] = recorder.samples[c][f];
    const bool written = sf_writef_float(file, interleaved.data(), static_cast<sf_count_t>(frames)) ==
                         static_cast<sf_count_t>(frames);
    return sf_close(file) == 0 && written;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: harlune-jack-record OUT.wav [MAX_SECONDS]\n");
        return 2;
    }
    const double maxSeconds = argc >= 3 ? std::stod(argv[2]) : 60;
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);

    jack_status_t status{};
    jack_client_t* client = jack_client_open("harlune-recorder", JackNoStartServer, &status);
    if (client == nullptr) {
        std::fprintf(stderr, "harlune-jack-record: no JACK server (status 0x%x)\n",
                     static_cast<unsigned>(status));
        return 1;
    }
    const uint32_t rate = jack_get_sample_rate(client);
    Recorder recorder;
    for (int c = 0; c < 2; ++c) {
        recorder.samples[c].assign(static_cast<size_t>(maxSeconds * rate), 0.0f);
        recorder.inputs[c] =
            jack_port_register(client, c == 0 ? "in_1" : "in_2", JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0);
    }
    jack_set_process_callback(client, process, &recorder);
    if (jack_activate(client) != 0) {
        std::fprintf(stderr, "harlune-jack-record: cannot activate\n");
        return 1;
    }
    std::printf("recording at %u Hz\n", rate);
    std::fflush(stdout);

    const std::string self = std::string(jack_get_client_name(client)) + ":";
    std::set<std::string> connected;
    while (!stopRequested && recorder.frames.load() < recorder.samples[0].size()) {
        const char** ports = jack_get_ports(client, nullptr, JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput);
        std::vector<std::string> players;
        for (const char** p = ports; p != nullptr && *p != nullptr; ++p) {
            const std::string name = *p;
            if (name.rfind("system:", 0) != 0 && name.rfind(self, 0) != 0)
                players.push_back(name);
        }
        if (ports != nullptr)
            jack_free(ports);
        // A player's ports appear before its client is active, when they cannot be connected
        // yet: such a port is tried again on the next round.
        for (size_t i = 0; i < players.size() && i < 2; ++i) {
            if (connected.count(players[i]) != 0)
                continue;
            const int result = jack_connect(client, players[i].c_str(), jack_port_name(recorder.inputs[i]));
            if (result == 0 || result == EEXIST)
                connected.insert(players[i]);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    jack_deactivate(client);
    jack_client_close(client);
    if (!writeWav(argv[1], recorder, rate)) {
        std::fprintf(stderr, "harlune-jack-record: cannot write %s\n", argv[1]);
        return 1;
    }
    std::printf("recorded %zu frames\n", recorder.frames.load());
    return 0;
}
