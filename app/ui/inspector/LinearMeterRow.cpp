#include "ui/inspector/LinearMeterRow.h"

#include "editor/MeterReading.h"
#include "ui/Theme.h"
#include "ui/inspector/MetricCell.h"

#include <QPainter>
#include <algorithm>

namespace harlune {

namespace {
constexpr int minimumLabelWidth = 84;
constexpr int figureWidth = 92;
} // namespace

LinearMeterRow::LinearMeterRow(const QString& label, std::pair<double, double> range, const QString& unit,
                               QWidget* parent)
    : PaintedWidget(parent), label_(label), range_(range), unit_(unit), value_(range.first) {
    setAccessibleName(label);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    valueChanged();
}

void LinearMeterRow::setValue(double value) {
    if (value == value_)
        return;
    value_ = value;
    valueChanged();
}

void LinearMeterRow::setMarker(std::optional<double> marker) {
    if (marker == marker_)
        return;
    marker_ = marker;
    update();
}

void LinearMeterRow::setHold(std::optional<double> hold) {
    if (hold == hold_)
        return;
    hold_ = hold;
    update();
}

QString LinearMeterRow::figure() const {
    const double shown = value_ <= MeterReading::resetValue ? -INFINITY : value_;
    return figureText(shown) + QLatin1Char(' ') + unit_;
}

QString LinearMeterRow::accessibleValue() const {
    return label_ + QLatin1Char(' ') + figure();
}

QSize LinearMeterRow::sizeHint() const {
    return {minimumLabelWidth + figureWidth + 100, fontMetrics().height() + 6};
}

double LinearMeterRow::fraction(double level) const {
    const double span = range_.second - range_.first;
    if (!(span > 0) || !std::isfinite(level))
        return level > range_.first ? 1.0 : 0.0;
    return std::clamp((level - range_.first) / span, 0.0, 1.0);
}

void LinearMeterRow::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    const bool dark = Theme::isDark(palette());
    const QRect area = rect();
    painter.setPen(palette().color(QPalette::WindowText));
    const int labelWidth = std::max(minimumLabelWidth, fontMetrics().horizontalAdvance(label_) + 8);
    painter.drawText(QRect(0, 0, labelWidth, area.height()), Qt::AlignVCenter | Qt::AlignLeft, label_);
    painter.drawText(QRect(area.width() - figureWidth, 0, figureWidth, area.height()),
                     Qt::AlignVCenter | Qt::AlignRight, figure());

    const QRect track(labelWidth, 3, std::max(10, area.width() - labelWidth - figureWidth - 8),
                      area.height() - 6);
    painter.fillRect(track, Theme::laneBackground.of(dark));
    const double at = fraction(value_);
    QRect bar = track;
    bar.setWidth(static_cast<int>(track.width() * at));
    const bool over = marker_ && value_ > *marker_;
    painter.fillRect(bar, over ? Theme::clip.of(dark) : Theme::loudnessShortTerm.of(dark));
    const auto tick = [&](double level, const QColor& colour) {
        const int x = track.left() + static_cast<int>(track.width() * fraction(level));
        painter.fillRect(QRect(x - 1, track.top() - 2, 2, track.height() + 4), colour);
    };
    if (marker_)
        tick(*marker_, Theme::loudnessTarget.of(dark));
    if (hold_ && *hold_ > range_.first)
        tick(*hold_, palette().color(QPalette::WindowText));
}

} // namespace harlune
