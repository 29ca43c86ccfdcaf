#include "ui/DocumentWindows.h"

#include "base/HarluneError.h"
#include "document/AudioDocument.h"
#include "ui/MainWindow.h"

#include <QApplication>
#include <QFileDialog>
#include <QFileInfo>
#include <QMessageBox>
#include <QScreen>
#include <QSettings>
#include <QTimer>
#include <algorithm>

namespace harlune {

namespace {
constexpr int maxRecentFiles = 10;
const QString recentKey = QStringLiteral("recentFiles");
} // namespace

DocumentWindows::DocumentWindows(Trace trace, CollaboratorFactory collaborators, QObject* parent)
    : QObject(parent), trace_(std::move(trace)), collaborators_(std::move(collaborators)),
      clipboard_(std::make_shared<AudioClipboard>()) {}

DocumentWindows::~DocumentWindows() {
    for (MainWindow* window : windows())
        delete window;
}

std::vector<MainWindow*> DocumentWindows::windows() const {
    std::vector<MainWindow*> result;
    for (const QPointer<MainWindow>& window : windows_)
        if (window)
            result.push_back(window);
    return result;
}

MainWindow* DocumentWindows::makeWindow(std::unique_ptr<AudioDocument> document) {
    auto* window = new MainWindow(std::move(document), *this);
    cascade(*window);
    windows_.emplace_back(window);
    connect(
        window, &QObject::destroyed, this,
        [this] {
            std::erase_if(windows_, [](const QPointer<MainWindow>& each) { return each.isNull(); });
            windowClosed();
        },
        Qt::QueuedConnection);
    return window;
}

void DocumentWindows::cascade(QWidget& window) const {
    // Every window restores the same remembered place: a new one would hide the one under it.
    constexpr int step = 24;
    const std::vector<MainWindow*> others = windows();
    const auto taken = [&](QPoint place) {
        return std::ranges::any_of(others, [&](const MainWindow* other) { return other->pos() == place; });
    };
    const QScreen* screen = window.screen();
    const QRect area = screen ? screen->availableGeometry() : QRect();
    QPoint place = window.pos();
    for (size_t tries = 0; tries <= others.size() && taken(place); ++tries) {
        place += QPoint(step, step);
        // Back to the top of the screen before the title bar nears its lower or right edge.
        constexpr int margin = 200;
        if (area.isValid() && (place.y() > area.bottom() - margin || place.x() > area.right() - margin))
            place = QPoint(area.left() + step * static_cast<int>(tries + 1), area.top());
    }
    window.move(place);
}

static EditorCollaborators withClipboard(EditorCollaborators collaborators,
                                         std::shared_ptr<AudioClipboard> clipboard) {
    collaborators.clipboard = std::move(clipboard);
    return collaborators;
}

MainWindow* DocumentWindows::openFile(const std::filesystem::path& url) {
    // A file already open comes to the front instead of opening twice.
    std::error_code unused;
    for (MainWindow* window : windows())
        if (window->document().file() &&
            std::filesystem::equivalent(*window->document().file(), url, unused)) {
            window->raise();
            window->activateWindow();
            return window;
        }
    auto document = std::make_unique<AudioDocument>(
        withClipboard(collaborators_ ? collaborators_() : EditorCollaborators{}, clipboard_));
    AudioDocument& opened = *document;
    try {
        opened.open(url);
    } catch (const HarluneError& error) {
        showError(QString::fromUtf8(error.what()), nullptr);
        return nullptr;
    }
    MainWindow* window = makeWindow(std::move(document));
    connect(&opened, &AudioDocument::opened, this, [this, url] { addRecent(url); });
    window->show();
    return window;
}

MainWindow* DocumentWindows::adopt(AudioContent content, const QString& name) {
    auto document = std::make_unique<AudioDocument>(
        withClipboard(collaborators_ ? collaborators_() : EditorCollaborators{}, clipboard_));
    document->adopt(std::move(content), name);
    MainWindow* window = makeWindow(std::move(document));
    window->show();
    return window;
}

MainWindow* DocumentWindows::newDocument() {
    auto document = std::make_unique<AudioDocument>(
        withClipboard(collaborators_ ? collaborators_() : EditorCollaborators{}, clipboard_));
    MainWindow* window = makeWindow(std::move(document));
    window->show();
    return window;
}

void DocumentWindows::showOpenDialog(QWidget* over, bool quitIfNone) {
    auto* dialog = new QFileDialog(over, tr("Open"));
    dialog->setFileMode(QFileDialog::ExistingFiles);
    dialog->setNameFilters(
        {tr("Audio files (*.wav *.aif *.aiff *.caf *.flac *.m4a *.mp3 *.opus *.ogg *.aac *.mp4 "
            "*.w64 *.rf64 *.au *.snd)"),
         tr("All files (*)")});
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    connect(dialog, &QFileDialog::filesSelected, this, [this](const QStringList& files) {
        for (const QString& file : files)
            openFile(file.toStdString());
    });
    connect(dialog, &QFileDialog::rejected, this, [this, quitIfNone] {
        if (quitIfNone && windows().empty())
            QTimer::singleShot(0, qApp, &QApplication::quit);
    });
    dialog->open();
}

QStringList DocumentWindows::recentFiles() const {
    return QSettings().value(recentKey).toStringList();
}

void DocumentWindows::clearRecentFiles() {
    QSettings().remove(recentKey);
    Q_EMIT recentFilesChanged();
}

void DocumentWindows::addRecent(const std::filesystem::path& url) {
    const QString path = QFileInfo(QString::fromStdString(url.string())).absoluteFilePath();
    QStringList files = recentFiles();
    files.removeAll(path);
    files.prepend(path);
    while (files.size() > maxRecentFiles)
        files.removeLast();
    QSettings().setValue(recentKey, files);
    Q_EMIT recentFilesChanged();
}

void DocumentWindows::showError(const QString& message, QWidget* over) {
    trace_.line(QStringLiteral("error shown %1").arg(message));
    ++openMessages_;
    auto* box =
        new QMessageBox(QMessageBox::Warning, QStringLiteral("Harlune"), message, QMessageBox::Ok, over);
    box->setObjectName(QStringLiteral("errorMessage"));
    box->setAttribute(Qt::WA_DeleteOnClose);
    connect(box, &QMessageBox::finished, this, [this] {
        --openMessages_;
        windowClosed();
    });
    box->open();
}

void DocumentWindows::quit() {
    quitting_ = true;
    for (MainWindow* window : windows())
        if (!window->close())
            return; // it closes later, and the quit goes on from `windowClosed`
}

void DocumentWindows::windowClosed() {
    if (quitting_ && !windows().empty())
        QTimer::singleShot(0, this, [this] {
            if (quitting_)
                quit();
        });
    // The program ends here rather than by Qt's quit-on-last-window, which would also end it
    // while an error about the last window is still on screen.
    if (windows().empty() && openMessages_ == 0)
        QTimer::singleShot(0, qApp, &QApplication::quit);
}

} // namespace harlune
