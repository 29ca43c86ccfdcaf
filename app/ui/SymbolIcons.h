#pragma once

#include <QColor>
#include <QIcon>
#include <QStringList>

namespace harlune::SymbolIcons {

/// The names of the bundled symbols: "gauge.with.dots.needle.67percent",
/// "gauge.with.dots.needle.33percent", "waveform.path.ecg", "info.circle", "flag", "flag.fill",
/// "sparkles", "plus", "xmark.circle.fill", "slider.horizontal.3", "waveform.badge.exclamationmark".
QStringList names();

/// The symbol drawn in `colour` (the palette's text colour suits tabs and buttons), at the sizes
/// of tabs, buttons and list rows. A null icon for an unknown name.
QIcon icon(const QString& name, const QColor& colour);

} // namespace harlune::SymbolIcons
