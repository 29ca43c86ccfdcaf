#pragma once

#include <QColor>
#include <QIcon>
#include <QStringList>
#include <optional>

namespace harlune::SymbolIcons {

/// The names of the bundled symbols: "gauge.with.dots.needle.67percent",
/// "gauge.with.dots.needle.33percent", "waveform.path.ecg", "info.circle", "flag", "flag.fill",
/// "sparkles", "plus", "xmark.circle.fill", "slider.horizontal.3", "waveform.badge.exclamationmark",
/// and the toolbar's "playpause.fill", "stop.fill", "sidebar.right".
QStringList names();

/// The symbol, drawn from its SVG at whatever size is asked. Without a colour it takes the
/// application palette's window text colour (its disabled form for a disabled icon) each time it
/// is drawn, so it follows a change between light and dark. A null icon for an unknown name.
QIcon icon(const QString& name, std::optional<QColor> colour = std::nullopt);

} // namespace harlune::SymbolIcons
