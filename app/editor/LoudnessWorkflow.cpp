// The loudness side of the editor model: which measurement the panel talks about, and the gain it
// would apply.
#include "base/HarluneError.h"
#include "core/LoudnessProcessing.h"
#include "core/Processing.h"
#include "editor/CFormatted.h"
#include "editor/EditorModel.h"

#include <cmath>
#include <cstdio>

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

float EditorModel::previewGain() const {
    if (!previewLoudness_)
        return 1.0f;
    const std::optional<LoudnessNormalization::Plan> plan = loudnessPlan();
    if (!plan)
        return 1.0f;
    return static_cast<float>(std::pow(10.0, plan->gainDB / 20));
}

void EditorModel::updatePreviewGain() {
    player_->setGain(previewGain());
}

void EditorModel::applyLoudness() {
    const std::optional<LoudnessNormalization::Plan> plan = loudnessPlan();
    if (!plan)
        return;
    std::optional<FrameRange> range;
    if (analysisScope_ == AnalysisScope::selection && selection_)
        range = selection_;
    const bool toTarget = adjustMode_ == LoudnessAdjustMode::target;
    const QString name = toTarget ? cFormatted("Match Loudness %.1f LUFS", targetLUFS_)
                                  : cFormatted("Loudness Gain %+.1f dB", plan->gainDB);
    setPreviewLoudness(false);
    if (busy_)
        return;

    const std::optional<double> target = toTarget ? std::optional<double>(targetLUFS_) : std::nullopt;
    Work work = [envelopes = envelopes_, range, plan = *plan, target, ceiling = ceilingDBTP_,
                 limit = limitTruePeaks_](AudioContent content, std::shared_ptr<ProgressToken> token) {
        // The envelopes go into the samples first, so that the loudness adjusted is the one heard.
        const AudioContent baked = applyingEnvelopes(content, envelopes);
        if (token->isCancelled())
            throw HarluneError::cancelled();
        const auto progress = [&token](double fraction) {
            token->setFraction(fraction);
            return !token->isCancelled();
        };
        return adjustingLoudness(baked, range, plan, target, ceiling, limit, 0.1, 5,
                                 FunctionRef<bool(double)>(progress));
    };
    process(name, std::move(work), std::nullopt, {}, [](const AudioContent&) { return EnvelopeSet{}; });
}

} // namespace harlune
