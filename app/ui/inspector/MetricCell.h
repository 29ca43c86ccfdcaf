#pragma once

#include <QFrame>
#include <QString>

class QLabel;

namespace harlune {

/// "%.1f" of `value`, or an em dash where it is not finite (negative infinity: silence).
QString figureText(double value, const char* format = "%.1f");

/// One measurement of the loudness panel: a title, a value with its unit, and an optional line
/// beneath ("vs. target -1.0 LU"). With `warning` the value shows in the warning colour.
class MetricCell final : public QFrame {
    Q_OBJECT

public:
    MetricCell(const QString& title, const QString& unit, QWidget* parent = nullptr);

    void setValue(double value);
    void setWarning(bool warning);
    /// The line beneath the value; hidden when empty.
    void setDetail(const QString& detail);

    QString title() const;
    /// The value as shown: "-23.0", or the dash.
    QString value() const;
    QString unit() const;
    bool warning() const { return warning_; }
    QString detail() const;

private:
    void refreshAccessibility();

    QLabel* title_;
    QLabel* value_;
    QLabel* unit_;
    QLabel* detail_;
    bool warning_ = false;
};

} // namespace harlune
