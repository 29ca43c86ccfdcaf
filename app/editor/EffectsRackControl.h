#pragma once

#include <vector>

namespace harlune {

/// What the editor model asks of the live effects rack.
class EffectsRackControl {
public:
    virtual ~EffectsRackControl() = default;

    /// One flag per document channel; false leaves that channel dry in the preview.
    virtual void setProcessMask(std::vector<bool> mask) = 0;
};

/// Stands in until the effects rack exists: keeps the mask and does nothing with it.
class NullEffectsRackControl final : public EffectsRackControl {
public:
    void setProcessMask(std::vector<bool> mask) override { processMask = std::move(mask); }

    std::vector<bool> processMask;
};

} // namespace harlune
