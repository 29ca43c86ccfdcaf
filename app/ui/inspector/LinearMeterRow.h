#pragma once

#include "ui/inspector/PaintedWidget.h"

#include <optional>
#include <utility>

namespace harlune {

/// One horizontal level meter with its label and figure: `value` within `range` as a bar, an
/// optional `marker` (a target) and `hold` (a peak hold) as ticks. Used for the live loudness
/// and peak meters and for the gain reduction of dynamics effects.
class LinearMeterRow final : public PaintedWidget {
    Q_OBJECT

public:
    LinearMeterRow(const QString& label, std::pair<double, double> range, const QString& unit,
                   QWidget* parent = nullptr);

    /// Any of these may be set at display rate; only a change repaints.
    void setValue(double value);
    void setMarker(std::optional<double> marker);
    void setHold(std::optional<double> hold);

    const QString& label() const { return label_; }
    double value() const { return value_; }
    std::pair<double, double> range() const { return range_; }
    const QString& unit() const { return unit_; }
    std::optional<double> marker() const { return marker_; }
    std::optional<double> hold() const { return hold_; }

    /// "Momentary -23.0 LUFS"; a dash at a meter's reset level (nothing heard yet).
    QString accessibleValue() const override;
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    double fraction(double level) const;
    QString figure() const;

    QString label_;
    std::pair<double, double> range_;
    QString unit_;
    double value_;
    std::optional<double> marker_;
    std::optional<double> hold_;
};

} // namespace harlune
