// The loudness tab against closed-form figures of synthesized signals, with the real measurements
// behind it; then its controls against the model fields they write, and the loudness it applies
// measured again by the command-line tool on the saved file.
#include "ui/inspector/LoudnessPanel.h"

#include "document/AudioDocument.h"
#include "editor/EditorTestSupport.h"
#include "editor/LoudnessPreset.h"
#include "ui/inspector/AdjustLoudnessSection.h"
#include "ui/inspector/ChannelLevelsSection.h"
#include "ui/inspector/LinearMeterRow.h"
#include "ui/inspector/LiveMetersSection.h"
#include "ui/inspector/LoudnessSpectrumView.h"
#include "ui/inspector/MetricCell.h"

#include <QAccessible>
#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QMenu>
#include <QProcess>
#include <QPushButton>
#include <QSignalSpy>
#include <QSlider>
#include <QTemporaryDir>
#include <QToolButton>
#include <cmath>
#include <gtest/gtest.h>
#include <numbers>

namespace harlune {
namespace {

constexpr double rate = 48000;

/// A 997 Hz sine of `amplitude` in every channel (EBU Tech 3341's test tone).
AudioContent tone(double amplitude, double seconds, int channels = 2) {
    const auto frames = static_cast<size_t>(seconds * rate);
    std::vector<std::vector<float>> planes(static_cast<size_t>(channels), std::vector<float>(frames));
    for (auto& plane : planes)
        for (size_t i = 0; i < frames; ++i)
            plane[i] = static_cast<float>(
                amplitude * std::sin(2 * std::numbers::pi * 997 * static_cast<double>(i) / rate));
    return AudioContent(std::move(planes), rate);
}

QString accessibleText(QWidget& widget, QAccessible::Text kind) {
    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(&widget);
    return accessible ? accessible->text(kind) : QString();
}

QAction* presetAction(LoudnessPanel& panel, int index) {
    const QString title = AdjustLoudnessSection::presetTitle(index);
    for (QAction* action : panel.adjust().presets().menu()->actions())
        if (action->text() == title)
            return action;
    return nullptr;
}

class LoudnessPanelTest : public testing::MeasuredModelTest {};

TEST_F(LoudnessPanelTest, Ebu3341CaseOneReadsMinus23AndEveryFigureFollowsClosedForm) {
    // Stereo 997 Hz at -23 dBFS: -23.0 LUFS by BS.1770, since K-weighting and the -0.691 offset
    // cancel at 1 kHz; the RMS of a sine is 3.01 dB under its peak.
    const double amplitude = std::pow(10.0, -23.0 / 20);
    open(tone(amplitude, 10));
    LoudnessPanel panel(*model);
    ASSERT_EQ(panel.page(), LoudnessPanel::Page::figures);
    EXPECT_EQ(panel.integrated().value(), "-23.0");
    EXPECT_EQ(panel.integrated().unit(), "LUFS");
    EXPECT_EQ(panel.integrated().detail(), "vs. target -9.0 LU");
    EXPECT_EQ(panel.shortTermMax().value(), "-23.0");
    EXPECT_EQ(panel.momentaryMax().value(), "-23.0");
    EXPECT_EQ(panel.loudnessRange().value(), "0.0");
    EXPECT_EQ(panel.loudnessRange().unit(), "LU");
    EXPECT_EQ(panel.truePeak().value(), "-23.0");
    EXPECT_EQ(panel.truePeak().unit(), "dBTP");
    EXPECT_FALSE(panel.truePeak().warning());
    EXPECT_EQ(panel.samplePeak().value(), "-23.0");
    EXPECT_EQ(panel.rms().value(), "-26.0");
    EXPECT_EQ(panel.rms().unit(), "dBFS");

    // Once its 3 s window is full, each short-term value of a steady tone lies at -23 LUFS, on
    // the edge between two 1 LU bins; the windows before it hold less and none holds more.
    const std::vector<int>& bins = panel.distribution().histogram();
    int total = 0;
    for (const int count : bins)
        total += count;
    const auto edge = static_cast<size_t>(-23 - LoudnessSpectrumView::lowestLUFS);
    EXPECT_GT(total, 60);
    EXPECT_GE(bins[edge - 1] + bins[edge], 70);
    for (size_t louder = edge + 1; louder < bins.size(); ++louder)
        EXPECT_EQ(bins[louder], 0);
    const QString label = "Loudness distribution. Integrated -23.0 LUFS, target -14.0 LUFS, LRA 0.0 LU";
    EXPECT_EQ(accessibleText(panel.distribution(), QAccessible::Name), label);
    EXPECT_EQ(accessibleText(panel.distribution(), QAccessible::Value),
              "Integrated -23.0 LUFS, target -14.0 LUFS, LRA 0.0 LU");
    EXPECT_EQ(accessibleText(panel.distribution(), QAccessible::Description),
              "Integrated -23.0 LUFS, target -14.0 LUFS, LRA 0.0 LU");
    EXPECT_TRUE(accessibleText(panel.integrated(), QAccessible::Name).startsWith("Integrated: -23.0 LUFS"));
    // Target -14: +9 dB, and the peak stays under the ceiling of -1 dBTP.
    EXPECT_EQ(panel.adjust().planGain().text(), "+9.00 dB gain");
    EXPECT_EQ(panel.adjust().planLoudness().text(), "-14.0 LUFS");
    EXPECT_EQ(panel.adjust().planPeak().text(), "True peak -14.0 dBTP");
    EXPECT_TRUE(panel.adjust().limiting().isHidden());
    EXPECT_EQ(panel.adjust().apply().text(), "Apply to Entire File");
}

TEST_F(LoudnessPanelTest, SilenceAndEmptyContentShowDashesAndNoAudio) {
    open(AudioContent(std::vector<std::vector<float>>(2, std::vector<float>(48000, 0.0f)), rate));
    LoudnessPanel panel(*model);
    EXPECT_EQ(panel.integrated().value(), QStringLiteral("\u2014"));
    EXPECT_EQ(panel.truePeak().value(), QStringLiteral("\u2014"));
    EXPECT_TRUE(panel.integrated().detail().isEmpty());
    EXPECT_EQ(figureText(-0.04), "0.0") << "no minus on a figure that rounds to zero";
    EXPECT_EQ(figureText(-0.05, "%.2f"), "-0.05");
    EXPECT_EQ(figureText(-10.0), "-10.0");
    EXPECT_FALSE(panel.adjust().apply().isEnabled()) << "no plan for silence";

    model->setContent(AudioContent(2, rate));
    EXPECT_EQ(panel.page(), LoudnessPanel::Page::noAudio);
    EXPECT_TRUE(panel.scope().isHidden());
}

TEST_F(LoudnessPanelTest, SelectionScopeNeedsMoreThan400Milliseconds) {
    open(tone(0.1, 2));
    LoudnessPanel panel(*model);
    panel.scope().setCurrentIndex(1);
    EXPECT_EQ(model->analysisScope(), AnalysisScope::selection);
    EXPECT_EQ(panel.page(), LoudnessPanel::Page::hint) << "no selection";

    model->setSelection(FrameRange{1000, 1000 + 19200}, std::nullopt);
    ASSERT_TRUE(settled());
    QTest::qWait(400); // past the selection's debounce: nothing is measured
    EXPECT_FALSE(model->selectionLoudness());
    EXPECT_EQ(panel.page(), LoudnessPanel::Page::hint);
    EXPECT_EQ(panel.hint().text(), "Select at least 400 ms of audio to measure it.");

    EXPECT_TRUE(panel.analyzing().isHidden()) << "nothing is being measured";

    // One frame more is measured: the hint stays until the figures come, under "Measuring…".
    model->setSelection(FrameRange{1000, 1000 + 19201}, std::nullopt);
    EXPECT_EQ(panel.page(), LoudnessPanel::Page::hint);
    EXPECT_FALSE(panel.analyzing().isHidden());
    ASSERT_TRUE(QTest::qWaitFor([&] { return model->selectionLoudness().has_value(); }, 20000));
    EXPECT_EQ(panel.page(), LoudnessPanel::Page::figures);
    EXPECT_TRUE(panel.analyzing().isHidden());
    EXPECT_NE(panel.integrated().value(), QStringLiteral("\u2014"));
    EXPECT_EQ(panel.adjust().apply().text(), "Apply to Selection");
    panel.scope().setCurrentIndex(0);
    EXPECT_EQ(model->analysisScope(), AnalysisScope::file);
    EXPECT_EQ(panel.adjust().apply().text(), "Apply to Entire File");
}

TEST(LoudnessPanelControls, PresetsModesCeilingAndPreviewWriteTheModel) {
    testing::clearPreferences();
    auto probe = std::make_shared<testing::Probe>();
    auto model = testing::probedModel(tone(0.5, 1), probe);
    LoudnessResult measured;
    measured.integratedLUFS = -12;
    measured.truePeakDBTP = -3;
    model->setLoudness(measured);
    LoudnessPanel panel(*model);
    AdjustLoudnessSection& adjust = panel.adjust();

    // Every preset is listed with its figures, and picking one sets target and ceiling.
    ASSERT_EQ(adjust.presets().menu()->actions().size(), static_cast<qsizetype>(loudnessPresets().size()));
    EXPECT_EQ(AdjustLoudnessSection::presetTitle(7), "Club / Loud Master  (-9 LUFS, -0.3 dBTP)");
    presetAction(panel, 4)->trigger();
    EXPECT_EQ(model->targetLUFS(), -20);
    EXPECT_EQ(model->ceilingDBTP(), -3);
    EXPECT_DOUBLE_EQ(adjust.target().value(), -20);
    EXPECT_EQ(adjust.target().text(), "-20.0 LUFS");
    EXPECT_EQ(adjust.planGain().text(), "-8.00 dB gain");
    EXPECT_TRUE(adjust.limiting().isHidden());

    // Club loudness from -12: +3 dB makes a true peak of 0 over a ceiling of -0.3.
    presetAction(panel, 7)->trigger();
    EXPECT_EQ(adjust.planPeak().text(), "True peak 0.0 dBTP");
    EXPECT_EQ(adjust.limiting().text(), "A transparent true-peak limiter will hold peaks at the ceiling.");
    adjust.limit().click();
    EXPECT_FALSE(model->limitTruePeaks());
    EXPECT_EQ(adjust.limiting().text(),
              "Peaks will exceed the ceiling and may clip. Enable limiting or lower the target.");

    adjust.mode().setCurrentIndex(1);
    EXPECT_EQ(model->adjustMode(), LoudnessAdjustMode::manual);
    EXPECT_TRUE(adjust.target().isHidden());
    adjust.gain().setValue(adjust.gain().maximum());
    EXPECT_EQ(model->manualGainDB(), 24) << "the gain goes to +24 dB";
    adjust.gain().setValue(-35);
    EXPECT_DOUBLE_EQ(model->manualGainDB(), -3.5);
    EXPECT_EQ(adjust.planGain().text(), "-3.50 dB gain");

    adjust.ceiling().setValue(-4);
    EXPECT_TRUE(panel.truePeak().warning()) << "-3 dBTP is above a ceiling of -4";
    EXPECT_TRUE(accessibleText(panel.truePeak(), QAccessible::Name).endsWith(", above the ceiling"));
    adjust.ceiling().setValue(-2);
    EXPECT_EQ(model->ceilingDBTP(), -2);
    EXPECT_FALSE(panel.truePeak().warning());
    EXPECT_EQ(adjust.preview().toolTip(),
              "Hear the gain change before applying it (limiting is not previewed).");
    adjust.preview().click();
    EXPECT_TRUE(model->previewLoudness());
    EXPECT_FLOAT_EQ(probe->lastGain, static_cast<float>(std::pow(10.0, -3.5 / 20)));
    adjust.preview().click();
    EXPECT_FLOAT_EQ(probe->lastGain, 1.0f);

    // The live rows follow the transport's meters.
    MeterReading reading = MeterReading::reset(2);
    reading.momentaryLUFS = -18.25;
    reading.peakDB = {-6, -120};
    model->setMeter(reading);
    EXPECT_EQ(panel.live().momentary().accessibleValue(), "Momentary -18.2 LUFS");
    ASSERT_EQ(panel.live().peaks().size(), 2u);
    EXPECT_EQ(panel.live().peaks()[0]->accessibleValue(), "Peak L -6.0 dBFS");
    EXPECT_EQ(panel.live().peaks()[1]->accessibleValue(), QStringLiteral("Peak R \u2014 dBFS"));
    EXPECT_EQ(accessibleText(*panel.live().peaks()[0], QAccessible::Description), "Peak L -6.0 dBFS");
}

TEST(LoudnessPanelControls, ATrimDragIsOneUndoStepAndBalanceLevelsTheChannels) {
    testing::clearPreferences();
    auto probe = std::make_shared<testing::Probe>();
    auto model = testing::probedModel(tone(0.5, 1), probe);
    QUndoStack stack;
    model->setUndoManager(&stack);
    LoudnessPanel panel(*model);
    ChannelLevelsSection& channels = panel.channels();
    ASSERT_EQ(channels.rowCount(), 2);

    QSlider& left = channels.trim(0);
    left.setSliderDown(true);
    EXPECT_TRUE(channels.editOrigin().has_value());
    for (const int steps : {10, 35, 60})
        left.setValue(steps);
    EXPECT_DOUBLE_EQ(model->envelopes().trim(0), 6.0) << "live while dragging";
    EXPECT_EQ(stack.count(), 0);
    EXPECT_EQ(channels.trimValue(0).text(), "+6.0 dB");
    left.setSliderDown(false);
    EXPECT_FALSE(channels.editOrigin().has_value());
    ASSERT_EQ(stack.count(), 1);
    EXPECT_EQ(stack.text(0), "Channel Levels");
    stack.undo();
    EXPECT_DOUBLE_EQ(model->envelopes().trim(0), 0.0);
    EXPECT_EQ(left.value(), 0);
    stack.redo();
    EXPECT_DOUBLE_EQ(model->envelopes().trim(0), 6.0);

    // A key press moves without a drag, and is a step of its own.
    left.triggerAction(QAbstractSlider::SliderSingleStepAdd);
    EXPECT_DOUBLE_EQ(model->envelopes().trim(0), 6.1);
    EXPECT_EQ(stack.count(), 2);
    stack.undo();

    // Linked, the other channel moves by the same amount.
    channels.link().click();
    EXPECT_TRUE(model->linkChannelLevels());
    EXPECT_EQ(channels.link().toolTip(), "Move all channel sliders together");
    channels.trim(1).setSliderDown(true);
    channels.trim(1).setValue(-20);
    channels.trim(1).setSliderDown(false);
    EXPECT_DOUBLE_EQ(model->envelopes().trim(0), 4.0);
    EXPECT_DOUBLE_EQ(model->envelopes().trim(1), -2.0);
    EXPECT_EQ(stack.count(), 2);

    model->setChannelLoudness({-20, -14});
    EXPECT_EQ(channels.loudness(0).text(), "-20.0 LUFS");
    EXPECT_EQ(channels.difference().text(),
              QStringLiteral("Channels differ by 6.0 LU \u2014 Balance evens them out."));
    EXPECT_FALSE(channels.difference().isHidden());
    EXPECT_EQ(channels.balance().toolTip(), "Trim each channel so they all measure the same loudness");
    channels.balance().click();
    EXPECT_DOUBLE_EQ(model->envelopes().trim(0), 7.0);
    EXPECT_DOUBLE_EQ(model->envelopes().trim(1), -5.0);
    channels.reset().click();
    EXPECT_DOUBLE_EQ(model->envelopes().trim(0), 0.0);
    EXPECT_EQ(stack.text(stack.count() - 1), "Reset Channel Levels");
}

TEST_F(LoudnessPanelTest, ApplyToTargetThenSaveMeasuresWithinATenthUnderTheCeiling) {
    // A quiet tone with sharp clicks: reaching -14 LUFS drives the clicks far over the ceiling,
    // so the limiter has to work and the loudness is reached in passes.
    const auto frames = static_cast<size_t>(8 * rate);
    std::vector<std::vector<float>> planes(2, std::vector<float>(frames));
    for (auto& plane : planes)
        for (size_t i = 0; i < frames; ++i)
            plane[i] = i % 12000 == 2400 ? 0.9f
                                         : static_cast<float>(0.05 * std::sin(2 * std::numbers::pi * 997 *
                                                                              static_cast<double>(i) / rate));
    const AudioContent content(std::move(planes), rate);
    EditorCollaborators collaborators;
    collaborators.player = std::make_unique<testing::ProbePlayer>(probe);
    AudioDocument document(std::move(collaborators));
    document.adopt(content, QStringLiteral("Clicks"));
    EditorModel& edited = document.model();
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return edited.loudness().has_value() && !edited.isAnalyzing(); }, 20000));
    LoudnessPanel panel(edited);
    presetAction(panel, 0)->trigger(); // -14 LUFS, -1 dBTP
    ASSERT_FALSE(panel.adjust().limiting().isHidden()) << "the plan needs limiting";
    panel.adjust().preview().click();
    panel.adjust().apply().click();
    EXPECT_FALSE(edited.previewLoudness()) << "applying ends the preview";
    ASSERT_TRUE(QTest::qWaitFor([&] { return !edited.busy(); }, 60000));
    EXPECT_EQ(panel.analyzing().isHidden(), !edited.isAnalyzing());
    ASSERT_EQ(document.undoStack().count(), 1);
    EXPECT_EQ(document.undoStack().text(0), "Match Loudness -14.0 LUFS");
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return !edited.isAnalyzing() && edited.loudness().has_value(); }, 20000));
    ASSERT_TRUE(QTest::qWaitFor([&] { return panel.integrated().value() == "-14.0"; }, 20000));
    EXPECT_TRUE(panel.analyzing().isHidden());

    QTemporaryDir folder;
    const std::filesystem::path url = folder.filePath(QStringLiteral("loud.wav")).toStdString();
    EncodeSettings settings = EncodeSettings::defaults(ExportFormat::wav);
    settings.bitDepth = PCMBitDepth::float32;
    QSignalSpy written(&document, &AudioDocument::written);
    document.save(url, settings);
    ASSERT_TRUE(QTest::qWaitFor([&] { return written.count() == 1; }, 20000));

    QProcess cli;
    cli.start(QStringLiteral(HARLUNE_CLI_PATH),
              {QStringLiteral("loudness"), QStringLiteral("--json"), QString::fromStdString(url.string())});
    ASSERT_TRUE(cli.waitForFinished(60000));
    ASSERT_EQ(cli.exitCode(), 0) << cli.readAllStandardError().toStdString();
    const QJsonObject figures = QJsonDocument::fromJson(cli.readAllStandardOutput()).object();
    EXPECT_NEAR(figures["integratedLUFS"].toDouble(), -14.0, 0.1);
    EXPECT_LE(figures["truePeakDBTP"].toDouble(), -1.0);
    EXPECT_GT(figures["truePeakDBTP"].toDouble(), -1.5) << "held at the ceiling, not far under it";
}

} // namespace
} // namespace harlune
