#include "engine/devices/TestAudioDevice.h"

#include "base/Precondition.h"
#include "engine/AudioDeviceError.h"

#include <algorithm>
#include <cmath>

namespace harlune {

TestAudioDevice::TestAudioDevice(PostToMainThread postToMainThread)
    : AudioOutputDevice(std::move(postToMainThread)) {}

TestAudioDevice::~TestAudioDevice() = default;

void TestAudioDevice::configure(StreamFormat format, std::shared_ptr<RenderSource> source) {
    running_ = false;
    format_ = format;
    ++configureCount_;
    if (configureFailure_) {
        const std::string message = *configureFailure_;
        configureFailure_.reset();
        source_.reset();
        throw AudioDeviceError(message);
    }
    source_ = std::move(source);
}

void TestAudioDevice::start() {
    HARLUNE_PRECONDITION(format_.has_value(), "start before configure");
    if (startFailure_) {
        const std::string message = *startFailure_;
        startFailure_.reset();
        throw AudioDeviceError(message);
    }
    if (!running_ && clock_) {
        clockOrigin_ = clock_();
        framesDue_ = 0;
    }
    running_ = true;
    ++startCount_;
}

void TestAudioDevice::pause() {
    running_ = false;
}
void TestAudioDevice::stop() {
    running_ = false;
}

void TestAudioDevice::prepareBuffers(int framesPerCallback) {
    HARLUNE_PRECONDITION(framesPerCallback > 0, "callbacks need frames");
    const int channels = outputChannels_.value_or(format_ ? format_->channelCount : 1);
    buffers_.resize(static_cast<size_t>(channels));
    pointers_.resize(static_cast<size_t>(channels));
    for (auto& buffer : buffers_)
        buffer.resize(static_cast<size_t>(framesPerCallback));
    for (size_t c = 0; c < buffers_.size(); ++c)
        pointers_[c] = buffers_[c].data();
}

bool TestAudioDevice::renderOnce(int frames) {
    // Stale data shows a source that fails to write every frame.
    for (auto& buffer : buffers_)
        std::fill_n(buffer.begin(), frames, std::nanf(""));
    bool silence = false;
    source_->render(frames, pointers_, silence);
    framesPulled_ += frames;
    return silence;
}

TestAudioDevice::Capture TestAudioDevice::pull(int64_t frames, int framesPerCallback) {
    prepareBuffers(framesPerCallback);
    Capture capture;
    capture.planes.assign(buffers_.size(), {});
    if (!running_ || !source_)
        return capture;
    for (auto& plane : capture.planes)
        plane.resize(static_cast<size_t>(frames));
    for (int64_t done = 0; done < frames;) {
        const int n = static_cast<int>(std::min<int64_t>(framesPerCallback, frames - done));
        capture.silenceFlags.push_back(renderOnce(n));
        for (size_t c = 0; c < buffers_.size(); ++c)
            std::copy_n(buffers_[c].data(), n, capture.planes[c].data() + done);
        done += n;
    }
    return capture;
}

void TestAudioDevice::pullAndDiscard(int64_t frames, int framesPerCallback) {
    prepareBuffers(framesPerCallback);
    if (!running_ || !source_)
        return;
    for (int64_t done = 0; done < frames;) {
        const int n = static_cast<int>(std::min<int64_t>(framesPerCallback, frames - done));
        renderOnce(n);
        done += n;
    }
}

TestAudioDevice::Capture TestAudioDevice::pullUntilNow(int framesPerCallback) {
    HARLUNE_PRECONDITION(clock_ != nullptr && format_.has_value(), "pullUntilNow needs a clock and a format");
    if (!running_)
        return pull(0, framesPerCallback);
    const auto due = static_cast<int64_t>(std::floor((clock_() - clockOrigin_) * format_->sampleRate));
    const int64_t frames = std::max<int64_t>(due - framesDue_, 0);
    framesDue_ += frames;
    return pull(frames, framesPerCallback);
}

void TestAudioDevice::simulateConfigurationChange() {
    running_ = false;
    notifyConfigurationChange();
}

} // namespace harlune
