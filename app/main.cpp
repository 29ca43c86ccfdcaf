// harlune [FILE...] [--demo] [--trace] [--new-instance]: the editor, one window per document;
// harlune --render OUT.png FILE: a waveform picture, without a window.
#include "RenderCommand.h"
#include "base/HarluneError.h"
#include "core/DemoSound.h"
#include "editor/EnginePlaybackControl.h"
#include "editor/EngineRecorderControl.h"
#include "engine/DeferredInputDevice.h"
#include "engine/DeferredOutputDevice.h"
#include "engine/SafetyFile.h"
#include "engine/devices/DefaultAudioDevice.h"
#include "engine/devices/DefaultInputDevice.h"
#include "ui/DocumentWindows.h"
#include "ui/MainWindow.h"
#include "ui/SingleInstance.h"
#include "ui/Trace.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QFileInfo>
#include <QTimer>

int main(int argc, char** argv) {
    using namespace harlune;
    if (const auto rendered = runRenderCommand(argc, argv))
        return *rendered;
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Harlune"));
    QApplication::setOrganizationName(QStringLiteral("Harlune"));
    QApplication::setDesktopFileName(QStringLiteral("harlune"));
    // The program ends when its last document window has closed and no error about it is still
    // up; Qt's own rule would also end it under an open message box.
    QApplication::setQuitOnLastWindowClosed(false);

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Harlune, an audio waveform editor."));
    parser.addHelpOption();
    const QCommandLineOption demo(QStringLiteral("demo"), QStringLiteral("Open the built-in demo sound."));
    const QCommandLineOption trace(
        QStringLiteral("trace"), QStringLiteral("Print one line per user-visible event to standard error."));
    const QCommandLineOption newInstance(
        QStringLiteral("new-instance"),
        QStringLiteral("Do not hand the files to an editor already running."));
    parser.addOptions({demo, trace, newInstance});
    parser.addPositionalArgument(QStringLiteral("files"), QStringLiteral("Audio files to open."),
                                 QStringLiteral("[FILE...]"));
    parser.process(application);
    QStringList files;
    for (const QString& file : parser.positionalArguments())
        files << QFileInfo(file).absoluteFilePath();

    SingleInstance instance(SingleInstance::socketName());
    if (!parser.isSet(newInstance)) {
        if (!parser.isSet(demo) && instance.forward(files))
            return 0;
        instance.listen();
    }

    // The sound system is reached at the first play or the first arming, so that the editor
    // starts without one; the play or the record bar then shows why nothing can be done.
    const PostToMainThread post = postToQtMainThread();
    DocumentWindows windows(parser.isSet(trace) ? Trace::toStandardError() : Trace(), [post] {
        EditorCollaborators collaborators;
        collaborators.player = std::make_unique<EnginePlaybackControl>(
            std::make_unique<DeferredOutputDevice>([post] { return makeDefaultOutputDevice(post); }));
        collaborators.recorder = std::make_unique<EngineRecorderControl>(
            std::make_shared<DeferredInputDevice>(post, [post] { return makeDefaultInputDevice(post); }),
            Recorder::Options{Recorder::TapDriving::thread, recordingsFolder(), {}}, qtRepeatingTimers());
        return collaborators;
    });
    QObject::connect(&instance, &SingleInstance::filesReceived, &windows,
                     [&windows](const QStringList& received) {
                         for (const QString& file : received)
                             windows.openFile(file.toStdString());
                         if (received.isEmpty() && !windows.windows().empty()) {
                             windows.windows().front()->raise();
                             windows.windows().front()->activateWindow();
                         }
                     });

    if (parser.isSet(demo))
        windows.adopt(makeDemoSound(), QStringLiteral("Demo"));
    for (const QString& file : files)
        windows.openFile(file.toStdString());
    // Started without a document: the open dialog; cancelling it with no window ends the program.
    if (!parser.isSet(demo) && files.isEmpty())
        QTimer::singleShot(0, &windows, [&windows] { windows.showOpenDialog(nullptr, true); });
    return QApplication::exec();
}
