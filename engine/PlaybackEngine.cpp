#include "engine/PlaybackEngine.h"

#include "base/Precondition.h"

#include <algorithm>
#include <thread>

namespace harlune {

namespace {

void checkRange(const AudioContent& content, FrameRange range) {
    HARLUNE_PRECONDITION(range.lower >= 0 && range.lower <= range.upper &&
                             range.upper <= content.frameCount(),
                         "playback range lies outside the content");
}

} // namespace

PlaybackEngine::PlaybackEngine(std::unique_ptr<AudioOutputDevice> device)
    : device_(std::move(device)), state_(std::make_shared<RenderState>()), alive_(std::make_shared<int>(0)) {
    HARLUNE_PRECONDITION(device_ != nullptr, "a playback engine needs a device");
    std::weak_ptr<int> alive = alive_;
    device_->setConfigurationChangeHandler([this, alive] {
        if (alive.lock())
            handleConfigurationChange();
    });
}

PlaybackEngine::~PlaybackEngine() {
    alive_.reset();
    device_->setConfigurationChangeHandler(nullptr);
    device_->stop();
    device_.reset();
}

void PlaybackEngine::ensureGraph(const AudioContent& content) {
    const int channels = std::min(content.channelCount(), 2);
    if (nodeFormat_ && nodeFormat_->sampleRate == content.sampleRate() &&
        nodeFormat_->channelCount == channels)
        return;
    if (device_->isRunning())
        device_->stop();
    const StreamFormat format = makeStreamFormat(content.sampleRate(), channels);
    // The device drops its stream before it builds the new one: after a failure it runs neither
    // format, and the next play must rebuild whatever it asks for.
    nodeFormat_.reset();
    device_->configure(format, state_);
    nodeFormat_ = format;
}

void PlaybackEngine::start(AudioContent content, FrameRange range, bool loop, float gain,
                           std::optional<int64_t> from) {
    checkRange(content, range);
    ensureGraph(content);
    state_->finished.store(false, std::memory_order_relaxed);
    // Stored before the program: a callback in between plays the old program from the new place.
    state_->position.store(from.value_or(range.lower), std::memory_order_relaxed);
    std::optional<AudioContent> previous(std::move(content));
    {
        const SpinLockGuard lock(state_->programLock);
        PlaybackProgram& program = state_->program;
        std::swap(program.content, previous);
        program.range = range;
        program.loop = loop;
        program.gain = gain;
        program.playing = true;
        program.envelopeActive = program.envelope != nullptr && !program.envelope->isFlat();
    }
    retireContent(std::move(previous));
    if (!device_->isRunning())
        device_->start();
}

void PlaybackEngine::setAudio(AudioContent content, EnvelopeSet envelopes, FrameRange range) {
    checkRange(content, range);
    std::optional<AudioContent> previous(std::move(content));
    auto incoming = std::make_shared<const EnvelopeSet>(std::move(envelopes));
    const bool active = !incoming->isFlat();
    {
        const SpinLockGuard lock(state_->programLock);
        std::swap(state_->program.content, previous);
        std::swap(state_->program.envelope, incoming);
        state_->program.envelopeActive = active;
        state_->program.range = range;
    }
    retireContent(std::move(previous));
    retireEnvelopes(std::move(incoming));
}

void PlaybackEngine::setGain(float gain) {
    const SpinLockGuard lock(state_->programLock);
    state_->program.gain = gain;
}

void PlaybackEngine::setLooping(bool loop) {
    const SpinLockGuard lock(state_->programLock);
    state_->program.loop = loop;
}

void PlaybackEngine::setEnvelopes(EnvelopeSet envelopes) {
    auto incoming = std::make_shared<const EnvelopeSet>(std::move(envelopes));
    const bool active = !incoming->isFlat();
    {
        const SpinLockGuard lock(state_->programLock);
        std::swap(state_->program.envelope, incoming);
        state_->program.envelopeActive = active;
    }
    retireEnvelopes(std::move(incoming));
}

void PlaybackEngine::pause() {
    {
        const SpinLockGuard lock(state_->programLock);
        state_->program.playing = false;
    }
    device_->pause();
}

int64_t PlaybackEngine::audiblePosition() const {
    const int64_t position = state_->position.load(std::memory_order_relaxed);
    if (!device_->isRunning() || !nodeFormat_)
        return position;
    const auto latency = static_cast<int64_t>(device_->presentationLatency() * nodeFormat_->sampleRate);
    int64_t lower = 0;
    {
        const SpinLockGuard lock(state_->programLock);
        lower = state_->program.range.lower;
    }
    return std::max(position - latency, lower);
}

void PlaybackEngine::handleConfigurationChange() {
    bool playing = false;
    {
        const SpinLockGuard lock(state_->programLock);
        playing = state_->program.playing;
    }
    if (!playing)
        return;
    try {
        device_->start();
    } catch (const std::exception&) {
        // A device that cannot come back leaves the playhead standing still; the user sees that
        // and can press play again, which reports the error.
    }
}

void PlaybackEngine::retireContent(std::optional<AudioContent> content) {
    if (!content)
        return;
    retiredContents_.push_back(std::move(*content));
    retiredContentEpochs_.push_back(state_->callbackEpoch.load());
    while (retiredContents_.size() > retiredLimit) {
        waitForCallbackSince(retiredContentEpochs_.front());
        retiredContents_.pop_front();
        retiredContentEpochs_.pop_front();
    }
}

void PlaybackEngine::retireEnvelopes(std::shared_ptr<const EnvelopeSet> envelopes) {
    if (envelopes == nullptr)
        return;
    retiredEnvelopes_.push_back(std::move(envelopes));
    retiredEnvelopeEpochs_.push_back(state_->callbackEpoch.load());
    while (retiredEnvelopes_.size() > retiredLimit) {
        waitForCallbackSince(retiredEnvelopeEpochs_.front());
        retiredEnvelopes_.pop_front();
        retiredEnvelopeEpochs_.pop_front();
    }
}

void PlaybackEngine::waitForCallbackSince(uint64_t epoch) const {
    // Sixteen replacements normally take far longer than one callback, so this hardly ever waits;
    // when it does, it is for the rest of one callback.
    while (state_->mayStillHold(epoch))
        std::this_thread::yield();
}

} // namespace harlune
