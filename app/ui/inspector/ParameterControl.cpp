#include "ui/inspector/ParameterControl.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QSignalBlocker>
#include <QSlider>
#include <algorithm>
#include <cmath>

namespace harlune {

namespace {

/// "lowCut" reads "Low Cut"; texts with spaces stay as they are.
QString readable(std::string_view raw) {
    QString text = QString::fromUtf8(raw.data(), static_cast<qsizetype>(raw.size()));
    if (text.contains(QLatin1Char(' ')) || text.isEmpty())
        return text;
    QString spaced;
    for (const QChar c : text) {
        if (c.isUpper() && !spaced.isEmpty())
            spaced += QLatin1Char(' ');
        spaced += c;
    }
    spaced[0] = spaced[0].toUpper();
    return spaced;
}

QString qText(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

/// The effect's own name of a choice where its enum has one ("peak" is "Bell" as a band type but
/// "Peak" as a detection mode, hence by key), else the raw value made readable.
QString choiceTitle(std::string_view key, std::string_view raw) {
    if (key == "type")
        if (const auto type = eqBandTypeFromRawValue(raw))
            return qText(displayName(*type));
    if (key == "detection")
        if (const auto mode = detectionModeFromRawValue(raw))
            return qText(displayName(*mode));
    if (const auto mode = modulationModeFromRawValue(raw))
        return qText(displayName(*mode));
    return readable(raw);
}

} // namespace

ParameterSpec ParameterSpec::of(const EffectParameter& parameter) {
    ParameterSpec spec;
    spec.name = qText(parameter.displayName);
    spec.unit = qText(parameter.unit);
    spec.scale = parameter.scale;
    spec.low = parameter.editorMinimum;
    spec.high = parameter.editorMaximum;
    spec.entryLow = std::isfinite(parameter.minimum) ? parameter.minimum : parameter.editorMinimum;
    spec.entryHigh = std::isfinite(parameter.maximum) ? parameter.maximum : parameter.editorMaximum;
    for (const std::string_view choice : parameter.choices)
        spec.choices << choiceTitle(parameter.key, choice);
    spec.isInteger = parameter.isInteger;
    return spec;
}

ParameterSpec ParameterSpec::of(const PluginParameter& parameter) {
    ParameterSpec spec;
    spec.name = QString::fromStdString(parameter.name);
    spec.scale = parameter.isToggle                                 ? ParameterScale::toggle
                 : parameter.isLogarithmic && parameter.minimum > 0 ? ParameterScale::logarithmic
                                                                    : ParameterScale::linear;
    spec.low = spec.entryLow = parameter.minimum;
    spec.high = spec.entryHigh = parameter.maximum;
    spec.isInteger = parameter.isInteger;
    return spec;
}

ParameterControl::ParameterControl(ParameterSpec spec, QWidget* parent)
    : QWidget(parent), spec_(std::move(spec)) {
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    setAccessibleName(spec_.name);
    switch (spec_.scale) {
    case ParameterScale::toggle:
        toggle_ = new QCheckBox(spec_.name);
        layout->addWidget(toggle_);
        connect(toggle_, &QCheckBox::toggled, this, [this](bool on) { userChanged(on ? 1.0 : 0.0); });
        return;
    case ParameterScale::choice:
        picker_ = new QComboBox;
        picker_->addItems(spec_.choices);
        picker_->setAccessibleName(spec_.name);
        layout->addWidget(new QLabel(spec_.name));
        layout->addWidget(picker_, 1);
        connect(picker_, &QComboBox::currentIndexChanged, this,
                [this](int index) { userChanged(static_cast<double>(index)); });
        return;
    case ParameterScale::linear:
    case ParameterScale::logarithmic:
        break;
    }
    auto* label = new QLabel(spec_.name);
    label->setMinimumWidth(label->fontMetrics().horizontalAdvance(QStringLiteral("Sensitivity ")));
    slider_ = new QSlider(Qt::Horizontal);
    slider_->setRange(0, sliderSteps);
    slider_->setAccessibleName(spec_.name);
    entry_ = new QDoubleSpinBox;
    entry_->setRange(spec_.entryLow, spec_.entryHigh);
    const double span = spec_.high - spec_.low;
    entry_->setDecimals(spec_.isInteger ? 0 : span >= 100 ? 1 : 2);
    entry_->setSingleStep(spec_.isInteger ? 1 : span / 100);
    if (!spec_.unit.isEmpty())
        entry_->setSuffix(QLatin1Char(' ') + spec_.unit);
    entry_->setKeyboardTracking(false);
    entry_->setAccessibleName(spec_.name + QStringLiteral(" value"));
    layout->addWidget(label);
    layout->addWidget(slider_, 1);
    layout->addWidget(entry_);
    connect(slider_, &QSlider::valueChanged, this, [this](int position) {
        double value = valueAt(position);
        if (spec_.isInteger)
            value = std::round(value);
        userChanged(value);
    });
    connect(entry_, &QDoubleSpinBox::valueChanged, this, [this](double value) { userChanged(value); });
}

int ParameterControl::sliderPosition(double value) const {
    double fraction = 0;
    if (spec_.scale == ParameterScale::logarithmic && spec_.low > 0 && value > 0)
        fraction = std::log(value / spec_.low) / std::log(spec_.high / spec_.low);
    else if (spec_.high > spec_.low)
        fraction = (value - spec_.low) / (spec_.high - spec_.low);
    return static_cast<int>(std::lround(std::clamp(fraction, 0.0, 1.0) * sliderSteps));
}

double ParameterControl::valueAt(int position) const {
    const double fraction = static_cast<double>(position) / sliderSteps;
    if (spec_.scale == ParameterScale::logarithmic && spec_.low > 0)
        return spec_.low * std::pow(spec_.high / spec_.low, fraction);
    return spec_.low + fraction * (spec_.high - spec_.low);
}

void ParameterControl::setValue(double value) {
    value_ = value;
    if (toggle_) {
        const QSignalBlocker blocker(toggle_);
        toggle_->setChecked(value >= 0.5);
    }
    if (picker_) {
        const QSignalBlocker blocker(picker_);
        picker_->setCurrentIndex(static_cast<int>(std::lround(value)));
    }
    if (slider_) {
        const QSignalBlocker blocker(slider_);
        // A drag in progress keeps its own position: rounding must not pull the knob.
        if (!slider_->isSliderDown())
            slider_->setValue(sliderPosition(value));
    }
    if (entry_) {
        const QSignalBlocker blocker(entry_);
        entry_->setValue(value);
    }
}

void ParameterControl::userChanged(double value) {
    setValue(value);
    Q_EMIT edited(value);
}

} // namespace harlune
