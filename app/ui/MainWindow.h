#pragma once

#include <QMainWindow>
#include <QString>
#include <exception>
#include <map>
#include <memory>
#include <string>
#include <string_view>

class QAction;
class QFileDialog;
class QMenu;

namespace harlune {

class AudioDocument;
class BusyOverlay;
class DocumentWindows;
class EngineRecorderControl;
class RecordBar;
class InspectorView;
class OverviewView;
class TimelineView;
class Trace;

/// The window of one document and its controller: the menu bar, whose items call the model's
/// commands and are enabled from the model's state; the title with the document's name and its
/// edited mark; the close prompt for unsaved changes; open, save, save as and export; and the
/// busy overlay over the views. The centre shows the document's overview.
class MainWindow final : public QMainWindow {
    Q_OBJECT

public:
    /// A window on a document it does not own, with no application around it (the items that
    /// need one, such as New and Open, are disabled). The document must outlive the window.
    explicit MainWindow(AudioDocument& document, QWidget* parent = nullptr);
    /// A window that owns its document, one of `windows`' set; deleted when it closes.
    MainWindow(std::unique_ptr<AudioDocument> document, DocumentWindows& windows);
    ~MainWindow() override;

    AudioDocument& document() { return document_; }
    OverviewView& overview() { return *overview_; }
    TimelineView& timeline() { return *timeline_; }
    InspectorView& inspector() { return *inspector_; }
    /// The document's recorder with the window's record controls; null where the document has
    /// none (tests with a stand-in recorder).
    EngineRecorderControl* recorderControl();
    RecordBar* recordBar() { return recordBar_; }
    BusyOverlay& busyOverlay() { return *overlay_; }
    /// The action of a menu command by its id ("save", "showGain"); null for an unknown id.
    QAction* action(std::string_view id) const;
    /// Recomputes every item's enabled and checked state from the model and the document.
    void updateActions();

    /// Save: writes the file back in its own format, or asks where and how when it cannot.
    void save();
    void saveAs();
    void exportSelection();
    /// Save and Save As without the dialog: for the dialog's accept and for tests.
    void saveTo(const QString& path);

Q_SIGNALS:
    /// A process sheet was opened (its window title names it).
    void sheetOpened(QWidget* sheet);

protected:
    void closeEvent(QCloseEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

private:
    MainWindow(AudioDocument* unowned, std::unique_ptr<AudioDocument> owned, DocumentWindows* windows);
    void buildMenus();
    QAction* addItem(QMenu* menu, std::string_view id, void (MainWindow::*slot)());
    QAction* addItem(QMenu* menu, std::string_view id, std::function<void()> perform);
    void enable(std::string_view id, bool enabled);
    void check(std::string_view id, bool checked);
    void updateTitle();
    void presentError(const QString& message);
    void traceCommand(int undoIndex);
    void askToSaveThenClose();
    /// A save or export dialog opens in the folder of the document's file, where it has one.
    void startInDocumentsFolder(QFileDialog& dialog) const;
    void beep();
    void openSheet(QWidget* sheet);

    // Commands that need more than one model call.
    void cut();
    void pasteAsNew();
    void revert();
    void showHelp();
    void showAbout();
    void fadeWithPreferredShape(bool fadeIn);

    std::unique_ptr<AudioDocument> owned_;
    AudioDocument& document_;
    DocumentWindows* windows_;
    const Trace& trace_;
    OverviewView* overview_;
    TimelineView* timeline_;
    InspectorView* inspector_ = nullptr;
    RecordBar* recordBar_ = nullptr;
    bool traceRecording_ = false;
    /// Points: the whole-file strip above the timeline.
    static constexpr int overviewHeight = 56;
    BusyOverlay* overlay_;
    QMenu* recentMenu_ = nullptr;
    std::map<std::string, QAction*, std::less<>> actions_;
    bool closeConfirmed_ = false;
    bool closeAfterSave_ = false;
    /// A close found a take running: it was stopped, and the close comes back once the take is
    /// in the document (and asks to save it).
    bool closeAfterTake_ = false;
    bool painted_ = false;
    bool writing_ = false;
};

} // namespace harlune
