#pragma once

#include <mutex>

namespace harlune {

/// FFTW's planner keeps process-wide tables and is not thread-safe, so every plan made or
/// destroyed anywhere in the program is made under this one lock. Executing a plan needs no lock.
/// Planning never happens on the audio thread.
std::mutex& fftwPlannerMutex();

} // namespace harlune
