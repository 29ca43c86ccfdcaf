#pragma once

namespace harlune {

class EditorModel;

/// The debounced loudness measurements the model starts when its content, envelopes or
/// selection change. Each call cancels the older job of its kind and returns at once; the job
/// publishes into the model on the main thread if the model still exists.
class AnalysisScheduler {
public:
    virtual ~AnalysisScheduler() = default;

    /// The whole file, with and without envelopes, and per channel.
    virtual void scheduleAnalysis(EditorModel& model) = 0;
    /// The selection, with envelopes.
    virtual void scheduleSelectionAnalysis(EditorModel& model) = 0;
    /// The file with envelopes only; the bare content's figures stay.
    virtual void scheduleEnvelopeAnalysis(EditorModel& model) = 0;
};

/// Measures nothing: for a model whose figures are set by hand (tests, tools).
class NullAnalysisScheduler final : public AnalysisScheduler {
public:
    void scheduleAnalysis(EditorModel&) override {}
    void scheduleSelectionAnalysis(EditorModel&) override {}
    void scheduleEnvelopeAnalysis(EditorModel&) override {}
};

} // namespace harlune
