// Monitoring and device changes through PipeWire. Arms the recorder on SOURCE with monitoring on,
// listens on LISTEN (a source made from the default sink's monitor) and checks that the tone
// heard there is the tone sent; with monitoring off it must stop. Then it waits for the script to
// add a mono source and take it away again, and checks that the device list follows; last the
// armed source goes away, and the recorder must disarm with a message.
// Usage: harlune-e2e-monitor-check SOURCE LISTEN FREQUENCY AMPLITUDE
#include "engine/MainThreadQueue.h"
#include "engine/Recorder.h"
#include "engine/devices/PipeWireInputDevice.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <numbers>
#include <optional>
#include <string>

using namespace harlune;

namespace {

/// Keeps the first two channels of what a device delivers, into room made beforehand.
struct Listener final : CaptureSink {
    std::vector<float> samples[2] = {std::vector<float>(48000 * 90), std::vector<float>(48000 * 90)};
    std::atomic<size_t> frames{0};
    void capture(int frameCount, std::span<const float* const> channels) noexcept override {
        const size_t at = frames.load(std::memory_order_relaxed);
        const size_t n = std::min(static_cast<size_t>(frameCount), samples[0].size() - at);
        for (size_t c = 0; c < 2; ++c)
            std::copy_n(channels[std::min(c, channels.size() - 1)], n,
                        samples[c].begin() + static_cast<long>(at));
        frames.store(at + n, std::memory_order_release);
    }
};

double toneAmplitude(const float* plane, size_t n, double hz, double rate) {
    double re = 0;
    double im = 0;
    for (size_t i = 0; i < n; ++i) {
        const double phase = 2 * std::numbers::pi * hz * static_cast<double>(i) / rate;
        re += plane[i] * std::cos(phase);
        im -= plane[i] * std::sin(phase);
    }
    return 2 * std::hypot(re, im) / static_cast<double>(n);
}

void runFor(MainThreadQueue& queue, double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end)
        queue.runFor(std::chrono::milliseconds(20));
}

std::optional<InputDevice> find(const std::vector<InputDevice>& devices, const std::string& uid) {
    for (const InputDevice& device : devices)
        if (device.uid == uid)
            return device;
    return std::nullopt;
}

/// The amplitude of the tone over the next `seconds` of what the listener hears on a channel.
double heard(MainThreadQueue& queue, Listener& listener, double seconds, double frequency, double rate,
             size_t channel = 0) {
    const size_t from = listener.frames.load();
    runFor(queue, seconds);
    const size_t to = listener.frames.load();
    return to > from ? toneAmplitude(listener.samples[channel].data() + from, to - from, frequency, rate)
                     : -1;
}

/// Runs the main loop until `done`, at most 10 s.
bool waitFor(MainThreadQueue& queue, const std::function<bool()>& done) {
    for (int round = 0; round < 200 && !done(); ++round)
        queue.runFor(std::chrono::milliseconds(50));
    return done();
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s SOURCE LISTEN FREQUENCY AMPLITUDE\n", argv[0]);
        return 2;
    }
    const std::string sourceUID = argv[1];
    const std::string listenUID = argv[2];
    const double frequency = std::stod(argv[3]);
    const double amplitude = std::stod(argv[4]);
    MainThreadQueue queue;
    auto device = std::make_shared<PipeWireInputDevice>(queue.poster());
    const std::vector<InputDevice> devices = device->inputDevices();
    const auto source = find(devices, sourceUID);
    const auto listen = find(devices, listenUID);
    if (!source || !listen) {
        std::fprintf(stderr, "missing %s or %s\n", sourceUID.c_str(), listenUID.c_str());
        return 1;
    }

    Recorder recorder(device, Recorder::Options{Recorder::TapDriving::thread, std::nullopt, {}});
    recorder.setDeviceID(source->id);
    recorder.setMonitoring(true);
    recorder.arm();
    if (!recorder.isArmed()) {
        std::fprintf(stderr, "%s\n", recorder.errorMessage().value_or("not armed").c_str());
        return 1;
    }
    PipeWireInputDevice ear(queue.poster());
    Listener listener;
    const CaptureFormat earFormat = ear.open(listen->id);
    ear.start(listener);

    // The loopback takes a moment to join the graph: wait until something of the tone is heard.
    const auto settle = [&] {
        for (int round = 0; round < 20; ++round)
            if (heard(queue, listener, 0.5, frequency, earFormat.sampleRate) > amplitude / 4)
                return;
    };
    bool ok = true;
    settle();
    const double on = heard(queue, listener, 2.0, frequency, earFormat.sampleRate);
    std::printf("monitoring on: tone %.4f at the default sink (sent %.4f)\n", on, amplitude);
    ok = ok && on > 0 && std::fabs(20 * std::log10(on / amplitude)) < 1.0;

    recorder.setMonitoring(false);
    runFor(queue, 1.0);
    const double off = heard(queue, listener, 2.0, frequency, earFormat.sampleRate);
    std::printf("monitoring off: tone %.6f at the default sink\n", off);
    ok = ok && off >= 0 && off < amplitude * 0.001;

    recorder.setMonitoring(true); // back on: again heard, and the recorder stays armed
    settle();
    const double again = heard(queue, listener, 1.0, frequency, earFormat.sampleRate);
    std::printf("monitoring on again: tone %.4f\n", again);
    ok = ok && again > 0 && std::fabs(20 * std::log10(again / amplitude)) < 1.0 && recorder.isArmed();

    // The script adds a mono source "latemono" now, and takes it away once it is listed.
    std::printf("waiting for a new source\n");
    std::fflush(stdout);
    const bool arrived = waitFor(queue, [&] {
        const auto late = find(recorder.devices(), "latemono");
        return late && late->channelCount == 1;
    });
    ok = ok && arrived;
    if (arrived) {
        // Monitored, a mono input reaches both speakers alike.
        recorder.setDeviceID(find(recorder.devices(), "latemono")->id);
        settle();
        const double left = heard(queue, listener, 1.0, frequency, earFormat.sampleRate, 0);
        const double right = heard(queue, listener, 1.0, frequency, earFormat.sampleRate, 1);
        std::printf("mono monitored: tone %.4f left, %.4f right\n", left, right);
        ok = ok && left > amplitude / 4 && right > amplitude / 4 &&
             std::fabs(20 * std::log10(left / right)) < 0.5;
        recorder.setDeviceID(source->id);
    }
    ear.close();
    std::printf("latemono %s\n", arrived ? "listed with 1 channel" : "never listed as mono");
    std::fflush(stdout);
    const bool left = arrived && waitFor(queue, [&] { return !find(recorder.devices(), "latemono"); });
    std::printf("latemono %s; recorder %s\n", left ? "left the list" : "stayed listed",
                recorder.isArmed() ? "still armed" : "disarmed");
    ok = ok && left && recorder.isArmed();

    // The script takes the armed source away: the recorder disarms and says why.
    std::printf("waiting for the armed source to go\n");
    std::fflush(stdout);
    const bool disarmed = waitFor(queue, [&] { return !recorder.isArmed(); });
    std::printf("armed source gone: %s\n",
                disarmed ? recorder.errorMessage().value_or("no message").c_str() : "still armed");
    ok = ok && disarmed && recorder.errorMessage() && !find(recorder.devices(), sourceUID);
    recorder.disarm();
    return ok ? 0 : 1;
}
