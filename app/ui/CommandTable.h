#pragma once

#include <QString>
#include <QStringList>
#include <span>
#include <string_view>

namespace harlune {

/// One menu item: a stable id the window controller acts on, its title, and its keys in Qt's
/// portable text ("Ctrl+Shift+S"). The first key is the one the menu shows; a second one is an
/// alternative that also triggers the item (Redo answers Ctrl+Y too). Keys are spelt out here
/// rather than taken from the platform's standard keys so that every binding can be checked for
/// clashes in one place.
struct MenuCommand {
    std::string_view id;
    std::string_view title;
    std::string_view keys = {};
    std::string_view alternativeKeys = {};
};

/// Every item of the menu bar that has an action, in menu order.
std::span<const MenuCommand> menuCommands();

/// The command with `id`; a missing id is a programmer error.
const MenuCommand& menuCommand(std::string_view id);

/// The item's key as a user reads it on Linux ("Ctrl+Alt+I"); empty when it has none.
QString keyText(std::string_view id);

/// The lines of the "Harlune Shortcuts" help, each key named from the table.
QStringList shortcutHelpLines();

} // namespace harlune
