#include "ui/inspector/EQResponseView.h"

#include "editor/CFormatted.h"
#include "ui/Theme.h"

#include <QPainter>
#include <QPainterPath>
#include <algorithm>
#include <cmath>

namespace harlune {

namespace {
constexpr double lowestHz = 20;
constexpr double highestHz = 20000;
} // namespace

EQResponseView::EQResponseView(QWidget* parent) : PaintedWidget(parent) {
    setAccessibleName(tr("EQ response"));
    setMinimumHeight(100);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    frequencies_.resize(pointCount);
    for (int i = 0; i < pointCount; ++i)
        frequencies_[static_cast<size_t>(i)] =
            lowestHz * std::pow(highestHz / lowestHz, static_cast<double>(i) / (pointCount - 1));
    response_.assign(pointCount, 0.0);
}

void EQResponseView::setSettings(const EQSettings& settings, double sampleRate) {
    std::vector<double> response = settings.responseDB(frequencies_, sampleRate);
    if (response == response_)
        return;
    response_ = std::move(response);
    setAccessibleName(tr("EQ response. ") + accessibleValue());
    valueChanged();
}

QString EQResponseView::accessibleValue() const {
    const auto [low, high] = std::minmax_element(response_.begin(), response_.end());
    const auto at = [this](std::vector<double>::const_iterator it) {
        return frequencies_[static_cast<size_t>(it - response_.begin())];
    };
    return cFormatted("Highest %+.1f dB at %.0f Hz, lowest %+.1f dB at %.0f Hz", *high, at(high), *low,
                      at(low));
}

void EQResponseView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const bool dark = Theme::isDark(palette());
    const QRectF plot = QRectF(rect()).adjusted(2, 2, -2, -2);
    painter.fillRect(plot, Theme::laneBackground.of(dark));
    const auto yOf = [&](double db) {
        return plot.center().y() - std::clamp(db, -rangeDB, rangeDB) / rangeDB * plot.height() / 2;
    };
    const auto xOf = [&](double hz) {
        return plot.left() + plot.width() * std::log(hz / lowestHz) / std::log(highestHz / lowestHz);
    };
    painter.setPen(QPen(Theme::gridLine.of(dark), 1));
    for (const double hz : {100.0, 1000.0, 10000.0})
        painter.drawLine(QPointF(xOf(hz), plot.top()), QPointF(xOf(hz), plot.bottom()));
    for (const double db : {-12.0, 0.0, 12.0})
        painter.drawLine(QPointF(plot.left(), yOf(db)), QPointF(plot.right(), yOf(db)));
    QPainterPath curve;
    for (size_t i = 0; i < response_.size(); ++i) {
        const QPointF point(xOf(frequencies_[i]), yOf(response_[i]));
        if (i == 0)
            curve.moveTo(point);
        else
            curve.lineTo(point);
    }
    painter.setPen(QPen(Theme::waveform.of(dark), 2));
    painter.drawPath(curve);
}

} // namespace harlune
