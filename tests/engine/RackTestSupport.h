#pragma once

#include "engine/EffectsRack.h"
#include "engine/EngineTestSupport.h"
#include "engine/FakePlugin.h"
#include "engine/ManualRackScheduler.h"
#include "support/TestAudio.h"

#include <memory>

namespace harlune::testing {

/// One band of a parametric EQ: a bell at `frequency` Hz.
inline EffectSettings bell(double gainDB, double frequency = 1000, double q = 1) {
    EQSettings settings;
    settings.bands = {EQBand{.type = EQBandType::peak, .frequency = frequency, .gainDB = gainDB, .q = q}};
    return settings;
}

/// A rack on an engine on the test device, both driven by hand: the scheduler's clock moves only
/// with `advance`, the device renders only when pulled.
struct RackOnEngine : EngineOnTestDevice {
    ManualRackScheduler scheduler;
    FakeLoader loader;
    EffectsRack rack{scheduler, loader};
    Planes planes;

    explicit RackOnEngine(Planes content, double rate = 48000, bool loop = true)
        : planes(std::move(content)) {
        const auto frames = static_cast<int64_t>(planes[0].size());
        engine->start(AudioContent(planes, rate), {0, frames}, loop, 1.0f);
        rack.activate(engine->renderState(), rate, static_cast<int>(planes.size()));
    }

    const PreviewEffectsState& published() const { return engine->state().effects; }
    /// Frames in callbacks of 256, as a device would ask.
    Planes play(int64_t frames) { return device->pull(frames, 256).planes; }
    /// The slot `id` with `change` made to it, stored through `setSlots` as an editor would.
    template <class Change> void edit(const Uuid& id, Change change) {
        auto slots = rack.slots();
        for (auto& slot : slots)
            if (slot.id == id)
                change(slot);
        rack.setSlots(std::move(slots));
    }
};

} // namespace harlune::testing
