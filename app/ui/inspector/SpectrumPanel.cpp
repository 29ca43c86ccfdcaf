#include "ui/inspector/SpectrumPanel.h"

#include "core/EnvelopedSource.h"
#include "editor/EditorModel.h"
#include "editor/SpectrumState.h"
#include "ui/inspector/SpectrumView.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QLabel>
#include <QVBoxLayout>
#include <array>

namespace harlune {

namespace {

constexpr std::array<long long, 6> fftSizes{1024, 2048, 4096, 8192, 16384, 32768};

} // namespace

SpectrumPanel::SpectrumPanel(EditorModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    setObjectName(QStringLiteral("SpectrumPanel"));
    state_ = new SpectrumState(this);

    auto* title = new QLabel(tr("Spectrum"));
    QFont bold = title->font();
    bold.setBold(true);
    title->setFont(bold);

    source_ = new QComboBox;
    source_->addItems({tr("Around cursor"), tr("Live at playhead"), tr("Selection average")});
    source_->setAccessibleName(tr("Spectrum source"));

    frequency_ = new QComboBox;
    frequency_->addItem(tr("Log"), static_cast<int>(FrequencyScale::logarithmic));
    frequency_->addItem(tr("Linear"), static_cast<int>(FrequencyScale::linear));
    amplitude_ = new QComboBox;
    amplitude_->addItem(tr("dB"), static_cast<int>(AmplitudeScale::decibels));
    amplitude_->addItem(tr("Linear"), static_cast<int>(AmplitudeScale::linear));
    fftSize_ = new QComboBox;
    for (const long long size : fftSizes)
        fftSize_->addItem(QString::asprintf("%lld", size), static_cast<int>(size));
    fftSize_->setCurrentIndex(fftSize_->findData(state_->fftSize()));
    peakHold_ = new QCheckBox(tr("Peak hold"));

    view_ = new SpectrumView(*state_);
    caption_ = new QLabel;
    caption_->setWordWrap(true);

    auto* controls = new QFormLayout;
    controls->addRow(tr("Frequency"), frequency_);
    controls->addRow(tr("Amplitude"), amplitude_);
    controls->addRow(tr("FFT size"), fftSize_);
    controls->addRow(peakHold_);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(title);
    layout->addWidget(source_);
    layout->addWidget(view_, 1);
    layout->addWidget(caption_);
    layout->addLayout(controls);

    connect(source_, &QComboBox::currentIndexChanged, this, &SpectrumPanel::refresh);
    connect(frequency_, &QComboBox::currentIndexChanged, this, [this] {
        state_->setFrequencyScale(static_cast<FrequencyScale>(frequency_->currentData().toInt()));
    });
    connect(amplitude_, &QComboBox::currentIndexChanged, this, [this] {
        state_->setAmplitudeScale(static_cast<AmplitudeScale>(amplitude_->currentData().toInt()));
    });
    connect(fftSize_, &QComboBox::currentIndexChanged, this, [this] {
        state_->setFFTSize(fftSize_->currentData().toInt());
        updateCaption();
        refresh();
    });
    connect(peakHold_, &QCheckBox::toggled, state_, &SpectrumState::setHoldPeaks);

    // What each source follows; a spectrum at a point costs one FFT, the average is debounced.
    connect(&model_, &EditorModel::contentVersionChanged, this, [this] {
        updateCaption();
        refresh();
    });
    connect(&model_, &EditorModel::envelopesChanged, this, &SpectrumPanel::refresh);
    connect(&model_, &EditorModel::cursorChanged, this, [this] {
        if (source() != Source::selectionAverage && !model_.isPlaying())
            refresh();
    });
    connect(&model_, &EditorModel::playheadChanged, this, [this] {
        if (source() == Source::liveAtPlayhead && model_.isPlaying())
            refresh();
    });
    connect(&model_, &EditorModel::isPlayingChanged, this, [this] {
        if (source() == Source::liveAtPlayhead)
            refresh();
    });
    connect(&model_, &EditorModel::selectionChanged, this, [this] {
        if (source() == Source::selectionAverage)
            refresh();
    });
    updateCaption();
    refresh();
}

SpectrumPanel::Source SpectrumPanel::source() const {
    return static_cast<Source>(std::max(source_->currentIndex(), 0));
}

void SpectrumPanel::updateCaption() {
    const double resolution = model_.content().sampleRate() / state_->fftSize();
    caption_->setText(tr("Resolution ") + QString::asprintf("%.1f", resolution) +
                      tr(" Hz per bin \u00B7 Blackman-Harris window"));
}

void SpectrumPanel::refresh() {
    const AudioContent& content = model_.content();
    if (content.isEmpty() || content.channelCount() <= 0) {
        state_->clear();
        return;
    }
    switch (source()) {
    case Source::aroundCursor:
        state_->update(EnvelopedSource(content, model_.envelopes()), model_.cursor());
        break;
    case Source::liveAtPlayhead: {
        // While playing, the frame being heard; stopped, where play would start.
        const int64_t at = model_.isPlaying() ? model_.player().audiblePosition() : model_.cursor();
        state_->update(EnvelopedSource(content, model_.envelopes()), at);
        break;
    }
    case Source::selectionAverage:
        state_->updateAverage(std::make_shared<EnvelopedSource>(content, model_.envelopes()),
                              model_.selection().value_or(content.fullRange()));
        break;
    }
}

} // namespace harlune
