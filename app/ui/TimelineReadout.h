#pragma once

#include "editor/TimeFormat.h"

#include <QString>
#include <cstdint>

namespace harlune {

// The value shown beside the pointer while the gain envelope is dragged.

/// "+1.5 dB  @ 0:01.250": a point's gain and its time.
QString pointReadout(double gainDB, int64_t frame, TimeFormat format, double sampleRate);
/// "+1.5 dB  (2.000 s)": a section's change and its duration, as h:m:s from a minute on.
QString sectionReadout(double deltaDB, int64_t frames, double sampleRate);
/// "+1.5 dB  (bar 3)" or "+1.5 dB  (bars 3–5 (3))"; bars are given as indexes from 0.
QString barsReadout(double deltaDB, int64_t firstBar, int64_t lastBar);

} // namespace harlune
