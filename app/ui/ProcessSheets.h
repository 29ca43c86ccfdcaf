#pragma once

#include "core/Processing.h"

#include <QWidget>

class QDialog;

namespace harlune {

class EditorModel;

/// The small dialogs that ask for a process command's parameters. Each is window-modal, opened
/// with `open()` so that other documents' windows stay usable, deletes itself when closed, has
/// "Cancel" and a default confirm button, and calls the model's command on confirm. The model
/// must outlive the sheet (the sheet is a child of the model's window).
QDialog* makeGainSheet(EditorModel& model, QWidget* parent);
QDialog* makeNormalizeSheet(EditorModel& model, QWidget* parent);
QDialog* makeFadeSheet(EditorModel& model, QWidget* parent);
QDialog* makeInsertSilenceSheet(EditorModel& model, QWidget* parent);
QDialog* makeSampleRateSheet(EditorModel& model, QWidget* parent);
QDialog* makeTimePitchSheet(EditorModel& model, QWidget* parent);

/// The curve of a fade shape, rising for a fade in and falling for a fade out.
class FadeCurvePreview final : public QWidget {
    Q_OBJECT

public:
    explicit FadeCurvePreview(QWidget* parent = nullptr);
    void setFade(FadeDirection direction, FadeShape shape);
    /// "Fade In, S-Curve": what assistive technology reads as the curve's value.
    QString accessibleValue() const;
    QSize sizeHint() const override { return {200, 80}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    FadeDirection direction_ = FadeDirection::fadeIn;
    FadeShape shape_ = FadeShape::sCurve;
};

} // namespace harlune
