#include "ui/InputMeterView.h"

#include "ui/Theme.h"

#include <QAccessible>
#include <QMouseEvent>
#include <QPainter>
#include <algorithm>

namespace harlune {

namespace {

/// The meter's scale: −60 dBFS at the left edge, full scale at the right.
constexpr double floorDB = -60;

double fraction(double db) {
    return std::clamp((db - floorDB) / -floorDB, 0.0, 1.0);
}

} // namespace

InputMeterView::InputMeterView(QWidget* parent) : QWidget(parent) {
    setObjectName(QStringLiteral("InputMeter"));
    setAccessibleName(tr("Input level"));
    setMinimumWidth(120);
    setToolTip(tr("Input level. Click to clear the clip lights."));
}

void InputMeterView::setLevels(std::vector<double> peaksDB, std::vector<bool> clipped) {
    if (peaksDB == peaksDB_ && clipped == clipped_)
        return;
    peaksDB_ = std::move(peaksDB);
    clipped_ = std::move(clipped);
    // Qt 6.4 hands no custom value text to AT-SPI: the reading goes into the description too.
    setAccessibleDescription(levelsText());
    QAccessibleValueChangeEvent event(this, levelsText());
    QAccessible::updateAccessibility(&event);
    update();
}

QString InputMeterView::levelsText() const {
    QStringList parts;
    for (size_t c = 0; c < peaksDB_.size(); ++c) {
        QString part = peaksDB_[c] <= -120 ? tr("silent") : QString::asprintf("%.1f dBFS", peaksDB_[c]);
        if (c < clipped_.size() && clipped_[c])
            part += tr(" (clipped)");
        parts << part;
    }
    return parts.join(QStringLiteral(", "));
}

void InputMeterView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    const bool dark = Theme::isDark(palette());
    const int channels = std::max<int>(1, static_cast<int>(peaksDB_.size()));
    const int clipWidth = 6;
    const int gap = 2;
    const int rowHeight = std::max(2, (height() - gap * (channels - 1)) / channels);
    const int barWidth = width() - clipWidth - gap;
    for (int c = 0; c < channels; ++c) {
        const int y = c * (rowHeight + gap);
        const QRect track(0, y, barWidth, rowHeight);
        painter.fillRect(track, Theme::laneBackground.of(dark));
        if (c < static_cast<int>(peaksDB_.size())) {
            const double level = peaksDB_[static_cast<size_t>(c)];
            const int filled = static_cast<int>(fraction(level) * barWidth);
            // Green up to −12 dBFS, amber to −3, red above: where a take is safe, hot, too hot.
            const QColor colour = level > -3    ? QColor(0xe0, 0x3b, 0x2f)
                                  : level > -12 ? QColor(0xe6, 0xa2, 0x17)
                                                : QColor(0x34, 0xa8, 0x53);
            painter.fillRect(QRect(0, y, filled, rowHeight), colour);
        }
        const bool clip = c < static_cast<int>(clipped_.size()) && clipped_[static_cast<size_t>(c)];
        painter.fillRect(QRect(barWidth + gap, y, clipWidth, rowHeight),
                         clip ? QColor(0xe0, 0x3b, 0x2f) : Theme::laneBackground.of(dark));
    }
}

void InputMeterView::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton)
        Q_EMIT clipResetRequested();
}

} // namespace harlune
