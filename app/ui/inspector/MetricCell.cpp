#include "ui/inspector/MetricCell.h"

#include "editor/CFormatted.h"

#include <QGridLayout>
#include <QLabel>
#include <cmath>

namespace harlune {

QString figureText(double value, const char* format) {
    if (!std::isfinite(value))
        return QStringLiteral("\u2014");
    QString text = cFormatted(format, value);
    // A level a hair under zero rounds to "-0.0": that sign says nothing.
    if (text.startsWith(QLatin1Char('-')) && text.count(QLatin1Char('0')) == text.size() - 2)
        text.remove(0, 1);
    return text;
}

MetricCell::MetricCell(const QString& title, const QString& unit, QWidget* parent)
    : QFrame(parent), title_(new QLabel(title)), value_(new QLabel(figureText(-INFINITY))),
      unit_(new QLabel(unit)), detail_(new QLabel) {
    setObjectName(title);
    setFrameShape(QFrame::StyledPanel);
    title_->setForegroundRole(QPalette::PlaceholderText);
    QFont big = value_->font();
    big.setPointSizeF(big.pointSizeF() * 1.5);
    big.setBold(true);
    value_->setFont(big);
    value_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    detail_->setForegroundRole(QPalette::PlaceholderText);
    detail_->hide();
    auto* layout = new QGridLayout(this);
    layout->setContentsMargins(8, 6, 8, 6);
    layout->setVerticalSpacing(2);
    layout->addWidget(title_, 0, 0, 1, 2);
    layout->addWidget(value_, 1, 0, Qt::AlignBaseline);
    layout->addWidget(unit_, 1, 1, Qt::AlignBaseline | Qt::AlignLeft);
    layout->addWidget(detail_, 2, 0, 1, 2);
    layout->setColumnStretch(1, 1);
    refreshAccessibility();
}

void MetricCell::setValue(double value) {
    value_->setText(figureText(value));
    refreshAccessibility();
}

void MetricCell::setWarning(bool warning) {
    if (warning == warning_)
        return;
    warning_ = warning;
    QPalette palette = value_->palette();
    if (warning)
        palette.setColor(QPalette::WindowText, QColor(0xd9, 0x4a, 0x2b));
    else
        palette = this->palette();
    value_->setPalette(palette);
    refreshAccessibility();
}

void MetricCell::setDetail(const QString& detail) {
    detail_->setText(detail);
    detail_->setVisible(!detail.isEmpty());
    refreshAccessibility();
}

QString MetricCell::title() const {
    return title_->text();
}
QString MetricCell::value() const {
    return value_->text();
}
QString MetricCell::unit() const {
    return unit_->text();
}
QString MetricCell::detail() const {
    return detail_->text();
}

void MetricCell::refreshAccessibility() {
    // The whole reading in one name, since a screen reader meets the cell as one thing.
    QString text = title() + QStringLiteral(": ") + value() + QLatin1Char(' ') + unit();
    if (!detail().isEmpty())
        text += QStringLiteral(", ") + detail();
    if (warning_)
        text += tr(", above the ceiling");
    setAccessibleName(text);
}

} // namespace harlune
