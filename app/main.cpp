// harlune [FILE] [--demo]: the editor's window on one audio file, or on the built-in demo sound.
#include "RenderCommand.h"
#include "base/HarluneError.h"
#include "core/DemoSound.h"
#include "document/AudioDocument.h"
#include "editor/EnginePlaybackControl.h"
#include "engine/DeferredOutputDevice.h"
#include "engine/devices/DefaultAudioDevice.h"
#include "ui/MainWindow.h"

#include <QApplication>
#include <QCommandLineParser>
#include <cstdio>

int main(int argc, char** argv) {
    using namespace harlune;
    if (const auto rendered = runRenderCommand(argc, argv))
        return *rendered;
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Harlune"));
    QApplication::setOrganizationName(QStringLiteral("Harlune"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Harlune, an audio waveform editor."));
    parser.addHelpOption();
    const QCommandLineOption demo(QStringLiteral("demo"), QStringLiteral("Open the built-in demo sound."));
    parser.addOption(demo);
    parser.addPositionalArgument(QStringLiteral("file"), QStringLiteral("The audio file to open."),
                                 QStringLiteral("[FILE]"));
    parser.process(application);
    const QStringList files = parser.positionalArguments();
    if (files.size() > 1 || (files.size() == 1 && parser.isSet(demo))) {
        std::fprintf(stderr, "harlune: give one file or --demo\n");
        return 2;
    }

    // The sound system is reached at the first play, so that the editor starts without one; a
    // play then shows why nothing can be heard.
    EditorCollaborators collaborators;
    const PostToMainThread post = postToQtMainThread();
    collaborators.player = std::make_unique<EnginePlaybackControl>(
        std::make_unique<DeferredOutputDevice>([post] { return makeDefaultOutputDevice(post); }));
    AudioDocument document(std::move(collaborators));
    MainWindow window(document);
    QObject::connect(&document, &AudioDocument::openFailed, &application,
                     [](const QString& message, bool cancelled) {
                         if (!cancelled)
                             std::fprintf(stderr, "harlune: %s\n", qPrintable(message));
                         QApplication::exit(1);
                     });
    try {
        if (parser.isSet(demo))
            document.adopt(makeDemoSound(), QStringLiteral("Demo"));
        else if (!files.isEmpty())
            document.open(files.front().toStdString());
    } catch (const HarluneError& error) {
        std::fprintf(stderr, "harlune: %s\n", error.what());
        return 1;
    }
    window.show();
    return QApplication::exec();
}
