#include "dsp/LoudnessResult.h"

#include <functional>

namespace {

void combine(size_t& seed, size_t value) {
    seed ^= value + 0x9e3779b97f4a7c15ull + (seed << 6) + (seed >> 2);
}

template <class T> void combineAll(size_t& seed, const std::vector<T>& values) {
    combine(seed, values.size());
    for (const T v : values)
        combine(seed, std::hash<T>{}(v));
}

} // namespace

size_t std::hash<harlune::LoudnessResult>::operator()(const harlune::LoudnessResult& r) const noexcept {
    size_t seed = 0;
    for (const double v : {r.integratedLUFS, r.loudnessRangeLU, r.truePeakDBTP, r.samplePeakDBFS,
                           r.maxMomentaryLUFS, r.maxShortTermLUFS, r.rmsDBFS, r.hopSeconds})
        combine(seed, std::hash<double>{}(v));
    combineAll(seed, r.truePeakPerChannel);
    combineAll(seed, r.samplePeakPerChannel);
    combineAll(seed, r.momentary);
    combineAll(seed, r.shortTerm);
    return seed;
}
