#include "editor/Preferences.h"

#include "editor/EditorModel.h"
#include "editor/EditorTestSupport.h"

#include <QSettings>
#include <QStandardPaths>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace harlune {
namespace {

class PreferencesTest : public ::testing::Test {
protected:
    void SetUp() override { testing::clearPreferences(); }

    static void storeRaw(const QString& key, const QVariant& value) {
        QSettings settings("Harlune", "Harlune");
        settings.setValue(key, value);
    }

    static void storeJSON(ExportFormat under, const nlohmann::json& json) {
        const std::string text = json.dump();
        storeRaw(Preferences::encodeSettingsKey(under),
                 QByteArray(text.data(), static_cast<qsizetype>(text.size())));
    }
};

TEST_F(PreferencesTest, TheStoreIsAScratchFolder) {
    const QSettings settings("Harlune", "Harlune");
    const QString home = QStandardPaths::writableLocation(QStandardPaths::HomeLocation);
    EXPECT_FALSE(settings.fileName().startsWith(home + "/.config/")) << settings.fileName().toStdString();
}

TEST_F(PreferencesTest, RegisteredDefaultsWhenNothingIsStored) {
    using namespace Preferences;
    EXPECT_EQ(stringValue(Keys::timeFormat), "hms");
    EXPECT_FALSE(boolValue(Keys::snapToZeroCrossings));
    EXPECT_DOUBLE_EQ(doubleValue(Keys::loudnessTarget), -14.0);
    EXPECT_DOUBLE_EQ(doubleValue(Keys::truePeakCeiling), -1.0);
    EXPECT_EQ(stringValue(Keys::fadeShape), "sCurve");
    EXPECT_TRUE(boolValue(Keys::showLoudnessLane));
    EXPECT_TRUE(boolValue(Keys::showInspector));
    EXPECT_DOUBLE_EQ(doubleValue(Keys::loudnessLaneHeight), 130.0);
    EXPECT_EQ(stringValue(Keys::timePitchEngine), "finer");
    EXPECT_EQ(registrationDefaults().size(), 9);
    EXPECT_FALSE(value(Keys::lastExportFormat).isValid());
    // Reading defaults writes nothing.
    EXPECT_TRUE(QSettings("Harlune", "Harlune").allKeys().isEmpty());
}

TEST_F(PreferencesTest, TextValuesAreReadAsTheirType) {
    using namespace Preferences;
    storeRaw(Keys::snapToZeroCrossings, "true");
    storeRaw(Keys::showInspector, "false");
    storeRaw(Keys::loudnessTarget, " -23.5 ");
    EXPECT_TRUE(boolValue(Keys::snapToZeroCrossings));
    EXPECT_FALSE(boolValue(Keys::showInspector));
    EXPECT_DOUBLE_EQ(doubleValue(Keys::loudnessTarget), -23.5);

    // Unreadable values fall back to the registered default.
    storeRaw(Keys::showLoudnessLane, "perhaps");
    storeRaw(Keys::truePeakCeiling, "loud");
    storeRaw(Keys::loudnessLaneHeight, "nan");
    EXPECT_TRUE(boolValue(Keys::showLoudnessLane));
    EXPECT_DOUBLE_EQ(doubleValue(Keys::truePeakCeiling), -1.0);
    EXPECT_DOUBLE_EQ(doubleValue(Keys::loudnessLaneHeight), 130.0);
}

TEST_F(PreferencesTest, EncodeSettingsFallBackToTheFormatsDefaults) {
    using Preferences::encodeSettings;
    for (const ExportFormat format : allExportFormats())
        EXPECT_EQ(encodeSettings(format), EncodeSettings::defaults(format));

    // Stored settings for FLAC come back normalised.
    EncodeSettings flac = EncodeSettings::defaults(ExportFormat::flac);
    flac.bitDepth = PCMBitDepth::int16;
    flac.sampleRate = 44100;
    storeJSON(ExportFormat::flac, flac);
    EXPECT_EQ(encodeSettings(ExportFormat::flac), flac.normalized());
    EXPECT_EQ(encodeSettings(ExportFormat::flac).bitDepth, PCMBitDepth::int16);

    // JSON naming another format counts as missing.
    storeJSON(ExportFormat::aiff, EncodeSettings::defaults(ExportFormat::wav));
    EXPECT_EQ(encodeSettings(ExportFormat::aiff), EncodeSettings::defaults(ExportFormat::aiff));

    // So do broken JSON, a missing key and an unknown raw value.
    storeRaw(Preferences::encodeSettingsKey(ExportFormat::mp3), QByteArray("{not json"));
    EXPECT_EQ(encodeSettings(ExportFormat::mp3), EncodeSettings::defaults(ExportFormat::mp3));
    nlohmann::json missing = EncodeSettings::defaults(ExportFormat::opus);
    missing.erase("bitRateKbps");
    storeJSON(ExportFormat::opus, missing);
    EXPECT_EQ(encodeSettings(ExportFormat::opus), EncodeSettings::defaults(ExportFormat::opus));
    nlohmann::json unknown = EncodeSettings::defaults(ExportFormat::caf);
    unknown["dither"] = "loud";
    storeJSON(ExportFormat::caf, unknown);
    EXPECT_EQ(encodeSettings(ExportFormat::caf), EncodeSettings::defaults(ExportFormat::caf));
}

TEST_F(PreferencesTest, StoreKeepsSettingsAndTheLastFormat) {
    EXPECT_EQ(Preferences::lastExportFormat(), ExportFormat::wav);
    EncodeSettings mp3 = EncodeSettings::defaults(ExportFormat::mp3);
    mp3.bitRateKbps = 192;
    Preferences::store(mp3);
    EXPECT_EQ(Preferences::lastExportFormat(), ExportFormat::mp3);
    EXPECT_EQ(Preferences::encodeSettings(ExportFormat::mp3), mp3.normalized());
    EXPECT_TRUE(QSettings("Harlune", "Harlune").contains("encode.mp3"));
    EXPECT_EQ(QSettings("Harlune", "Harlune").value("lastExportFormat").toString(), "mp3");

    storeRaw(Preferences::Keys::lastExportFormat, "wma");
    EXPECT_EQ(Preferences::lastExportFormat(), ExportFormat::wav);
}

TEST_F(PreferencesTest, TheTimePitchEngineIsR3UnlessR2WasChosen) {
    using Preferences::timePitchEngine;
    EXPECT_EQ(timePitchEngine(), TimePitch::Engine::finer);
    Preferences::setTimePitchEngine(TimePitch::Engine::faster);
    EXPECT_EQ(QSettings("Harlune", "Harlune").value("timePitchEngine").toString(), "faster");
    EXPECT_EQ(timePitchEngine(), TimePitch::Engine::faster);
    storeRaw(Preferences::Keys::timePitchEngine, "R2");
    EXPECT_EQ(timePitchEngine(), TimePitch::Engine::finer);
}

TEST_F(PreferencesTest, TheModelReadsItsPreferencesOnceAndWritesThemBack) {
    using namespace Preferences;
    storeRaw(Keys::loudnessLaneHeight, "50");
    storeRaw(Keys::timeFormat, "fortnights");
    storeRaw(Keys::snapToZeroCrossings, "true");
    storeRaw(Keys::loudnessTarget, "-23");
    storeRaw(Keys::truePeakCeiling, "-2");
    storeRaw(Keys::showInspector, "false");
    storeRaw(Keys::showLoudnessLane, "false");

    EditorModel model(testing::rampContent(10), std::nullopt);
    EXPECT_DOUBLE_EQ(model.loudnessLaneHeight(), 80);
    EXPECT_EQ(model.timeFormat(), TimeFormat::hms);
    EXPECT_TRUE(model.snapToZeroCrossings());
    EXPECT_DOUBLE_EQ(model.targetLUFS(), -23);
    EXPECT_DOUBLE_EQ(model.ceilingDBTP(), -2);
    EXPECT_FALSE(model.showInspector());
    EXPECT_FALSE(model.showLoudnessLane());

    model.setTimeFormat(TimeFormat::samples);
    model.setLoudnessLaneHeight(200);
    model.setTargetLUFS(-16);
    model.setCeilingDBTP(-1.5);
    model.setShowInspector(true);
    model.setShowLoudnessLane(true);
    model.setSnapToZeroCrossings(false);
    QSettings("Harlune", "Harlune").sync();
    EXPECT_EQ(stringValue(Keys::timeFormat), "samples");
    EXPECT_DOUBLE_EQ(doubleValue(Keys::loudnessLaneHeight), 200);
    EXPECT_DOUBLE_EQ(doubleValue(Keys::loudnessTarget), -16);
    EXPECT_DOUBLE_EQ(doubleValue(Keys::truePeakCeiling), -1.5);
    EXPECT_TRUE(boolValue(Keys::showInspector));
    EXPECT_TRUE(boolValue(Keys::showLoudnessLane));
    EXPECT_FALSE(boolValue(Keys::snapToZeroCrossings));

    // Fields that are not preferences write nothing.
    QSettings settings("Harlune", "Harlune");
    const auto keys = settings.allKeys();
    model.setShowGrid(true);
    model.setManualGainDB(3);
    EXPECT_EQ(QSettings("Harlune", "Harlune").allKeys(), keys);
}

} // namespace
} // namespace harlune
