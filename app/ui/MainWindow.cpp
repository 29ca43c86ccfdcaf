#include "ui/MainWindow.h"

#include "document/AudioDocument.h"
#include "dsp/plugins/PluginEffect.h"
#include "editor/EngineRecorderControl.h"
#include "editor/Preferences.h"
#include "engine/SafetyFile.h"
#include "io/AudioEncoder.h"
#include "ui/BusyOverlay.h"
#include "ui/CommandTable.h"
#include "ui/DocumentWindows.h"
#include "ui/OverviewView.h"
#include "ui/ProcessSheets.h"
#include "ui/RecordBar.h"
#include "ui/SaveDialog.h"
#include "ui/SymbolIcons.h"
#include "ui/TimelineView.h"
#include "ui/Trace.h"
#include "ui/inspector/InspectorView.h"

#include <QAction>
#include <QActionGroup>
#include <QApplication>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileInfo>
#include <QKeySequence>
#include <QLabel>
#include <QMenuBar>
#include <QMessageBox>
#include <QMimeData>
#include <QPushButton>
#include <QSettings>
#include <QShortcut>
#include <QStackedLayout>
#include <QTimer>
#include <QToolBar>
#include <QUrl>
#include <QVBoxLayout>
#include <QWidgetAction>
#include <array>
#include <filesystem>
#include <ranges>

namespace harlune {

namespace {

const Trace& silentTrace() {
    static const Trace none;
    return none;
}

QString text(std::string_view view) {
    return QString::fromUtf8(view.data(), qsizetype(view.size()));
}

QString quotedName(const QString& name) {
    return QStringLiteral("“%1”").arg(name);
}

// A section title that every style draws: QMenu::addSection shows no text in some styles.
void addSectionTitle(QMenu* menu, const QString& title) {
    auto* label = new QLabel(title, menu);
    QFont font = label->font();
    font.setBold(true);
    label->setFont(font);
    label->setContentsMargins(8, 4, 8, 2);
    auto* action = new QWidgetAction(menu);
    action->setDefaultWidget(label);
    action->setEnabled(false);
    menu->addAction(action);
}

} // namespace

MainWindow::MainWindow(AudioDocument& document, QWidget* parent) : MainWindow(&document, nullptr, nullptr) {
    setParent(parent, windowFlags());
}

MainWindow::MainWindow(std::unique_ptr<AudioDocument> document, DocumentWindows& windows)
    : MainWindow(nullptr, std::move(document), &windows) {
    setAttribute(Qt::WA_DeleteOnClose);
}

MainWindow::MainWindow(AudioDocument* unowned, std::unique_ptr<AudioDocument> owned, DocumentWindows* windows)
    : owned_(std::move(owned)), document_(owned_ ? *owned_ : *unowned), windows_(windows),
      trace_(windows ? windows->trace() : silentTrace()) {
    // The centre: the whole file as a strip above the timeline, where the work is done.
    auto* centre = new QWidget(this);
    auto* stack = new QStackedLayout(centre);
    auto* views = new QWidget(centre);
    auto* column = new QVBoxLayout(views);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    overview_ = new OverviewView(document_.model(), views);
    overview_->setFixedHeight(overviewHeight);
    timeline_ = new TimelineView(document_.model(), views);
    column->addWidget(overview_);
    column->addWidget(timeline_, 1);
    if (EngineRecorderControl* control = recorderControl()) {
        recordBar_ = new RecordBar(*control, views);
        column->addWidget(recordBar_);
        connect(control, &EngineRecorderControl::changed, this, [this, control] {
            const bool recording = control->isRecording();
            if (recording != traceRecording_) {
                traceRecording_ = recording;
                trace_.line(recording ? QStringLiteral("recording started")
                                      : QStringLiteral("recording stopped %1 frames")
                                            .arg(control->recorder().elapsedFrames()));
            }
            updateActions();
        });
    }
    stack->addWidget(views);
    setCentralWidget(centre);
    inspector_ = new InspectorView(document_.model(), this);
    addDockWidget(Qt::RightDockWidgetArea, inspector_);
    overlay_ = new BusyOverlay(document_.model(), centre);
    connect(overlay_, &BusyOverlay::panelShown, this,
            [this] { trace_.line(QStringLiteral("busy shown %1").arg(document_.model().busy()->title)); });

    setMinimumSize(820, 480);
    setAcceptDrops(windows_ != nullptr);
    setUnifiedTitleAndToolBarOnMac(true);
    auto* toolbar = addToolBar(tr("Editor"));
    toolbar->setObjectName(QStringLiteral("EditorToolbar"));
    toolbar->setMovable(false);
    toolbar->setFloatable(false);
    toolbar->setToolButtonStyle(Qt::ToolButtonIconOnly);
    toolbar->setContextMenuPolicy(Qt::PreventContextMenu);
    setContextMenuPolicy(Qt::NoContextMenu);

    buildMenus();
    // Icons only: each item's title stays its tool tip and its accessible name.
    const std::array<std::pair<const char*, const char*>, 4> toolbarItems{{
        {"togglePlayback", "playpause.fill"},
        {"stopPlayback", "stop.fill"},
        {"showGain", "slider.horizontal.3"},
        {"toggleInspector", "sidebar.right"},
    }};
    for (const auto& [id, symbol] : toolbarItems)
        if (QAction* item = action(id)) {
            item->setIcon(SymbolIcons::icon(QString::fromLatin1(symbol)));
            toolbar->addAction(item);
        }
    if (QAction* inspector = action("toggleInspector"))
        inspector->setToolTip(tr("Show or hide the inspector (%1)").arg(keyText("toggleInspector")));

    EditorModel& model = document_.model();
    // Space plays from the cursor and stops where the listener is, as the transport's toggle.
    auto* playKey = new QShortcut(QKeySequence(Qt::Key_Space), this);
    connect(playKey, &QShortcut::activated, this, [&model] { model.togglePlayback(); });
    model.setPresentError(
        [this](const std::exception& error) { presentError(QString::fromUtf8(error.what())); });
    model.setAlertSound([] { QApplication::beep(); });

    // Enabled states follow the model's fields as they change, not only when a menu opens: a
    // disabled action's shortcut never fires, so a stale state would swallow the key.
    for (auto signal :
         {&EditorModel::busyChanged, &EditorModel::selectionChanged, &EditorModel::contentChanged,
          &EditorModel::markersChanged, &EditorModel::envelopesChanged, &EditorModel::isPlayingChanged,
          &EditorModel::isLoopingChanged, &EditorModel::snapToZeroCrossingsChanged,
          &EditorModel::showGridChanged, &EditorModel::showLoudnessLaneChanged,
          &EditorModel::showInspectorChanged, &EditorModel::timeFormatChanged,
          &EditorModel::isDetectingTempoChanged, &EditorModel::activeChannelsChanged,
          &EditorModel::rackChanged, &EditorModel::fileInfoChanged})
        connect(&model, signal, this, &MainWindow::updateActions);
    QUndoStack& undo = document_.undoStack();
    connect(&undo, &QUndoStack::cleanChanged, this, &MainWindow::updateTitle);
    connect(&undo, &QUndoStack::indexChanged, this, &MainWindow::traceCommand);
    connect(&undo, &QUndoStack::indexChanged, this, &MainWindow::updateActions);
    // A drag on the timeline traces its selection once, at the release.
    const auto traceSelection = [this] {
        const auto& selection = document_.model().selection();
        if (selection)
            trace_.line(QStringLiteral("selection %1..%2").arg(selection->lower).arg(selection->upper));
        else
            trace_.line(QStringLiteral("selection none"));
    };
    connect(&model, &EditorModel::selectionChanged, this, [this, traceSelection] {
        if (!timeline_->isInGesture())
            traceSelection();
    });
    connect(timeline_, &TimelineView::gestureEnded, this, [traceSelection](bool selectionChanged) {
        if (selectionChanged)
            traceSelection();
    });
    timeline_->setCommandLookup([this](std::string_view id) { return action(id); });
    connect(timeline_, &TimelineView::filesDropped, this, [this](const QStringList& paths) {
        if (windows_)
            for (const QString& path : paths)
                windows_->openFile(path.toStdString());
    });
    connect(&model, &EditorModel::busyChanged, this, [this] {
        if (!document_.model().busy() && overlay_->isPanelShown())
            trace_.line(QStringLiteral("busy ended"));
        if (!document_.model().busy() && closeAfterTake_) {
            closeAfterTake_ = false;
            // After the job's completion has registered the take, so that the close sees it.
            QTimer::singleShot(0, this, &MainWindow::close);
        }
    });
    if (windows_)
        connect(windows_, &DocumentWindows::sharedStateChanged, this, &MainWindow::updateActions);

    connect(&document_, &AudioDocument::opened, this, [this] {
        updateTitle();
        trace_.line(
            QStringLiteral("file opened %1 frames %2")
                .arg(document_.file() ? QString::fromStdString(document_.file()->string()) : QString())
                .arg(document_.model().content().frameCount()));
    });
    connect(&document_, &AudioDocument::openFailed, this, [this](const QString& message, bool cancelled) {
        // A failed or cancelled open closes the window; the error outlives it.
        closeConfirmed_ = true;
        if (!cancelled && windows_)
            windows_->showError(message, nullptr);
        else if (!cancelled)
            presentError(message);
        if (windows_)
            close();
    });
    connect(&document_, &AudioDocument::written, this, [this] {
        writing_ = false;
        updateTitle();
        updateActions();
        trace_.line(
            QStringLiteral("save finished %1")
                .arg(document_.file() ? QString::fromStdString(document_.file()->string()) : QString()));
        if (closeAfterSave_) {
            closeConfirmed_ = true;
            close();
        }
    });
    connect(&document_, &AudioDocument::writeFailed, this, [this](const QString& message, bool cancelled) {
        writing_ = false;
        closeAfterSave_ = false;
        if (windows_)
            windows_->cancelQuit(); // the window stays with its unsaved audio: so does the program
        updateTitle();
        updateActions();
        if (!cancelled)
            presentError(message);
    });

    QSettings settings;
    restoreGeometry(settings.value(QStringLiteral("EditorWindow/geometry")).toByteArray());
    if (width() < 900)
        resize(900, std::max(height(), 480));
    updateTitle();
    updateActions();
}

MainWindow::~MainWindow() {
    // An owned document goes before the widgets: its undo stack's last signals must not reach
    // a window that is half gone.
    document_.undoStack().disconnect(this);
    document_.model().disconnect(this);
    document_.disconnect(this);
    document_.model().setPresentError({});
    document_.model().setAlertSound({});
}

QAction* MainWindow::action(std::string_view id) const {
    const auto found = actions_.find(id);
    return found == actions_.end() ? nullptr : found->second;
}

QAction* MainWindow::addItem(QMenu* menu, std::string_view id, void (MainWindow::*slot)()) {
    return addItem(menu, id, [this, slot] { (this->*slot)(); });
}

QAction* MainWindow::addItem(QMenu* menu, std::string_view id, std::function<void()> perform) {
    const MenuCommand& command = menuCommand(id);
    auto* item = menu->addAction(text(command.title));
    item->setObjectName(text(command.id));
    QList<QKeySequence> keys;
    if (!command.keys.empty())
        keys << QKeySequence(text(command.keys), QKeySequence::PortableText);
    if (!command.alternativeKeys.empty())
        keys << QKeySequence(text(command.alternativeKeys), QKeySequence::PortableText);
    item->setShortcuts(keys);
    item->setShortcutContext(Qt::WindowShortcut);
    // The item's state is rechecked at the moment it fires: a key may arrive before the
    // recomputation that follows a change.
    connect(item, &QAction::triggered, this, [this, item, perform = std::move(perform)] {
        updateActions();
        if (!item->isEnabled()) {
            beep();
            return;
        }
        perform();
        updateActions();
        if (windows_)
            Q_EMIT windows_->sharedStateChanged();
    });
    actions_.emplace(std::string(id), item);
    return item;
}

void MainWindow::buildMenus() {
    EditorModel& model = document_.model();
    QMenuBar* bar = menuBar();

    QMenu* file = bar->addMenu(tr("&File"));
    addItem(file, "new", [this] {
        if (windows_)
            windows_->newDocument();
    });
    addItem(file, "newRecording", [this] {
        if (!windows_)
            return;
        if (MainWindow* window = windows_->newDocument())
            if (EngineRecorderControl* control = window->recorderControl())
                if (!control->recorder().isArmed())
                    control->recorder().arm();
    });
    addItem(file, "open", [this] {
        if (windows_)
            windows_->showOpenDialog(this, false);
    });
    recentMenu_ = file->addMenu(tr("Open Recent"));
    connect(recentMenu_, &QMenu::aboutToShow, this, [this] {
        recentMenu_->clear();
        if (windows_)
            for (const QString& path : windows_->recentFiles())
                recentMenu_->addAction(QFileInfo(path).fileName(), this,
                                       [this, path] { windows_->openFile(path.toStdString()); });
        recentMenu_->addSeparator();
        QAction* clear = recentMenu_->addAction(text(menuCommand("clearRecent").title), this, [this] {
            if (windows_)
                windows_->clearRecentFiles();
        });
        clear->setEnabled(windows_ && !windows_->recentFiles().isEmpty());
    });
    file->addSeparator();
    addItem(file, "close", [this] { close(); });
    addItem(file, "save", &MainWindow::save);
    addItem(file, "saveAs", &MainWindow::saveAs);
    addItem(file, "exportSelection", &MainWindow::exportSelection);
    addItem(file, "revert", &MainWindow::revert);
    file->addSeparator();
    addItem(file, "showRecordingsFolder", [] {
        const std::filesystem::path folder = recordingsFolder();
        std::error_code ignored; // the file manager shows why when it cannot open the folder
        std::filesystem::create_directories(folder, ignored);
        QDesktopServices::openUrl(QUrl::fromLocalFile(QString::fromStdString(folder.string())));
    });
    file->addSeparator();
    addItem(file, "quit", [this] {
        if (windows_)
            windows_->quit();
        else
            close();
    });

    QMenu* edit = bar->addMenu(tr("&Edit"));
    addItem(edit, "undo", [this] { document_.undoStack().undo(); });
    addItem(edit, "redo", [this] { document_.undoStack().redo(); });
    edit->addSeparator();
    addItem(edit, "cut", &MainWindow::cut);
    addItem(edit, "copy", [&model] { model.copy(); });
    addItem(edit, "paste", [&model] { model.paste(); });
    addItem(edit, "pasteMix", [&model] { model.pasteMix(); });
    addItem(edit, "pasteAsNew", &MainWindow::pasteAsNew);
    addItem(edit, "delete", [&model] { model.deleteNamed(QStringLiteral("Delete")); });
    edit->addSeparator();
    addItem(edit, "selectAll", [&model] { model.selectAll(); });
    addItem(edit, "selectNone", [&model] { model.selectNone(); });
    QMenu* channels = edit->addMenu(tr("Select Channel"));
    addItem(channels, "selectAllChannels",
            [&model] { model.setActiveChannels(allChannels(model.content().channelCount())); });
    addItem(channels, "selectChannel0", [&model] { model.setActiveChannels(ChannelSet{0}); });
    addItem(channels, "selectChannel1", [&model] { model.setActiveChannels(ChannelSet{1}); });
    edit->addSeparator();
    addItem(edit, "trimToSelection", [&model] { model.trimToSelection(); });
    addItem(edit, "insertSilence", [this] { openSheet(makeInsertSilenceSheet(document_.model(), this)); });
    edit->addSeparator();
    addItem(edit, "snapToZeroCrossings", [&model] {
        model.setSnapToZeroCrossings(!model.snapToZeroCrossings());
    })->setCheckable(true);

    QMenu* view = bar->addMenu(tr("&View"));
    addItem(view, "zoomIn", [&model] { model.zoom(0.5); });
    addItem(view, "zoomOut", [&model] { model.zoom(2.0); });
    addItem(view, "zoomToFit", [&model] { model.zoomToFit(); });
    addItem(view, "zoomToSelection", [&model] { model.zoomToSelection(); });
    view->addSeparator();
    addItem(view, "increaseAmplitudeZoom",
            [&model] { model.setAmplitudeZoom(std::min(64.0, model.amplitudeZoom() * 2)); });
    addItem(view, "decreaseAmplitudeZoom",
            [&model] { model.setAmplitudeZoom(std::max(1.0, model.amplitudeZoom() / 2)); });
    view->addSeparator();
    addItem(view, "toggleInspector", [&model] {
        model.setShowInspector(!model.showInspector());
    })->setCheckable(true);
    const std::pair<const char*, InspectorTab> tabs[] = {{"inspectorLoudness", InspectorTab::loudness},
                                                         {"inspectorSpectrum", InspectorTab::spectrum},
                                                         {"inspectorInfo", InspectorTab::info},
                                                         {"inspectorMarkers", InspectorTab::markers},
                                                         {"inspectorRack", InspectorTab::effects}};
    for (const auto& [id, tab] : tabs)
        addItem(view, id, [&model, tab] {
            model.setShowInspector(true);
            model.setInspectorTab(tab);
        });
    view->addSeparator();
    addItem(view, "toggleLoudnessLane", [&model] {
        model.setShowLoudnessLane(!model.showLoudnessLane());
    })->setCheckable(true);
    addItem(view, "toggleGrid", [&model] { model.setShowGrid(!model.showGrid()); })->setCheckable(true);
    addItem(view, "detectTempo", [&model] { model.detectTempo(); });
    addItem(view, "tapTempo", [&model] { model.tapTempo(); });
    addItem(view, "setDownbeatAtCursor", [&model] { model.setDownbeatAtCursor(); });
    static constexpr double envelopeRanges[] = {3, 6, 12, 24, 48};
    addItem(view, "zoomEnvelopeIn", [&model] {
        for (const double range : envelopeRanges | std::views::reverse)
            if (range < model.envelopeRangeDB())
                return model.setEnvelopeRangeDB(range);
    });
    addItem(view, "zoomEnvelopeOut", [&model] {
        for (const double range : envelopeRanges)
            if (range > model.envelopeRangeDB())
                return model.setEnvelopeRangeDB(range);
    });
    QMenu* formats = view->addMenu(tr("Time Format"));
    auto* formatGroup = new QActionGroup(this);
    const std::pair<const char*, TimeFormat> formatIds[] = {{"timeFormatHms", TimeFormat::hms},
                                                            {"timeFormatSeconds", TimeFormat::seconds},
                                                            {"timeFormatSamples", TimeFormat::samples}};
    for (const auto& [id, format] : formatIds) {
        QAction* item = addItem(formats, id, [&model, format] { model.setTimeFormat(format); });
        item->setCheckable(true);
        formatGroup->addAction(item);
    }
    view->addSeparator();
    addItem(view, "toggleFullScreen", [this] { isFullScreen() ? showNormal() : showFullScreen(); });

    QMenu* transport = bar->addMenu(tr("&Transport"));
    addItem(transport, "togglePlayback", [&model] { model.togglePlayback(); });
    addItem(transport, "playSelection", [&model] { model.play(true); });
    addItem(transport, "stopPlayback", [&model] { model.stop(false); });
    addItem(transport, "toggleLoop", [&model] {
        model.setIsLooping(!model.isLooping());
    })->setCheckable(true);
    addItem(transport, "toggleRecording", [this] {
        if (EngineRecorderControl* control = recorderControl())
            control->recorder().toggle();
    });
    transport->addSeparator();
    addItem(transport, "goToStart", [&model] { model.goToStart(); });
    addItem(transport, "goToEnd", [&model] { model.goToEnd(); });
    transport->addSeparator();
    addItem(transport, "addMarker", [&model] { model.addMarker(); });
    addItem(transport, "nextMarker", [&model] { model.jumpToMarker(true); });
    addItem(transport, "previousMarker", [&model] { model.jumpToMarker(false); });

    QMenu* process = bar->addMenu(tr("&Process"));
    addItem(process, "showGain", [this] { openSheet(makeGainSheet(document_.model(), this)); });
    addItem(process, "showNormalize", [this] { openSheet(makeNormalizeSheet(document_.model(), this)); });
    // The loudness workflow lives in the inspector: measure, choose a target, hear it, apply.
    addItem(process, "showLoudness", [&model] {
        model.setShowInspector(true);
        model.setInspectorTab(InspectorTab::loudness);
    });
    process->addSeparator();
    addItem(process, "fadeIn", [this] { fadeWithPreferredShape(true); });
    addItem(process, "fadeOut", [this] { fadeWithPreferredShape(false); });
    addItem(process, "showFade", [this] { openSheet(makeFadeSheet(document_.model(), this)); });
    process->addSeparator();
    addItem(process, "silenceSelection", [&model] { model.silence(); });
    addItem(process, "reverseAudio", [&model] { model.reverse(); });
    addItem(process, "invertPolarity", [&model] { model.invert(); });
    addItem(process, "removeDCOffset", [&model] { model.removeDC(); });
    process->addSeparator();
    addItem(process, "swapChannels", [&model] { model.swapChannels(); });
    addItem(process, "convertToMono", [&model] { model.convertChannels(1); });
    addItem(process, "convertToStereo", [&model] { model.convertChannels(2); });
    addItem(process, "changeSampleRate", [this] { openSheet(makeSampleRateSheet(document_.model(), this)); });
    addItem(process, "showTimePitch", [this] { openSheet(makeTimePitchSheet(document_.model(), this)); });
    process->addSeparator();
    addItem(process, "applyGainEnvelope", [&model] { model.applyEnvelope(); });
    addItem(process, "clearGainEnvelope", [&model] { model.clearEnvelope(); });

    QMenu* effects = bar->addMenu(tr("Effe&cts"));
    const std::pair<const char*, std::vector<std::pair<const char*, EffectKind>>> sections[] = {
        {"Tone", {{"addEffect.eq", EffectKind::eq}, {"addEffect.distortion", EffectKind::distortion}}},
        {"Dynamics",
         {{"addEffect.compressor", EffectKind::compressor}, {"addEffect.gate", EffectKind::gate}}},
        {"Time & Space",
         {{"addEffect.delay", EffectKind::delay},
          {"addEffect.reverb", EffectKind::reverb},
          {"addEffect.chorus", EffectKind::chorus}}},
        {"Restoration", {{"addEffect.noiseReduction", EffectKind::noiseReduction}}}};
    for (const auto& [title, items] : sections) {
        addSectionTitle(effects, tr(title));
        for (const auto& [id, kind] : items)
            addItem(effects, id, [&model, kind] {
                model.rack().add(EffectSettings::defaultSettings(kind));
                model.setShowInspector(true);
                model.setInspectorTab(InspectorTab::effects);
            });
    }
    effects->addSeparator();
    QMenu* plugins = effects->addMenu(tr("LV2 Plug-ins"));
    connect(plugins, &QMenu::aboutToShow, this, [this, plugins] {
        // Read from lilv each time the menu opens: plug-ins may be installed while the editor runs.
        plugins->clear();
        const std::vector<PluginDescriptor> installed = PluginEffect::installedPlugins();
        if (installed.empty())
            plugins->addAction(tr("No LV2 effects installed"))->setEnabled(false);
        for (const PluginDescriptor& descriptor : installed)
            plugins->addAction(QString::fromStdString(descriptor.name), this, [this, descriptor] {
                if (document_.model().busy())
                    return beep();
                document_.model().rack().addPlugin(descriptor);
                document_.model().setShowInspector(true);
                document_.model().setInspectorTab(InspectorTab::effects);
            });
    });
    effects->addSeparator();
    addItem(effects, "applyEffectsRack", [&model] { model.applyEffects(); });
    addItem(effects, "toggleEffectsPreview", [&model] {
        model.rack().setPreviewEnabled(!model.rack().previewEnabled());
    })->setCheckable(true);
    addItem(effects, "clearEffectsRack", [&model] { model.rack().removeAll(); });

    QMenu* window = bar->addMenu(tr("&Window"));
    addItem(window, "minimize", [this] { showMinimized(); });
    addItem(window, "zoomWindow", [this] { isMaximized() ? showNormal() : showMaximized(); });

    QMenu* help = bar->addMenu(tr("&Help"));
    addItem(help, "showHelp", &MainWindow::showHelp);
    addItem(help, "about", &MainWindow::showAbout);
}

void MainWindow::enable(std::string_view id, bool enabled) {
    if (QAction* item = action(id))
        item->setEnabled(enabled);
}

void MainWindow::check(std::string_view id, bool checked) {
    if (QAction* item = action(id))
        item->setChecked(checked);
}

void MainWindow::updateActions() {
    EditorModel& model = document_.model();
    const bool idle = !model.busy() && !writing_;
    const bool content = !model.content().isEmpty();
    const bool selection = model.selection().has_value();
    const auto& clip = model.clipboard().content();
    const bool clipboard = clip && !clip->isEmpty();
    const int channelCount = model.content().channelCount();
    const bool app = windows_ != nullptr;
    const QUndoStack& undo = document_.undoStack();

    enable("new", app);
    enable("newRecording", app);
    enable("open", app);
    enable("close", true);
    enable("save", idle);
    enable("saveAs", idle);
    enable("exportSelection", idle && content);
    enable("revert", idle && document_.file() && document_.isDirty());
    enable("showRecordingsFolder", true);
    enable("quit", true);

    enable("undo", idle && undo.canUndo());
    enable("redo", idle && undo.canRedo());
    if (QAction* item = action("undo"))
        item->setText(undo.canUndo() ? tr("Undo %1").arg(undo.undoText()) : tr("Undo"));
    if (QAction* item = action("redo"))
        item->setText(undo.canRedo() ? tr("Redo %1").arg(undo.redoText()) : tr("Redo"));
    enable("cut", idle && selection);
    enable("copy", selection);
    enable("paste", idle && clipboard);
    enable("pasteMix", idle && clipboard && content);
    enable("pasteAsNew", app && clipboard);
    enable("delete", idle && selection);
    enable("selectAll", content);
    enable("selectNone", selection);
    enable("selectAllChannels", content);
    enable("selectChannel0", content);
    enable("selectChannel1", content && channelCount >= 2);
    enable("trimToSelection", idle && selection);
    enable("insertSilence", idle);
    enable("snapToZeroCrossings", true);
    check("snapToZeroCrossings", model.snapToZeroCrossings());

    for (const char* id :
         {"zoomIn", "zoomOut", "zoomToFit", "increaseAmplitudeZoom", "decreaseAmplitudeZoom"})
        enable(id, content);
    enable("zoomToSelection", selection);
    check("toggleInspector", model.showInspector());
    check("toggleLoudnessLane", model.showLoudnessLane());
    check("toggleGrid", model.showGrid());
    enable("toggleGrid", content);
    enable("detectTempo", idle && content && !model.isDetectingTempo());
    enable("tapTempo", content);
    enable("setDownbeatAtCursor", content);
    enable("zoomEnvelopeIn", model.envelopeRangeDB() > 3);
    enable("zoomEnvelopeOut", model.envelopeRangeDB() < 48);
    check("timeFormatHms", model.timeFormat() == TimeFormat::hms);
    check("timeFormatSeconds", model.timeFormat() == TimeFormat::seconds);
    check("timeFormatSamples", model.timeFormat() == TimeFormat::samples);

    enable("togglePlayback", content);
    enable("playSelection", content && selection);
    enable("stopPlayback", model.isPlaying());
    check("toggleLoop", model.isLooping());
    // Stopping a take stays possible whatever else runs: the take must never be held hostage.
    enable("toggleRecording", recorderControl() && (idle || recorderControl()->isRecording()));
    enable("goToStart", content);
    enable("goToEnd", content);
    enable("addMarker", idle && content);
    enable("nextMarker", !model.markers().empty());
    enable("previousMarker", !model.markers().empty());

    for (const char* id : {"showGain", "showNormalize", "silenceSelection", "reverseAudio", "invertPolarity",
                           "removeDCOffset", "changeSampleRate", "showTimePitch"})
        enable(id, idle && content);
    enable("showLoudness", content);
    for (const char* id : {"fadeIn", "fadeOut", "showFade"})
        enable(id, idle && selection);
    enable("silenceSelection", idle && selection);
    enable("swapChannels", idle && channelCount == 2);
    enable("convertToMono", idle && content && channelCount != 1);
    enable("convertToStereo", idle && content && channelCount != 2);
    enable("applyGainEnvelope", idle && !model.envelopes().isFlat());
    enable("clearGainEnvelope", idle && !model.envelopes().isEmpty());

    for (const MenuCommand& command : menuCommands())
        if (command.id.starts_with("addEffect."))
            enable(command.id, true);
    enable("applyEffectsRack", idle && content && !model.rack().activeSlots().empty());
    check("toggleEffectsPreview", model.rack().previewEnabled());
    enable("clearEffectsRack", !model.rack().slots().empty());
}

void MainWindow::updateTitle() {
    // "[*]" is where the platform puts the edited mark.
    setWindowTitle(document_.displayName() + QStringLiteral("[*]"));
    setWindowModified(document_.isDirty());
}

void MainWindow::traceCommand(int index) {
    const QUndoStack& undo = document_.undoStack();
    if (index > 0 && index == undo.count() && undo.command(index - 1))
        trace_.line(QStringLiteral("command done %1").arg(undo.command(index - 1)->text()));
}

void MainWindow::presentError(const QString& message) {
    trace_.line(QStringLiteral("error shown %1").arg(message));
    // Window-modal and not waited for: the failure never blocks the event loop that reported it.
    auto* box =
        new QMessageBox(QMessageBox::Warning, document_.displayName(), message, QMessageBox::Ok, this);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

void MainWindow::beep() {
    QApplication::beep();
}

void MainWindow::openSheet(QWidget* sheet) {
    if (!sheet)
        return;
    Q_EMIT sheetOpened(sheet);
}

void MainWindow::cut() {
    document_.model().copy();
    document_.model().deleteNamed(QStringLiteral("Cut"));
}

void MainWindow::pasteAsNew() {
    const auto& clip = document_.model().clipboard().content();
    if (windows_ && clip)
        windows_->adopt(*clip, tr("Untitled"));
}

void MainWindow::revert() {
    if (document_.file())
        document_.open(*document_.file());
}

void MainWindow::fadeWithPreferredShape(bool fadeIn) {
    const auto shape =
        fadeShapeFromRawValue(Preferences::stringValue(Preferences::Keys::fadeShape).toStdString());
    document_.model().fade(fadeIn ? FadeDirection::fadeIn : FadeDirection::fadeOut,
                           shape.value_or(FadeShape::sCurve));
}

void MainWindow::showHelp() {
    auto* box = new QMessageBox(QMessageBox::Information, tr("Harlune Keyboard Shortcuts"),
                                shortcutHelpLines().join(QLatin1Char('\n')), QMessageBox::Ok, this);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

void MainWindow::showAbout() {
    QMessageBox::about(this, tr("About Harlune"), tr("Harlune, an audio waveform editor."));
}

void MainWindow::save() {
    if (document_.file() && document_.saveSettings()) {
        writing_ = true;
        updateActions();
        document_.save(*document_.file(), *document_.saveSettings());
        return;
    }
    saveAs();
}

void MainWindow::saveAs() {
    const QString name = document_.file() ? QString::fromStdString(document_.file()->stem().string())
                                          : document_.displayName();
    auto start = document_.saveSettings() ? *document_.saveSettings()
                                          : Preferences::encodeSettings(Preferences::lastExportFormat());
    auto* dialog = new SaveDialog(tr("Save As"), name, start, document_.model().content(), this);
    startInDocumentsFolder(*dialog);
    connect(dialog, &SaveDialog::chosen, this, [this](const QString& path, const EncodeSettings& settings) {
        Preferences::store(settings);
        writing_ = true;
        updateActions();
        document_.save(path.toStdString(), settings);
    });
    // Cancelling the dialog of a close's "Save" cancels the close, and any quit behind it.
    connect(dialog, &QDialog::rejected, this, [this] {
        if (!closeAfterSave_)
            return;
        closeAfterSave_ = false;
        if (windows_)
            windows_->cancelQuit();
    });
    dialog->open();
    Q_EMIT sheetOpened(dialog);
}

void MainWindow::startInDocumentsFolder(QFileDialog& dialog) const {
    // Beside the file, not in whatever folder the program was started from.
    if (document_.file())
        dialog.setDirectory(QString::fromStdString(document_.file()->parent_path().string()));
}

void MainWindow::saveTo(const QString& path) {
    const auto format = formatForPath(path);
    const EncodeSettings settings = Preferences::encodeSettings(format.value_or(ExportFormat::wav));
    writing_ = true;
    updateActions();
    document_.save(path.toStdString(), settings);
}

void MainWindow::exportSelection() {
    const auto selection = document_.model().selection();
    QString name = document_.file() ? QString::fromStdString(document_.file()->stem().string())
                                    : document_.displayName();
    if (selection)
        name += QStringLiteral(" (selection)");
    auto* dialog = new SaveDialog(selection ? tr("Export Selection") : tr("Export Audio"), name,
                                  Preferences::encodeSettings(Preferences::lastExportFormat()),
                                  document_.model().content(), this);
    startInDocumentsFolder(*dialog);
    connect(dialog, &SaveDialog::chosen, this,
            [this, selection](const QString& path, const EncodeSettings& settings) {
                Preferences::store(settings);
                document_.exportAudio(path.toStdString(), settings, selection);
            });
    dialog->open();
    Q_EMIT sheetOpened(dialog);
}

void MainWindow::closeEvent(QCloseEvent* event) {
    // A running save finishes first: its file is half written until then.
    if (writing_) {
        closeAfterSave_ = true;
        event->ignore();
        return;
    }
    // A running take is the user's audio too: it goes into the document, and the close asks
    // about it like any other change.
    if (EngineRecorderControl* control = recorderControl(); control && control->isRecording()) {
        event->ignore();
        control->stop();
        if (document_.model().busy())
            closeAfterTake_ = true; // the take is being placed: `busyChanged` closes again
        else
            QTimer::singleShot(0, this, &MainWindow::close);
        return;
    }
    if (!closeConfirmed_ && document_.isDirty()) {
        event->ignore();
        askToSaveThenClose();
        return;
    }
    QSettings().setValue(QStringLiteral("EditorWindow/geometry"), saveGeometry());
    document_.model().stop(false);
    if (document_.model().busy() && document_.model().busy()->token)
        document_.model().busy()->token->cancel();
    event->accept();
}

void MainWindow::askToSaveThenClose() {
    auto* box = new QMessageBox(QMessageBox::Warning, document_.displayName(),
                                tr("Do you want to save the changes made to the document %1?")
                                    .arg(quotedName(document_.displayName())),
                                QMessageBox::Save | QMessageBox::Discard | QMessageBox::Cancel, this);
    box->setObjectName(QStringLiteral("closePrompt"));
    box->setInformativeText(tr("Your changes will be lost if you don’t save them."));
    box->button(QMessageBox::Discard)->setText(tr("Don’t Save"));
    box->setDefaultButton(QMessageBox::Save);
    box->setAttribute(Qt::WA_DeleteOnClose);
    connect(box, &QMessageBox::finished, this, [this, box](int) {
        const auto answer = box->standardButton(box->clickedButton());
        if (answer == QMessageBox::Discard) {
            closeConfirmed_ = true;
            close();
        } else if (answer == QMessageBox::Save) {
            closeAfterSave_ = true;
            save();
        } else if (windows_) {
            windows_->cancelQuit();
        }
    });
    box->open();
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event) {
    if (windows_ && event->mimeData()->hasUrls())
        event->acceptProposedAction();
}

void MainWindow::dropEvent(QDropEvent* event) {
    // Dropped files open in windows of their own, as from the command line.
    for (const QUrl& url : event->mimeData()->urls())
        if (url.isLocalFile())
            windows_->openFile(url.toLocalFile().toStdString());
    event->acceptProposedAction();
}

void MainWindow::showEvent(QShowEvent* event) {
    QMainWindow::showEvent(event);
    trace_.line(QStringLiteral("window shown %1").arg(document_.displayName()));
}

void MainWindow::paintEvent(QPaintEvent* event) {
    QMainWindow::paintEvent(event);
    if (!painted_) {
        painted_ = true;
        trace_.line(QStringLiteral("first paint"));
    }
}

EngineRecorderControl* MainWindow::recorderControl() {
    return dynamic_cast<EngineRecorderControl*>(&document_.model().recorder());
}

} // namespace harlune
