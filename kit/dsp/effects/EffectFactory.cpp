#include "dsp/effects/EffectFactory.h"

#include "base/HarluneError.h"
#include "dsp/effects/ChorusProcessor.h"
#include "dsp/effects/DelayProcessor.h"
#include "dsp/effects/EQProcessor.h"

#include <string>

namespace harlune::EffectFactory {

std::shared_ptr<ConfigurableEffect> makeProcessor(const EffectSettings& settings) {
    // Each kind gains its case here when its processor exists.
    if (settings.kind() == EffectKind::eq) {
        auto processor = std::make_shared<EQProcessor>();
        processor->apply(settings);
        return processor;
    }
    if (settings.kind() == EffectKind::delay) {
        auto processor = std::make_shared<DelayProcessor>();
        processor->apply(settings);
        return processor;
    }
    if (settings.kind() == EffectKind::chorus) {
        auto processor = std::make_shared<ChorusProcessor>();
        processor->apply(settings);
        return processor;
    }
    throw HarluneError::codecUnavailable("the effect \"" + std::string(displayName(settings.kind())) +
                                         "\" is not available in this build");
}

} // namespace harlune::EffectFactory
