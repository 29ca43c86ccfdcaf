#pragma once

#include "base/AudioSource.h"
#include "base/FunctionRef.h"
#include "dsp/ChannelLoudness.h"
#include "editor/AnalysisScheduler.h"
#include "editor/BackgroundJob.h"

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace harlune {

/// The kinds of measurement job, one running at most of each.
enum class AnalysisKind {
    /// The whole file: bare, with envelopes, and per channel.
    file,
    /// The file with envelopes, and per channel.
    envelope,
    /// The selection with envelopes.
    selection,
};

/// The measurements behind the loudness panel, kept current after each edit, for one model.
///
/// Each kind is a `BackgroundJob`: a schedule call cancels the older job of its kind, copies the
/// content and envelopes (values sharing immutable blocks) and debounces on the main thread, so a
/// burst of edits or an envelope drag measures once, after it ends. Every result is keyed by the
/// model's `audioVersion`, which content and envelopes raise together: a figure measured on an
/// older state is dropped, never shown. While the model's `analysisSuspended` is set (a take is
/// being recorded) nothing is measured.
class LoudnessAnalysisScheduler final : public AnalysisScheduler {
public:
    /// The debounce of each kind, milliseconds. Envelope edits wait longest since they come in drags.
    static constexpr int fileDelayMs = 150;
    static constexpr int selectionDelayMs = 250;
    static constexpr int envelopeDelayMs = 350;

    /// Main-thread notifications, for diagnostics and tests: `measuring` when a job leaves its
    /// debounce and starts to measure, `published` after its figures reached the model.
    struct Observers {
        std::function<void(AnalysisKind)> measuring;
        std::function<void(AnalysisKind)> published;
    };

    LoudnessAnalysisScheduler() = default;
    explicit LoudnessAnalysisScheduler(Observers observers);

    void scheduleAnalysis(EditorModel& model) override;
    /// While a file measurement is pending it is started again instead: the envelopes it would
    /// measure through are no longer current.
    void scheduleEnvelopeAnalysis(EditorModel& model) override;
    void scheduleSelectionAnalysis(EditorModel& model) override;

    /// A job of `kind` is scheduled or measuring.
    bool isRunning(AnalysisKind kind) const;

private:
    BackgroundJob& job(EditorModel& model, AnalysisKind kind);
    template <class Result>
    void start(EditorModel& model, AnalysisKind kind, std::function<Result(const ProgressToken&)> measure,
               std::function<void(EditorModel&, Result)> publish);

    std::shared_ptr<const Observers> observers_ = std::make_shared<Observers>();
    std::unique_ptr<BackgroundJob> jobs_[3];
};

} // namespace harlune
