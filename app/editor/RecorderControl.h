#pragma once

#include <QPointer>

namespace harlune {

class EditorModel;

/// What the editor model asks of the recorder: only to know its model, which it holds weakly
/// so that a closed document simply drops a take in progress.
class RecorderControl {
public:
    virtual ~RecorderControl() = default;

    virtual void setModel(QPointer<EditorModel> model) = 0;
    /// A take is being recorded: play is refused, and the play key stops the take.
    virtual bool isRecording() const = 0;
    /// Ends the take in progress.
    virtual void stop() = 0;
};

/// Stands in until the recorder exists: remembers the model and records nothing.
class NullRecorderControl final : public RecorderControl {
public:
    void setModel(QPointer<EditorModel> newModel) override { model = std::move(newModel); }
    bool isRecording() const override { return false; }
    void stop() override {}

    QPointer<EditorModel> model;
};

} // namespace harlune
