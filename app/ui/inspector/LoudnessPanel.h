#pragma once

#include <QWidget>

class QComboBox;
class QLabel;
class QStackedWidget;

namespace harlune {

class AdjustLoudnessSection;
class ChannelLevelsSection;
class EditorModel;
class LiveMetersSection;
class LoudnessSpectrumView;
class MetricCell;

/// The loudness workflow: the measurements of the chosen scope, their distribution, the adjustment with its
/// preview, live meters and the channel trims.
class LoudnessPanel final : public QWidget {
    Q_OBJECT

public:
    explicit LoudnessPanel(EditorModel& model, QWidget* parent = nullptr);

    /// What the panel shows at the moment.
    enum class Page { noAudio, hint, figures };
    Page page() const;

    QComboBox& scope() { return *scope_; }
    /// "Measuring…" beside the scope while the file, or the selection in selection scope, is
    /// being measured.
    QLabel& analyzing() { return *analyzing_; }
    QLabel& hint() { return *hint_; }
    MetricCell& integrated() { return *integrated_; }
    MetricCell& shortTermMax() { return *shortTermMax_; }
    MetricCell& momentaryMax() { return *momentaryMax_; }
    MetricCell& loudnessRange() { return *range_; }
    MetricCell& truePeak() { return *truePeak_; }
    MetricCell& samplePeak() { return *samplePeak_; }
    MetricCell& rms() { return *rms_; }
    LoudnessSpectrumView& distribution() { return *distribution_; }
    AdjustLoudnessSection& adjust() { return *adjust_; }
    LiveMetersSection& live() { return *live_; }
    ChannelLevelsSection& channels() { return *channels_; }

private:
    void refresh();

    EditorModel& model_;
    QStackedWidget* pages_;
    QWidget* noAudio_;
    QWidget* hintPage_;
    QWidget* figures_;
    QComboBox* scope_;
    QLabel* analyzing_;
    QLabel* hint_;
    MetricCell* integrated_;
    MetricCell* shortTermMax_;
    MetricCell* momentaryMax_;
    MetricCell* range_;
    MetricCell* truePeak_;
    MetricCell* samplePeak_;
    MetricCell* rms_;
    LoudnessSpectrumView* distribution_;
    AdjustLoudnessSection* adjust_;
    LiveMetersSection* live_;
    ChannelLevelsSection* channels_;
};

} // namespace harlune
