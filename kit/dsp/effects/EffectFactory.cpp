#include "dsp/effects/EffectFactory.h"

#include "base/HarluneError.h"
#include "dsp/effects/EQProcessor.h"
#include "dsp/effects/NoiseReductionProcessor.h"
#include "dsp/effects/ReverbProcessor.h"

#include <string>

namespace harlune::EffectFactory {

std::shared_ptr<ConfigurableEffect> makeProcessor(const EffectSettings& settings) {
    // Each kind gains its case here when its processor exists.
    if (settings.kind() == EffectKind::eq) {
        auto processor = std::make_shared<EQProcessor>();
        processor->apply(settings);
        return processor;
    }
    if (settings.kind() == EffectKind::reverb) {
        auto processor = std::make_shared<ReverbProcessor>();
        processor->apply(settings);
        return processor;
    }
    if (settings.kind() == EffectKind::noiseReduction) {
        auto processor = std::make_shared<NoiseReductionProcessor>();
        processor->apply(settings);
        return processor;
    }
    throw HarluneError::codecUnavailable("the effect \"" + std::string(displayName(settings.kind())) +
                                         "\" is not available in this build");
}

} // namespace harlune::EffectFactory
