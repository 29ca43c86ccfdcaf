#include "ui/inspector/LiveMetersSection.h"

#include "editor/EditorModel.h"
#include "ui/inspector/LinearMeterRow.h"

#include <QVBoxLayout>

namespace harlune {

namespace {
constexpr std::pair<double, double> loudnessRange{-60.0, 0.0};
constexpr std::pair<double, double> peakRange{-60.0, 0.0};
} // namespace

LiveMetersSection::LiveMetersSection(EditorModel& model, QWidget* parent)
    : QGroupBox(tr("Live"), parent), model_(model), layout_(new QVBoxLayout(this)),
      momentary_(new LinearMeterRow(tr("Momentary"), loudnessRange, QStringLiteral("LUFS"))),
      shortTerm_(new LinearMeterRow(tr("Short-term"), loudnessRange, QStringLiteral("LUFS"))) {
    setObjectName(QStringLiteral("LiveMeters"));
    layout_->setSpacing(2);
    layout_->addWidget(momentary_);
    layout_->addWidget(shortTerm_);
    connect(&model, &EditorModel::meterChanged, this, &LiveMetersSection::refresh);
    connect(&model, &EditorModel::targetLUFSChanged, this, &LiveMetersSection::refresh);
    connect(&model, &EditorModel::contentChanged, this, &LiveMetersSection::rebuildPeaks);
    rebuildPeaks();
}

void LiveMetersSection::rebuildPeaks() {
    const int channels = model_.content().channelCount();
    if (static_cast<int>(peaks_.size()) != channels) {
        for (LinearMeterRow* row : peaks_)
            delete row;
        peaks_.clear();
        for (int c = 0; c < channels; ++c) {
            auto* row =
                new LinearMeterRow(tr("Peak ") + model_.channelName(c), peakRange, QStringLiteral("dBFS"));
            layout_->addWidget(row);
            peaks_.push_back(row);
        }
    }
    refresh();
}

void LiveMetersSection::refresh() {
    const MeterReading& meter = model_.meter();
    momentary_->setValue(meter.momentaryLUFS);
    momentary_->setMarker(model_.targetLUFS());
    shortTerm_->setValue(meter.shortTermLUFS);
    shortTerm_->setMarker(model_.targetLUFS());
    for (size_t c = 0; c < peaks_.size(); ++c) {
        peaks_[c]->setValue(c < meter.peakDB.size() ? meter.peakDB[c] : MeterReading::resetValue);
        peaks_[c]->setHold(c < meter.holdDB.size() ? std::optional<double>(meter.holdDB[c]) : std::nullopt);
    }
}

} // namespace harlune
