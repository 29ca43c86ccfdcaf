#pragma once

#include <QWidget>
#include <vector>

namespace harlune {

/// The armed input's peak level per take channel, with a latched clip light at the right. The
/// levels come from the recorder's 30 Hz poll, already with their fall; this only draws them.
class InputMeterView final : public QWidget {
    Q_OBJECT

public:
    explicit InputMeterView(QWidget* parent = nullptr);

    /// Peaks in dBFS and clip latches, one per channel.
    void setLevels(std::vector<double> peaksDB, std::vector<bool> clipped);
    const std::vector<double>& peaksDB() const { return peaksDB_; }

    /// "-12.0 dBFS, -14.5 dBFS (clipped)": what a screen reader says and tests read.
    QString levelsText() const;

    QSize sizeHint() const override { return {180, 22}; }

Q_SIGNALS:
    /// A click on the meter: the clip lights go out.
    void clipResetRequested();

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;

private:
    std::vector<double> peaksDB_;
    std::vector<bool> clipped_;
};

} // namespace harlune
