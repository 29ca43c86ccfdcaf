// The effects tab: slots in order with their toggles, drops that keep the other slots' order,
// one editor open at a time, plug-in loading and errors; the generic editor against the
// parameter table for every kind; and an EQ band moved while the test device plays, which must
// reach the running processor as a parameter version, with no rebuild and no undo step.
#include "ui/inspector/RackPanel.h"

#include "dsp/effects/EffectParameters.h"
#include "editor/EditorTestSupport.h"
#include "editor/EnginePlaybackControl.h"
#include "editor/QtRackScheduler.h"
#include "engine/devices/TestAudioDevice.h"
#include "support/TestAudio.h"
#include "ui/inspector/EQResponseView.h"
#include "ui/inspector/EffectParameterValues.h"
#include "ui/inspector/EffectSlotEditor.h"
#include "ui/inspector/LinearMeterRow.h"
#include "ui/inspector/ParameterControl.h"
#include "ui/inspector/RackSlotView.h"

#include <QAccessible>
#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QDropEvent>
#include <QLabel>
#include <QMenu>
#include <QMimeData>
#include <QProgressBar>
#include <QPushButton>
#include <QSlider>
#include <QToolButton>
#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <utility>
#include <vector>

namespace harlune {
namespace {

const PluginDescriptor amp{"http://plugin.org.uk/swh-plugins/amp", "Simple amplifier"};

std::vector<EffectKind> kindsOf(const EffectsRack& rack) {
    std::vector<EffectKind> kinds;
    for (const EffectSlot& slot : rack.slots())
        kinds.push_back(std::get<EffectSettings>(slot.source).kind());
    return kinds;
}

QAction* addAction(RackPanel& panel, EffectKind kind) {
    return panel.addButton().menu()->findChild<QAction*>(QString::fromUtf8(rawValue(kind).data()));
}

/// The window's scheduler, except that background jobs wait for `release`: a plug-in that loads
/// quickly would otherwise be ready before the first look at its spinner.
class GatedRackScheduler final : public RackScheduler {
public:
    Clock::time_point now() const override { return inner_.now(); }
    TaskID schedule(std::chrono::milliseconds delay, std::function<void()> task) override {
        return inner_.schedule(delay, std::move(task));
    }
    void cancel(TaskID task) override { inner_.cancel(task); }
    void runInBackground(std::function<std::function<void()>()> work) override {
        held_.push_back(std::move(work));
    }
    void release() {
        for (auto& work : std::exchange(held_, {}))
            inner_.runInBackground(std::move(work));
    }

private:
    QtRackScheduler inner_;
    std::vector<std::function<std::function<void()>()>> held_;
};

std::unique_ptr<EditorModel> plainModel(std::unique_ptr<RackScheduler> rackScheduler = nullptr) {
    testing::clearPreferences();
    EditorCollaborators collaborators;
    collaborators.rackScheduler = std::move(rackScheduler);
    collaborators.player = std::make_unique<testing::ProbePlayer>(std::make_shared<testing::Probe>());
    collaborators.analysis = std::make_unique<NullAnalysisScheduler>();
    return std::make_unique<EditorModel>(AudioContent(testing::noisePlanes(2, 4800), 48000), std::nullopt,
                                         std::move(collaborators));
}

TEST(RackPanel, SlotsAreAddedOpenedOneAtATimeToggledRemovedAndReordered) {
    auto model = plainModel();
    RackPanel panel(*model);
    panel.resize(360, 900);
    panel.show();
    for (const EffectKind kind : {EffectKind::eq, EffectKind::compressor, EffectKind::delay}) {
        QAction* action = addAction(panel, kind);
        ASSERT_NE(action, nullptr);
        action->trigger();
    }
    ASSERT_EQ(panel.slotViews().size(), 3u);
    // The newest slot opens its own editor, and only that one.
    const Uuid delay = model->rack().slots()[2].id;
    EXPECT_EQ(model->rack().expandedSlotID(), delay);
    EXPECT_EQ(panel.slotViews()[0]->editor(), nullptr);
    EXPECT_NE(panel.slotViews()[2]->editor(), nullptr);
    panel.slotViews()[1]->expand().click();
    EXPECT_EQ(model->rack().expandedSlotID(), model->rack().slots()[1].id);
    EXPECT_EQ(panel.slotViews()[2]->editor(), nullptr);
    ASSERT_NE(panel.slotViews()[1]->editor(), nullptr);
    EXPECT_NE(panel.slotViews()[1]->editor()->meter(), nullptr) << "the compressor meters its reduction";

    panel.slotViews()[0]->enabled().click();
    EXPECT_FALSE(model->rack().slots()[0].isEnabled);
    EXPECT_EQ(model->rack().activeSlots().size(), 2u);

    // A drop of the first slot below the last: the others keep their order.
    QApplication::processEvents();
    const QRect last = panel.slotViews()[2]->geometry();
    ASSERT_GT(last.top(), panel.slotViews()[1]->geometry().top());
    QMimeData payload;
    payload.setData(QString::fromLatin1(RackSlotView::mimeType), "0");
    QDropEvent drop(QPointF(last.center().x(), last.bottom() - 2), Qt::MoveAction, &payload, Qt::LeftButton,
                    Qt::NoModifier);
    // Straight to the panel: the application delivers drops only within a drag under way.
    QObject& target = panel;
    QDragEnterEvent enter(drop.position().toPoint(), Qt::MoveAction, &payload, Qt::LeftButton,
                          Qt::NoModifier);
    target.event(&enter);
    EXPECT_TRUE(enter.isAccepted());
    target.event(&drop);
    EXPECT_EQ(kindsOf(model->rack()),
              (std::vector{EffectKind::compressor, EffectKind::delay, EffectKind::eq}));
    panel.moveSlot(2, 0);
    EXPECT_EQ(kindsOf(model->rack()),
              (std::vector{EffectKind::eq, EffectKind::compressor, EffectKind::delay}));
    panel.moveSlot(0, 1);
    EXPECT_EQ(kindsOf(model->rack()),
              (std::vector{EffectKind::compressor, EffectKind::eq, EffectKind::delay}));
    ASSERT_EQ(panel.slotViews().size(), 3u);
    EXPECT_EQ(panel.slotViews()[0]->slotID(), model->rack().slots()[0].id) << "the views follow the order";
    EXPECT_FALSE(panel.slotView(model->rack().slots()[1].id)->enabled().isChecked());

    panel.slotViews()[0]->remove().click();
    EXPECT_EQ(kindsOf(model->rack()), (std::vector{EffectKind::eq, EffectKind::delay}));

    panel.preview().click();
    EXPECT_FALSE(model->rack().previewEnabled());
    panel.tailMode().setCurrentIndex(1);
    EXPECT_EQ(model->rack().tailMode(), EffectTailMode::truncate);
}

TEST(RackPanel, PlugInsShowASpinnerThenTheirControlsAndFailuresCanBeDismissed) {
    auto gated = std::make_unique<GatedRackScheduler>();
    GatedRackScheduler& scheduler = *gated;
    auto model = plainModel(std::move(gated));
    RackPanel panel(*model);
    panel.show();
    const Uuid id = model->rack().addPlugin(amp);
    QApplication::processEvents(); // the new view is shown by a queued call
    ASSERT_NE(panel.slotView(id), nullptr);
    EXPECT_TRUE(panel.slotView(id)->spinner().isVisibleTo(&panel));
    scheduler.release();
    ASSERT_TRUE(QTest::qWaitFor([&] { return model->rack().loadingSlots().empty(); }, 20000));
    if (model->rack().slots().empty())
        GTEST_SKIP() << "the swh-lv2 amplifier is not installed: " << model->rack().lastError().value_or("");
    RackSlotView& view = *panel.slotView(id);
    EXPECT_FALSE(view.spinner().isVisibleTo(&panel));
    ASSERT_NE(view.editor(), nullptr);
    ASSERT_EQ(view.editor()->controls().size(), model->rack().pluginParameters(id).size());
    ParameterControl& gain = *view.editor()->controls().front();
    gain.entry()->setValue(-6);
    const auto& state = std::get<EffectSlot::Plugin>(model->rack().slots()[0].source).state;
    ASSERT_TRUE(state.has_value());
    EXPECT_DOUBLE_EQ(pluginValue(state, model->rack().pluginParameters(id).front()), -6);

    model->rack().addPlugin({"urn:harlune:nothing", "Ghost"});
    scheduler.release();
    ASSERT_TRUE(QTest::qWaitFor([&] { return model->rack().lastError().has_value(); }, 20000));
    EXPECT_TRUE(panel.error().isVisibleTo(&panel));
    EXPECT_TRUE(panel.error().text().startsWith(QStringLiteral("Couldn\u2019t load \u201cGhost\u201d: ")));
    panel.dismiss().click();
    EXPECT_FALSE(model->rack().lastError().has_value());
    EXPECT_FALSE(panel.error().isVisibleTo(&panel));
}

TEST(GenericEffectEditor, EveryParameterOfEveryKindHasAControlThatWritesItsField) {
    auto model = plainModel();
    RackPanel panel(*model);
    for (const EffectKind kind : allEffectKinds()) {
        SCOPED_TRACE(std::string(rawValue(kind)));
        model->rack().removeAll();
        const Uuid id = model->rack().add(EffectSettings::defaultSettings(kind));
        EffectSlotEditor* editor = panel.slotView(id)->editor();
        ASSERT_NE(editor, nullptr);
        const auto parameters = effectParameters(kind);
        size_t expected = parameters.size();
        if (kind == EffectKind::eq)
            expected += EQSettings::defaultBands().size() * eqBandParameters().size();
        ASSERT_EQ(editor->controls().size(), expected);
        EXPECT_EQ(editor->response() != nullptr, kind == EffectKind::eq);
        EXPECT_EQ(editor->meter() != nullptr, kind == EffectKind::compressor || kind == EffectKind::gate);
        for (size_t p = 0; p < parameters.size(); ++p) {
            const EffectParameter& parameter = parameters[p];
            ParameterControl& control = *editor->controls()[p];
            EXPECT_EQ(control.spec().name, QString::fromUtf8(parameter.displayName.data()));
            // A value other than the default, set through the control the user would touch.
            double wanted = 0;
            switch (parameter.scale) {
            case ParameterScale::toggle:
                wanted = parameter.defaultValue > 0.5 ? 0 : 1;
                control.toggle()->click();
                break;
            case ParameterScale::choice:
                wanted = parameter.defaultValue == 0 ? 1 : 0;
                control.picker()->setCurrentIndex(static_cast<int>(wanted));
                break;
            case ParameterScale::linear:
            case ParameterScale::logarithmic:
                control.slider()->setValue(ParameterControl::sliderSteps / 4);
                wanted = control.valueAt(ParameterControl::sliderSteps / 4);
                if (parameter.isInteger)
                    wanted = std::round(wanted);
                EXPECT_FALSE(control.entry()->suffix().isEmpty() && !parameter.unit.empty());
                break;
            }
            const EffectSettings& now = std::get<EffectSettings>(model->rack().slots()[0].source);
            EXPECT_NEAR(parameterValue(now, parameter), wanted, 1e-9) << parameter.key;
        }
    }
}

TEST(GenericEffectEditor, ValuesRoundTripThroughSettingsAndSlidersFollowTheirScales) {
    for (const EffectKind kind : allEffectKinds())
        for (const EffectParameter& parameter : effectParameters(kind)) {
            SCOPED_TRACE(std::string(rawValue(kind)) + "." + std::string(parameter.key));
            const EffectSettings defaults = EffectSettings::defaultSettings(kind);
            EXPECT_DOUBLE_EQ(parameterValue(defaults, parameter), parameter.defaultValue);
            const double other =
                parameter.scale == ParameterScale::toggle || parameter.scale == ParameterScale::choice
                    ? parameter.editorMaximum
                    : (parameter.editorMinimum + parameter.editorMaximum) / 2;
            const double wanted = parameter.isInteger ? std::round(other) : other;
            const EffectSettings changed = withParameter(defaults, parameter, wanted);
            EXPECT_DOUBLE_EQ(parameterValue(changed, parameter), wanted);
            // Every other parameter keeps its default.
            for (const EffectParameter& rest : effectParameters(kind)) {
                if (rest.key != parameter.key) {
                    EXPECT_DOUBLE_EQ(parameterValue(changed, rest), rest.defaultValue) << rest.key;
                }
            }
            if (kind == EffectKind::eq) {
                EXPECT_EQ(changed.as<EQSettings>()->bands, defaults.as<EQSettings>()->bands);
            }
        }

    // A logarithmic slider puts the geometric mean in its middle, a linear one the mean.
    const ParameterControl frequency(ParameterSpec::of(*findParameter(eqBandParameters(), "frequency")));
    EXPECT_NEAR(frequency.valueAt(ParameterControl::sliderSteps / 2), std::sqrt(20.0 * 20000.0), 1e-6);
    EXPECT_EQ(frequency.sliderPosition(20), 0);
    EXPECT_EQ(frequency.sliderPosition(20000), ParameterControl::sliderSteps);
    for (const int position : {0, 137, 500, 999})
        EXPECT_EQ(frequency.sliderPosition(frequency.valueAt(position)), position);
    const ParameterControl gain(ParameterSpec::of(*findParameter(eqBandParameters(), "gainDB")));
    EXPECT_DOUBLE_EQ(gain.valueAt(ParameterControl::sliderSteps / 2), 0.0);
    EXPECT_EQ(gain.entry()->suffix(), " dB");
}

TEST(GenericEffectEditor, AnEqBandMovedWhilePlayingBumpsTheRackVersionWithoutRebuildOrUndo) {
    testing::clearPreferences();
    auto output = std::make_unique<TestAudioDevice>();
    TestAudioDevice& device = *output;
    EditorCollaborators collaborators;
    collaborators.player = std::make_unique<EnginePlaybackControl>(std::move(output));
    collaborators.analysis = std::make_unique<NullAnalysisScheduler>();
    const testing::Planes planes = testing::noisePlanes(2, 48000 * 4, 5);
    EditorModel model(AudioContent(planes, 48000), std::nullopt, std::move(collaborators));
    QUndoStack stack;
    model.setUndoManager(&stack);
    RackPanel panel(model);
    const Uuid id = model.rack().add(EffectSettings::defaultSettings(EffectKind::eq));

    model.play(false);
    ASSERT_TRUE(model.isPlaying());
    const auto runtime = model.rack().runtime();
    ASSERT_NE(runtime, nullptr);
    ASSERT_EQ(model.rack().versions(), std::vector<int>{1});
    const testing::Planes flat = device.pull(4096, 256).planes;
    // A flat EQ passes the audio as it is.
    for (size_t i = 0; i < 4096; ++i)
        ASSERT_NEAR(flat[0][i], planes[0][i], 1e-4);

    // The third band (a bell at 400 Hz): its gain slider dragged up to +12 dB.
    EffectSlotEditor& editor = *panel.slotView(id)->editor();
    const size_t gainControl = effectParameters(EffectKind::eq).size() + 2 * eqBandParameters().size() + 3;
    ParameterControl& gain = *editor.controls()[gainControl];
    ASSERT_EQ(gain.spec().name, "Gain");
    EXPECT_EQ(editor.controls()[gainControl - 2]->picker()->currentText(), "Bell")
        << "the band type's own name";
    const double before = editor.response()->response()[120];
    gain.slider()->setSliderDown(true);
    for (const int position : {550, 600, 625})
        gain.slider()->setValue(position);
    gain.slider()->setSliderDown(false);
    EXPECT_DOUBLE_EQ(
        std::get<EffectSettings>(model.rack().slots()[0].source).as<EQSettings>()->bands[2].gainDB, 12);
    EXPECT_EQ(model.rack().versions(), std::vector<int>{4}) << "one version per step of the drag";
    EXPECT_EQ(model.rack().runtime(), runtime) << "no rebuild";
    EXPECT_EQ(stack.count(), 0) << "no undo step";
    EXPECT_EQ(gain.entry()->value(), 12);

    const testing::Planes boosted = device.pull(48000, 256).planes;
    EXPECT_EQ(runtime->appliedVersions[0], 4) << "the audio thread took the last version";
    double in = 0, out = 0;
    for (size_t i = 24000; i < 48000; ++i) {
        in += planes[0][4096 + i] * planes[0][4096 + i];
        out += boosted[0][i] * boosted[0][i];
    }
    EXPECT_GT(out, in * 1.1) << "the bell adds energy to noise";

    // The response curve follows: a bump at 400 Hz, and its words say so.
    const auto& frequencies = editor.response()->frequencies();
    const auto peak =
        std::max_element(editor.response()->response().begin(), editor.response()->response().end());
    EXPECT_NEAR(*peak, 12, 0.1);
    EXPECT_NEAR(frequencies[static_cast<size_t>(peak - editor.response()->response().begin())], 400, 20);
    EXPECT_NE(editor.response()->response()[120], before);
    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(editor.response());
    ASSERT_NE(accessible, nullptr);
    EXPECT_TRUE(accessible->text(QAccessible::Value).startsWith("Highest +12.0 dB at "));
    EXPECT_TRUE(accessible->text(QAccessible::Name).contains("+12.0 dB"));
    model.stop(false);
}

TEST(GenericEffectEditor, TheCompressorMetersItsGainReductionWhilePlaying) {
    testing::clearPreferences();
    auto output = std::make_unique<TestAudioDevice>();
    TestAudioDevice& device = *output;
    EditorCollaborators collaborators;
    collaborators.player = std::make_unique<EnginePlaybackControl>(std::move(output));
    collaborators.analysis = std::make_unique<NullAnalysisScheduler>();
    // Full-scale noise sits far above the default threshold of -18 dB.
    EditorModel model(AudioContent(testing::noisePlanes(2, 48000 * 2, 9), 48000), std::nullopt,
                      std::move(collaborators));
    RackPanel panel(model);
    const Uuid id = model.rack().add(EffectSettings::defaultSettings(EffectKind::compressor));
    EffectSlotEditor& editor = *panel.slotView(id)->editor();
    ASSERT_NE(editor.meter(), nullptr);
    editor.pollMeter();
    EXPECT_EQ(editor.meter()->value(), 0.0) << "nothing runs before play";
    model.play(false);
    device.pull(24000, 256);
    editor.pollMeter();
    EXPECT_GT(editor.meter()->value(), 3.0);
    EXPECT_DOUBLE_EQ(editor.meter()->value(), *model.rack().gainReduction(id));
    EXPECT_TRUE(editor.meter()->accessibleValue().startsWith("Gain reduction "));
    EXPECT_TRUE(editor.meter()->accessibleValue().endsWith(" dB"));
    model.stop(false);
}

} // namespace
} // namespace harlune
