#include "ui/inspector/MarkersPanel.h"

#include "editor/EditorModel.h"
#include "ui/SymbolIcons.h"
#include "ui/Theme.h"

#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QToolButton>
#include <QVBoxLayout>

namespace harlune {

namespace {

bool isListKey(int key) {
    switch (key) {
    case Qt::Key_Delete:
    case Qt::Key_Backspace:
    case Qt::Key_Home:
    case Qt::Key_End:
    case Qt::Key_Up:
    case Qt::Key_Down:
    case Qt::Key_Left:
    case Qt::Key_Right:
        return true;
    default:
        return false;
    }
}

} // namespace

bool MarkerList::event(QEvent* event) {
    // Accepting the override makes Qt deliver the key here instead of firing a shortcut.
    if (event->type() == QEvent::ShortcutOverride) {
        auto* key = static_cast<QKeyEvent*>(event);
        if (key->modifiers() == Qt::NoModifier && isListKey(key->key())) {
            event->accept();
            return true;
        }
    }
    return QListWidget::event(event);
}

void MarkerList::keyPressEvent(QKeyEvent* event) {
    if (event->modifiers() == Qt::NoModifier &&
        (event->key() == Qt::Key_Delete || event->key() == Qt::Key_Backspace)) {
        if (currentRow() >= 0 && currentItem() && currentItem()->isSelected())
            Q_EMIT removeRequested(currentRow());
        event->accept();
        return;
    }
    QListWidget::keyPressEvent(event);
}

MarkersPanel::MarkersPanel(EditorModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    setObjectName(QStringLiteral("MarkersPanel"));
    auto* title = new QLabel(tr("Markers"));
    QFont bold = title->font();
    bold.setBold(true);
    title->setFont(bold);

    add_ = new QToolButton;
    add_->setText(tr("Add"));
    add_->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    add_->setIcon(SymbolIcons::icon(QStringLiteral("plus")));
    add_->setToolTip(tr("Add a marker at the cursor (M)"));
    add_->setAccessibleDescription(add_->toolTip());
    connect(add_, &QToolButton::clicked, this, [this] { model_.addMarker(); });

    auto* header = new QHBoxLayout;
    header->addWidget(title);
    header->addStretch(1);
    header->addWidget(add_);

    empty_ =
        new QLabel(tr("Press M while editing, or Ctrl+M, to drop a marker at the cursor. Drag marker flags "
                      "in the ruler to move them; double-click in the waveform to select between markers."));
    empty_->setWordWrap(true);
    empty_->setEnabled(false); // the secondary look of a hint

    list_ = new MarkerList;
    list_->setObjectName(QStringLiteral("MarkerList"));
    list_->setAccessibleName(tr("Markers"));
    list_->setSelectionMode(QAbstractItemView::SingleSelection);
    connect(list_, &MarkerList::removeRequested, this, [this](int row) {
        if (const auto id = markerAt(row))
            model_.removeMarker(*id);
    });

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(header);
    layout->addWidget(empty_);
    layout->addWidget(list_, 1);

    connect(&model_, &EditorModel::markersChanged, this, &MarkersPanel::followMarkers);
    connect(&model_, &EditorModel::timeFormatChanged, this, &MarkersPanel::followMarkers);
    connect(&model_, &EditorModel::contentVersionChanged, this, &MarkersPanel::followMarkers);
    followMarkers();
}

QWidget* MarkersPanel::rowWidget(int row) const {
    QListWidgetItem* item = list_->item(row);
    return item ? list_->itemWidget(item) : nullptr;
}

QLineEdit* MarkersPanel::nameField(int row) const {
    QWidget* widget = rowWidget(row);
    return widget ? widget->findChild<QLineEdit*>(QStringLiteral("Name")) : nullptr;
}

QLabel* MarkersPanel::timeLabel(int row) const {
    QWidget* widget = rowWidget(row);
    return widget ? widget->findChild<QLabel*>(QStringLiteral("Time")) : nullptr;
}

QToolButton* MarkersPanel::goButton(int row) const {
    QWidget* widget = rowWidget(row);
    return widget ? widget->findChild<QToolButton*>(QStringLiteral("Go")) : nullptr;
}

QToolButton* MarkersPanel::removeButton(int row) const {
    QWidget* widget = rowWidget(row);
    return widget ? widget->findChild<QToolButton*>(QStringLiteral("Remove")) : nullptr;
}

std::optional<Uuid> MarkersPanel::markerAt(int row) const {
    QListWidgetItem* item = list_->item(row);
    if (!item)
        return std::nullopt;
    const QString text = item->data(Qt::UserRole).toString();
    for (const Marker& marker : model_.markers())
        if (QString::fromStdString(marker.id.string()) == text)
            return marker.id;
    return std::nullopt;
}

void MarkersPanel::followMarkers() {
    const std::vector<Marker>& markers = model_.markers();
    empty_->setVisible(markers.empty());
    list_->setVisible(!markers.empty());

    bool sameRows = list_->count() == static_cast<int>(markers.size());
    for (int row = 0; sameRows && row < list_->count(); ++row)
        sameRows = list_->item(row)->data(Qt::UserRole).toString() ==
                   QString::fromStdString(markers[static_cast<size_t>(row)].id.string());
    if (sameRows) {
        for (int row = 0; row < list_->count(); ++row)
            updateRow(row);
        return;
    }

    const std::optional<Uuid> selected = markerAt(list_->currentRow());
    // Row widgets go with their items (Qt deletes them later), so a button may remove its own row.
    list_->clear();
    const QIcon flag =
        SymbolIcons::icon(QStringLiteral("flag.fill"), Theme::marker.of(Theme::isDark(palette())));
    const QIcon cross = SymbolIcons::icon(QStringLiteral("xmark.circle.fill"));
    for (const Marker& marker : markers) {
        const Uuid id = marker.id;
        auto* item = new QListWidgetItem;
        item->setData(Qt::UserRole, QString::fromStdString(id.string()));
        auto* row = new QWidget;
        auto* rowLayout = new QHBoxLayout(row);
        rowLayout->setContentsMargins(4, 2, 4, 2);

        auto* icon = new QLabel;
        icon->setPixmap(flag.pixmap(16, 16));
        auto* name = new QLineEdit;
        name->setObjectName(QStringLiteral("Name"));
        name->setAccessibleName(tr("Name"));
        name->setPlaceholderText(tr("Name"));
        connect(name, &QLineEdit::editingFinished, this,
                [this, id, name] { model_.renameMarker(id, name->text()); });
        auto* time = new QLabel;
        time->setObjectName(QStringLiteral("Time"));
        auto* go = new QToolButton;
        go->setObjectName(QStringLiteral("Go"));
        go->setText(QStringLiteral("\u2192"));
        go->setToolTip(tr("Move the cursor here"));
        go->setAccessibleName(go->toolTip());
        connect(go, &QToolButton::clicked, this, [this, id] {
            for (const Marker& m : model_.markers())
                if (m.id == id)
                    model_.seek(m.frame);
        });
        auto* remove = new QToolButton;
        remove->setObjectName(QStringLiteral("Remove"));
        remove->setIcon(cross);
        remove->setAutoRaise(true);
        remove->setToolTip(tr("Remove marker"));
        remove->setAccessibleName(remove->toolTip());
        connect(remove, &QToolButton::clicked, this, [this, id] { model_.removeMarker(id); });

        rowLayout->addWidget(icon);
        rowLayout->addWidget(name, 1);
        rowLayout->addWidget(time);
        rowLayout->addWidget(go);
        rowLayout->addWidget(remove);
        item->setSizeHint(row->sizeHint());
        list_->addItem(item);
        list_->setItemWidget(item, row);
        updateRow(list_->count() - 1);
        if (selected && *selected == id)
            list_->setCurrentItem(item);
    }
}

void MarkersPanel::updateRow(int row) {
    const Marker& marker = model_.markers()[static_cast<size_t>(row)];
    QLineEdit* name = nameField(row);
    // A field being typed in keeps its text until editing ends.
    if (name && !name->hasFocus() && name->text() != marker.name)
        name->setText(marker.name);
    if (QLabel* time = timeLabel(row)) {
        const QString text = string(model_.timeFormat(), marker.frame, model_.content().sampleRate());
        time->setText(text);
        time->setAccessibleName(tr("Time"));
        time->setAccessibleDescription(text);
    }
}

} // namespace harlune
