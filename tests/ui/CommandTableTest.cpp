// The shortcut table against the keys Linux desktops keep for themselves, against itself, and
// against the menus the window builds from it.
#include "ui/CommandTable.h"

#include "document/AudioDocument.h"
#include "ui/MainWindow.h"

#include <QAction>
#include <QKeySequence>
#include <QMenu>
#include <QMenuBar>
#include <gtest/gtest.h>
#include <map>
#include <set>

namespace harlune {
namespace {

QString text(std::string_view view) {
    return QString::fromUtf8(view.data(), qsizetype(view.size()));
}

std::vector<std::pair<QString, QKeySequence>> allBindings() {
    std::vector<std::pair<QString, QKeySequence>> bindings;
    for (const MenuCommand& command : menuCommands())
        for (const std::string_view keys : {command.keys, command.alternativeKeys})
            if (!keys.empty())
                bindings.emplace_back(text(command.id), QKeySequence(text(keys), QKeySequence::PortableText));
    return bindings;
}

bool reservedByDesktops(const QKeyCombination key) {
    const Qt::KeyboardModifiers mods = key.keyboardModifiers();
    const int k = key.key();
    const bool ctrlAlt = mods.testFlags(Qt::ControlModifier | Qt::AltModifier);
    if (mods & Qt::MetaModifier)
        return true; // Super belongs to the desktop
    if (ctrlAlt &&
        (k == Qt::Key_T || k == Qt::Key_L || k == Qt::Key_D || k == Qt::Key_Delete ||
         k == Qt::Key_Backspace || k == Qt::Key_Escape || k == Qt::Key_Left || k == Qt::Key_Right ||
         k == Qt::Key_Up || k == Qt::Key_Down || (k >= Qt::Key_F1 && k <= Qt::Key_F12)) &&
        !(k == Qt::Key_T && (mods & Qt::ShiftModifier)) && !(k == Qt::Key_L && (mods & Qt::ShiftModifier)))
        return true;
    if (mods == Qt::AltModifier &&
        ((k >= Qt::Key_F1 && k <= Qt::Key_F10) || k == Qt::Key_Tab || k == Qt::Key_Space))
        return true;
    return false;
}

TEST(CommandTableTest, EveryKeyParsesIsUniqueAndFreeOnLinuxDesktops) {
    std::map<QKeySequence, QString> owner;
    for (const auto& [id, sequence] : allBindings()) {
        ASSERT_EQ(sequence.count(), 1) << id.toStdString() << " does not parse";
        const QKeyCombination key = sequence[0];
        EXPECT_NE(key.key(), Qt::Key_unknown) << id.toStdString();
        const auto [existing, inserted] = owner.emplace(sequence, id);
        EXPECT_TRUE(inserted) << id.toStdString() << " shares " << sequence.toString().toStdString()
                              << " with " << existing->second.toStdString();
        EXPECT_FALSE(reservedByDesktops(key))
            << id.toStdString() << ": " << sequence.toString().toStdString();
        // X11 delivers Shift with a digit or punctuation as the shifted character.
        if (key.keyboardModifiers() & Qt::ShiftModifier) {
            const QChar c(key.key());
            EXPECT_FALSE(key.key() < 0x80 && (c.isDigit() || c.isPunct() || c.isSymbol()))
                << id.toStdString() << ": " << sequence.toString().toStdString();
        }
    }
    // The checker itself: the keys it must refuse.
    for (const char* refused : {"Ctrl+Alt+T", "Ctrl+Alt+L", "Ctrl+Alt+Left", "Ctrl+Alt+Shift+Up",
                                "Ctrl+Alt+F3", "Alt+F4", "Alt+Tab", "Meta+E"})
        EXPECT_TRUE(reservedByDesktops(QKeySequence(QString::fromLatin1(refused))[0])) << refused;
}

TEST(CommandTableTest, KeysAreNamedTheLinuxWay) {
    EXPECT_EQ(keyText("toggleInspector"), "Ctrl+Alt+I");
    EXPECT_EQ(keyText("saveAs"), "Ctrl+Shift+S");
    EXPECT_EQ(keyText("reverseAudio"), "");
    for (const QString& line : shortcutHelpLines())
        for (const QChar glyph : QStringLiteral("⌘⌥⇧⌃"))
            EXPECT_FALSE(line.contains(glyph)) << line.toStdString();
}

TEST(CommandTableTest, TheWindowsMenusCarryTheTablesTitlesAndKeys) {
    AudioDocument document;
    MainWindow window(document);
    QStringList titles;
    for (QAction* menu : window.menuBar()->actions())
        titles << menu->text().remove(QLatin1Char('&'));
    EXPECT_EQ(titles,
              (QStringList{"File", "Edit", "View", "Transport", "Process", "Effects", "Window", "Help"}));

    for (const MenuCommand& command : menuCommands()) {
        if (command.id == "clearRecent")
            continue;
        QAction* item = window.action(command.id);
        ASSERT_NE(item, nullptr) << command.id;
        if (command.id != "undo" && command.id != "redo") {
            EXPECT_EQ(item->text(), text(command.title));
        }
        QList<QKeySequence> expected;
        for (const std::string_view keys : {command.keys, command.alternativeKeys})
            if (!keys.empty())
                expected << QKeySequence(text(keys), QKeySequence::PortableText);
        EXPECT_EQ(item->shortcuts(), expected) << command.id;
    }
    // No items of another platform's application menu.
    for (QAction* item : window.findChildren<QAction*>())
        for (const char* foreign :
             {"Services", "Hide Harlune", "Hide Others", "Show All", "Bring All to Front"})
            EXPECT_NE(item->text(), QString::fromUtf8(foreign));
}

} // namespace
} // namespace harlune
