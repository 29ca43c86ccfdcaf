#include "ui/CommandTable.h"

#include "base/Precondition.h"

#include <QKeySequence>
#include <array>

namespace harlune {

namespace {

// Linux has other reservations than the Mac the keys were first chosen on: Ctrl+Alt+T opens a
// terminal and Ctrl+Alt+L locks the screen on most desktops, and Shift with a digit reaches the
// application as the shifted character. Those items take the replacements below.
constexpr std::array commands{
    // File
    MenuCommand{"new", "New", "Ctrl+N"},
    MenuCommand{"newRecording", "New Recording", "Ctrl+Alt+N"},
    MenuCommand{"open", "Open…", "Ctrl+O"},
    MenuCommand{"clearRecent", "Clear Menu"},
    MenuCommand{"close", "Close", "Ctrl+W"},
    MenuCommand{"save", "Save", "Ctrl+S"},
    MenuCommand{"saveAs", "Save As…", "Ctrl+Shift+S"},
    MenuCommand{"exportSelection", "Export Selection…", "Ctrl+Shift+E"},
    MenuCommand{"revert", "Revert to Saved"},
    MenuCommand{"showRecordingsFolder", "Show Recordings Folder"},
    MenuCommand{"quit", "Quit", "Ctrl+Q"},
    // Edit
    MenuCommand{"undo", "Undo", "Ctrl+Z"},
    MenuCommand{"redo", "Redo", "Ctrl+Shift+Z", "Ctrl+Y"},
    MenuCommand{"cut", "Cut", "Ctrl+X"},
    MenuCommand{"copy", "Copy", "Ctrl+C"},
    MenuCommand{"paste", "Paste", "Ctrl+V"},
    MenuCommand{"pasteMix", "Paste Mix", "Ctrl+Alt+V"},
    MenuCommand{"pasteAsNew", "Paste as New Document", "Ctrl+Alt+Shift+V"},
    MenuCommand{"delete", "Delete", "Del"},
    MenuCommand{"selectAll", "Select All", "Ctrl+A"},
    MenuCommand{"selectNone", "Select None", "Ctrl+Shift+A"},
    MenuCommand{"selectAllChannels", "All Channels"},
    MenuCommand{"selectChannel0", "Left / Channel 1"},
    MenuCommand{"selectChannel1", "Right / Channel 2"},
    MenuCommand{"trimToSelection", "Trim to Selection", "Ctrl+T"},
    MenuCommand{"insertSilence", "Insert Silence…", "Ctrl+Shift+I"},
    MenuCommand{"snapToZeroCrossings", "Snap to Zero Crossings", "Ctrl+Alt+Z"},
    // View
    MenuCommand{"zoomIn", "Zoom In", "Ctrl+="},
    MenuCommand{"zoomOut", "Zoom Out", "Ctrl+-"},
    MenuCommand{"zoomToFit", "Zoom to Fit", "Ctrl+0"},
    MenuCommand{"zoomToSelection", "Zoom to Selection", "Ctrl+E"},
    MenuCommand{"increaseAmplitudeZoom", "Increase Amplitude Zoom", "Ctrl+Alt+="},
    MenuCommand{"decreaseAmplitudeZoom", "Decrease Amplitude Zoom", "Ctrl+Alt+-"},
    MenuCommand{"toggleInspector", "Show Inspector", "Ctrl+Alt+I"},
    MenuCommand{"inspectorLoudness", "Loudness", "Ctrl+Alt+1"},
    MenuCommand{"inspectorSpectrum", "Spectrum", "Ctrl+Alt+2"},
    MenuCommand{"inspectorInfo", "Info", "Ctrl+Alt+3"},
    MenuCommand{"inspectorMarkers", "Markers", "Ctrl+Alt+4"},
    MenuCommand{"inspectorRack", "Effects Rack", "Ctrl+Alt+5"},
    MenuCommand{"toggleLoudnessLane", "Show Loudness Lane", "Ctrl+Alt+Shift+L"},
    MenuCommand{"toggleGrid", "Show Bar Grid", "Ctrl+Alt+G"},
    MenuCommand{"detectTempo", "Detect Tempo", "Ctrl+Alt+B"},
    MenuCommand{"tapTempo", "Tap Tempo", "Ctrl+Shift+T"},
    MenuCommand{"setDownbeatAtCursor", "Set Bar 1 at Cursor", "Ctrl+Shift+B"},
    MenuCommand{"zoomEnvelopeIn", "Zoom Gain Envelope In", "Ctrl+Alt+]"},
    MenuCommand{"zoomEnvelopeOut", "Zoom Gain Envelope Out", "Ctrl+Alt+["},
    MenuCommand{"timeFormatHms", "Hours:Minutes:Seconds"},
    MenuCommand{"timeFormatSeconds", "Seconds"},
    MenuCommand{"timeFormatSamples", "Samples"},
    MenuCommand{"toggleFullScreen", "Enter Full Screen", "F11"},
    // Transport
    MenuCommand{"togglePlayback", "Play / Pause", "Ctrl+Alt+P"},
    MenuCommand{"playSelection", "Play Selection", "Ctrl+Alt+Shift+P"},
    MenuCommand{"stopPlayback", "Stop", "Ctrl+."},
    MenuCommand{"toggleLoop", "Loop Playback", "Ctrl+L"},
    MenuCommand{"toggleRecording", "Record", "Ctrl+R"},
    MenuCommand{"goToStart", "Go to Start", "Home"},
    MenuCommand{"goToEnd", "Go to End", "End"},
    MenuCommand{"addMarker", "Add Marker", "Ctrl+M"},
    MenuCommand{"nextMarker", "Next Marker", "Ctrl+]"},
    MenuCommand{"previousMarker", "Previous Marker", "Ctrl+["},
    // Process
    MenuCommand{"showGain", "Gain…", "Ctrl+G"},
    MenuCommand{"showNormalize", "Normalize Peak…", "Ctrl+Shift+N"},
    MenuCommand{"showLoudness", "Loudness…", "Ctrl+Shift+L"},
    MenuCommand{"fadeIn", "Fade In", "Ctrl+Alt+Shift+I"},
    MenuCommand{"fadeOut", "Fade Out", "Ctrl+Alt+Shift+O"},
    MenuCommand{"showFade", "Fade…", "Ctrl+Alt+F"},
    MenuCommand{"silenceSelection", "Silence", "Ctrl+Alt+K"},
    MenuCommand{"reverseAudio", "Reverse"},
    MenuCommand{"invertPolarity", "Invert Polarity"},
    MenuCommand{"removeDCOffset", "Remove DC Offset"},
    MenuCommand{"swapChannels", "Swap Channels"},
    MenuCommand{"convertToMono", "Convert to Mono"},
    MenuCommand{"convertToStereo", "Convert to Stereo"},
    MenuCommand{"changeSampleRate", "Change Sample Rate…"},
    MenuCommand{"showTimePitch", "Time & Pitch…", "Ctrl+Alt+Shift+T"},
    MenuCommand{"applyGainEnvelope", "Apply Gain Envelope"},
    MenuCommand{"clearGainEnvelope", "Clear Gain Envelope"},
    // Effects
    MenuCommand{"addEffect.eq", "Parametric EQ"},
    MenuCommand{"addEffect.distortion", "Saturation"},
    MenuCommand{"addEffect.compressor", "Compressor"},
    MenuCommand{"addEffect.gate", "Noise Gate"},
    MenuCommand{"addEffect.delay", "Delay"},
    MenuCommand{"addEffect.reverb", "Reverb"},
    MenuCommand{"addEffect.chorus", "Chorus / Flanger"},
    MenuCommand{"addEffect.noiseReduction", "Noise Reduction"},
    MenuCommand{"applyEffectsRack", "Apply Effects Rack", "Ctrl+Shift+Return"},
    MenuCommand{"toggleEffectsPreview", "Preview Effects"},
    MenuCommand{"clearEffectsRack", "Clear Effects Rack"},
    // Window
    MenuCommand{"minimize", "Minimize"},
    MenuCommand{"zoomWindow", "Zoom"},
    // Help
    MenuCommand{"showHelp", "Harlune Shortcuts", "F1"},
    MenuCommand{"about", "About Harlune"},
};

QString portableKeyText(std::string_view keys) {
    return QKeySequence(QString::fromUtf8(keys.data(), qsizetype(keys.size())))
        .toString(QKeySequence::NativeText);
}

} // namespace

std::span<const MenuCommand> menuCommands() {
    return commands;
}

const MenuCommand& menuCommand(std::string_view id) {
    for (const MenuCommand& command : commands)
        if (command.id == id)
            return command;
    HARLUNE_PRECONDITION(false, "an unknown menu command");
    return commands.front();
}

QString keyText(std::string_view id) {
    const MenuCommand& command = menuCommand(id);
    return command.keys.empty() ? QString() : portableKeyText(command.keys);
}

QStringList shortcutHelpLines() {
    const auto key = [](std::string_view id) {
        return keyText(id);
    };
    return {
        QStringLiteral("Space — Play / Pause        Shift+Space — Play Selection"),
        QStringLiteral("%1 — Toggle Loop            %2 — Go to Start")
            .arg(key("toggleLoop"), key("goToStart")),
        QStringLiteral("← / → — Move cursor         Shift+← / Shift+→ — Extend selection"),
        QStringLiteral("%1 / %2 — Zoom in / out     %3 — Zoom to fit     %4 — Zoom to selection")
            .arg(key("zoomIn"), key("zoomOut"), key("zoomToFit"), key("zoomToSelection")),
        QStringLiteral("Alt-drag — Select a single channel"),
        QStringLiteral("M — Add marker              %1 — Paste Mix").arg(key("pasteMix")),
        QStringLiteral("Loudness lane: click the line to add a gain point, drag to move it"),
        QStringLiteral("Shift-drag — raise/lower a whole section   Alt-click — delete point"),
        QStringLiteral("Alt-scroll or %1 / %2 — zoom the gain scale   Drag the lane's top edge to resize")
            .arg(key("zoomEnvelopeOut"), key("zoomEnvelopeIn")),
        QStringLiteral("Ctrl-scroll — Zoom    Scroll — Pan"),
    };
}

} // namespace harlune
