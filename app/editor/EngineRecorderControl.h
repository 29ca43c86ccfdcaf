#pragma once

#include "editor/RecordMode.h"
#include "editor/RecorderControl.h"
#include "editor/RepeatingTimer.h"
#include "engine/Recorder.h"

#include <memory>

namespace harlune {

/// The recorder as the editor model sees it: takes go into the model it was given, in the
/// chosen `RecordMode`, and a 30 Hz timer runs the meters and the live take while armed.
/// Main thread.
class EngineRecorderControl final : public RecorderControl, private RecorderClient {
public:
    /// `timers` absent: the owner calls `recorder().poll()` itself (tests).
    EngineRecorderControl(std::shared_ptr<AudioInputDevice> device, Recorder::Options options,
                          RepeatingTimerFactory timers = {});
    ~EngineRecorderControl() override;

    void setModel(QPointer<EditorModel> model) override;
    bool isRecording() const override { return recorder_.isRecording(); }
    void stop() override { recorder_.stop(); }

    Recorder& recorder() { return recorder_; }
    RecordMode mode() const { return mode_; }
    void setMode(RecordMode mode) { mode_ = mode; }

private:
    void beginRecording(double sampleRate, int channelCount) override;
    void updateLiveTake(const AudioContent& take) override;
    void finishRecording(std::optional<AudioContent> take) override;
    void followArming();

    Recorder recorder_;
    RepeatingTimerFactory timers_;
    std::unique_ptr<RepeatingTimer> timer_;
    QPointer<EditorModel> model_;
    RecordMode mode_ = RecordMode::insert;
};

} // namespace harlune
