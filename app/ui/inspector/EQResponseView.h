#pragma once

#include "dsp/effects/EQSettings.h"
#include "ui/inspector/PaintedWidget.h"

#include <vector>

namespace harlune {

/// The settled response of an EQ's settings from 20 Hz to 20 kHz, on a logarithmic frequency
/// axis and ±`rangeDB`.
class EQResponseView final : public PaintedWidget {
    Q_OBJECT

public:
    static constexpr double rangeDB = 24;
    static constexpr int pointCount = 240;

    explicit EQResponseView(QWidget* parent = nullptr);

    void setSettings(const EQSettings& settings, double sampleRate);
    /// The frequencies drawn (Hz) and the response there (dB).
    const std::vector<double>& frequencies() const { return frequencies_; }
    const std::vector<double>& response() const { return response_; }

    /// "Highest +6.0 dB at 2500 Hz, lowest -3.0 dB at 100 Hz".
    QString accessibleValue() const override;
    QSize sizeHint() const override { return {260, 120}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    std::vector<double> frequencies_;
    std::vector<double> response_;
};

} // namespace harlune
