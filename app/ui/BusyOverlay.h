#pragma once

#include <QWidget>

class QLabel;
class QProgressBar;
class QPushButton;
class QGraphicsOpacityEffect;
class QPropertyAnimation;
class QTimer;

namespace harlune {

class EditorModel;

/// Covers the document's views while the model is busy: the job's title, a progress bar, the
/// percentage and Cancel. It stays invisible for the first 0.25 s, so that short jobs do not
/// flicker, then fades in over 0.15 s. While it is up the views beneath take no input.
class BusyOverlay final : public QWidget {
    Q_OBJECT

public:
    /// Sized to `parent`, which it follows; the model must outlive the overlay.
    BusyOverlay(EditorModel& model, QWidget* parent);

    QPushButton& cancelButton() { return *cancel_; }
    /// Whether the job's panel is shown (after the delay), as against only blocking input.
    bool isPanelShown() const;

Q_SIGNALS:
    void panelShown();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

private:
    void busyChanged();
    void showPanel();

    EditorModel& model_;
    QWidget* panel_;
    QLabel* title_;
    QProgressBar* progress_;
    QLabel* percent_;
    QPushButton* cancel_;
    QGraphicsOpacityEffect* opacity_;
    QPropertyAnimation* fade_;
    QTimer* delay_;
};

} // namespace harlune
