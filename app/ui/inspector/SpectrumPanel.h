#pragma once

#include <QWidget>

class QCheckBox;
class QComboBox;
class QLabel;

namespace harlune {

class EditorModel;
class SpectrumState;
class SpectrumView;

/// The spectrum around the cursor, live at the playhead, or averaged over the selection.
class SpectrumPanel final : public QWidget {
    Q_OBJECT

public:
    /// Where the spectrum is taken, in the picker's order.
    enum class Source { aroundCursor, liveAtPlayhead, selectionAverage };

    explicit SpectrumPanel(EditorModel& model, QWidget* parent = nullptr);

    SpectrumState& state() { return *state_; }
    SpectrumView& view() { return *view_; }
    QComboBox& sourcePicker() { return *source_; }
    QComboBox& frequencyPicker() { return *frequency_; }
    QComboBox& amplitudePicker() { return *amplitude_; }
    QComboBox& fftSizePicker() { return *fftSize_; }
    QCheckBox& peakHoldToggle() { return *peakHold_; }
    QLabel& caption() { return *caption_; }
    Source source() const;

private:
    /// Asks the state for the spectrum the picker wants, of the audio as heard.
    void refresh();
    void updateCaption();

    EditorModel& model_;
    SpectrumState* state_ = nullptr;
    SpectrumView* view_ = nullptr;
    QComboBox* source_ = nullptr;
    QComboBox* frequency_ = nullptr;
    QComboBox* amplitude_ = nullptr;
    QComboBox* fftSize_ = nullptr;
    QCheckBox* peakHold_ = nullptr;
    QLabel* caption_ = nullptr;
};

} // namespace harlune
