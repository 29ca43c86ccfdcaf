// The rack's bookkeeping as the audio thread sees it: what is published when, which change
// rebuilds and which only bumps a version, how plug-ins load, fail and are kept, and how long
// replaced runtimes live. The sound itself is in EffectsRackAudioTest.
#include "engine/RackTestSupport.h"
#include "support/TestAudio.h"

#include <gtest/gtest.h>

namespace harlune {
namespace {

using namespace std::chrono_literals;
using testing::bell;
using testing::noisePlanes;
using testing::RackOnEngine;

const PluginDescriptor scaler{"urn:scale", "Scaler"};
const PluginDescriptor missing{"urn:none", "Ghost"};

double firstBandGain(const std::optional<EffectSettings>& settings) {
    return settings && settings->as<EQSettings>() ? settings->as<EQSettings>()->bands.at(0).gainDB : -999;
}

TEST(EffectsRack, IsAListOnlyUntilActivatedAndPublishesNothingForNoSlots) {
    testing::EngineOnTestDevice fixture;
    ManualRackScheduler scheduler;
    EffectsRack rack(scheduler, testing::FakeLoader{});
    int notifications = 0;
    rack.onChange = [&] {
        ++notifications;
    };
    const Uuid eq = rack.add(bell(6));
    EXPECT_EQ(rack.expandedSlotID(), eq);
    EXPECT_EQ(scheduler.pendingTaskCount(), 0u) << "no rebuild before a format is known";
    EXPECT_EQ(rack.runtime(), nullptr);
    EXPECT_EQ(rack.chainName(), "Parametric EQ");
    rack.removeAll();
    EXPECT_EQ(rack.chainName(), "Effects");
    EXPECT_EQ(rack.expandedSlotID(), std::nullopt) << "no editor open for a slot that is gone";
    EXPECT_GE(notifications, 3);

    rack.activate(fixture.engine->renderState(), 48000, 2);
    ASSERT_NE(rack.runtime(), nullptr);
    EXPECT_FALSE(fixture.engine->state().effects.isActive) << "an empty rack leaves playback dry";
    EXPECT_EQ(rack.processMask(), (std::vector<bool>{true, true}));
}

TEST(EffectsRack, ActivateRebuildsForANewFormatAndOtherwiseOnlyPublishes) {
    RackOnEngine fixture(noisePlanes(2, 4800, 1));
    EffectsRack& rack = fixture.rack;
    rack.add(bell(6));
    fixture.scheduler.advance(60ms);
    const auto first = rack.runtime();
    ASSERT_EQ(first->processors().size(), 1u);
    EXPECT_TRUE(fixture.published().isActive);

    rack.setPreviewEnabled(false);
    EXPECT_FALSE(fixture.published().isActive);
    EXPECT_EQ(rack.runtime(), first) << "disabling the preview keeps the runtime";
    rack.setPreviewEnabled(true);
    rack.activate(fixture.engine->renderState(), 48000, 2);
    EXPECT_EQ(rack.runtime(), first);
    EXPECT_TRUE(fixture.published().isActive);

    rack.activate(fixture.engine->renderState(), 44100, 2);
    EXPECT_NE(rack.runtime(), first) << "a new rate rebuilds at once, before any callback";
    EXPECT_EQ(fixture.published().runtime, rack.runtime());
    EXPECT_TRUE(fixture.published().isActive);
    rack.activate(fixture.engine->renderState(), 44100, 1);
    EXPECT_EQ(rack.runtime()->channelCount(), 1);
    EXPECT_EQ(rack.processMask(), std::vector<bool>{true});
    EXPECT_EQ(rack.retiredCount(), 3u) << "every runtime since the one of the first play";
}

TEST(EffectsRack, ParameterChangesBumpOneVersionAndPublishOnceWithoutRebuilding) {
    RackOnEngine fixture(noisePlanes(2, 4800, 1));
    EffectsRack& rack = fixture.rack;
    const Uuid a = rack.add(bell(3));
    const Uuid b = rack.add(bell(-3, 4000));
    fixture.scheduler.advance(60ms);
    const auto runtime = rack.runtime();
    EXPECT_EQ(rack.versions(), (std::vector<int>{1, 1}));

    fixture.edit(b, [](EffectSlot& slot) { slot.source = bell(-6, 4000); });
    fixture.edit(b, [](EffectSlot& slot) { slot.isEnabled = false; });
    fixture.edit(a, [](EffectSlot& slot) { slot.source = bell(9); });
    EXPECT_EQ(rack.versions(), (std::vector<int>{2, 3}));
    EXPECT_EQ(rack.runtime(), runtime);
    EXPECT_EQ(fixture.scheduler.pendingTaskCount(), 1u) << "only the pruning";
    const PreviewEffectsState& state = fixture.published();
    EXPECT_EQ(state.versions, (std::vector<int>{2, 3}));
    EXPECT_EQ(state.enabled, (std::vector<char>{1, 0}));
    EXPECT_EQ(firstBandGain(state.settings[0]), 9);
    EXPECT_EQ(rack.chainName(), "Parametric EQ");

    rack.setProcessMask({true, false});
    EXPECT_EQ(state.processMask, (std::vector<char>{1, 0}));
    EXPECT_EQ(rack.activeSlots().size(), 1u);
}

TEST(EffectsRack, StructuralChangesWithin60msCostOneRebuildAndLeavePlaybackDryMeanwhile) {
    RackOnEngine fixture(noisePlanes(2, 4800, 1));
    EffectsRack& rack = fixture.rack;
    const Uuid a = rack.add(bell(3));
    const Uuid b = rack.add(bell(-3, 4000));
    fixture.scheduler.advance(60ms);
    const auto before = rack.runtime();
    const size_t retiredBefore = rack.retiredCount();

    rack.move(b, -5); // clamped to the front
    EXPECT_FALSE(fixture.published().isActive);
    fixture.scheduler.advance(20ms);
    rack.add(bell(1, 200));
    fixture.scheduler.advance(20ms);
    rack.remove(a);
    fixture.edit(b, [](EffectSlot& slot) { slot.source = bell(-1, 4000); });
    EXPECT_FALSE(fixture.published().isActive) << "a knob move in the gap does not revive the old chain";
    fixture.scheduler.advance(59ms);
    EXPECT_EQ(rack.runtime(), before);
    fixture.scheduler.advance(1ms);
    EXPECT_NE(rack.runtime(), before);
    EXPECT_EQ(rack.retiredCount(), retiredBefore + 1) << "one rebuild";
    EXPECT_EQ(rack.runtime()->processors().size(), 2u);
    EXPECT_EQ(rack.versions(), (std::vector<int>{1, 1}));
    EXPECT_EQ(firstBandGain(fixture.published().settings[0]), -1);
    EXPECT_TRUE(fixture.published().isActive);
    rack.move(b, -1);
    EXPECT_TRUE(fixture.published().isActive) << "a move that goes nowhere changes nothing";
}

TEST(EffectsRack, RetiredRuntimesLiveMoreThanTwoSecondsAndGoWithinFourAndAHalf) {
    RackOnEngine fixture(noisePlanes(1, 4800, 1));
    EffectsRack& rack = fixture.rack;
    rack.add(bell(3));
    fixture.scheduler.advance(60ms); // the runtime of activate retires now
    std::vector<std::weak_ptr<PreviewRuntime>> retired{rack.runtime()};
    for (int i = 0; i < 2; ++i) {
        rack.add(bell(i, 300));
        fixture.scheduler.advance(60ms);
        retired.push_back(rack.runtime());
    }
    rack.add(bell(2, 300));
    fixture.scheduler.advance(60ms);
    ASSERT_EQ(rack.retiredCount(), 4u);

    fixture.scheduler.advance(2000ms - 180ms);
    EXPECT_EQ(rack.retiredCount(), 4u) << "all held for 2 s after the first retirement";
    fixture.scheduler.advance(4500ms - 2000ms);
    EXPECT_EQ(rack.retiredCount(), 0u);
    fixture.engine->state().updateEffects([](PreviewEffectsState&) {});
    for (const auto& runtime : retired)
        EXPECT_TRUE(runtime.expired());
    EXPECT_EQ(fixture.scheduler.pendingTaskCount(), 0u) << "pruning stops when nothing is left";
}

TEST(EffectsRack, ALoadingPlugInIsSkippedThenAddedAndKeptAcrossRebuilds) {
    RackOnEngine fixture(noisePlanes(2, 4800, 1));
    EffectsRack& rack = fixture.rack;
    const Uuid eq = rack.add(bell(3));
    const Uuid plugin = rack.addPlugin(scaler, R"({"gain":0.5})");
    EXPECT_EQ(rack.loadingSlots(), std::set<Uuid>{plugin});
    EXPECT_TRUE(rack.pluginParameters(plugin).empty()) << "no controls to edit before the load";
    fixture.scheduler.advance(60ms);
    EXPECT_EQ(rack.runtime()->processors().size(), 1u) << "the rest of the chain is heard";
    EXPECT_TRUE(fixture.published().isActive);

    fixture.scheduler.runBackgroundJobs();
    EXPECT_TRUE(rack.loadingSlots().empty());
    ASSERT_EQ(fixture.loader.made->size(), 1u);
    const auto instance = fixture.loader.made->front();
    EXPECT_EQ(instance->gain(), 0.5f) << "the slot's state is restored on the new instance";
    const std::vector<PluginParameter> controls = rack.pluginParameters(plugin);
    ASSERT_EQ(controls.size(), instance->parameters().size());
    EXPECT_EQ(controls.front().symbol, instance->parameters().front().symbol);
    EXPECT_TRUE(rack.pluginParameters(eq).empty());
    fixture.scheduler.advance(60ms);
    ASSERT_EQ(rack.runtime()->processors().size(), 2u);
    EXPECT_EQ(rack.runtime()->processors()[1], instance);
    EXPECT_EQ(fixture.published().settings[1], std::nullopt);

    // State alone is a parameter change of the running instance: nothing else moves.
    const auto runtime = rack.runtime();
    fixture.edit(plugin,
                 [](EffectSlot& slot) { std::get<EffectSlot::Plugin>(slot.source).state = R"({"gain":2})"; });
    EXPECT_EQ(instance->gain(), 2.0f);
    EXPECT_EQ(rack.versions(), (std::vector<int>{1, 1}));
    EXPECT_EQ(fixture.scheduler.pendingTaskCount(), 1u) << "only the pruning";
    fixture.edit(plugin, [](EffectSlot& slot) { std::get<EffectSlot::Plugin>(slot.source).state.reset(); });
    EXPECT_EQ(instance->gain(), 1.0f) << "no state: the plug-in's defaults";

    rack.move(eq, 1);
    fixture.scheduler.advance(60ms);
    EXPECT_NE(rack.runtime(), runtime);
    EXPECT_EQ(rack.runtime()->processors()[0], instance) << "kept, and prepared again";
    EXPECT_EQ(instance->prepares, 2);
    EXPECT_EQ(fixture.loader.made->size(), 1u);
}

TEST(EffectsRack, PlugInFailuresLeaveMessagesAndTheRestPlays) {
    RackOnEngine fixture(noisePlanes(2, 4800, 1));
    EffectsRack& rack = fixture.rack;
    rack.add(bell(3));
    rack.addPlugin(missing);
    fixture.scheduler.runBackgroundJobs();
    EXPECT_EQ(rack.slots().size(), 1u) << "a plug-in that fails to load is removed";
    EXPECT_TRUE(rack.loadingSlots().empty());
    ASSERT_TRUE(rack.lastError());
    EXPECT_EQ(rack.lastError()->rfind("Couldn\u2019t load \u201CGhost\u201D: ", 0), 0u) << *rack.lastError();
    rack.dismissError();
    EXPECT_FALSE(rack.lastError());

    const Uuid plugin = rack.addPlugin(scaler);
    fixture.scheduler.runBackgroundJobs();
    fixture.loader.made->back()->maxChannels = 1;
    fixture.scheduler.advance(60ms);
    ASSERT_TRUE(rack.lastError());
    EXPECT_EQ(rack.lastError()->rfind("\u201CScaler\u201D can\u2019t run at this format: ", 0), 0u)
        << *rack.lastError();
    EXPECT_EQ(rack.slots().size(), 2u) << "the slot stays, without effect";
    EXPECT_EQ(rack.runtime()->processors().size(), 1u);
    EXPECT_EQ(rack.gainReduction(plugin), std::nullopt);
    fixture.edit(plugin, [](EffectSlot& slot) { slot.isEnabled = false; });
    EXPECT_EQ(rack.versions(), std::vector<int>{1}) << "nothing to bump for a slot left out";

    // A slot removed while its plug-in loads: the instance is stored, and no runtime reaches it.
    const Uuid late = rack.addPlugin(scaler);
    rack.remove(late);
    fixture.scheduler.runBackgroundJobs();
    fixture.scheduler.advance(60ms);
    EXPECT_EQ(rack.runtime()->processors().size(), 1u);
    EXPECT_EQ(fixture.loader.made->back()->prepares, 0);
}

TEST(EffectsRack, OfflineChainsAreFreshAndCarryThePreviewState) {
    RackOnEngine fixture(noisePlanes(2, 4800, 1));
    EffectsRack& rack = fixture.rack;
    const Uuid eq = rack.add(bell(3));
    rack.addPlugin(scaler, R"({"gain":0.25})");
    const Uuid off = rack.add(bell(6));
    fixture.edit(off, [](EffectSlot& slot) { slot.isEnabled = false; });
    fixture.scheduler.runBackgroundJobs();
    fixture.scheduler.advance(60ms);
    const auto preview = fixture.loader.made->front();
    preview->setParameter("gain", 3); // as a host's own editor would

    const ProcessorHandoff handoff = rack.makeOfflineChain();
    ASSERT_EQ(handoff.chain.size(), 2u);
    EXPECT_NE(handoff.chain[0], rack.runtime()->processors()[0]);
    EXPECT_FALSE(handoff.chain[0]->isPrepared());
    const auto offline = std::dynamic_pointer_cast<testing::FakePlugin>(handoff.chain[1]);
    ASSERT_NE(offline, nullptr);
    EXPECT_NE(offline, preview);
    EXPECT_EQ(offline->gain(), 3.0f);
    EXPECT_TRUE(offline->rendersOffline);
    EXPECT_FALSE(preview->rendersOffline);
    EXPECT_EQ(rack.chainName(), "Parametric EQ + Scaler");
    EXPECT_EQ(rack.gainReduction(eq), std::nullopt) << "an EQ meters nothing";

    rack.setSlots({EffectSlot{.source = EffectSlot::Plugin{missing, {}}}});
    EXPECT_THROW(rack.makeOfflineChain(), HarluneError);
}

} // namespace
} // namespace harlune
