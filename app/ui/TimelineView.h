#pragma once

#include "ui/StaticLayerCache.h"

#include <QElapsedTimer>
#include <QTimer>
#include <QWidget>
#include <optional>

namespace harlune {

class EditorModel;

/// The large view of the audio: ruler, one lane per channel, the loudness lane. Everything it
/// shows comes from the model; the static drawing is cached and only the playhead is painted
/// over it, so that play never redraws the waveform. Main thread only.
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

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void watch();
    void fieldChanged(TimelineField field);
    void cursorChanged();
    void updatePlayhead();
    void playbackChanged();
    QRect playheadStrip(double frame) const;
    TimelineCanvas canvas() const;

    EditorModel& model_;
    StaticLayerCache cache_;
    std::optional<double> playheadFrame_;
    int64_t lastCursor_ = 0;
    QTimer playheadTimer_;
    // Extrapolation between the sound server's buffer steps.
    int64_t lastAudible_ = -1;
    QElapsedTimer sinceAudibleStep_;
};

} // namespace harlune
