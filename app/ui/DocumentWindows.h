#pragma once

#include "core/AudioContent.h"
#include "editor/EditorModel.h"
#include "ui/Trace.h"

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

namespace harlune {

class AudioDocument;
class MainWindow;

/// The application's documents, one window each: opening files (several in one go), new and
/// pasted documents, the recent files, and the end of the program when the last window has
/// closed. All documents share one clipboard, so that Paste works across windows. Main thread.
class DocumentWindows final : public QObject {
    Q_OBJECT

public:
    /// Makes the playback, rack and analysis collaborators of each new document.
    using CollaboratorFactory = std::function<EditorCollaborators()>;

    explicit DocumentWindows(Trace trace = {}, CollaboratorFactory collaborators = {},
                             QObject* parent = nullptr);
    ~DocumentWindows() override;

    const Trace& trace() const { return trace_; }
    std::vector<MainWindow*> windows() const;

    /// A window on `url`, reading in the background; a file that cannot even be probed shows
    /// its error (and ends the program when no window is left).
    MainWindow* openFile(const std::filesystem::path& url);
    /// A window on `content`, untitled until saved under `name`.
    MainWindow* adopt(AudioContent content, const QString& name);
    /// A new empty document: 2 channels at 48000 Hz.
    MainWindow* newDocument();
    /// The open dialog; each chosen file opens in a window of its own. With `quitIfNone`, a
    /// cancelled dialog with no window open ends the program.
    void showOpenDialog(QWidget* over, bool quitIfNone);

    /// Closes every window in turn, then the program ends. A window that finishes its save
    /// first, or asks about unsaved changes, holds the quit until it has closed; a prompt
    /// answered with Cancel, or a failed save, ends the quit with the rest still open.
    void quit();
    void cancelQuit() { quitting_ = false; }
    bool isQuitting() const { return quitting_; }

    QStringList recentFiles() const;
    void clearRecentFiles();

    /// Shows `message` as an application-modal box and ends the program once it is dismissed
    /// if no window is left by then.
    void showError(const QString& message, QWidget* over);

Q_SIGNALS:
    void recentFilesChanged();
    /// Every window recomputes its menu states, e.g. after the shared clipboard changed.
    void sharedStateChanged();

private:
    MainWindow* makeWindow(std::unique_ptr<AudioDocument> document);
    /// Moves a new window down and right of any open window at its place.
    void cascade(QWidget& window) const;
    void addRecent(const std::filesystem::path& url);
    void windowClosed();

    Trace trace_;
    CollaboratorFactory collaborators_;
    std::shared_ptr<AudioClipboard> clipboard_;
    std::vector<QPointer<MainWindow>> windows_;
    int openMessages_ = 0;
    bool quitting_ = false;
};

} // namespace harlune
