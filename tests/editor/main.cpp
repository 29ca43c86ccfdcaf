// The editor tests run Qt's event loop for queued commits and timers, so they need an
// application object; preferences go to a scratch folder, never the user's.
#include <QCoreApplication>
#include <QSettings>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <cstdlib>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QTemporaryDir scratch;
    if (!scratch.isValid())
        return EXIT_FAILURE;
    qputenv("XDG_CONFIG_HOME", scratch.path().toUtf8());
    QStandardPaths::setTestModeEnabled(true);
    for (const auto format : {QSettings::NativeFormat, QSettings::IniFormat})
        for (const auto scope : {QSettings::UserScope, QSettings::SystemScope})
            QSettings::setPath(format, scope, scratch.path());

    QCoreApplication application(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
