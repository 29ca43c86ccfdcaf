// The loudness side of the editor model: which measurement the panel talks about, and the gain it
// would apply.
#include "editor/EditorModel.h"

#include <cmath>

namespace harlune {

std::optional<LoudnessResult> EditorModel::activeLoudness() const {
    if (analysisScope_ == AnalysisScope::selection && selection_)
        return selectionLoudness_;
    return loudness_;
}

std::optional<LoudnessNormalization::Plan> EditorModel::loudnessPlan() const {
    const std::optional<LoudnessResult> active = activeLoudness();
    if (!active || !std::isfinite(active->integratedLUFS))
        return std::nullopt;
    const double measured = active->integratedLUFS;
    LoudnessNormalization::Plan plan;
    if (adjustMode_ == LoudnessAdjustMode::target) {
        plan.gainDB = targetLUFS_ - measured;
        plan.predictedIntegratedLUFS = targetLUFS_;
    } else {
        plan.gainDB = manualGainDB_;
        plan.predictedIntegratedLUFS = measured + manualGainDB_;
    }
    plan.predictedTruePeakDBTP = active->truePeakDBTP + plan.gainDB;
    plan.needsLimiting = plan.predictedTruePeakDBTP > ceilingDBTP_;
    return plan;
}

} // namespace harlune
