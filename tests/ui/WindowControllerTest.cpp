// The window as its controller: items enabled from the model, keys reaching the model's
// commands, the close prompt, saving and exporting real files, the busy overlay and the trace.
#include "document/AudioDocument.h"
#include "dsp/plugins/PluginEffect.h"
#include "io/AudioDecoder.h"
#include "support/TestAudio.h"
#include "ui/BusyOverlay.h"
#include "ui/DocumentWindows.h"
#include "ui/MainWindow.h"
#include "ui/SaveDialog.h"

#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QDialog>
#include <QDir>
#include <QDoubleSpinBox>
#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <cmath>
#include <cstdlib>
#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::Planes;

constexpr double rate = 48000;

bool enabled(MainWindow& window, std::string_view id) {
    QAction* item = window.action(id);
    return item && item->isEnabled();
}

Planes quietNoise(int channels, int64_t frames) {
    Planes planes = testing::noisePlanes(channels, frames, 7);
    for (auto& plane : planes)
        for (float& sample : plane)
            sample *= 0.25f;
    return planes;
}

void showActive(QWidget& window) {
    window.show();
    window.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&window));
}

template <class T> T* waitForChild(QWidget& parent, const QString& name = {}) {
    T* found = nullptr;
    const bool shown = QTest::qWaitFor(
        [&] {
            found = parent.findChild<T*>(name);
            return found && found->isVisible();
        },
        5000);
    return shown ? found : nullptr;
}

TEST(WindowControllerTest, ItemsFollowTheModelsState) {
    AudioDocument document;
    MainWindow window(document);
    // Empty: nothing to select, process or export; no application: no New or Open.
    for (const char* id :
         {"selectAll", "cut", "copy", "paste", "showGain", "fadeIn", "exportSelection", "undo", "revert",
          "new", "open", "toggleRecording", "newRecording", "stopPlayback"})
        EXPECT_FALSE(enabled(window, id)) << id;
    for (const char* id : {"save", "saveAs", "insertSilence", "close", "showHelp"})
        EXPECT_TRUE(enabled(window, id)) << id;

    document.adopt(AudioContent(quietNoise(2, 9600), rate), QStringLiteral("Noise"));
    for (const char* id : {"selectAll", "showGain", "showNormalize", "reverseAudio", "swapChannels",
                           "convertToMono", "exportSelection"})
        EXPECT_TRUE(enabled(window, id)) << id;
    for (const char* id : {"cut", "copy", "trimToSelection", "fadeIn", "showFade", "selectNone",
                           "convertToStereo", "applyGainEnvelope"})
        EXPECT_FALSE(enabled(window, id)) << id;

    // Recomputed from the model's signals, without a menu being opened.
    document.model().selectAll();
    for (const char* id :
         {"cut", "copy", "trimToSelection", "fadeIn", "showFade", "selectNone", "playSelection"})
        EXPECT_TRUE(enabled(window, id)) << id;
    EXPECT_FALSE(enabled(window, "paste"));
    document.model().copy();
    window.updateActions(); // the clipboard has no signal; the window's own Copy recomputes
    EXPECT_TRUE(enabled(window, "paste"));

    // Busy: every item that changes the document is off, Copy and the view stay.
    auto token = std::make_shared<ProgressToken>();
    document.model().beginExternalBusy(QStringLiteral("Working"), token);
    for (const char* id : {"cut", "paste", "showGain", "save", "saveAs", "undo", "trimToSelection", "fadeIn"})
        EXPECT_FALSE(enabled(window, id)) << id;
    EXPECT_TRUE(enabled(window, "copy"));
    EXPECT_TRUE(enabled(window, "zoomIn"));
    document.model().endExternalBusy();
    EXPECT_TRUE(enabled(window, "showGain"));

    // Toggles show their check from the model.
    document.model().setIsLooping(true);
    EXPECT_TRUE(window.action("toggleLoop")->isChecked());
    document.model().setSnapToZeroCrossings(true);
    EXPECT_TRUE(window.action("snapToZeroCrossings")->isChecked());
}

TEST(WindowControllerTest, KeysAndSheetsReachTheModelsCommands) {
    AudioDocument document;
    MainWindow window(document);
    const Planes planes = quietNoise(2, 9600);
    document.adopt(AudioContent(planes, rate), QStringLiteral("Noise"));
    showActive(window);
    QUndoStack& undo = document.undoStack();

    QTest::keyClick(&window, Qt::Key_A, Qt::ControlModifier);
    ASSERT_EQ(document.model().selection(), (FrameRange{0, 9600}));

    QSignalSpy sheets(&window, &MainWindow::sheetOpened);
    QTest::keyClick(&window, Qt::Key_G, Qt::ControlModifier);
    ASSERT_EQ(sheets.count(), 1);
    auto* sheet = qobject_cast<QDialog*>(sheets.front().front().value<QWidget*>());
    ASSERT_NE(sheet, nullptr);
    EXPECT_EQ(sheet->windowTitle(), "Gain");
    EXPECT_EQ(sheet->windowModality(), Qt::WindowModal);
    auto* spin = sheet->findChild<QDoubleSpinBox*>();
    ASSERT_NE(spin, nullptr);
    EXPECT_EQ(spin->minimum(), -40);
    EXPECT_EQ(spin->maximum(), 40);
    spin->setValue(-6);
    QTest::keyClick(sheet, Qt::Key_Return);
    ASSERT_TRUE(QTest::qWaitFor([&] { return undo.count() == 1; }, 20000));
    EXPECT_EQ(undo.undoText(), "Gain -6.0 dB");
    EXPECT_TRUE(window.isWindowModified());
    EXPECT_EQ(window.action("undo")->text(), "Undo Gain -6.0 dB");
    const double factor = std::pow(10.0, -6.0 / 20);
    AudioContent after = document.model().content();
    std::vector<float> l(9600), r(9600);
    float* both[] = {l.data(), r.data()};
    after.read(FrameRange{0, 9600}, ChannelPointers(both));
    for (int i = 0; i < 9600; i += 13)
        ASSERT_NEAR(l[size_t(i)], planes[0][size_t(i)] * factor, 1e-6) << i;

    // Cut and Delete carry their own undo names; Undo and Redo answer their keys.
    showActive(window);
    QTest::keyClick(&window, Qt::Key_X, Qt::ControlModifier);
    EXPECT_EQ(undo.undoText(), "Cut");
    EXPECT_EQ(document.model().content().frameCount(), 0);
    QTest::keyClick(&window, Qt::Key_Z, Qt::ControlModifier);
    EXPECT_EQ(document.model().content().frameCount(), 9600);
    QTest::keyClick(&window, Qt::Key_Y, Qt::ControlModifier);
    EXPECT_EQ(document.model().content().frameCount(), 0);
    QTest::keyClick(&window, Qt::Key_Z, Qt::ControlModifier | Qt::ShiftModifier);
    QTest::keyClick(&window, Qt::Key_Z, Qt::ControlModifier);
    document.model().setSelection(FrameRange{100, 200});
    QTest::keyClick(&window, Qt::Key_Delete);
    EXPECT_EQ(undo.undoText(), "Delete");
    EXPECT_EQ(document.model().content().frameCount(), 9500);

    // A disabled item's key does nothing: no selection, no fade.
    document.model().selectNone();
    const int before = undo.count();
    QTest::keyClick(&window, Qt::Key_I, Qt::ControlModifier | Qt::AltModifier | Qt::ShiftModifier);
    EXPECT_EQ(undo.count(), before);
}

TEST(WindowControllerTest, ClosingAModifiedDocumentAsks) {
    DocumentWindows windows;
    MainWindow* window = windows.adopt(AudioContent(quietNoise(1, 4800), rate), QStringLiteral("Take"));
    QPointer<MainWindow> guard(window);
    window->document().model().selectAll();
    window->document().model().reverse();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->document().isDirty(); }, 20000));
    EXPECT_EQ(window->windowTitle(), "Take[*]");
    EXPECT_TRUE(window->isWindowModified());

    EXPECT_FALSE(window->close());
    auto* prompt = waitForChild<QMessageBox>(*window, QStringLiteral("closePrompt"));
    ASSERT_NE(prompt, nullptr);
    prompt->button(QMessageBox::Cancel)->click();
    QTest::qWait(50);
    ASSERT_TRUE(guard);
    EXPECT_TRUE(window->isVisible());

    // "Save" on an untitled document asks where; cancelling that cancels the close, so that a
    // later save does not close the window behind the user's back.
    QSignalSpy sheets(window, &MainWindow::sheetOpened);
    EXPECT_FALSE(window->close());
    prompt = waitForChild<QMessageBox>(*window, QStringLiteral("closePrompt"));
    ASSERT_NE(prompt, nullptr);
    prompt->button(QMessageBox::Save)->click();
    ASSERT_TRUE(QTest::qWaitFor([&] { return sheets.count() == 1; }, 5000));
    qobject_cast<QDialog*>(sheets.front().front().value<QWidget*>())->reject();
    QTemporaryDir folder;
    QSignalSpy written(&window->document(), &AudioDocument::written);
    window->saveTo(folder.filePath(QStringLiteral("kept.wav")));
    ASSERT_TRUE(QTest::qWaitFor([&] { return written.count() == 1; }, 20000));
    QTest::qWait(50);
    ASSERT_TRUE(guard) << "the window closed after a save the close had given up on";
    window->document().model().reverse();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->document().isDirty(); }, 20000));

    EXPECT_FALSE(window->close());
    prompt = waitForChild<QMessageBox>(*window, QStringLiteral("closePrompt"));
    ASSERT_NE(prompt, nullptr);
    const QList<QAbstractButton*> buttons = prompt->buttons();
    const auto dontSave =
        std::ranges::find_if(buttons, [](QAbstractButton* b) { return b->text() == "Don’t Save"; });
    ASSERT_NE(dontSave, buttons.end());
    (*dontSave)->click();
    ASSERT_TRUE(QTest::qWaitFor([&] { return guard.isNull(); }, 5000));
}

TEST(WindowControllerTest, SaveAsAndExportWriteFilesThatReadBack) {
    QTemporaryDir folder;
    AudioDocument document;
    MainWindow window(document);
    const Planes planes = quietNoise(2, 12000);
    document.adopt(AudioContent(planes, rate), QStringLiteral("Sketch"));
    document.model().insertSilence(100);
    ASSERT_TRUE(document.isDirty());

    // Save As through the dialog: a typed ".flac" switches the format picker to FLAC.
    QSignalSpy sheets(&window, &MainWindow::sheetOpened);
    window.action("saveAs")->trigger();
    ASSERT_EQ(sheets.count(), 1);
    auto* dialog = qobject_cast<SaveDialog*>(sheets.front().front().value<QWidget*>());
    ASSERT_NE(dialog, nullptr);
    dialog->setDirectory(folder.path());
    dialog->setName(QStringLiteral("out.flac"));
    QSignalSpy written(&document, &AudioDocument::written);
    dialog->accept();
    ASSERT_TRUE(QTest::qWaitFor([&] { return written.count() == 1; }, 20000));
    const std::filesystem::path saved = folder.filePath(QStringLiteral("out.flac")).toStdString();
    EXPECT_EQ(document.file(), saved);
    EXPECT_FALSE(window.isWindowModified());
    EXPECT_EQ(window.windowTitle(), "out.flac[*]");
    const AudioFileInfo info = AudioDecoder::probe(saved);
    EXPECT_EQ(info.nativeExportFormat, ExportFormat::flac);
    const auto read = AudioDecoder::decodeToArrays(saved);
    ASSERT_EQ(read.channels.size(), 2u);
    ASSERT_EQ(read.channels[0].size(), 12100u);
    for (size_t i = 0; i < 12000; i += 11)
        ASSERT_NEAR(read.channels[1][i + 100], planes[1][i], 2.0 / (1 << 15)) << i;

    // Export of a selection: the title, the name rule, only that range, the document untouched.
    document.model().setSelection(FrameRange{1100, 3100});
    window.action("exportSelection")->trigger();
    ASSERT_EQ(sheets.count(), 2);
    auto* exporter = qobject_cast<SaveDialog*>(sheets.back().front().value<QWidget*>());
    ASSERT_NE(exporter, nullptr);
    EXPECT_EQ(exporter->windowTitle(), "Export Selection");
    EXPECT_TRUE(exporter->selectedFiles().value(0).endsWith(QStringLiteral("out (selection).flac")))
        << exporter->selectedFiles().value(0).toStdString();
    exporter->formatPicker().setCurrentIndex(exporter->formatPicker().findText(QStringLiteral("WAV")));
    exporter->setDirectory(folder.path());
    exporter->setName(QStringLiteral("part.ogg")); // not a format's extension: replaced
    exporter->accept();
    ASSERT_TRUE(QTest::qWaitFor([&] { return written.count() == 2; }, 20000));
    const std::filesystem::path part = folder.filePath(QStringLiteral("part.wav")).toStdString();
    const auto partRead = AudioDecoder::decodeToArrays(part);
    ASSERT_EQ(partRead.channels[0].size(), 2000u);
    EXPECT_EQ(document.file(), saved);

    // Saved elsewhere without a dialog, the document's dialogs open beside it there, not in the
    // folder the last dialog showed.
    QTemporaryDir elsewhere;
    window.saveTo(elsewhere.filePath(QStringLiteral("moved.flac")));
    ASSERT_TRUE(QTest::qWaitFor([&] { return written.count() == 3; }, 20000));
    window.action("saveAs")->trigger();
    auto* again = qobject_cast<SaveDialog*>(sheets.back().front().value<QWidget*>());
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->directory().absolutePath(), QDir(elsewhere.path()).absolutePath());
    again->reject();
}

TEST(WindowControllerTest, TheBusyOverlayShowsLateAndCancels) {
    AudioDocument document;
    MainWindow window(document);
    document.adopt(AudioContent(quietNoise(1, 4800), rate), QStringLiteral("Noise"));
    showActive(window);
    auto token = std::make_shared<ProgressToken>();
    token->setFraction(0.5);
    document.model().beginExternalBusy(QStringLiteral("Working"), token);
    BusyOverlay& overlay = window.busyOverlay();
    EXPECT_TRUE(overlay.isVisible()); // blocks input at once
    EXPECT_FALSE(overlay.isPanelShown());
    ASSERT_TRUE(QTest::qWaitFor([&] { return overlay.isPanelShown(); }, 2000));
    QTest::keyClick(&overlay, Qt::Key_Escape);
    EXPECT_TRUE(token->isCancelled());
    document.model().endExternalBusy();
    EXPECT_FALSE(overlay.isVisible());
}

TEST(WindowControllerTest, TheTraceFollowsWhatTheUserSees) {
    QStringList lines;
    DocumentWindows windows(Trace([&lines](const QString& line) { lines << line; }));
    MainWindow* window = windows.adopt(AudioContent(quietNoise(1, 4800), rate), QStringLiteral("Noise"));
    ASSERT_TRUE(QTest::qWaitForWindowExposed(window));
    EXPECT_TRUE(QTest::qWaitFor([&] { return lines.contains(QStringLiteral("first paint")); }, 2000));
    window->document().model().selectAll();
    window->document().model().invert();
    ASSERT_TRUE(QTest::qWaitFor([&] { return window->document().undoStack().count() == 1; }, 20000));
    EXPECT_TRUE(lines.contains(QStringLiteral("window shown Noise")));
    EXPECT_TRUE(lines.contains(QStringLiteral("first paint")));
    EXPECT_TRUE(lines.contains(QStringLiteral("selection 0..4800")));
    EXPECT_TRUE(lines.contains(QStringLiteral("command done Invert Polarity")) ||
                lines.filter(QStringLiteral("command done ")).size() == 1)
        << lines.join(QLatin1Char('\n')).toStdString();
    window->document().undoStack().setClean();
    window->close();
}

} // namespace
} // namespace harlune

namespace harlune {
namespace {

// The Effects menu's section titles are labels of their own: some styles draw no text for
// QMenu::addSection.
TEST(WindowControllerTest, TheEffectsMenusSectionTitlesShow) {
    AudioDocument document;
    MainWindow window(document);
    QMenu* effects = nullptr;
    for (QAction* menu : window.menuBar()->actions())
        if (menu->text().remove(QLatin1Char('&')) == "Effects")
            effects = menu->menu();
    ASSERT_NE(effects, nullptr);
    effects->popup(QPoint(0, 0));
    ASSERT_TRUE(QTest::qWaitForWindowExposed(effects));
    QStringList shown;
    for (QLabel* label : effects->findChildren<QLabel*>())
        if (label->isVisible() && label->width() > 0)
            shown << label->text();
    EXPECT_EQ(shown, (QStringList{"Tone", "Dynamics", "Time & Space", "Restoration"}));
    if (const QByteArray path = qgetenv("HARLUNE_SCREENSHOT"); !path.isEmpty())
        effects->grab().save(QString::fromUtf8(path));
    effects->close();

    // The plug-in submenu lists what lilv finds when it opens, or says that there is none.
    QMenu* plugins = nullptr;
    for (QAction* item : effects->actions())
        if (item->text() == "LV2 Plug-ins")
            plugins = item->menu();
    ASSERT_NE(plugins, nullptr);
    Q_EMIT plugins->aboutToShow();
    QStringList expected;
    for (const PluginDescriptor& descriptor : PluginEffect::installedPlugins())
        expected << QString::fromStdString(descriptor.name);
    if (expected.isEmpty())
        expected << QStringLiteral("No LV2 effects installed");
    QStringList listed;
    for (QAction* item : plugins->actions())
        listed << item->text();
    EXPECT_EQ(listed, expected);
}

} // namespace
} // namespace harlune

namespace harlune {
namespace {

TEST(WindowControllerTest, AFailedSaveShowsItsErrorAndTheWindowStaysModified) {
    QTemporaryDir folder;
    QStringList lines;
    DocumentWindows windows(Trace([&lines](const QString& line) { lines << line; }));
    MainWindow* window = windows.adopt(AudioContent(quietNoise(1, 4800), rate), QStringLiteral("Take"));
    window->document().model().insertSilence(10);
    ASSERT_TRUE(window->isWindowModified());
    QSignalSpy failed(&window->document(), &AudioDocument::writeFailed);
    window->saveTo(folder.filePath(QStringLiteral("missing/take.wav")));
    ASSERT_TRUE(QTest::qWaitFor([&] { return failed.count() == 1; }, 20000));
    EXPECT_TRUE(window->isWindowModified());
    EXPECT_FALSE(window->document().file());
    auto* message = waitForChild<QMessageBox>(*window);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->text(), failed.front().front().toString());
    EXPECT_EQ(lines.filter(QStringLiteral("error shown ")).size(), 1);
    EXPECT_TRUE(window->action("save")->isEnabled());
    window->document().undoStack().setClean();
    message->close();
    window->close();
}

// A disk that fills during the save: the error shows, the window stays modified, and the file
// that was there is untouched, with no temporary left beside it.
TEST(WindowControllerTest, ASaveOntoAFullDiskKeepsTheOldFile) {
    QTemporaryDir folder;
    const QString disk = folder.filePath(QStringLiteral("disk"));
    QDir().mkpath(disk);
    const std::string mount = "mount -t tmpfs -o size=1m tmpfs '" + disk.toStdString() + "' 2>/dev/null";
    if (std::system(mount.c_str()) != 0)
        GTEST_SKIP() << "no tmpfs can be mounted here";
    const std::string unmount = "umount '" + disk.toStdString() + "'";
    DocumentWindows windows;
    MainWindow* window = windows.adopt(AudioContent(quietNoise(1, 4800), rate), QStringLiteral("Take"));
    const QString path = disk + QStringLiteral("/take.wav");
    QSignalSpy saved(&window->document(), &AudioDocument::written);
    window->saveTo(path);
    ASSERT_TRUE(QTest::qWaitFor([&] { return saved.count() == 1; }, 20000));
    QFile before(path);
    ASSERT_TRUE(before.open(QIODevice::ReadOnly));
    const QByteArray oldBytes = before.readAll();
    before.close();

    window->document().model().insertSilence(static_cast<int64_t>(20 * rate)); // megabytes more
    QSignalSpy failed(&window->document(), &AudioDocument::writeFailed);
    window->save();
    ASSERT_TRUE(QTest::qWaitFor([&] { return failed.count() == 1; }, 20000));
    EXPECT_TRUE(window->isWindowModified());
    auto* message = waitForChild<QMessageBox>(*window);
    ASSERT_NE(message, nullptr);
    EXPECT_FALSE(message->text().isEmpty());
    QFile after(path);
    ASSERT_TRUE(after.open(QIODevice::ReadOnly));
    EXPECT_EQ(after.readAll(), oldBytes);
    after.close();
    EXPECT_EQ(QDir(disk).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("take.wav")});
    window->document().undoStack().setClean();
    message->close();
    window->close();
    QTest::qWait(10);
    EXPECT_EQ(std::system(unmount.c_str()), 0);
}

// Every window restores the same remembered place; new ones step down and right so that none
// hides another, and a window that moved away frees its place.
TEST(WindowControllerTest, NewWindowsCascadeOverTheRememberedPlace) {
    DocumentWindows windows;
    MainWindow* first = windows.adopt(AudioContent(quietNoise(1, 480), rate), QStringLiteral("One"));
    MainWindow* second = windows.adopt(AudioContent(quietNoise(1, 480), rate), QStringLiteral("Two"));
    MainWindow* third = windows.adopt(AudioContent(quietNoise(1, 480), rate), QStringLiteral("Three"));
    EXPECT_EQ(second->pos() - first->pos(), QPoint(24, 24));
    EXPECT_EQ(third->pos() - first->pos(), QPoint(48, 48));
    second->move(first->pos() + QPoint(300, 10));
    MainWindow* fourth = windows.adopt(AudioContent(quietNoise(1, 480), rate), QStringLiteral("Four"));
    EXPECT_EQ(fourth->pos() - first->pos(), QPoint(24, 24));
    for (MainWindow* window : windows.windows()) {
        window->document().undoStack().setClean();
        window->close();
    }
}

// Quit while a save runs: that window closes once its file is complete, then the quit goes on
// and closes the others.
TEST(WindowControllerTest, QuitWaitsForARunningSaveThenClosesTheRest) {
    QTemporaryDir folder;
    DocumentWindows windows;
    QPointer<MainWindow> saving = windows.adopt(
        AudioContent(quietNoise(2, static_cast<int64_t>(60 * rate)), rate), QStringLiteral("Long"));
    QPointer<MainWindow> other =
        windows.adopt(AudioContent(quietNoise(1, 4800), rate), QStringLiteral("Short"));
    QSignalSpy written(&saving->document(), &AudioDocument::written);
    const QString path = folder.filePath(QStringLiteral("long.flac"));
    saving->saveTo(path);
    saving->action("quit")->trigger();
    EXPECT_TRUE(windows.isQuitting());
    EXPECT_FALSE(saving.isNull()); // held by its save
    EXPECT_FALSE(other.isNull());
    ASSERT_TRUE(QTest::qWaitFor([&] { return saving.isNull() && other.isNull(); }, 30000));
    EXPECT_EQ(written.count(), 1);
    EXPECT_GT(QFileInfo(path).size(), 100000);
}

} // namespace
} // namespace harlune
