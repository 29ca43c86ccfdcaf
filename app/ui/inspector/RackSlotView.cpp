#include "ui/inspector/RackSlotView.h"

#include "editor/EditorModel.h"
#include "ui/inspector/EffectSlotEditor.h"

#include <QApplication>
#include <QCheckBox>
#include <QDrag>
#include <QHBoxLayout>
#include <QLabel>
#include <QMimeData>
#include <QMouseEvent>
#include <QProgressBar>
#include <QSignalBlocker>
#include <QToolButton>
#include <QVBoxLayout>
#include <algorithm>

namespace harlune {

RackSlotView::RackSlotView(EditorModel& model, const EffectSlot& slot, int index, QWidget* parent)
    : QFrame(parent), model_(model), id_(slot.id), index_(index),
      enabled_(new QCheckBox(QString::fromStdString(slot.name()))), spinner_(new QProgressBar),
      expand_(new QToolButton), remove_(new QToolButton) {
    setFrameShape(QFrame::StyledPanel);
    setObjectName(QString::fromStdString(slot.name()));
    auto* grip = new QLabel(QStringLiteral("\u2261"));
    grip->setToolTip(tr("Drag to reorder"));
    grip->setCursor(Qt::OpenHandCursor);
    enabled_->setToolTip(tr("Turn this effect on or off"));
    spinner_->setRange(0, 0); // busy indicator
    spinner_->setMaximumWidth(48);
    spinner_->setTextVisible(false);
    spinner_->setAccessibleName(tr("Loading"));
    expand_->setCheckable(true);
    expand_->setAutoRaise(true);
    expand_->setAccessibleName(tr("Show editor"));
    remove_->setText(QStringLiteral("\u2715"));
    remove_->setAutoRaise(true);
    remove_->setToolTip(tr("Remove this effect"));
    remove_->setAccessibleName(tr("Remove"));

    auto* header = new QHBoxLayout;
    header->setContentsMargins(6, 2, 2, 2);
    header->addWidget(grip);
    header->addWidget(enabled_, 1);
    header->addWidget(spinner_);
    header->addWidget(expand_);
    header->addWidget(remove_);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addLayout(header);

    connect(enabled_, &QCheckBox::toggled, this, [this](bool on) {
        std::vector<EffectSlot> slots = model_.rack().slots();
        const auto found =
            std::find_if(slots.begin(), slots.end(), [this](const EffectSlot& s) { return s.id == id_; });
        if (found == slots.end())
            return;
        found->isEnabled = on;
        model_.rack().setSlots(std::move(slots));
    });
    connect(expand_, &QToolButton::toggled, this, [this](bool open) {
        if (open)
            model_.rack().setExpandedSlotID(id_);
        else if (model_.rack().expandedSlotID() == id_)
            model_.rack().setExpandedSlotID(std::nullopt);
    });
    connect(remove_, &QToolButton::clicked, this, [this] { model_.rack().remove(id_); });
    sync(slot);
}

void RackSlotView::sync(const EffectSlot& slot) {
    const EffectsRack& rack = model_.rack();
    const bool open = rack.expandedSlotID() == id_;
    {
        const QSignalBlocker blockers[] = {QSignalBlocker(enabled_), QSignalBlocker(expand_)};
        enabled_->setChecked(slot.isEnabled);
        expand_->setChecked(open);
    }
    expand_->setArrowType(open ? Qt::DownArrow : Qt::RightArrow);
    spinner_->setVisible(rack.loadingSlots().contains(id_));
    // A plug-in's controls are known only once it has loaded: its editor is made again then.
    if (editor_ && (!open || (editor_->awaitsControls() && !rack.loadingSlots().contains(id_)))) {
        delete editor_;
        editor_ = nullptr;
    }
    if (open && !editor_) {
        editor_ = new EffectSlotEditor(model_, slot, this);
        layout()->addWidget(editor_);
    }
    if (editor_)
        editor_->sync(slot);
}

void RackSlotView::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton) {
        pressed_ = true;
        pressedAt_ = event->position().toPoint();
    }
    QFrame::mousePressEvent(event);
}

void RackSlotView::mouseMoveEvent(QMouseEvent* event) {
    if (!pressed_ || !(event->buttons() & Qt::LeftButton) ||
        (event->position().toPoint() - pressedAt_).manhattanLength() < QApplication::startDragDistance())
        return QFrame::mouseMoveEvent(event);
    pressed_ = false;
    auto* payload = new QMimeData;
    payload->setData(QString::fromLatin1(mimeType), QByteArray::number(index_));
    auto* drag = new QDrag(this);
    drag->setMimeData(payload);
    drag->setPixmap(grab(QRect(0, 0, width(), std::min(height(), 32))));
    drag->exec(Qt::MoveAction);
}

} // namespace harlune
