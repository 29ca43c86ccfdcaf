#pragma once

#include "base/Uuid.h"
#include "engine/EffectSlot.h"

#include <QFrame>
#include <QPoint>

class QCheckBox;
class QLabel;
class QProgressBar;
class QToolButton;

namespace harlune {

class EditorModel;
class EffectSlotEditor;

/// One slot of the rack panel: a header to drag it by, with its on/off toggle, name, a spinner
/// while a plug-in loads, the button that opens its editor and the one that removes it; below,
/// the editor when it is the open one.
class RackSlotView final : public QFrame {
    Q_OBJECT

public:
    /// The MIME type of a slot being dragged; the data is its index as text.
    static constexpr const char* mimeType = "application/x-harlune-rack-slot";

    RackSlotView(EditorModel& model, const EffectSlot& slot, int index, QWidget* parent = nullptr);

    const Uuid& slotID() const { return id_; }
    /// Shows the state of `slot` and the rack (open, loading), without writing back.
    void sync(const EffectSlot& slot);

    QCheckBox& enabled() { return *enabled_; }
    QToolButton& expand() { return *expand_; }
    QToolButton& remove() { return *remove_; }
    QProgressBar& spinner() { return *spinner_; }
    /// The open editor; null while closed.
    EffectSlotEditor* editor() const { return editor_; }

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

private:
    EditorModel& model_;
    Uuid id_;
    int index_;
    QCheckBox* enabled_;
    QProgressBar* spinner_;
    QToolButton* expand_;
    QToolButton* remove_;
    EffectSlotEditor* editor_ = nullptr;
    QPoint pressedAt_;
    bool pressed_ = false;
};

} // namespace harlune
