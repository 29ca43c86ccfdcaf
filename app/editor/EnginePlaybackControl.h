#pragma once

#include "editor/PlaybackControl.h"
#include "engine/AudioOutputDevice.h"
#include "engine/PlaybackEngine.h"

#include <memory>

namespace harlune {

/// The model's player on the real `PlaybackEngine` and one output device. Main thread only.
class EnginePlaybackControl final : public PlaybackControl {
public:
    explicit EnginePlaybackControl(std::unique_ptr<AudioOutputDevice> device);

    PlaybackEngine& engine() { return engine_; }

    void setAudio(const AudioContent& content, const EnvelopeSet& envelopes, FrameRange range) override;
    void setEnvelopes(const EnvelopeSet& envelopes) override;
    void setLooping(bool looping) override;
    void pause() override;
    void setPosition(int64_t frame) override;
    void setGain(float gain) override;
    void ensureGraph(const AudioContent& content) override;
    void start(const AudioContent& content, FrameRange range, int64_t from, bool loop, float gain) override;
    std::shared_ptr<RenderState> renderState() const override;
    int64_t audiblePosition() const override;
    int64_t position() const override;
    bool finished() const override;

private:
    PlaybackEngine engine_;
};

/// Posts tasks to the Qt application's event loop (its main thread), for a device's events.
PostToMainThread postToQtMainThread();

} // namespace harlune
