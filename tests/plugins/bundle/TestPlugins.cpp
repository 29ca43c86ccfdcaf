// Two tiny LV2 plug-ins for the host's tests, built into a bundle in the build tree:
// "pair" multiplies by its two controls a and b (so a change of both that keeps a * b shows any
// half-applied change as a wrong gain), and reports as latency its control "delay" plus 1 ms at
// the rate it was made for (without delaying: only the figure is tested); "refuse" can never be
// instantiated.
#include <cstdint>
#include <cstdlib>
#include <lv2/core/lv2.h>

namespace {

struct Pair {
    float millisecond = 0; ///< frames, at the rate of the instance
    const float* input = nullptr;
    float* output = nullptr;
    const float* a = nullptr;
    const float* b = nullptr;
    const float* delay = nullptr;
    float* latency = nullptr;
};

LV2_Handle instantiatePair(const LV2_Descriptor*, double rate, const char*, const LV2_Feature* const*) {
    auto* pair = new Pair;
    pair->millisecond = static_cast<float>(rate / 1000);
    return pair;
}

void connectPair(LV2_Handle handle, uint32_t port, void* data) {
    auto& pair = *static_cast<Pair*>(handle);
    switch (port) {
    case 0:
        pair.input = static_cast<const float*>(data);
        break;
    case 1:
        pair.output = static_cast<float*>(data);
        break;
    case 2:
        pair.a = static_cast<const float*>(data);
        break;
    case 3:
        pair.b = static_cast<const float*>(data);
        break;
    case 4:
        pair.delay = static_cast<const float*>(data);
        break;
    case 5:
        pair.latency = static_cast<float*>(data);
        break;
    default:
        break;
    }
}

void runPair(LV2_Handle handle, uint32_t frames) {
    auto& pair = *static_cast<Pair*>(handle);
    const float gain = *pair.a * *pair.b;
    for (uint32_t n = 0; n < frames; ++n)
        pair.output[n] = pair.input[n] * gain;
    *pair.latency = *pair.delay + pair.millisecond;
}

void cleanupPair(LV2_Handle handle) {
    delete static_cast<Pair*>(handle);
}

LV2_Handle instantiateRefuse(const LV2_Descriptor*, double, const char*, const LV2_Feature* const*) {
    return nullptr;
}

void ignoreConnect(LV2_Handle, uint32_t, void*) {}
void ignoreRun(LV2_Handle, uint32_t) {}
void ignoreCleanup(LV2_Handle) {}

const LV2_Descriptor descriptors[] = {
    {"urn:harlune:test:pair", instantiatePair, connectPair, nullptr, runPair, nullptr, cleanupPair, nullptr},
    {"urn:harlune:test:refuse", instantiateRefuse, ignoreConnect, nullptr, ignoreRun, nullptr, ignoreCleanup,
     nullptr},
};

} // namespace

extern "C" LV2_SYMBOL_EXPORT const LV2_Descriptor* lv2_descriptor(uint32_t index) {
    return index < 2 ? &descriptors[index] : nullptr;
}
