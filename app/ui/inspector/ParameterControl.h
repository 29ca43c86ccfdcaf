#pragma once

#include "dsp/effects/EffectParameters.h"
#include "dsp/plugins/PluginEffect.h"

#include <QStringList>
#include <QWidget>

class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QSlider;

namespace harlune {

/// What a control needs to know of a parameter, from a built-in's description table or from a
/// plug-in's control port.
struct ParameterSpec {
    QString name;
    QString unit;
    ParameterScale scale = ParameterScale::linear;
    /// The span of the slider.
    double low = 0;
    double high = 1;
    /// The span numeric entry accepts: the processor's clamp range where it is finite.
    double entryLow = 0;
    double entryHigh = 1;
    QStringList choices;
    bool isInteger = false;

    static ParameterSpec of(const EffectParameter& parameter);
    static ParameterSpec of(const PluginParameter& parameter);
};

/// One parameter as a control: a slider with numeric entry and the unit for numbers (along a
/// logarithmic scale where the parameter has one), a picker for a choice, a check box for a
/// toggle. Every change the user makes, including each step of a slider drag, is `edited`.
class ParameterControl final : public QWidget {
    Q_OBJECT

public:
    explicit ParameterControl(ParameterSpec spec, QWidget* parent = nullptr);

    const ParameterSpec& spec() const { return spec_; }
    double value() const { return value_; }
    /// Shows `value` without emitting `edited`.
    void setValue(double value);

    /// Slider position (0...`sliderSteps`) of a value, and back.
    static constexpr int sliderSteps = 1000;
    int sliderPosition(double value) const;
    double valueAt(int position) const;

    QSlider* slider() const { return slider_; }
    QDoubleSpinBox* entry() const { return entry_; }
    QComboBox* picker() const { return picker_; }
    QCheckBox* toggle() const { return toggle_; }

Q_SIGNALS:
    void edited(double value);

private:
    void userChanged(double value);

    ParameterSpec spec_;
    double value_ = 0;
    QSlider* slider_ = nullptr;
    QDoubleSpinBox* entry_ = nullptr;
    QComboBox* picker_ = nullptr;
    QCheckBox* toggle_ = nullptr;
};

} // namespace harlune
