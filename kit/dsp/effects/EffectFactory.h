#pragma once

#include "dsp/effects/ConfigurableEffect.h"

#include <memory>

namespace harlune::EffectFactory {

/// A new processor of the settings' kind with the settings applied, not yet prepared. Throws
/// `HarluneError` (codecUnavailable) for a kind this build has no processor for.
std::shared_ptr<ConfigurableEffect> makeProcessor(const EffectSettings& settings);

} // namespace harlune::EffectFactory
