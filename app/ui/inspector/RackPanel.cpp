#include "ui/inspector/RackPanel.h"

#include "dsp/plugins/PluginEffect.h"
#include "editor/EditorModel.h"
#include "ui/inspector/EffectSlotEditor.h"
#include "ui/inspector/RackSlotView.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDragEnterEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QMimeData>
#include <QPushButton>
#include <QSignalBlocker>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>
#include <algorithm>
#include <cstdlib>

namespace harlune {

namespace {

QString qText(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

} // namespace

RackPanel::RackPanel(EditorModel& model, QWidget* parent)
    : QWidget(parent), model_(model), add_(new QToolButton), preview_(new QCheckBox(tr("Preview"))),
      tail_(new QComboBox), errorBar_(new QWidget), error_(new QLabel),
      dismiss_(new QPushButton(tr("Dismiss"))),
      empty_(new QLabel(tr("No effects. Add one to hear it while playing."))), list_(new QVBoxLayout),
      meters_(new QTimer(this)) {
    setObjectName(QStringLiteral("RackPanel"));
    setAcceptDrops(true);
    add_->setText(tr("Add"));
    add_->setToolTip(tr("Add an effect at the end of the chain"));
    add_->setPopupMode(QToolButton::InstantPopup);
    add_->setMenu(new QMenu(add_));
    preview_->setToolTip(tr("Play through the effects (the file itself stays as it is)"));
    tail_->addItem(tr("Mix tails into following audio"));
    tail_->addItem(tr("Cut tails at the end"));
    tail_->setToolTip(tr("What happens to an effect's tail when the rack is applied"));
    tail_->setAccessibleName(tr("Tail"));
    error_->setWordWrap(true);
    error_->setForegroundRole(QPalette::BrightText);
    errorBar_->setAutoFillBackground(true);
    QPalette warning = errorBar_->palette();
    warning.setColor(QPalette::Window, QColor(0xb3, 0x3a, 0x22));
    warning.setColor(QPalette::BrightText, Qt::white);
    errorBar_->setPalette(warning);
    auto* errorLayout = new QHBoxLayout(errorBar_);
    errorLayout->addWidget(error_, 1);
    errorLayout->addWidget(dismiss_);
    empty_->setWordWrap(true);
    empty_->setAlignment(Qt::AlignCenter);
    empty_->setForegroundRole(QPalette::PlaceholderText);

    auto* header = new QHBoxLayout;
    header->addWidget(add_);
    header->addWidget(preview_);
    header->addStretch(1);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(header);
    layout->addWidget(tail_);
    layout->addWidget(errorBar_);
    layout->addWidget(empty_);
    list_->setSpacing(4);
    layout->addLayout(list_);
    layout->addStretch(1);

    fillAddMenu();
    connect(preview_, &QCheckBox::toggled, this, [this](bool on) { model_.rack().setPreviewEnabled(on); });
    connect(tail_, &QComboBox::currentIndexChanged, this, [this](int index) {
        model_.rack().setTailMode(index == 1 ? EffectTailMode::truncate : EffectTailMode::mixIntoFollowing);
    });
    connect(dismiss_, &QPushButton::clicked, this, [this] { model_.rack().dismissError(); });
    connect(&model, &EditorModel::rackChanged, this, &RackPanel::refresh);
    meters_->setInterval(1000 / 30);
    connect(meters_, &QTimer::timeout, this, &RackPanel::pollMeters);
    refresh();
}

void RackPanel::fillAddMenu() {
    QMenu* menu = add_->menu();
    menu->clear();
    const std::pair<EffectCategory, std::vector<EffectKind>> sections[] = {
        {EffectCategory::tone, {EffectKind::eq, EffectKind::distortion}},
        {EffectCategory::dynamics, {EffectKind::compressor, EffectKind::gate}},
        {EffectCategory::space, {EffectKind::delay, EffectKind::reverb, EffectKind::chorus}},
        {EffectCategory::restoration, {EffectKind::noiseReduction}}};
    for (const auto& [category, kinds] : sections) {
        menu->addSection(qText(rawValue(category)));
        for (const EffectKind kind : kinds)
            menu->addAction(qText(displayName(kind)), this,
                            [this, kind] { model_.rack().add(EffectSettings::defaultSettings(kind)); })
                ->setObjectName(qText(rawValue(kind)));
    }
    menu->addSeparator();
    QMenu* plugins = menu->addMenu(tr("LV2 Plug-ins"));
    connect(plugins, &QMenu::aboutToShow, this, [this, plugins] {
        // Read each time: plug-ins may be installed while the editor runs.
        plugins->clear();
        const std::vector<PluginDescriptor> installed = PluginEffect::installedPlugins();
        if (installed.empty())
            plugins->addAction(tr("No LV2 effects installed"))->setEnabled(false);
        for (const PluginDescriptor& descriptor : installed)
            plugins->addAction(QString::fromStdString(descriptor.name), this,
                               [this, descriptor] { model_.rack().addPlugin(descriptor); });
    });
}

RackSlotView* RackPanel::slotView(const Uuid& id) const {
    const auto found = std::find_if(views_.begin(), views_.end(),
                                    [&id](const RackSlotView* view) { return view->slotID() == id; });
    return found == views_.end() ? nullptr : *found;
}

void RackPanel::refresh() {
    const EffectsRack& rack = model_.rack();
    {
        const QSignalBlocker blockers[] = {QSignalBlocker(preview_), QSignalBlocker(tail_)};
        preview_->setChecked(rack.previewEnabled());
        tail_->setCurrentIndex(rack.tailMode() == EffectTailMode::truncate ? 1 : 0);
    }
    errorBar_->setVisible(rack.lastError().has_value());
    error_->setText(rack.lastError() ? QString::fromStdString(*rack.lastError()) : QString());
    empty_->setVisible(rack.slots().empty());

    std::vector<std::string> structure;
    for (const EffectSlot& slot : rack.slots())
        structure.push_back(slot.structuralKey());
    if (structure != builtFor_)
        rebuildSlots();
    else
        for (size_t i = 0; i < views_.size(); ++i)
            views_[i]->sync(rack.slots()[i]);

    const bool anyMeter = std::any_of(views_.begin(), views_.end(), [](const RackSlotView* view) {
        return view->editor() && view->editor()->meter();
    });
    if (anyMeter && !meters_->isActive())
        meters_->start();
    else if (!anyMeter)
        meters_->stop();
}

void RackPanel::rebuildSlots() {
    // Later, not now: the change may come from a button inside the view (Remove) that is still
    // in its click handler.
    for (RackSlotView* view : views_) {
        view->hide();
        list_->removeWidget(view);
        view->deleteLater();
    }
    views_.clear();
    builtFor_.clear();
    const std::vector<EffectSlot>& slots = model_.rack().slots();
    for (size_t i = 0; i < slots.size(); ++i) {
        auto* view = new RackSlotView(model_, slots[i], static_cast<int>(i));
        list_->addWidget(view);
        views_.push_back(view);
        builtFor_.push_back(slots[i].structuralKey());
    }
}

void RackPanel::pollMeters() {
    if (!isVisible())
        return;
    for (RackSlotView* view : views_)
        if (view->editor())
            view->editor()->pollMeter();
}

void RackPanel::moveSlot(int from, int to) {
    const std::vector<EffectSlot>& slots = model_.rack().slots();
    const int count = static_cast<int>(slots.size());
    if (from < 0 || from >= count)
        return;
    to = std::clamp(to, 0, count - 1);
    const Uuid id = slots[static_cast<size_t>(from)].id;
    const int step = to > from ? 1 : -1;
    for (int i = 0; i < std::abs(to - from); ++i)
        model_.rack().move(id, step);
}

int RackPanel::dropIndex(int y) const {
    // The place of the first slot whose middle lies below the drop; the end past all of them.
    for (size_t i = 0; i < views_.size(); ++i) {
        const QRect area = views_[i]->geometry();
        if (y < area.center().y())
            return static_cast<int>(i);
    }
    return static_cast<int>(views_.size());
}

void RackPanel::dragEnterEvent(QDragEnterEvent* event) {
    if (event->mimeData()->hasFormat(QString::fromLatin1(RackSlotView::mimeType)))
        event->acceptProposedAction();
}

void RackPanel::dragMoveEvent(QDragMoveEvent* event) {
    if (event->mimeData()->hasFormat(QString::fromLatin1(RackSlotView::mimeType)))
        event->acceptProposedAction();
}

void RackPanel::dropEvent(QDropEvent* event) {
    bool ok = false;
    const int from = event->mimeData()->data(QString::fromLatin1(RackSlotView::mimeType)).toInt(&ok);
    if (!ok)
        return;
    int to = dropIndex(event->position().toPoint().y());
    // Dropped below itself: the slots above the gap move up by one.
    if (to > from)
        --to;
    moveSlot(from, to);
    event->acceptProposedAction();
}

} // namespace harlune
