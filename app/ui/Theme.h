#pragma once

#include <QColor>
#include <QPalette>

namespace harlune::Theme {

/// One colour of the timeline, in its light and dark variant (sRGB).
struct Colour {
    QColor light;
    QColor dark;
    const QColor& of(bool isDark) const { return isDark ? dark : light; }
};

/// Dark when the palette's window colour is darker than mid grey: Qt 6.4 has no colour-scheme API.
bool isDark(const QPalette& palette);

extern const Colour background;
extern const Colour laneBackground;
extern const Colour laneBorder;
extern const Colour centerLine;
extern const Colour gridLine;
extern const Colour waveform;
extern const Colour waveformRMS;
extern const Colour waveformDimmed;
extern const Colour selection;
extern const Colour selectionEdge;
extern const Colour cursor;
extern const Colour playhead;
extern const Colour clip;
extern const Colour rulerBackground;
extern const Colour marker;
extern const Colour loudnessShortTerm;
extern const Colour loudnessMomentary;
extern const Colour loudnessTarget;
extern const Colour loudnessIntegrated;
extern const Colour envelope;
extern const Colour envelopeFill;
extern const Colour gridBar;
/// Label greys, fixed per appearance rather than taken from the platform.
extern const Colour secondaryLabel;
extern const Colour tertiaryLabel;
extern const Colour quaternaryLabel;
/// `rulerText` is the secondary label grey.
extern const Colour& rulerText;

} // namespace harlune::Theme
