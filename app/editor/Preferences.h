#pragma once

#include "base/AudioFormats.h"
#include "timepitch/TimePitch.h"

#include <QLatin1String>
#include <QString>
#include <QVariant>
#include <QVariantMap>

namespace harlune {

/// The persistent preferences, shared by all documents, in QSettings("Harlune", "Harlune").
/// QSettings knows no registered defaults, so this layer supplies them: a key that was never
/// stored reads as its default. Values may come back as text (the INI back end stores
/// everything as strings), so the typed readers parse them and fall back to the default on
/// anything unreadable.
namespace Preferences {

namespace Keys {
inline constexpr QLatin1String timeFormat{"timeFormat"};
inline constexpr QLatin1String snapToZeroCrossings{"snapToZeroCrossings"};
inline constexpr QLatin1String loudnessTarget{"loudnessTarget"};
inline constexpr QLatin1String truePeakCeiling{"truePeakCeiling"};
inline constexpr QLatin1String fadeShape{"fadeShape"};
inline constexpr QLatin1String showLoudnessLane{"showLoudnessLane"};
inline constexpr QLatin1String showInspector{"showInspector"};
inline constexpr QLatin1String loudnessLaneHeight{"loudnessLaneHeight"};
inline constexpr QLatin1String lastExportFormat{"lastExportFormat"};
inline constexpr QLatin1String timePitchEngine{"timePitchEngine"};
} // namespace Keys

/// The keys with a default and their values; never written to the store.
const QVariantMap& registrationDefaults();

/// The stored value, else the registered default, else an invalid variant.
QVariant value(const QString& key);
bool boolValue(const QString& key);
double doubleValue(const QString& key);
QString stringValue(const QString& key);
void setValue(const QString& key, const QVariant& value);

/// "encode." followed by the format's raw value: where that format's settings are kept.
QString encodeSettingsKey(ExportFormat format);
/// The stored settings of the format, normalised; the format's defaults when none are stored,
/// they can't be decoded, or they name another format.
EncodeSettings encodeSettings(ExportFormat format);
/// The format of the last export; `wav` when missing or unknown.
ExportFormat lastExportFormat();
/// Keeps the settings under their format's key and records the format as the last one used.
void store(const EncodeSettings& settings);

/// The engine of tempo and pitch changes: R3 ("finer") unless R2 ("faster") was chosen, for
/// long files where its lower cost matters more than its sound.
TimePitch::Engine timePitchEngine();
void setTimePitchEngine(TimePitch::Engine engine);

} // namespace Preferences

} // namespace harlune
