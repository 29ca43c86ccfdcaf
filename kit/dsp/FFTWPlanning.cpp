#include "dsp/FFTWPlanning.h"

namespace harlune {

std::mutex& fftwPlannerMutex() {
    // The one piece of shared state is FFTW's own; this lock only mirrors its scope.
    static std::mutex mutex;
    return mutex;
}

} // namespace harlune
