#include "ui/Theme.h"

namespace harlune::Theme {
namespace {

QColor rgba(double red, double green, double blue, double alpha) {
    return QColor::fromRgbF(static_cast<float>(red), static_cast<float>(green), static_cast<float>(blue),
                            static_cast<float>(alpha));
}

} // namespace

bool isDark(const QPalette& palette) {
    return palette.color(QPalette::Window).lightness() < 128;
}

const Colour background{rgba(0.9529, 0.9569, 0.9686, 1), rgba(0.0863, 0.0941, 0.1137, 1)};
const Colour laneBackground{rgba(1, 1, 1, 1), rgba(0.1098, 0.1216, 0.1451, 1)};
const Colour laneBorder{rgba(0.851, 0.8627, 0.8902, 1), rgba(0.1647, 0.1804, 0.2118, 1)};
const Colour centerLine{rgba(0.7725, 0.7922, 0.8275, 1), rgba(0.2039, 0.2235, 0.2706, 1)};
const Colour gridLine{rgba(0.9098, 0.9176, 0.9373, 1), rgba(0.1373, 0.149, 0.1765, 1)};
const Colour waveform{rgba(0.1294, 0.4039, 0.8471, 1), rgba(0.3098, 0.702, 1, 1)};
const Colour waveformRMS{rgba(0.4353, 0.6392, 0.9608, 1), rgba(0.6039, 0.8314, 1, 1)};
const Colour waveformDimmed{rgba(0.6078, 0.7098, 0.8706, 1), rgba(0.1804, 0.3647, 0.5098, 1)};
const Colour selection{rgba(0.1294, 0.4039, 0.8471, 0.18), rgba(0.3098, 0.702, 1, 0.22)};
const Colour selectionEdge{rgba(0.1294, 0.4039, 0.8471, 0.8), rgba(0.498, 0.7843, 1, 0.9)};
const Colour cursor{rgba(0.102, 0.102, 0.102, 1), rgba(0.949, 0.949, 0.949, 1)};
const Colour playhead{rgba(0.9098, 0.2706, 0.2353, 1), rgba(1, 0.3529, 0.3098, 1)};
const Colour clip{rgba(0.9098, 0.2706, 0.2353, 1), rgba(1, 0.3529, 0.3098, 1)};
const Colour rulerBackground{rgba(0.9137, 0.9216, 0.9412, 1), rgba(0.0706, 0.0784, 0.098, 1)};
const Colour marker{rgba(0.851, 0.5412, 0, 1), rgba(1, 0.6902, 0.1255, 1)};
const Colour loudnessShortTerm{rgba(0.8784, 0.4235, 0, 1), rgba(1, 0.6235, 0.251, 1)};
const Colour loudnessMomentary{rgba(0.8784, 0.4235, 0, 0.35), rgba(1, 0.8157, 0.5412, 0.35)};
const Colour loudnessTarget{rgba(0.1176, 0.6196, 0.3255, 1), rgba(0.2392, 0.8627, 0.5176, 1)};
const Colour loudnessIntegrated{rgba(0.4784, 0.2471, 0.8196, 1), rgba(0.7686, 0.6078, 1, 1)};
const Colour envelope{rgba(0.7608, 0.2549, 0.0471, 1), rgba(1, 0.8784, 0.5412, 1)};
const Colour envelopeFill{rgba(0.7608, 0.2549, 0.0471, 0.08), rgba(1, 0.8784, 0.5412, 0.08)};
const Colour gridBar{rgba(0.3569, 0.1294, 0.7137, 1), rgba(0.7255, 0.6471, 1, 1)};
const Colour secondaryLabel{rgba(0.24, 0.24, 0.26, 0.6), rgba(0.92, 0.92, 0.96, 0.6)};
const Colour tertiaryLabel{rgba(0.24, 0.24, 0.26, 0.3), rgba(0.92, 0.92, 0.96, 0.3)};
const Colour quaternaryLabel{rgba(0.24, 0.24, 0.26, 0.18), rgba(0.92, 0.92, 0.96, 0.16)};
const Colour& rulerText = secondaryLabel;

} // namespace harlune::Theme
