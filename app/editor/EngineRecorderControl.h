#pragma once

#include "editor/RecordMode.h"
#include "editor/RecorderControl.h"
#include "editor/RepeatingTimer.h"
#include "engine/Recorder.h"

#include <QMetaObject>
#include <QObject>
#include <filesystem>
#include <memory>
#include <optional>

namespace harlune {

/// The recorder as the editor model sees it: takes go into the model it was given, in the
/// chosen `RecordMode`, and a 30 Hz timer runs the meters and the live take while armed.
/// Main thread.
class EngineRecorderControl final : public QObject, public RecorderControl, private RecorderClient {
    Q_OBJECT

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
    void setMode(RecordMode mode);

Q_SIGNALS:
    /// Any observable field of the recorder or the mode changed: armed, recording, devices,
    /// choice, monitoring, meters (30 times a second while armed), elapsed time, error.
    void changed();

private:
    void beginRecording(double sampleRate, int channelCount) override;
    void updateLiveTake(const AudioContent& take) override;
    void finishRecording(std::optional<AudioContent> take) override;
    void followArming();

    Recorder recorder_;
    RepeatingTimerFactory timers_;
    std::unique_ptr<RepeatingTimer> timer_;
    QPointer<EditorModel> model_;
    QMetaObject::Connection keptConnection_;
    /// The safety file of a take on its way into the document; removed once it is there, kept
    /// when the document closes or the conversion fails, so the take is never lost.
    std::optional<std::filesystem::path> pendingSafetyFile_;
    RecordMode mode_ = RecordMode::insert;
};

} // namespace harlune
