#pragma once

#include "editor/InspectorTab.h"

#include <QDockWidget>

class QTabWidget;

namespace harlune {

class EditorModel;
class InfoPanel;
class LoudnessPanel;
class MarkersPanel;
class RackPanel;
class SpectrumPanel;

/// The side panel titled "Inspector": one tab per `InspectorTab`, in the enum's order. The
/// model's `showInspector` follows the dock's toggle action and its close button (not
/// `visibilityChanged`, which also fires when the window is minimised), and `inspectorTab` follows
/// the current tab both ways. A panel too narrow for five titles beside their icons shows the
/// icons alone, each title kept as its tab's tool tip and accessible name, so that no tab hides
/// behind scroll arrows.
class InspectorView final : public QDockWidget {
    Q_OBJECT

public:
    InspectorView(EditorModel& model, QWidget* parent = nullptr);

    QTabWidget& tabs() { return *tabs_; }
    LoudnessPanel& loudnessPanel() { return *loudness_; }
    SpectrumPanel& spectrumPanel() { return *spectrum_; }
    InfoPanel& infoPanel() { return *info_; }
    MarkersPanel& markersPanel() { return *markers_; }
    RackPanel& rackPanel() { return *rack_; }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void followModel();
    void fitTabTitles();

    EditorModel& model_;
    QTabWidget* tabs_ = nullptr;
    LoudnessPanel* loudness_ = nullptr;
    SpectrumPanel* spectrum_ = nullptr;
    InfoPanel* info_ = nullptr;
    MarkersPanel* markers_ = nullptr;
    RackPanel* rack_ = nullptr;
};

} // namespace harlune
