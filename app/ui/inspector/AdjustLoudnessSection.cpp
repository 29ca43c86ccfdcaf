#include "ui/inspector/AdjustLoudnessSection.h"

#include "editor/CFormatted.h"
#include "editor/EditorModel.h"
#include "editor/LoudnessPreset.h"
#include "ui/SymbolIcons.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSlider>
#include <QToolButton>
#include <QVBoxLayout>
#include <cmath>

namespace harlune {

namespace {

// The gain slider moves in tenths of a dB.
constexpr int gainSteps = 10;
constexpr double maxGainDB = 24;

QDoubleSpinBox* levelBox(double low, double high, const QString& suffix) {
    auto* box = new QDoubleSpinBox;
    box->setRange(low, high);
    box->setDecimals(1);
    box->setSingleStep(0.5);
    box->setSuffix(suffix);
    box->setKeyboardTracking(false); // one change per entry, not per keystroke
    return box;
}

} // namespace

QString AdjustLoudnessSection::presetTitle(int index) {
    const LoudnessPreset& preset = loudnessPresets()[static_cast<size_t>(index)];
    return QString::fromUtf8(preset.name.data(), static_cast<qsizetype>(preset.name.size())) +
           QStringLiteral("  (") + QString::number(preset.lufs) + QStringLiteral(" LUFS, ") +
           QString::number(preset.ceiling) + QStringLiteral(" dBTP)");
}

AdjustLoudnessSection::AdjustLoudnessSection(EditorModel& model, QWidget* parent)
    : QGroupBox(tr("Adjust Loudness"), parent), model_(model), mode_(new QComboBox),
      presets_(new QToolButton), targetLabel_(new QLabel(tr("Target"))),
      target_(levelBox(-70, 0, QStringLiteral(" LUFS"))), gainLabel_(new QLabel(tr("Gain"))),
      gain_(new QSlider(Qt::Horizontal)), gainValue_(new QLabel),
      ceiling_(levelBox(-20, 0, QStringLiteral(" dBTP"))),
      limit_(new QCheckBox(tr("Limit true peaks to the ceiling"))),
      preview_(new QCheckBox(tr("Preview while playing"))), planGain_(new QLabel), planLoudness_(new QLabel),
      planPeak_(new QLabel), limiting_(new QLabel), apply_(new QPushButton) {
    setObjectName(QStringLiteral("AdjustLoudness"));
    mode_->addItems({tr("Target"), tr("Manual Gain")});
    mode_->setAccessibleName(tr("Mode"));
    presets_->setText(tr("Presets"));
    presets_->setAccessibleName(tr("Loudness presets"));
    presets_->setPopupMode(QToolButton::InstantPopup);
    auto* presetMenu = new QMenu(presets_);
    for (int i = 0; i < static_cast<int>(loudnessPresets().size()); ++i)
        presetMenu->addAction(presetTitle(i), this, [this, i] {
            const LoudnessPreset& preset = loudnessPresets()[static_cast<size_t>(i)];
            model_.setTargetLUFS(preset.lufs);
            model_.setCeilingDBTP(preset.ceiling);
        });
    presets_->setMenu(presetMenu);
    target_->setAccessibleName(tr("Target"));
    gain_->setRange(-static_cast<int>(maxGainDB) * gainSteps, static_cast<int>(maxGainDB) * gainSteps);
    gain_->setAccessibleName(tr("Gain"));
    ceiling_->setAccessibleName(tr("True-peak ceiling"));
    preview_->setToolTip(tr("Hear the gain change before applying it (limiting is not previewed)."));
    limiting_->setWordWrap(true);
    planGain_->setObjectName(QStringLiteral("planGain"));

    auto* form = new QFormLayout;
    form->setRowWrapPolicy(QFormLayout::WrapLongRows);
    form->addRow(tr("Mode"), mode_);
    auto* targetRow = new QHBoxLayout;
    targetRow->addWidget(target_, 1);
    targetRow->addWidget(presets_);
    form->addRow(targetLabel_, targetRow);
    auto* gainRow = new QHBoxLayout;
    gainRow->addWidget(gain_, 1);
    gainRow->addWidget(gainValue_);
    form->addRow(gainLabel_, gainRow);
    form->addRow(tr("True-peak ceiling"), ceiling_);
    // Two lines, so that the panel stays narrow enough for a side bar.
    auto* outcome = new QHBoxLayout;
    auto* planIcon = new QLabel(this);
    planIcon->setPixmap(SymbolIcons::icon(QStringLiteral("slider.horizontal.3")).pixmap(16, 16));
    outcome->addWidget(planIcon);
    outcome->addWidget(planGain_);
    outcome->addStretch(1);
    outcome->addWidget(planLoudness_);
    auto* summary = new QVBoxLayout;
    summary->setSpacing(2);
    summary->addLayout(outcome);
    summary->addWidget(planPeak_);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(limit_);
    layout->addWidget(preview_);
    layout->addLayout(summary);
    limitingIcon_ = new QLabel(this);
    limitingIcon_->setPixmap(
        SymbolIcons::icon(QStringLiteral("waveform.badge.exclamationmark")).pixmap(16, 16));
    limitingIcon_->setAlignment(Qt::AlignTop);
    auto* limitingRow = new QHBoxLayout;
    limitingRow->addWidget(limitingIcon_);
    limitingRow->addWidget(limiting_, 1);
    layout->addLayout(limitingRow);
    layout->addWidget(apply_);

    connect(mode_, &QComboBox::currentIndexChanged, this, [this](int index) {
        model_.setAdjustMode(index == 1 ? LoudnessAdjustMode::manual : LoudnessAdjustMode::target);
    });
    connect(target_, &QDoubleSpinBox::valueChanged, this,
            [this](double value) { model_.setTargetLUFS(value); });
    connect(gain_, &QSlider::valueChanged, this,
            [this](int steps) { model_.setManualGainDB(static_cast<double>(steps) / gainSteps); });
    connect(ceiling_, &QDoubleSpinBox::valueChanged, this,
            [this](double value) { model_.setCeilingDBTP(value); });
    connect(limit_, &QCheckBox::toggled, this, [this](bool on) { model_.setLimitTruePeaks(on); });
    connect(preview_, &QCheckBox::toggled, this, [this](bool on) { model_.setPreviewLoudness(on); });
    connect(apply_, &QPushButton::clicked, this, [this] { model_.applyLoudness(); });

    for (const auto signal :
         {&EditorModel::loudnessChanged, &EditorModel::selectionLoudnessChanged,
          &EditorModel::selectionChanged, &EditorModel::analysisScopeChanged, &EditorModel::adjustModeChanged,
          &EditorModel::targetLUFSChanged, &EditorModel::ceilingDBTPChanged,
          &EditorModel::manualGainDBChanged, &EditorModel::limitTruePeaksChanged,
          &EditorModel::previewLoudnessChanged, &EditorModel::busyChanged})
        connect(&model, signal, this, &AdjustLoudnessSection::refresh);
    refresh();
}

void AdjustLoudnessSection::refresh() {
    const bool manual = model_.adjustMode() == LoudnessAdjustMode::manual;
    {
        const QSignalBlocker blockers[] = {QSignalBlocker(mode_),  QSignalBlocker(target_),
                                           QSignalBlocker(gain_),  QSignalBlocker(ceiling_),
                                           QSignalBlocker(limit_), QSignalBlocker(preview_)};
        mode_->setCurrentIndex(manual ? 1 : 0);
        // Only a different figure replaces what may be half typed in a box.
        if (target_->value() != model_.targetLUFS())
            target_->setValue(model_.targetLUFS());
        gain_->setValue(static_cast<int>(std::lround(model_.manualGainDB() * gainSteps)));
        if (ceiling_->value() != model_.ceilingDBTP())
            ceiling_->setValue(model_.ceilingDBTP());
        limit_->setChecked(model_.limitTruePeaks());
        preview_->setChecked(model_.previewLoudness());
    }
    targetLabel_->setVisible(!manual);
    target_->setVisible(!manual);
    presets_->setVisible(!manual);
    gainLabel_->setVisible(manual);
    gain_->setVisible(manual);
    gainValue_->setVisible(manual);
    gainValue_->setText(cFormatted("%+.1f dB", model_.manualGainDB()));

    const std::optional<LoudnessNormalization::Plan> plan = model_.loudnessPlan();
    planGain_->setText(plan ? cFormatted("%+.2f dB gain", plan->gainDB) : QString());
    planLoudness_->setText(plan ? cFormatted("%.1f", plan->predictedIntegratedLUFS) + QStringLiteral(" LUFS")
                                : QString());
    planPeak_->setText(plan ? tr("True peak ") + cFormatted("%.1f", plan->predictedTruePeakDBTP) +
                                  QStringLiteral(" dBTP")
                            : QString());
    if (plan && plan->needsLimiting)
        limiting_->setText(
            model_.limitTruePeaks()
                ? tr("A transparent true-peak limiter will hold peaks at the ceiling.")
                : tr("Peaks will exceed the ceiling and may clip. Enable limiting or lower the target."));
    limiting_->setVisible(plan && plan->needsLimiting);
    limitingIcon_->setVisible(plan && plan->needsLimiting);

    const bool toSelection = model_.analysisScope() == AnalysisScope::selection && model_.selection();
    apply_->setText(toSelection ? tr("Apply to Selection") : tr("Apply to Entire File"));
    apply_->setEnabled(plan.has_value() && !model_.busy());
}

} // namespace harlune
