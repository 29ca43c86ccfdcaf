#include "ui/BusyOverlay.h"

#include "editor/EditorModel.h"

#include <QEvent>
#include <QGraphicsOpacityEffect>
#include <QLabel>
#include <QPainter>
#include <QProgressBar>
#include <QPropertyAnimation>
#include <QPushButton>
#include <QShortcut>
#include <QTimer>
#include <QVBoxLayout>
#include <cmath>

namespace harlune {

namespace {
constexpr int showDelayMilliseconds = 250;
constexpr int fadeMilliseconds = 150;
} // namespace

BusyOverlay::BusyOverlay(EditorModel& model, QWidget* parent)
    : QWidget(parent), model_(model), panel_(new QWidget(this)), title_(new QLabel(panel_)),
      progress_(new QProgressBar(panel_)), percent_(new QLabel(panel_)),
      cancel_(new QPushButton(tr("Cancel"), panel_)), opacity_(new QGraphicsOpacityEffect(panel_)),
      fade_(new QPropertyAnimation(opacity_, "opacity", this)), delay_(new QTimer(this)) {
    setAccessibleName(tr("Busy"));
    panel_->setAutoFillBackground(true);
    panel_->setGraphicsEffect(opacity_);
    auto* layout = new QVBoxLayout(panel_);
    layout->addWidget(title_);
    progress_->setRange(0, 1000);
    progress_->setTextVisible(false);
    layout->addWidget(progress_);
    layout->addWidget(percent_);
    layout->addWidget(cancel_, 0, Qt::AlignRight);
    panel_->setFixedWidth(320);
    panel_->adjustSize();

    fade_->setDuration(fadeMilliseconds);
    fade_->setStartValue(0.0);
    fade_->setEndValue(1.0);
    fade_->setEasingCurve(QEasingCurve::OutCubic);
    delay_->setSingleShot(true);
    delay_->setInterval(showDelayMilliseconds);
    connect(delay_, &QTimer::timeout, this, &BusyOverlay::showPanel);

    connect(cancel_, &QPushButton::clicked, this, [this] {
        if (model_.busy() && model_.busy()->token)
            model_.busy()->token->cancel();
    });
    auto* escape = new QShortcut(QKeySequence(Qt::Key_Escape), this);
    escape->setContext(Qt::WindowShortcut);
    connect(escape, &QShortcut::activated, cancel_, &QPushButton::click);
    connect(&model_, &EditorModel::busyChanged, this, &BusyOverlay::busyChanged);
    parent->installEventFilter(this);
    setGeometry(parent->rect());
    busyChanged();
}

bool BusyOverlay::isPanelShown() const {
    return isVisible() && panel_->isVisible();
}

bool BusyOverlay::eventFilter(QObject* watched, QEvent* event) {
    if (watched == parent() && event->type() == QEvent::Resize) {
        setGeometry(parentWidget()->rect());
        panel_->move((width() - panel_->width()) / 2, (height() - panel_->height()) / 2);
    }
    return QWidget::eventFilter(watched, event);
}

void BusyOverlay::paintEvent(QPaintEvent*) {
    // A veil over the views once the panel shows; before that the overlay only takes the input.
    if (!panel_->isVisible())
        return;
    QPainter painter(this);
    QColor veil = palette().window().color();
    veil.setAlphaF(float(0.5 * opacity_->opacity()));
    painter.fillRect(rect(), veil);
}

void BusyOverlay::busyChanged() {
    const auto& busy = model_.busy();
    if (!busy) {
        delay_->stop();
        fade_->stop();
        hide();
        return;
    }
    title_->setText(busy->title);
    const double fraction = std::clamp(busy->fraction, 0.0, 1.0);
    progress_->setValue(int(std::lround(fraction * 1000)));
    percent_->setText(QStringLiteral("%1 %").arg(int(std::floor(fraction * 100))));
    if (isVisible())
        return;
    // Visible at once so that the views beneath take no input, but with the panel hidden.
    panel_->hide();
    setGeometry(parentWidget()->rect());
    raise();
    show();
    setFocus();
    delay_->start();
}

void BusyOverlay::showPanel() {
    panel_->move((width() - panel_->width()) / 2, (height() - panel_->height()) / 2);
    opacity_->setOpacity(0);
    panel_->show();
    cancel_->setFocus();
    fade_->start();
    update();
    Q_EMIT panelShown();
}

} // namespace harlune
