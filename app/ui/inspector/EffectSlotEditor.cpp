#include "ui/inspector/EffectSlotEditor.h"

#include "dsp/effects/EffectParameters.h"
#include "editor/EditorModel.h"
#include "ui/inspector/EQResponseView.h"
#include "ui/inspector/EffectParameterValues.h"
#include "ui/inspector/LinearMeterRow.h"
#include "ui/inspector/ParameterControl.h"

#include <QGroupBox>
#include <QLabel>
#include <QVBoxLayout>
#include <algorithm>

namespace harlune {

namespace {

constexpr std::pair<double, double> reductionRange{0.0, 30.0};

EffectSettings settingsOf(const EffectSlot& slot) {
    return std::get<EffectSettings>(slot.source);
}

} // namespace

EffectSlotEditor::EffectSlotEditor(EditorModel& model, const EffectSlot& slot, QWidget* parent)
    : QWidget(parent), model_(model), id_(slot.id), layout_(new QVBoxLayout(this)) {
    layout_->setContentsMargins(8, 4, 8, 8);
    layout_->setSpacing(4);
    if (const auto* settings = std::get_if<EffectSettings>(&slot.source))
        buildBuiltin(*settings);
    else
        buildPlugin(std::get<EffectSlot::Plugin>(slot.source));
    sync(slot);
}

ParameterControl* EffectSlotEditor::add(ParameterControl* control, QVBoxLayout* into) {
    into->addWidget(control);
    controls_.push_back(control);
    return control;
}

void EffectSlotEditor::buildBuiltin(const EffectSettings& settings) {
    const EffectKind kind = settings.kind();
    if (kind == EffectKind::eq) {
        response_ = new EQResponseView;
        layout_->addWidget(response_);
    }
    if (kind == EffectKind::compressor || kind == EffectKind::gate) {
        meter_ = new LinearMeterRow(tr("Gain reduction"), reductionRange, QStringLiteral("dB"));
        layout_->addWidget(meter_);
    }
    for (const EffectParameter& parameter : effectParameters(kind)) {
        ParameterControl* control = add(new ParameterControl(ParameterSpec::of(parameter)), layout_);
        connect(control, &ParameterControl::edited, this, [this, &parameter](double value) {
            write([&](EffectSlot& slot) { slot.source = withParameter(settingsOf(slot), parameter, value); });
        });
        syncs_.push_back([control, &parameter](const EffectSlot& slot) {
            control->setValue(parameterValue(settingsOf(slot), parameter));
        });
    }
    const auto* eq = settings.as<EQSettings>();
    if (!eq)
        return;
    const int bands = std::min(static_cast<int>(eq->bands.size()), EQSettings::maxBands);
    for (int b = 0; b < bands; ++b) {
        auto* group = new QGroupBox(tr("Band %1").arg(b + 1));
        auto* groupLayout = new QVBoxLayout(group);
        groupLayout->setSpacing(2);
        layout_->addWidget(group);
        for (const EffectParameter& parameter : eqBandParameters()) {
            ParameterControl* control = add(new ParameterControl(ParameterSpec::of(parameter)), groupLayout);
            const auto index = static_cast<size_t>(b);
            connect(control, &ParameterControl::edited, this, [this, &parameter, index](double value) {
                write([&](EffectSlot& slot) {
                    EQSettings changed = *settingsOf(slot).as<EQSettings>();
                    if (index < changed.bands.size())
                        changed.bands[index] = withBandParameter(changed.bands[index], parameter, value);
                    slot.source = EffectSettings(std::move(changed));
                });
            });
            syncs_.push_back([control, &parameter, index](const EffectSlot& slot) {
                const EffectSettings current = settingsOf(slot);
                const EQSettings& shown = *current.as<EQSettings>();
                if (index >= shown.bands.size())
                    return;
                const EQBand& band = shown.bands[index];
                control->setValue(bandParameterValue(band, parameter));
                if (parameter.key == "gainDB")
                    control->setEnabled(usesGain(band.type));
                else if (parameter.key == "slopeDBPerOctave")
                    control->setEnabled(usesSlope(band.type));
            });
        }
    }
}

void EffectSlotEditor::buildPlugin(const EffectSlot::Plugin& plugin) {
    const std::vector<PluginParameter> parameters = model_.rack().pluginParameters(id_);
    if (parameters.empty()) {
        awaitsControls_ = model_.rack().loadingSlots().contains(id_);
        layout_->addWidget(
            new QLabel(awaitsControls_ ? tr("Loading…") : tr("This plug-in has no controls.")));
        return;
    }
    (void)plugin;
    for (const PluginParameter& parameter : parameters) {
        ParameterControl* control = add(new ParameterControl(ParameterSpec::of(parameter)), layout_);
        connect(control, &ParameterControl::edited, this,
                [this, parameters, symbol = parameter.symbol](double value) {
                    write([&](EffectSlot& slot) {
                        auto& changed = std::get<EffectSlot::Plugin>(slot.source);
                        changed.state = withPluginValue(changed.state, parameters, symbol, value);
                    });
                });
        syncs_.push_back([control, parameter](const EffectSlot& slot) {
            control->setValue(pluginValue(std::get<EffectSlot::Plugin>(slot.source).state, parameter));
        });
    }
}

void EffectSlotEditor::sync(const EffectSlot& slot) {
    if (slot.id != id_)
        return;
    for (const auto& show : syncs_)
        show(slot);
    if (response_)
        if (const auto* settings = std::get_if<EffectSettings>(&slot.source))
            if (const auto* eq = settings->as<EQSettings>())
                response_->setSettings(*eq, model_.content().sampleRate());
}

void EffectSlotEditor::pollMeter() {
    if (!meter_)
        return;
    // A stopped processor keeps its last figure; nothing is reduced while nothing plays.
    const std::optional<float> reduction =
        model_.isPlaying() ? model_.rack().gainReduction(id_) : std::nullopt;
    meter_->setValue(reduction ? static_cast<double>(*reduction) : 0.0);
}

void EffectSlotEditor::write(const std::function<void(EffectSlot&)>& edit) {
    std::vector<EffectSlot> slots = model_.rack().slots();
    const auto slot =
        std::find_if(slots.begin(), slots.end(), [this](const EffectSlot& s) { return s.id == id_; });
    if (slot == slots.end())
        return;
    edit(*slot);
    model_.rack().setSlots(std::move(slots));
}

} // namespace harlune
