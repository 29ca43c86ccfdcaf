#pragma once

#include <QPointF>
#include <QString>
#include <QWidget>
#include <optional>

namespace harlune {

class SpectrumState;

/// The spectrum curve of a `SpectrumState` with its peak hold, a frequency and level grid, and a
/// readout of the bin under the pointer. Tells assistive technology the strongest bin, in its
/// description as well, since Qt 6.4 passes no custom value to AT-SPI.
class SpectrumView final : public QWidget {
    Q_OBJECT

public:
    explicit SpectrumView(SpectrumState& state, QWidget* parent = nullptr);

    /// The readout at a point of the widget: "%.0f Hz  %.1f dB" below 1 kHz, "%.2f kHz  %.1f dB"
    /// from 1 kHz on; empty with no spectrum.
    QString readout(QPointF at) const;
    /// The shown readout, absent when the pointer is away.
    const std::optional<QPointF>& hover() const { return hover_; }
    /// "No spectrum", or the strongest bin as "Strongest at ..." in the readout's form.
    QString accessibleValue() const;
    /// A tick label: the frequency in Hz, with "k" and in thousands above 1000.
    static QString tickLabel(double hertz);

    QSize sizeHint() const override { return {320, 220}; }
    QSize minimumSizeHint() const override { return {160, 120}; }

protected:
    void paintEvent(QPaintEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    /// The area of the curve, inside the label margins.
    QRectF plotRect() const;
    double lowestFrequency() const;
    double nyquist() const;
    /// Frequency at horizontal position `x` of the plot, and back.
    double frequencyAt(double x) const;
    double xOf(double hertz) const;
    /// Vertical position of a level in dB.
    double yOf(double db) const;
    /// The bin whose frequency is nearest `hertz`.
    int binAt(double hertz) const;
    void spectrumChanged();

    SpectrumState& state_;
    std::optional<QPointF> hover_;
};

} // namespace harlune
