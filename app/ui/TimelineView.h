#pragma once

#include "ui/Autoscroll.h"
#include "ui/StaticLayerCache.h"
#include "ui/TimelineDrag.h"
#include "ui/TimelineGeometry.h"

#include <QElapsedTimer>
#include <QPointF>
#include <QTimer>
#include <QWidget>
#include <functional>
#include <optional>
#include <string_view>

class QAction;
class QMenu;
class QNativeGestureEvent;

namespace harlune {

class EditorModel;

/// The large view of the audio: ruler, one lane per channel, the loudness lane. Everything it
/// shows comes from the model; the static drawing is cached and only the playhead is painted
/// over it, so that play never redraws the waveform.
///
/// Gestures write to the model at every move without undo; the release hands the value kept at
/// the press to one model command, so a drag is one undo step. Only the left button starts one;
/// nothing is edited while the model is busy. Main thread only.
class TimelineView : public QWidget {
    Q_OBJECT

public:
    explicit TimelineView(EditorModel& model, QWidget* parent = nullptr);

    EditorModel& model() const { return model_; }
    /// The frame under the playhead, absent when it is hidden.
    std::optional<double> playheadFrame() const { return playheadFrame_; }
    const StaticLayerCache& cache() const { return cache_; }
    /// What assistive technology reads as the view's value: length and selection.
    QString accessibleValue() const;

    /// The value shown beside the pointer while the envelope is dragged.
    struct Readout {
        QString text;
        QPointF at;
    };
    const TimelineDrag& drag() const { return drag_; }
    const std::optional<Readout>& dragReadout() const { return dragReadout_; }
    /// Bars highlighted while whole bars are raised or lowered, first and last.
    const std::optional<std::pair<int64_t, int64_t>>& barSpan() const { return barSpan_; }
    /// From the press of a left button to its release, whatever the gesture.
    bool isInGesture() const { return inGesture_; }
    bool isAutoscrolling() const { return autoscroll_.isRunning(); }
    /// One beat of the autoscroll timer: scrolls by the overshoot of the last drag point and
    /// applies the drag there, so a selection grows with the pointer at rest.
    void autoscrollTick();
    /// Where the context menu finds the window's commands by id ("cut", "fadeIn", ...), with
    /// their shortcuts and enabled states; without one its entries call the model themselves.
    void setCommandLookup(std::function<QAction*(std::string_view id)> lookup) {
        lookup_ = std::move(lookup);
    }
    /// The context menu for a secondary click at `point`; the caller owns it.
    QMenu* contextMenuAt(QPointF point);

Q_SIGNALS:
    /// A gesture's release; `selectionChanged` when the selection differs from the press's.
    void gestureEnded(bool selectionChanged);
    /// Local files dropped on the view, to be opened each in a window of its own.
    void filesDropped(const QStringList& paths);

protected:
    bool event(QEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void contextMenuEvent(QContextMenuEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dropEvent(QDropEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void watch();
    void fieldChanged(TimelineField field);
    void cursorChanged();
    void selectionChanged();
    void updatePlayhead();
    void playbackChanged();
    QRect playheadStrip(double frame) const;
    TimelineCanvas canvas() const;
    TimelineLayout layout() const;
    void paintGestureOverlay(QPainter& painter);

    // Gestures (TimelineMouse.cpp).
    void press(QPointF point, Qt::KeyboardModifiers modifiers, int clickCount);
    void pressInLanes(QPointF point, Qt::KeyboardModifiers modifiers, int clickCount);
    void pressInRuler(QPointF point, int clickCount);
    void pressOnEnvelope(QPointF point, Qt::KeyboardModifiers modifiers, int clickCount);
    void applyDrag(QPointF point);
    void updateSelection(int64_t frame);
    void moveGainPoint(const drag::GainPoint& point, QPointF at);
    void moveGainSection(const drag::GainSection& section, QPointF at);
    void moveGainBars(const drag::GainBars& bars, QPointF at);
    void release();
    void updatePointer(QPointF point);
    // Keys, wheel and pinch (TimelineKeys.cpp, TimelineWheel.cpp).
    bool handleKey(const QKeyEvent& event);
    void moveCursor(int64_t delta, bool extend);
    /// A context-menu command when the window lends none (TimelineContextMenu.cpp).
    void runCommand(std::string_view id);
    void stepEnvelopeRange(bool smaller);
    void pinch(const QNativeGestureEvent& event);

    EditorModel& model_;
    StaticLayerCache cache_;
    std::optional<double> playheadFrame_;
    int64_t lastCursor_ = 0;
    std::optional<FrameRange> lastSelection_;
    QTimer playheadTimer_;
    // Extrapolation between the sound server's buffer steps.
    int64_t lastAudible_ = -1;
    QElapsedTimer sinceAudibleStep_;

    // Gestures.
    TimelineDrag drag_;
    Autoscroll autoscroll_;
    QPointF lastDragPoint_;
    Qt::KeyboardModifiers dragModifiers_;
    std::optional<QPointF> hoverLocation_;
    std::optional<Uuid> hoveredPoint_;
    std::optional<Readout> dragReadout_;
    std::optional<std::pair<int64_t, int64_t>> barSpan_;
    bool inGesture_ = false;
    std::optional<FrameRange> selectionAtPress_;
    /// Line-based wheel units toward the next step of the envelope range.
    double rangeWheel_ = 0;
    std::function<QAction*(std::string_view id)> lookup_;
};

} // namespace harlune
