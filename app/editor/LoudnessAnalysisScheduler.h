#pragma once

#include "base/AudioSource.h"
#include "base/FunctionRef.h"
#include "editor/AnalysisScheduler.h"

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

/// The measurements behind the loudness panel, kept current after each edit.
///
/// Each schedule call cancels the older job of its kind, copies the content and envelopes (values
/// sharing immutable blocks), and arms a timer on the main thread: the debounce, so a burst of
/// edits or an envelope drag measures once, after it ends. When the timer fires and the job is
/// still wanted and the model still exists, the measuring runs on the thread pool; its result
/// comes back to the main thread, where it is published only if the job was not cancelled in
/// the meantime. Jobs hold the model weakly: closing a document drops what they measured.
/// While the model's `analysisSuspended` is set (a take is being recorded) nothing is measured.
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
    void scheduleSelectionAnalysis(EditorModel& model) override;
    void scheduleEnvelopeAnalysis(EditorModel& model) override;

private:
    std::shared_ptr<const Observers> observers_ = std::make_shared<Observers>();
};

/// Integrated loudness of each channel alone (weight 1 for it, 0 for the others), LUFS; negative
/// infinity for a channel whose measurement fails or is cancelled by `progress`. Empty for fewer
/// than 2 or more than 8 channels, where a per-channel figure says nothing the whole does not.
std::vector<double> measureChannels(const AudioSource& source,
                                    std::optional<FunctionRef<bool(double)>> progress = std::nullopt);

} // namespace harlune
