#include "dsp/effects/EffectFactory.h"

#include "base/Precondition.h"
#include "dsp/effects/ChorusProcessor.h"
#include "dsp/effects/CompressorProcessor.h"
#include "dsp/effects/DelayProcessor.h"
#include "dsp/effects/DistortionProcessor.h"
#include "dsp/effects/EQProcessor.h"
#include "dsp/effects/GateProcessor.h"
#include "dsp/effects/NoiseReductionProcessor.h"
#include "dsp/effects/ReverbProcessor.h"

#include <string>

namespace harlune::EffectFactory {

namespace {

template <class Processor> std::shared_ptr<ConfigurableEffect> made(const EffectSettings& settings) {
    auto processor = std::make_shared<Processor>();
    processor->apply(settings);
    return processor;
}

} // namespace

std::shared_ptr<ConfigurableEffect> makeProcessor(const EffectSettings& settings) {
    switch (settings.kind()) {
    case EffectKind::eq:
        return made<EQProcessor>(settings);
    case EffectKind::compressor:
        return made<CompressorProcessor>(settings);
    case EffectKind::gate:
        return made<GateProcessor>(settings);
    case EffectKind::distortion:
        return made<DistortionProcessor>(settings);
    case EffectKind::delay:
        return made<DelayProcessor>(settings);
    case EffectKind::chorus:
        return made<ChorusProcessor>(settings);
    case EffectKind::reverb:
        return made<ReverbProcessor>(settings);
    case EffectKind::noiseReduction:
        return made<NoiseReductionProcessor>(settings);
    }
    // Every kind has its processor; a value outside the enumeration is a programmer's error.
    HARLUNE_PRECONDITION(false, "an effect kind without a processor");
    return nullptr;
}

} // namespace harlune::EffectFactory
