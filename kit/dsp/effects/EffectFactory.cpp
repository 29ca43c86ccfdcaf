#include "dsp/effects/EffectFactory.h"

#include "base/HarluneError.h"
#include "dsp/effects/CompressorProcessor.h"
#include "dsp/effects/EQProcessor.h"
#include "dsp/effects/GateProcessor.h"

#include <string>

namespace harlune::EffectFactory {

std::shared_ptr<ConfigurableEffect> makeProcessor(const EffectSettings& settings) {
    // Each kind gains its case here when its processor exists.
    if (settings.kind() == EffectKind::eq) {
        auto processor = std::make_shared<EQProcessor>();
        processor->apply(settings);
        return processor;
    }
    if (settings.kind() == EffectKind::compressor) {
        auto processor = std::make_shared<CompressorProcessor>();
        processor->apply(settings);
        return processor;
    }
    if (settings.kind() == EffectKind::gate) {
        auto processor = std::make_shared<GateProcessor>();
        processor->apply(settings);
        return processor;
    }
    throw HarluneError::codecUnavailable("the effect \"" + std::string(displayName(settings.kind())) +
                                         "\" is not available in this build");
}

} // namespace harlune::EffectFactory
