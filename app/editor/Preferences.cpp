#include "editor/Preferences.h"

#include <QByteArray>
#include <QSettings>
#include <cmath>
#include <nlohmann/json.hpp>

namespace harlune::Preferences {

namespace {

QSettings openStore() {
    return QSettings(QStringLiteral("Harlune"), QStringLiteral("Harlune"));
}

std::optional<bool> parseBool(const QVariant& value) {
    if (value.typeId() == QMetaType::Bool)
        return value.toBool();
    const QString text = value.toString().trimmed().toLower();
    if (text == QLatin1String("true") || text == QLatin1String("1") || text == QLatin1String("yes"))
        return true;
    if (text == QLatin1String("false") || text == QLatin1String("0") || text == QLatin1String("no"))
        return false;
    return std::nullopt;
}

std::optional<double> parseDouble(const QVariant& value) {
    bool ok = false;
    const double number =
        value.typeId() == QMetaType::QString ? value.toString().trimmed().toDouble(&ok) : value.toDouble(&ok);
    if (!ok || !std::isfinite(number))
        return std::nullopt;
    return number;
}

QVariant storedValue(const QString& key) {
    // Constructed per call: QSettings caches the file, and a short-lived object never holds a
    // stale view when another document has written meanwhile.
    const QSettings settings = openStore();
    return settings.value(key);
}

} // namespace

const QVariantMap& registrationDefaults() {
    static const QVariantMap defaults{
        {QString(Keys::timeFormat), QStringLiteral("hms")},
        {QString(Keys::snapToZeroCrossings), false},
        {QString(Keys::loudnessTarget), -14.0},
        {QString(Keys::truePeakCeiling), -1.0},
        {QString(Keys::fadeShape), QStringLiteral("sCurve")},
        {QString(Keys::showLoudnessLane), true},
        {QString(Keys::showInspector), true},
        {QString(Keys::loudnessLaneHeight), 130.0},
        {QString(Keys::timePitchEngine), QStringLiteral("finer")},
    };
    return defaults;
}

QVariant value(const QString& key) {
    const QVariant stored = storedValue(key);
    return stored.isValid() ? stored : registrationDefaults().value(key);
}

bool boolValue(const QString& key) {
    if (const auto parsed = parseBool(storedValue(key)))
        return *parsed;
    return parseBool(registrationDefaults().value(key)).value_or(false);
}

double doubleValue(const QString& key) {
    if (const auto parsed = parseDouble(storedValue(key)))
        return *parsed;
    return parseDouble(registrationDefaults().value(key)).value_or(0.0);
}

QString stringValue(const QString& key) {
    return value(key).toString();
}

void setValue(const QString& key, const QVariant& newValue) {
    QSettings settings = openStore();
    settings.setValue(key, newValue);
}

QString encodeSettingsKey(ExportFormat format) {
    const std::string_view raw = rawValue(format);
    return QStringLiteral("encode.") + QString::fromUtf8(raw.data(), static_cast<qsizetype>(raw.size()));
}

EncodeSettings encodeSettings(ExportFormat format) {
    const QByteArray data = storedValue(encodeSettingsKey(format)).toByteArray();
    if (!data.isEmpty()) {
        // Undecodable data is treated as missing: the defaults are the designed fallback.
        try {
            const auto decoded = nlohmann::json::parse(data.begin(), data.end()).get<EncodeSettings>();
            if (decoded.format == format)
                return decoded.normalized();
        } catch (const nlohmann::json::exception&) {
        }
    }
    return EncodeSettings::defaults(format);
}

ExportFormat lastExportFormat() {
    const QByteArray raw = storedValue(QString(Keys::lastExportFormat)).toString().toUtf8();
    return exportFormatFromRawValue(std::string_view(raw.constData(), static_cast<size_t>(raw.size())))
        .value_or(ExportFormat::wav);
}

void store(const EncodeSettings& settings) {
    QSettings settingsStore = openStore();
    try {
        const std::string json = nlohmann::json(settings).dump();
        settingsStore.setValue(encodeSettingsKey(settings.format),
                               QByteArray(json.data(), static_cast<qsizetype>(json.size())));
    } catch (const nlohmann::json::exception&) {
        // Settings that can't be encoded are not kept; the format is still remembered.
    }
    const std::string_view raw = rawValue(settings.format);
    settingsStore.setValue(QString(Keys::lastExportFormat),
                           QString::fromUtf8(raw.data(), static_cast<qsizetype>(raw.size())));
}

TimePitch::Engine timePitchEngine() {
    const QByteArray raw = stringValue(QString(Keys::timePitchEngine)).toUtf8();
    return TimePitch::engineFromRawValue(std::string_view(raw.constData(), static_cast<size_t>(raw.size())))
        .value_or(TimePitch::Engine::finer);
}

void setTimePitchEngine(TimePitch::Engine engine) {
    const std::string_view raw = TimePitch::rawValue(engine);
    setValue(QString(Keys::timePitchEngine),
             QString::fromUtf8(raw.data(), static_cast<qsizetype>(raw.size())));
}

} // namespace harlune::Preferences
