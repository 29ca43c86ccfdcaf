#pragma once

#include "base/Uuid.h"
#include "engine/EffectSlot.h"

#include <QWidget>
#include <functional>
#include <vector>

class QVBoxLayout;

namespace harlune {

class EQResponseView;
class EditorModel;
class LinearMeterRow;
class ParameterControl;

/// The editor of one rack slot, built from the parameter description of its kind (or from the
/// plug-in's control ports), so that one editor serves every effect. A change is written into the
/// rack's slot list at once: a parameter version that the running processor picks up, never a
/// rebuild and never an undo step. The EQ shows its response curve, the compressor and the gate
/// their gain reduction (`pollMeter`, called by the panel at display rate).
class EffectSlotEditor final : public QWidget {
    Q_OBJECT

public:
    EffectSlotEditor(EditorModel& model, const EffectSlot& slot, QWidget* parent = nullptr);

    const Uuid& slotID() const { return id_; }
    /// Shows the values of `slot` (the same slot, changed elsewhere) without writing them back.
    void sync(const EffectSlot& slot);
    /// Reads the running processor's gain reduction into the meter, if there is one.
    void pollMeter();
    /// Whether the editor still waits for a plug-in's controls (it must then be made again).
    bool awaitsControls() const { return awaitsControls_; }

    /// Every control, in the order shown (EQ: output first, then the bands' controls in order).
    const std::vector<ParameterControl*>& controls() const { return controls_; }
    EQResponseView* response() const { return response_; }
    LinearMeterRow* meter() const { return meter_; }

private:
    /// Writes the slot changed by `edit` into the rack.
    void write(const std::function<void(EffectSlot&)>& edit);
    void buildBuiltin(const EffectSettings& settings);
    void buildPlugin(const EffectSlot::Plugin& plugin);
    ParameterControl* add(ParameterControl* control, QVBoxLayout* into);

    EditorModel& model_;
    Uuid id_;
    QVBoxLayout* layout_;
    std::vector<ParameterControl*> controls_;
    /// Parallel to `controls_`: shows the slot's value in the control.
    std::vector<std::function<void(const EffectSlot&)>> syncs_;
    EQResponseView* response_ = nullptr;
    LinearMeterRow* meter_ = nullptr;
    bool awaitsControls_ = false;
};

} // namespace harlune
