#pragma once

#include "base/Uuid.h"

#include <QWidget>
#include <vector>

class QCheckBox;
class QComboBox;
class QLabel;
class QPushButton;
class QTimer;
class QToolButton;
class QVBoxLayout;

namespace harlune {

class EditorModel;
class RackSlotView;

/// The effects rack: its slots in processing order, each with an editor built from its parameters.
///
/// Slots are switched on and off in their headers, dragged by them to another place, and opened
/// one at a time (`expandedSlotID`). The panel rebuilds its slot views only when the list's
/// structure changes; a parameter change just shows the new values, so that a control being
/// dragged survives the rack's change signal.
class RackPanel final : public QWidget {
    Q_OBJECT

public:
    explicit RackPanel(EditorModel& model, QWidget* parent = nullptr);

    /// What a drop of slot `from` at place `to` does: the rack's single steps, so that the other
    /// slots keep their order.
    void moveSlot(int from, int to);

    QToolButton& addButton() { return *add_; }
    QCheckBox& preview() { return *preview_; }
    QComboBox& tailMode() { return *tail_; }
    QLabel& error() { return *error_; }
    QPushButton& dismiss() { return *dismiss_; }
    /// The slot views, in the rack's order.
    const std::vector<RackSlotView*>& slotViews() const { return views_; }
    RackSlotView* slotView(const Uuid& id) const;
    /// Builds the Add menu again (the plug-in list is read when it opens).
    void fillAddMenu();

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    void refresh();
    void rebuildSlots();
    void pollMeters();
    /// The place a drop at `y` (panel coordinates) lands on.
    int dropIndex(int y) const;

    EditorModel& model_;
    QToolButton* add_;
    QCheckBox* preview_;
    QComboBox* tail_;
    QWidget* errorBar_;
    QLabel* error_;
    QPushButton* dismiss_;
    QLabel* empty_;
    QVBoxLayout* list_;
    std::vector<RackSlotView*> views_;
    /// The structure the views were built for: each slot's structural key, in order.
    std::vector<std::string> builtFor_;
    QTimer* meters_;
};

} // namespace harlune
