#include "ui/inspector/LoudnessPanel.h"

#include "editor/CFormatted.h"
#include "editor/EditorModel.h"
#include "ui/SymbolIcons.h"
#include "ui/inspector/AdjustLoudnessSection.h"
#include "ui/inspector/ChannelLevelsSection.h"
#include "ui/inspector/LiveMetersSection.h"
#include "ui/inspector/LoudnessSpectrumView.h"
#include "ui/inspector/MetricCell.h"

#include <QComboBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QStackedWidget>
#include <QStyle>
#include <QVBoxLayout>
#include <cmath>

namespace harlune {

namespace {

QWidget* centredMessage(QLabel* label, const QIcon& icon = {}) {
    auto* page = new QWidget;
    auto* layout = new QVBoxLayout(page);
    layout->addStretch(1);
    if (!icon.isNull()) {
        auto* picture = new QLabel;
        picture->setPixmap(icon.pixmap(32, 32));
        picture->setAlignment(Qt::AlignCenter);
        layout->addWidget(picture);
    }
    label->setAlignment(Qt::AlignCenter);
    label->setWordWrap(true);
    label->setForegroundRole(QPalette::PlaceholderText);
    layout->addWidget(label);
    layout->addStretch(2);
    return page;
}

} // namespace

LoudnessPanel::LoudnessPanel(EditorModel& model, QWidget* parent)
    : QWidget(parent), model_(model), pages_(new QStackedWidget), scope_(new QComboBox),
      analyzing_(new QLabel(tr("Measuring…"))),
      hint_(new QLabel(tr("Select at least 400 ms of audio to measure it."))),
      integrated_(new MetricCell(tr("Integrated"), QStringLiteral("LUFS"))),
      shortTermMax_(new MetricCell(tr("Short-term max"), QStringLiteral("LUFS"))),
      momentaryMax_(new MetricCell(tr("Momentary max"), QStringLiteral("LUFS"))),
      range_(new MetricCell(tr("Loudness range"), QStringLiteral("LU"))),
      truePeak_(new MetricCell(tr("True peak"), QStringLiteral("dBTP"))),
      samplePeak_(new MetricCell(tr("Sample peak"), QStringLiteral("dBFS"))),
      rms_(new MetricCell(tr("RMS"), QStringLiteral("dBFS"))), distribution_(new LoudnessSpectrumView),
      adjust_(new AdjustLoudnessSection(model)), live_(new LiveMetersSection(model)),
      channels_(new ChannelLevelsSection(model)) {
    setObjectName(QStringLiteral("LoudnessPanel"));
    scope_->addItems({tr("Entire File"), tr("Selection")});
    scope_->setAccessibleName(tr("Scope"));

    noAudio_ = centredMessage(new QLabel(tr("No audio.")));
    hintPage_ = centredMessage(hint_, SymbolIcons::icon(QStringLiteral("gauge.with.dots.needle.33percent")));

    figures_ = new QWidget;
    auto* cells = new QGridLayout;
    cells->addWidget(integrated_, 0, 0, 1, 2);
    cells->addWidget(shortTermMax_, 1, 0);
    cells->addWidget(momentaryMax_, 1, 1);
    cells->addWidget(range_, 2, 0);
    cells->addWidget(truePeak_, 2, 1);
    cells->addWidget(samplePeak_, 3, 0);
    cells->addWidget(rms_, 3, 1);
    auto* figuresLayout = new QVBoxLayout(figures_);
    figuresLayout->setContentsMargins(0, 0, 0, 0);
    figuresLayout->addLayout(cells);
    figuresLayout->addWidget(distribution_);
    figuresLayout->addWidget(adjust_);

    pages_->addWidget(noAudio_);
    pages_->addWidget(hintPage_);
    pages_->addWidget(figures_);

    auto* layout = new QVBoxLayout(this);
    auto* top = new QHBoxLayout;
    top->addWidget(scope_, 1);
    analyzing_->setForegroundRole(QPalette::PlaceholderText);
    top->addWidget(analyzing_);
    layout->addLayout(top);
    layout->addWidget(pages_);
    layout->addWidget(live_);
    layout->addWidget(channels_);
    layout->addStretch(1);

    connect(scope_, &QComboBox::currentIndexChanged, this, [this](int index) {
        model_.setAnalysisScope(index == 1 ? AnalysisScope::selection : AnalysisScope::file);
    });
    for (const auto signal :
         {&EditorModel::contentChanged, &EditorModel::loudnessChanged, &EditorModel::selectionLoudnessChanged,
          &EditorModel::selectionChanged, &EditorModel::analysisScopeChanged, &EditorModel::targetLUFSChanged,
          &EditorModel::ceilingDBTPChanged, &EditorModel::adjustModeChanged,
          &EditorModel::manualGainDBChanged, &EditorModel::channelLoudnessChanged,
          &EditorModel::isAnalyzingChanged})
        connect(&model, signal, this, &LoudnessPanel::refresh);
    refresh();
}

LoudnessPanel::Page LoudnessPanel::page() const {
    const QWidget* current = pages_->currentWidget();
    if (current == noAudio_)
        return Page::noAudio;
    if (current == hintPage_)
        return Page::hint;
    return Page::figures;
}

void LoudnessPanel::refresh() {
    const bool empty = model_.content().frameCount() == 0;
    const bool selectionScope = model_.analysisScope() == AnalysisScope::selection;
    {
        const QSignalBlocker blocker(scope_);
        scope_->setCurrentIndex(selectionScope ? 1 : 0);
    }
    scope_->setVisible(!empty);
    // A selection long enough is being measured when it has no figures yet; a shorter one never
    // will be. Either way the panel shows the hint until figures come, with "Measuring…" above.
    const std::optional<FrameRange>& selection = model_.selection();
    const auto shortest = static_cast<int64_t>(model_.content().sampleRate() * 0.4);
    const bool awaitingSelection =
        selectionScope && !model_.selectionLoudness() && selection && selection->length() > shortest;
    analyzing_->setVisible(!empty && (model_.isAnalyzing() || awaitingSelection));
    live_->setVisible(!empty);
    const int channels = model_.content().channelCount();
    channels_->setVisible(!empty && channels >= 2 && channels <= 8);

    if (empty) {
        pages_->setCurrentWidget(noAudio_);
        return;
    }
    if (selectionScope && !model_.selectionLoudness()) {
        pages_->setCurrentWidget(hintPage_);
        return;
    }
    pages_->setCurrentWidget(figures_);

    const std::optional<LoudnessResult> result = model_.activeLoudness();
    const auto show = [&](MetricCell* cell, double LoudnessResult::*field) {
        cell->setValue(result ? (*result).*field : -INFINITY);
    };
    show(integrated_, &LoudnessResult::integratedLUFS);
    show(shortTermMax_, &LoudnessResult::maxShortTermLUFS);
    show(momentaryMax_, &LoudnessResult::maxMomentaryLUFS);
    show(range_, &LoudnessResult::loudnessRangeLU);
    show(truePeak_, &LoudnessResult::truePeakDBTP);
    show(samplePeak_, &LoudnessResult::samplePeakDBFS);
    show(rms_, &LoudnessResult::rmsDBFS);
    const bool finite = result && std::isfinite(result->integratedLUFS);
    integrated_->setDetail(finite ? tr("vs. target ") +
                                        cFormatted("%+.1f LU", result->integratedLUFS - model_.targetLUFS())
                                  : QString());
    truePeak_->setWarning(result && result->truePeakDBTP > model_.ceilingDBTP());

    distribution_->setResult(result);
    distribution_->setTarget(model_.targetLUFS());
    const std::optional<LoudnessNormalization::Plan> plan = model_.loudnessPlan();
    distribution_->setPredicted(plan ? std::optional<double>(plan->predictedIntegratedLUFS) : std::nullopt);
}

} // namespace harlune
