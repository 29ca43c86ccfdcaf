#pragma once

#include "core/GainEnvelope.h"

#include <QGroupBox>
#include <optional>
#include <vector>

class QCheckBox;
class QGridLayout;
class QLabel;
class QPushButton;
class QSlider;

namespace harlune {

class EditorModel;

/// "Channels": the loudness of each channel alone and its trim. A slider drag writes the trims
/// live into the model's envelopes and becomes one undo step when released, from `editOrigin`,
/// the envelope set at the press; with "Link" all sliders move together by the same amount.
class ChannelLevelsSection final : public QGroupBox {
    Q_OBJECT

public:
    explicit ChannelLevelsSection(EditorModel& model, QWidget* parent = nullptr);

    /// The slider of `channel`, in tenths of a dB.
    QSlider& trim(int channel) { return *rows_.at(static_cast<size_t>(channel)).slider; }
    QLabel& loudness(int channel) { return *rows_.at(static_cast<size_t>(channel)).loudness; }
    QLabel& trimValue(int channel) { return *rows_.at(static_cast<size_t>(channel)).value; }
    int rowCount() const { return static_cast<int>(rows_.size()); }
    QCheckBox& link() { return *link_; }
    QPushButton& reset() { return *reset_; }
    QPushButton& balance() { return *balance_; }
    QLabel& difference() { return *difference_; }
    const std::optional<EnvelopeSet>& editOrigin() const { return editOrigin_; }

private:
    struct Row {
        QLabel* name;
        QLabel* loudness;
        QSlider* slider;
        QLabel* value;
    };

    void rebuildRows();
    void refresh();
    void sliderMoved(int channel, int steps);
    void endDrag();

    EditorModel& model_;
    QGridLayout* grid_;
    std::vector<Row> rows_;
    QCheckBox* link_;
    QPushButton* reset_;
    QPushButton* balance_;
    QLabel* difference_;
    std::optional<EnvelopeSet> editOrigin_;
};

} // namespace harlune
