#include "editor/EnginePlaybackControl.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <atomic>

namespace harlune {

EnginePlaybackControl::EnginePlaybackControl(std::unique_ptr<AudioOutputDevice> device)
    : engine_(std::move(device)) {}

void EnginePlaybackControl::setAudio(const AudioContent& content, const EnvelopeSet& envelopes,
                                     FrameRange range) {
    engine_.setAudio(content, envelopes, range);
}

void EnginePlaybackControl::setEnvelopes(const EnvelopeSet& envelopes) {
    engine_.setEnvelopes(envelopes);
}

void EnginePlaybackControl::setLooping(bool looping) {
    engine_.setLooping(looping);
}

void EnginePlaybackControl::pause() {
    engine_.pause();
}

void EnginePlaybackControl::setPosition(int64_t frame) {
    engine_.state().position.store(frame, std::memory_order_relaxed);
}

void EnginePlaybackControl::setGain(float gain) {
    engine_.setGain(gain);
}

void EnginePlaybackControl::ensureGraph(const AudioContent& content) {
    engine_.ensureGraph(content);
}

void EnginePlaybackControl::start(const AudioContent& content, FrameRange range, int64_t from, bool loop,
                                  float gain) {
    engine_.start(content, range, loop, gain, from);
}

std::shared_ptr<RenderState> EnginePlaybackControl::renderState() const {
    return engine_.renderState();
}

int64_t EnginePlaybackControl::audiblePosition() const {
    return engine_.audiblePosition();
}

int64_t EnginePlaybackControl::position() const {
    return engine_.state().position.load(std::memory_order_relaxed);
}

bool EnginePlaybackControl::finished() const {
    return engine_.state().finished.load(std::memory_order_relaxed);
}

PostToMainThread postToQtMainThread() {
    return [](std::function<void()> task) {
        // Without an application there is no main loop to run the task on; it is dropped.
        if (QCoreApplication* application = QCoreApplication::instance())
            QMetaObject::invokeMethod(application, std::move(task), Qt::QueuedConnection);
    };
}

} // namespace harlune
