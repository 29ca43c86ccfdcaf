#pragma once

#include "base/EffectProcessor.h"
#include "dsp/effects/EffectSettings.h"

namespace harlune {

/// A processor that takes settings. `apply` runs on the audio thread just before `process`:
/// it only copies numbers and sets targets (the signal glides to them), never allocates, keeps
/// nothing of the value's arrays, and silently ignores settings of another kind.
class ConfigurableEffect : public EffectProcessor {
public:
    virtual void apply(const EffectSettings& settings) noexcept = 0;
};

} // namespace harlune
