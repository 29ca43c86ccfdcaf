// Commands on the tempo grid. The grid is a guide, not part of an undo step, so none of these
// registers one.

#include "core/EnvelopedSource.h"
#include "dsp/TempoDetector.h"
#include "editor/BackgroundJob.h"
#include "editor/EditorModel.h"

#include <chrono>
#include <cmath>

namespace harlune {

namespace {

// As much as the detector needs to hear: the middle two minutes.
constexpr double detectedSeconds = 120;
// A pause this long (seconds) between taps starts a new count.
constexpr double tapPause = 2.0;
constexpr size_t keptTaps = 8;

// Halves away from zero, at `decimals` places.
double rounded(double value, int decimals) {
    const double scale = std::pow(10.0, decimals);
    return std::round(value * scale) / scale;
}

} // namespace

double EditorModel::wallClockSeconds() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

void EditorModel::detectTempo() {
    if (isDetectingTempo_ || content_.isEmpty())
        return;
    setIsDetectingTempo(true);
    const int beatsPerBar = grid_.beatsPerBar;
    // Copies only: edits may go on meanwhile, and the result then lands on the edited document,
    // as it only sets the grid.
    auto source = std::make_shared<EnvelopedSource>(content_, envelopes_);
    runInBackground<std::optional<TempoEstimate>>(
        *this,
        [source, beatsPerBar] {
            return TempoDetector::detect(*source, std::nullopt, beatsPerBar, detectedSeconds);
        },
        [this, beatsPerBar](std::optional<std::optional<TempoEstimate>> result, std::exception_ptr) {
            setIsDetectingTempo(false);
            if (!result || !*result) {
                if (alertSound_)
                    alertSound_();
                return;
            }
            const TempoEstimate& estimate = **result;
            setGrid(TempoGrid(rounded(estimate.bpm, 2), beatsPerBar, estimate.downbeatFrame));
            setTempoConfidence(estimate.confidence);
            setShowGrid(true);
        });
}

void EditorModel::tapTempo() {
    const double now = tapClock_();
    if (!taps_.empty() && now - taps_.back() > tapPause)
        taps_.clear();
    taps_.push_back(now);
    if (taps_.size() > keptTaps)
        taps_.erase(taps_.begin(), taps_.end() - keptTaps);
    if (taps_.size() < 2)
        return;
    const double interval = (taps_.back() - taps_.front()) / static_cast<double>(taps_.size() - 1);
    // No limit on purpose: taps closer than a 400 BPM beat store more than 400.
    TempoGrid grid = grid_;
    grid.bpm = rounded(60.0 / interval, 1);
    setGrid(grid);
    setTempoConfidence(std::nullopt);
    setShowGrid(true);
}

void EditorModel::setDownbeatAtCursor() {
    TempoGrid grid = grid_;
    grid.downbeatFrame = isPlaying_ ? playhead_ : selection_ ? selection_->lower : cursor_;
    setGrid(grid);
    setShowGrid(true);
}

void EditorModel::scaleTempo(double factor) {
    TempoGrid grid = grid_;
    grid.bpm = std::clamp(factor * grid_.bpm, 20.0, 400.0);
    setGrid(grid);
    setTempoConfidence(std::nullopt);
}

} // namespace harlune
