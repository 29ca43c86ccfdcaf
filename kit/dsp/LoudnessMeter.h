#pragma once

#include "dsp/LoudnessEngine.h"

#include <optional>
#include <vector>

namespace harlune {

/// The loudness engine on a live stream. `process` keeps to the calling thread and allocates
/// nothing for the first `reservedSeconds` of a stream (the sub-block lists grow past that). It
/// has no lock: the caller serialises `process`, `reset` and the reads.
class LoudnessMeter {
public:
    LoudnessMeter(int channelCount, double sampleRate,
                  const std::optional<std::vector<double>>& channelWeights = std::nullopt,
                  double reservedSeconds = 3 * 3600);

    void process(ChunkViews chunk) { engine.process(chunk); }
    void reset() { engine.reset(); }

    /// LUFS of the last 400 ms.
    double momentaryLUFS() const { return engine.windowLUFS(4); }
    /// LUFS of the last 3 s.
    double shortTermLUFS() const { return engine.windowLUFS(30); }
    /// Gated loudness of all seen so far. Allocates; not for the audio thread.
    double integratedLUFS() const;
    /// LU, of all seen so far. Allocates; not for the audio thread.
    double loudnessRangeLU() const;
    /// dBTP over all channels so far.
    double truePeakDBTP() const;

    LoudnessEngine engine;
};

} // namespace harlune
