#include "dsp/LoudnessNormalization.h"

#include <cmath>
#include <functional>

namespace harlune::LoudnessNormalization {

Plan plan(const LoudnessResult& result, double targetLUFS, double ceilingDBTP) {
    Plan plan;
    if (std::isfinite(result.integratedLUFS)) {
        plan.gainDB = targetLUFS - result.integratedLUFS;
        plan.predictedIntegratedLUFS = targetLUFS;
        plan.predictedTruePeakDBTP = result.truePeakDBTP + plan.gainDB;
    } else {
        plan.gainDB = 0;
        plan.predictedIntegratedLUFS = result.integratedLUFS;
        plan.predictedTruePeakDBTP = result.truePeakDBTP;
    }
    plan.needsLimiting = plan.predictedTruePeakDBTP > ceilingDBTP;
    return plan;
}

} // namespace harlune::LoudnessNormalization

size_t std::hash<harlune::LoudnessNormalization::Plan>::operator()(
    const harlune::LoudnessNormalization::Plan& plan) const noexcept {
    size_t seed = std::hash<bool>{}(plan.needsLimiting);
    for (const double v : {plan.gainDB, plan.predictedIntegratedLUFS, plan.predictedTruePeakDBTP})
        seed ^= std::hash<double>{}(v) + 0x9e3779b97f4a7c15ull + (seed << 6) + (seed >> 2);
    return seed;
}
