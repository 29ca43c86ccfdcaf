// The window as a person meets it, drawn off screen: the demo sound and a real file, each under
// its name, with the overview telling its length to assistive technology.
#include "ui/MainWindow.h"

#include "core/DemoSound.h"
#include "document/AudioDocument.h"
#include "editor/EnginePlaybackControl.h"
#include "engine/devices/TestAudioDevice.h"
#include "io/AudioEncoder.h"
#include "support/TestAudio.h"
#include "ui/OverviewView.h"

#include <QAccessible>
#include <QApplication>
#include <QMessageBox>
#include <QSettings>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QToolBar>
#include <QToolButton>
#include <cstdlib>
#include <gtest/gtest.h>

namespace harlune {
namespace {

QString accessibleText(QWidget& widget, QAccessible::Text kind) {
    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(&widget);
    return accessible ? accessible->text(kind) : QString();
}

// Columns of the picture that hold any of the waveform's colour.
int paintedColumns(QWidget& widget) {
    const QImage image = widget.grab().toImage();
    const QColor wave = widget.palette().highlight().color();
    int columns = 0;
    for (int x = 0; x < image.width(); ++x)
        for (int y = 0; y < image.height(); ++y)
            if (image.pixelColor(x, y) == wave) {
                ++columns;
                break;
            }
    return columns;
}

TEST(MainWindowTest, TheDemoOpensUnderItsNameWithItsLength) {
    AudioDocument document;
    MainWindow window(document);
    document.adopt(makeDemoSound(), QStringLiteral("Demo"));
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));

    EXPECT_EQ(window.windowTitle(), "Demo[*]"); // the edited mark goes where "[*]" is
    OverviewView& overview = window.overview();
    EXPECT_EQ(accessibleText(overview, QAccessible::Name), "Overview");
    EXPECT_EQ(accessibleText(overview, QAccessible::Value), "192000 frames");
    // The chord fades in and out over the whole width: nearly every column shows some of it.
    EXPECT_GT(paintedColumns(overview), overview.width() * 9 / 10);
}

TEST(MainWindowTest, TheToolbarShowsIconsOnlyWithTheirTitlesAsTips) {
    AudioDocument document;
    MainWindow window(document);
    document.adopt(makeDemoSound(), QStringLiteral("Demo"));
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    auto* toolbar = window.findChild<QToolBar*>(QStringLiteral("EditorToolbar"));
    ASSERT_NE(toolbar, nullptr);
    EXPECT_FALSE(toolbar->isMovable());
    const QList<QAction*> items = toolbar->actions();
    ASSERT_EQ(items.size(), 4);
    for (QAction* item : items) {
        SCOPED_TRACE(item->text().toStdString());
        // A null icon would make the button show its text instead.
        EXPECT_FALSE(item->icon().isNull());
        auto* button = qobject_cast<QToolButton*>(toolbar->widgetForAction(item));
        ASSERT_NE(button, nullptr);
        EXPECT_EQ(button->toolButtonStyle(), Qt::ToolButtonIconOnly);
        EXPECT_FALSE(item->toolTip().isEmpty());
        EXPECT_LT(button->width(), 48) << "drawn as text";
    }
}

TEST(MainWindowTest, AFileOpensUnderItsNameAndTheOverviewFollows) {
    QTemporaryDir folder;
    const std::filesystem::path url = folder.filePath(QStringLiteral("tone.wav")).toStdString();
    AudioEncoder::write(AudioContent(testing::noisePlanes(1, 12345, 3), 44100), std::nullopt, url,
                        EncodeSettings::defaults(ExportFormat::wav));
    AudioDocument document;
    MainWindow window(document);
    window.show();
    EXPECT_EQ(accessibleText(window.overview(), QAccessible::Value), "0 frames");

    QSignalSpy opened(&document, &AudioDocument::opened);
    document.open(url);
    ASSERT_TRUE(QTest::qWaitFor([&] { return opened.count() == 1; }, 20000));
    EXPECT_EQ(window.windowTitle(), "tone.wav[*]");
    EXPECT_EQ(accessibleText(window.overview(), QAccessible::Value), "12345 frames");
}

TEST(MainWindowTest, SpacePlaysAndStopsAndAFailedPlayIsShown) {
    EditorCollaborators collaborators;
    auto output = std::make_unique<TestAudioDevice>();
    TestAudioDevice& device = *output;
    collaborators.player = std::make_unique<EnginePlaybackControl>(std::move(output));
    AudioDocument document(std::move(collaborators));
    MainWindow window(document);
    document.adopt(AudioContent(testing::noisePlanes(2, 4800), 48000), QStringLiteral("Noise"));
    window.show();
    window.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&window));

    QTest::keyClick(&window, Qt::Key_Space);
    EXPECT_TRUE(document.model().isPlaying());
    EXPECT_TRUE(device.isRunning());
    QTest::keyClick(&window, Qt::Key_Space);
    EXPECT_FALSE(document.model().isPlaying());

    device.failNextStart("the card is gone");
    QTest::keyClick(&window, Qt::Key_Space);
    EXPECT_FALSE(document.model().isPlaying());
    auto* message = window.findChild<QMessageBox*>();
    ASSERT_NE(message, nullptr);
    EXPECT_TRUE(message->text().contains(QStringLiteral("the card is gone")));
}

} // namespace
} // namespace harlune

// Off screen, with preferences in a scratch folder, never the user's.
int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QTemporaryDir scratch;
    if (!scratch.isValid())
        return EXIT_FAILURE;
    QStandardPaths::setTestModeEnabled(true);
    for (const auto format : {QSettings::NativeFormat, QSettings::IniFormat})
        for (const auto scope : {QSettings::UserScope, QSettings::SystemScope})
            QSettings::setPath(format, scope, scratch.path());
    QApplication application(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
