// The back ends' own arithmetic, which real servers do not exercise in tests: PipeWire's latency
// figure (a null sink reports 0) and the rate conversion of the PortAudio and JACK back ends;
// and the JACK back end without a server.
#include "engine/AudioDeviceError.h"
#include "engine/devices/JackDevice.h"
#include "engine/devices/PipeWireLatency.h"
#include "engine/devices/StreamResampler.h"

#include <cmath>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <numbers>
#include <unistd.h>

namespace harlune {
namespace {

TEST(PipeWireLatency, DelayCountsInTheGraphRateAndQueuedFramesInTheStreamRate) {
    // A 44.1 kHz stream in a 48 kHz graph: 1024 ticks of delay are 1024/48000 s, not /44100.
    EXPECT_DOUBLE_EQ(pipeWireLatencySeconds(1024, 1, 48000, 0, 0, 44100), 1024.0 / 48000);
    EXPECT_DOUBLE_EQ(pipeWireLatencySeconds(1024, 1, 48000, 441, 0, 44100), 1024.0 / 48000 + 0.01);
    EXPECT_DOUBLE_EQ(pipeWireLatencySeconds(0, 1, 48000, 441, 441, 44100), 0.02);
    // No report yet: nothing but what is queued.
    EXPECT_DOUBLE_EQ(pipeWireLatencySeconds(500, 0, 0, 480, 0, 48000), 0.01);
    EXPECT_DOUBLE_EQ(pipeWireLatencySeconds(-5, 1, 48000, 0, 0, 48000), 0.0);
}

// A source that renders a sine, continuing its phase from callback to callback.
class SineSource final : public RenderSource {
public:
    SineSource(double frequency, double rate, int channels) : step_(frequency / rate), channels_(channels) {}
    void render(int frameCount, std::span<float* const> outputs, bool& isSilence) noexcept override {
        for (int i = 0; i < frameCount; ++i, ++frame_)
            for (int c = 0; c < channels_; ++c)
                outputs[static_cast<size_t>(c)][i] = static_cast<float>(
                    (c + 1) * 0.25 * std::sin(2 * std::numbers::pi * step_ * static_cast<double>(frame_)));
        isSilence = false;
        rendered += frameCount;
    }
    int64_t rendered = 0;

private:
    double step_;
    int channels_;
    int64_t frame_ = 0;
};

TEST(StreamResampler, ConvertsASineToTheDeviceRateInCallbacksOfAnySize) {
    struct Case {
        double from;
        double to;
    };
    for (const Case test : {Case{44100, 48000}, Case{48000, 44100}, Case{32000, 48000}, Case{48000, 48000}}) {
        SineSource source(440.0, test.from, 2);
        StreamResampler resampler(source, 2, test.from, test.to);
        std::vector<float> left(48000), right(48000);
        int64_t done = 0;
        for (int callback = 0; done < 48000; ++callback) {
            const int n = static_cast<int>(std::min<int64_t>(97 + (callback * 131) % 1500, 48000 - done));
            float* outputs[] = {left.data() + done, right.data() + done};
            bool silence = true;
            resampler.render(n, outputs, silence);
            EXPECT_FALSE(silence);
            done += n;
        }
        // Output frame i lies at source frame i * from / to.
        double error = 0;
        for (int64_t i = 100; i < 48000; ++i) {
            const double t = static_cast<double>(i) / test.to;
            const double expected = 0.25 * std::sin(2 * std::numbers::pi * 440.0 * t);
            error = std::max({error, std::abs(left[static_cast<size_t>(i)] - expected),
                              std::abs(right[static_cast<size_t>(i)] - 2 * expected)});
        }
        EXPECT_LT(20 * std::log10(error / 0.5), -60.0) << test.from << " to " << test.to;
        // It pulls only what it needs: the frames played and one block of look-ahead.
        EXPECT_NEAR(static_cast<double>(source.rendered), 48000 * test.from / test.to, 260.0);
    }
}

// With no server a first connection fails at once with the reason for the user, instead of
// leaving a play that never sounds; the device's own thread ends with the device.
TEST(JackDevice, WithoutAServerTheFirstConnectionReportsWhy) {
    const std::string server = "harlune-absent-" + std::to_string(getpid());
    setenv("JACK_DEFAULT_SERVER", server.c_str(), 1);
    EXPECT_FALSE(JackDevice::isServerAvailable());
    {
        JackDevice device([](std::function<void()> task) { task(); });
        try {
            device.configure(makeStreamFormat(44100, 2), std::make_shared<SineSource>(440.0, 44100, 2));
            ADD_FAILURE() << "configure succeeded without a server";
        } catch (const AudioDeviceError& error) {
            EXPECT_THAT(error.what(), testing::HasSubstr("no JACK server is running"));
        }
        EXPECT_FALSE(device.isRunning());
        EXPECT_EQ(device.presentationLatency(), 0.0);
    }
    unsetenv("JACK_DEFAULT_SERVER");
}

} // namespace
} // namespace harlune
