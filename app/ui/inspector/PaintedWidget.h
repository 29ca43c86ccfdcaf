#pragma once

#include <QString>
#include <QWidget>

namespace harlune {

/// A widget that draws what it shows itself, and so must tell assistive technology in words: it
/// reports `accessibleValue` as its accessible value, and copies it into its accessible
/// description as well, since Qt 6.4 passes no custom value text on to AT-SPI.
class PaintedWidget : public QWidget {
    Q_OBJECT

public:
    explicit PaintedWidget(QWidget* parent = nullptr);

    /// The value in words, with its unit ("-23.0 LUFS").
    virtual QString accessibleValue() const = 0;

protected:
    /// Call after the value changed: refreshes the description, tells listeners and repaints.
    void valueChanged();
};

} // namespace harlune
