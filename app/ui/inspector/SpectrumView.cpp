#include "ui/inspector/SpectrumView.h"

#include "editor/SpectrumState.h"
#include "ui/Theme.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <algorithm>
#include <cmath>

namespace harlune {

namespace {

// The level axis in dB; the analyser's floor of -200 sits below it.
constexpr double topDB = 0;
constexpr double bottomDB = -120;
constexpr double leftMargin = 34;
constexpr double bottomMargin = 16;
constexpr double topMargin = 6;
constexpr double rightMargin = 6;

class SpectrumAccessible final : public QAccessibleWidget {
public:
    explicit SpectrumAccessible(SpectrumView* view) : QAccessibleWidget(view, QAccessible::Chart) {}

    QString text(QAccessible::Text kind) const override {
        if (kind == QAccessible::Value)
            return static_cast<const SpectrumView*>(widget())->accessibleValue();
        return QAccessibleWidget::text(kind);
    }
};

QAccessibleInterface* spectrumAccessible(const QString& className, QObject* object) {
    if (className == QLatin1String(SpectrumView::staticMetaObject.className()) && object &&
        object->isWidgetType())
        return new SpectrumAccessible(static_cast<SpectrumView*>(object));
    return nullptr;
}

QString levelAndFrequency(double hertz, double db) {
    if (hertz < 1000)
        return QString::asprintf("%.0f Hz  %.1f dB", hertz, db);
    return QString::asprintf("%.2f kHz  %.1f dB", hertz / 1000, db);
}

} // namespace

SpectrumView::SpectrumView(SpectrumState& state, QWidget* parent) : QWidget(parent), state_(state) {
    static const bool installed = [] {
        QAccessible::installFactory(spectrumAccessible);
        return true;
    }();
    (void)installed;
    setObjectName(QStringLiteral("SpectrumView"));
    setAccessibleName(tr("Spectrum"));
    setMouseTracking(true);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    connect(&state_, &SpectrumState::spectrumChanged, this, &SpectrumView::spectrumChanged);
    connect(&state_, &SpectrumState::settingsChanged, this, qOverload<>(&QWidget::update));
    spectrumChanged();
}

QString SpectrumView::tickLabel(double hertz) {
    if (hertz > 1000)
        return QString::number(hertz / 1000, 'g', 3) + QStringLiteral("k");
    return QString::number(hertz, 'g', 4);
}

QString SpectrumView::accessibleValue() const {
    const std::vector<float>& spectrum = state_.spectrum();
    if (spectrum.empty())
        return tr("No spectrum");
    const auto strongest = std::max_element(spectrum.begin(), spectrum.end());
    const auto bin = static_cast<double>(strongest - spectrum.begin());
    const double binWidth = state_.sampleRate() / (2.0 * static_cast<double>(spectrum.size() - 1));
    return tr("Strongest at ") + levelAndFrequency(bin * binWidth, *strongest);
}

void SpectrumView::spectrumChanged() {
    update();
    const QString value = accessibleValue();
    setAccessibleDescription(value);
    QAccessibleValueChangeEvent event(this, value);
    QAccessible::updateAccessibility(&event);
}

QRectF SpectrumView::plotRect() const {
    return QRectF(leftMargin, topMargin, std::max(1.0, width() - leftMargin - rightMargin),
                  std::max(1.0, height() - topMargin - bottomMargin));
}

double SpectrumView::nyquist() const {
    return state_.sampleRate() / 2;
}

double SpectrumView::lowestFrequency() const {
    // The low end of hearing; DC has no place on a log axis.
    return std::min(20.0, nyquist() / 2);
}

double SpectrumView::frequencyAt(double x) const {
    const QRectF plot = plotRect();
    const double t = std::clamp((x - plot.left()) / plot.width(), 0.0, 1.0);
    if (state_.frequencyScale() == FrequencyScale::linear)
        return t * nyquist();
    return lowestFrequency() * std::pow(nyquist() / lowestFrequency(), t);
}

double SpectrumView::xOf(double hertz) const {
    const QRectF plot = plotRect();
    double t = 0;
    if (state_.frequencyScale() == FrequencyScale::linear)
        t = hertz / nyquist();
    else
        t = std::log(std::max(hertz, lowestFrequency()) / lowestFrequency()) /
            std::log(nyquist() / lowestFrequency());
    return plot.left() + t * plot.width();
}

double SpectrumView::yOf(double db) const {
    const QRectF plot = plotRect();
    double t = 0;
    if (state_.amplitudeScale() == AmplitudeScale::linear)
        t = 1 - std::pow(10.0, db / 20); // magnitude, full scale at the top
    else
        t = (topDB - std::clamp(db, bottomDB, topDB)) / (topDB - bottomDB);
    return plot.top() + std::clamp(t, 0.0, 1.0) * plot.height();
}

int SpectrumView::binAt(double hertz) const {
    const auto bins = static_cast<int>(state_.spectrum().size());
    const double binWidth = nyquist() / std::max(bins - 1, 1);
    return std::clamp(static_cast<int>(std::lround(hertz / binWidth)), 0, std::max(bins - 1, 0));
}

QString SpectrumView::readout(QPointF at) const {
    const std::vector<float>& spectrum = state_.spectrum();
    if (spectrum.empty())
        return {};
    const double hertz = frequencyAt(at.x());
    return levelAndFrequency(hertz, spectrum[static_cast<size_t>(binAt(hertz))]);
}

void SpectrumView::mouseMoveEvent(QMouseEvent* event) {
    hover_ = event->position();
    update();
}

void SpectrumView::leaveEvent(QEvent* event) {
    hover_.reset();
    update();
    QWidget::leaveEvent(event);
}

void SpectrumView::changeEvent(QEvent* event) {
    if (event->type() == QEvent::PaletteChange)
        update();
    QWidget::changeEvent(event);
}

void SpectrumView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    const bool dark = Theme::isDark(palette());
    const QRectF plot = plotRect();
    painter.fillRect(rect(), Theme::background.of(dark));
    painter.fillRect(plot, Theme::laneBackground.of(dark));

    QFont small = font();
    small.setPointSizeF(std::max(6.0, small.pointSizeF() * 0.8));
    painter.setFont(small);
    const QFontMetricsF metrics(small);

    // Level grid: every 20 dB, or quarters of full scale.
    painter.setPen(QPen(Theme::gridLine.of(dark), 1));
    auto levelLine = [&](double db, const QString& label) {
        const double y = yOf(db);
        painter.setPen(QPen(Theme::gridLine.of(dark), 1));
        painter.drawLine(QPointF(plot.left(), y), QPointF(plot.right(), y));
        painter.setPen(Theme::secondaryLabel.of(dark));
        painter.drawText(QRectF(0, y - metrics.height() / 2, leftMargin - 4, metrics.height()),
                         Qt::AlignRight | Qt::AlignVCenter, label);
    };
    if (state_.amplitudeScale() == AmplitudeScale::decibels) {
        for (double db = topDB; db >= bottomDB; db -= 20)
            levelLine(db, QString::number(db, 'f', 0));
    } else {
        for (const double magnitude : {1.0, 0.75, 0.5, 0.25})
            levelLine(20 * std::log10(magnitude), QString::number(magnitude, 'g', 2));
    }

    // Frequency grid.
    std::vector<double> ticks;
    if (state_.frequencyScale() == FrequencyScale::logarithmic) {
        for (double decade = 10; decade < nyquist(); decade *= 10)
            for (const double step : {1.0, 2.0, 5.0})
                if (decade * step >= lowestFrequency() && decade * step <= nyquist())
                    ticks.push_back(decade * step);
    } else {
        const double step = nyquist() > 10000 ? 5000 : 2000;
        for (double hertz = 0; hertz <= nyquist(); hertz += step)
            ticks.push_back(hertz);
    }
    double lastLabelRight = -1e9;
    for (const double hertz : ticks) {
        const double x = xOf(hertz);
        painter.setPen(QPen(Theme::gridLine.of(dark), 1));
        painter.drawLine(QPointF(x, plot.top()), QPointF(x, plot.bottom()));
        const QString label = tickLabel(hertz);
        const double labelWidth = metrics.horizontalAdvance(label);
        const double left = std::clamp(x - labelWidth / 2, plot.left(), plot.right() - labelWidth);
        if (left < lastLabelRight + 4)
            continue;
        lastLabelRight = left + labelWidth;
        painter.setPen(Theme::secondaryLabel.of(dark));
        painter.drawText(QRectF(left, plot.bottom() + 1, labelWidth + 1, bottomMargin - 1),
                         Qt::AlignLeft | Qt::AlignTop, label);
    }
    painter.setPen(QPen(Theme::laneBorder.of(dark), 1));
    painter.drawRect(plot);

    // The curves: per column the loudest bin that falls in it, or the nearest bin where columns
    // are finer than bins.
    const auto curve = [&](const std::vector<float>& levels) {
        QPainterPath path;
        if (levels.size() < 2)
            return path;
        const auto columns = static_cast<int>(std::ceil(plot.width()));
        for (int column = 0; column <= columns; ++column) {
            const double x = plot.left() + column;
            const int first = binAt(frequencyAt(x - 0.5));
            const int last = std::max(first, binAt(frequencyAt(x + 0.5)));
            float level = levels[static_cast<size_t>(first)];
            for (int k = first + 1; k <= last; ++k)
                level = std::max(level, levels[static_cast<size_t>(k)]);
            const QPointF point(x, yOf(level));
            if (column == 0)
                path.moveTo(point);
            else
                path.lineTo(point);
        }
        return path;
    };
    painter.save();
    painter.setClipRect(plot);
    painter.setRenderHint(QPainter::Antialiasing);
    if (state_.holdPeaks())
        painter.strokePath(curve(state_.peakHold()), QPen(Theme::loudnessShortTerm.of(dark), 1));
    const QPainterPath spectrum = curve(state_.spectrum());
    if (!spectrum.isEmpty()) {
        QPainterPath fill = spectrum;
        fill.lineTo(plot.right() + 1, plot.bottom());
        fill.lineTo(plot.left(), plot.bottom());
        fill.closeSubpath();
        QColor under = Theme::waveform.of(dark);
        under.setAlphaF(0.15f);
        painter.fillPath(fill, under);
        painter.strokePath(spectrum, QPen(Theme::waveform.of(dark), 1.5));
    }
    painter.restore();

    if (hover_ && plot.contains(*hover_) && !state_.spectrum().empty()) {
        painter.setPen(QPen(Theme::cursor.of(dark), 1, Qt::DashLine));
        painter.drawLine(QPointF(hover_->x(), plot.top()), QPointF(hover_->x(), plot.bottom()));
        const QString text = readout(*hover_);
        const double textWidth = metrics.horizontalAdvance(text) + 8;
        const double left = std::clamp(hover_->x() + 6, plot.left(), plot.right() - textWidth);
        const QRectF box(left, plot.top() + 2, textWidth, metrics.height() + 4);
        painter.fillRect(box, Theme::laneBackground.of(dark));
        painter.setPen(Theme::cursor.of(dark));
        painter.drawText(box, Qt::AlignCenter, text);
    }
}

} // namespace harlune
