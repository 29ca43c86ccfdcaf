#include "ui/inspector/LoudnessSpectrumView.h"

#include "dsp/LoudnessAnalyzer.h"
#include "ui/Theme.h"
#include "ui/inspector/MetricCell.h"

#include <QPainter>
#include <algorithm>
#include <cmath>

namespace harlune {

namespace {
constexpr int binCount =
    static_cast<int>(LoudnessSpectrumView::highestLUFS - LoudnessSpectrumView::lowestLUFS);
// Short-term values at or under the absolute gate are silence for this picture, as for the
// integrated figure.
constexpr double gateLUFS = -70;
} // namespace

LoudnessSpectrumView::LoudnessSpectrumView(QWidget* parent) : PaintedWidget(parent) {
    setObjectName(QStringLiteral("LoudnessSpectrumView"));
    setMinimumHeight(90);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    histogram_.assign(binCount, 0);
    refresh();
}

void LoudnessSpectrumView::setResult(std::optional<LoudnessResult> result) {
    if (result == result_)
        return;
    result_ = std::move(result);
    histogram_.assign(binCount, 0);
    if (result_)
        for (const float value : result_->shortTerm) {
            if (!(value > gateLUFS))
                continue;
            const int bin = static_cast<int>(std::floor(static_cast<double>(value) - lowestLUFS));
            ++histogram_[static_cast<size_t>(std::clamp(bin, 0, binCount - 1))];
        }
    refresh();
}

void LoudnessSpectrumView::setTarget(double target) {
    if (target == target_)
        return;
    target_ = target;
    refresh();
}

void LoudnessSpectrumView::setPredicted(std::optional<double> predicted) {
    if (predicted == predicted_)
        return;
    predicted_ = predicted;
    refresh();
}

QString LoudnessSpectrumView::accessibleValue() const {
    const double integrated = result_ ? result_->integratedLUFS : -INFINITY;
    const double range = result_ ? result_->loudnessRangeLU : -INFINITY;
    return tr("Integrated ") + figureText(integrated) + tr(" LUFS, target ") + figureText(target_) +
           tr(" LUFS") + QStringLiteral(", ") + tr("LRA ") + figureText(range) + tr(" LU");
}

void LoudnessSpectrumView::refresh() {
    setAccessibleName(tr("Loudness distribution. ") + accessibleValue());
    valueChanged();
}

void LoudnessSpectrumView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    const bool dark = Theme::isDark(palette());
    const QRectF plot = QRectF(rect()).adjusted(4, 4, -4, -16);
    painter.fillRect(plot, Theme::laneBackground.of(dark));
    const auto xOf = [&](double lufs) {
        return plot.left() + plot.width() * (std::clamp(lufs, lowestLUFS, highestLUFS) - lowestLUFS) /
                                 (highestLUFS - lowestLUFS);
    };
    const int tallest = std::max(1, *std::max_element(histogram_.begin(), histogram_.end()));
    const double binWidth = plot.width() / binCount;
    for (int bin = 0; bin < binCount; ++bin) {
        const int count = histogram_[static_cast<size_t>(bin)];
        if (count == 0)
            continue;
        const double height = plot.height() * count / tallest;
        painter.fillRect(
            QRectF(plot.left() + bin * binWidth, plot.bottom() - height, std::max(1.0, binWidth - 1), height),
            Theme::loudnessShortTerm.of(dark));
    }
    const auto mark = [&](double lufs, const QColor& colour, Qt::PenStyle style) {
        if (!std::isfinite(lufs))
            return;
        QPen pen(colour, 1.5, style);
        painter.setPen(pen);
        painter.drawLine(QPointF(xOf(lufs), plot.top()), QPointF(xOf(lufs), plot.bottom()));
    };
    if (result_)
        mark(result_->integratedLUFS, Theme::loudnessIntegrated.of(dark), Qt::SolidLine);
    mark(target_, Theme::loudnessTarget.of(dark), Qt::DashLine);
    if (predicted_)
        mark(*predicted_, Theme::loudnessMomentary.of(dark), Qt::DotLine);

    painter.setPen(Theme::secondaryLabel.of(dark));
    QFont small = font();
    small.setPointSizeF(small.pointSizeF() * 0.8);
    painter.setFont(small);
    for (double lufs = lowestLUFS; lufs <= highestLUFS; lufs += 10)
        painter.drawText(QRectF(xOf(lufs) - 20, plot.bottom() + 1, 40, 14), Qt::AlignCenter,
                         QString::number(static_cast<int>(lufs)));
}

} // namespace harlune
