#pragma once

#include "base/Uuid.h"

#include <QListWidget>
#include <QWidget>
#include <optional>

class QLabel;
class QLineEdit;
class QToolButton;

namespace harlune {

class EditorModel;

/// The list of marker rows. While it has the focus it takes Delete, Backspace, Home, End and the
/// arrows for itself, so the menu's shortcuts (Delete removes audio) never fire from here: Delete
/// and Backspace remove the selected marker instead.
class MarkerList final : public QListWidget {
    Q_OBJECT

public:
    using QListWidget::QListWidget;

Q_SIGNALS:
    void removeRequested(int row);

protected:
    bool event(QEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
};

/// The markers as a list: add, rename in place, remove, go to. Each row has the flag, a "Name"
/// field (one undo step when editing ends), the time in the model's format, "Move the cursor
/// here" and "Remove marker".
class MarkersPanel final : public QWidget {
    Q_OBJECT

public:
    explicit MarkersPanel(EditorModel& model, QWidget* parent = nullptr);

    QToolButton& addButton() { return *add_; }
    MarkerList& list() { return *list_; }
    QLabel& emptyText() { return *empty_; }
    /// The widgets of row `row`, for tests and assistive technology.
    QLineEdit* nameField(int row) const;
    QLabel* timeLabel(int row) const;
    QToolButton* goButton(int row) const;
    QToolButton* removeButton(int row) const;

private:
    /// Rows follow the model: rebuilt when markers come or go or change order, otherwise updated
    /// in place, so that a name being edited keeps its field and focus.
    void followMarkers();
    void updateRow(int row);
    QWidget* rowWidget(int row) const;
    std::optional<Uuid> markerAt(int row) const;

    EditorModel& model_;
    QToolButton* add_ = nullptr;
    MarkerList* list_ = nullptr;
    QLabel* empty_ = nullptr;
};

} // namespace harlune
