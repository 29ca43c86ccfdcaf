#pragma once

#include <QGroupBox>

class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QPushButton;
class QSlider;
class QToolButton;

namespace harlune {

class EditorModel;

/// "Adjust Loudness": how the gain is chosen (a target or a manual gain), the ceiling and
/// limiting, the preview, what the plan predicts, and the button that applies it. Every control
/// writes straight to the model's loudness fields and follows them back.
class AdjustLoudnessSection final : public QGroupBox {
    Q_OBJECT

public:
    explicit AdjustLoudnessSection(EditorModel& model, QWidget* parent = nullptr);

    /// "Spotify / YouTube / Tidal  (-14 LUFS, -1 dBTP)".
    static QString presetTitle(int index);

    QComboBox& mode() { return *mode_; }
    QToolButton& presets() { return *presets_; }
    QDoubleSpinBox& target() { return *target_; }
    QSlider& gain() { return *gain_; }
    QDoubleSpinBox& ceiling() { return *ceiling_; }
    QCheckBox& limit() { return *limit_; }
    QCheckBox& preview() { return *preview_; }
    QLabel& planGain() { return *planGain_; }
    QLabel& planLoudness() { return *planLoudness_; }
    QLabel& planPeak() { return *planPeak_; }
    QLabel& limiting() { return *limiting_; }
    QPushButton& apply() { return *apply_; }

private:
    void refresh();

    EditorModel& model_;
    QComboBox* mode_;
    QToolButton* presets_;
    QLabel* targetLabel_;
    QDoubleSpinBox* target_;
    QLabel* gainLabel_;
    QSlider* gain_;
    QLabel* gainValue_;
    QDoubleSpinBox* ceiling_;
    QCheckBox* limit_;
    QCheckBox* preview_;
    QLabel* planGain_;
    QLabel* planLoudness_;
    QLabel* planPeak_;
    QLabel* limiting_;
    QLabel* limitingIcon_ = nullptr;
    QPushButton* apply_;
};

} // namespace harlune
