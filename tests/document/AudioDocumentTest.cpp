// The document on real files: written by the kit's encoder, opened, saved and exported, and read
// back by the decoder.
#include "document/AudioDocument.h"

#include "base/HarluneError.h"
#include "core/EnvelopedSource.h"
#include "document/SaveSettings.h"
#include "editor/EditorTestSupport.h"
#include "editor/Preferences.h"
#include "io/AudioDecoder.h"
#include "io/AudioEncoder.h"
#include "support/TestAudio.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <cmath>
#include <fstream>
#include <gtest/gtest.h>

namespace harlune {
namespace {

using testing::Planes;

constexpr double rate = 48000;

EncodeSettings settingsOf(ExportFormat format, PCMBitDepth depth) {
    EncodeSettings settings = EncodeSettings::defaults(format);
    settings.bitDepth = depth;
    settings.dither = DitherMode::none;
    return settings;
}

Planes quietNoise(int channels, int64_t frames) {
    Planes planes = testing::noisePlanes(channels, frames, 7);
    for (auto& plane : planes)
        for (float& x : plane)
            x *= 0.5f;
    return planes;
}

class AudioDocumentTest : public ::testing::Test {
protected:
    void SetUp() override {
        testing::clearPreferences();
        ASSERT_TRUE(folder.isValid());
    }
    void TearDown() override { testing::drainJobs(); }

    std::filesystem::path path(const char* name) const {
        return folder.filePath(QLatin1String(name)).toStdString();
    }

    /// A file of `planes` in `format`, written by the kit's encoder.
    std::filesystem::path written(const char* name, const Planes& planes, const EncodeSettings& settings) {
        const std::filesystem::path url = path(name);
        AudioEncoder::write(AudioContent(planes, rate), std::nullopt, url, settings);
        return url;
    }

    /// Opens and waits for the end; true when it ended in `opened`.
    bool openAndWait(const std::filesystem::path& url) {
        QSignalSpy opened(&document, &AudioDocument::opened);
        QSignalSpy failed(&document, &AudioDocument::openFailed);
        document.open(url);
        return QTest::qWaitFor([&] { return opened.count() + failed.count() > 0; }, 20000) &&
               opened.count() == 1;
    }

    /// Runs a save or export and waits; the message of a failure, empty on success.
    std::optional<QString> writeAndWait(const std::function<void()>& write) {
        QSignalSpy done(&document, &AudioDocument::written);
        QSignalSpy failed(&document, &AudioDocument::writeFailed);
        write();
        EXPECT_TRUE(QTest::qWaitFor([&] { return done.count() + failed.count() > 0; }, 20000));
        if (failed.count() > 0)
            return failed.front().front().toString();
        return std::nullopt;
    }

    QTemporaryDir folder;
    AudioDocument document{[] {
        EditorCollaborators collaborators;
        collaborators.analysis = std::make_unique<NullAnalysisScheduler>();
        return collaborators;
    }()};
};

TEST_F(AudioDocumentTest, OpeningReadsTheFileIntoTheModelBehindTheBusyState) {
    const Planes planes = quietNoise(2, 70000);
    const auto url = written("take one.wav", planes, settingsOf(ExportFormat::wav, PCMBitDepth::int24));
    EXPECT_EQ(document.displayName(), "Untitled");

    QSignalSpy busy(&document.model(), &EditorModel::busyChanged);
    ASSERT_TRUE(openAndWait(url));
    ASSERT_GE(busy.count(), 2);
    EXPECT_FALSE(document.model().busy());
    EXPECT_EQ(document.displayName(), "take one.wav");
    ASSERT_EQ(document.model().content().frameCount(), 70000);
    const Planes read = testing::planesOf(document.model().content());
    for (size_t c = 0; c < 2; ++c)
        for (size_t i = 0; i < planes[c].size(); i += 13)
            ASSERT_NEAR(read[c][i], planes[c][i], 1.0 / (1 << 23)) << c << " " << i;
    ASSERT_TRUE(document.model().fileInfo());
    EXPECT_EQ(document.model().fileInfo()->bitDepth, 24);
    ASSERT_TRUE(document.saveSettings());
    EXPECT_EQ(document.saveSettings()->bitDepth, PCMBitDepth::int24);
    EXPECT_FALSE(document.isDirty());
    EXPECT_EQ(document.undoStack().count(), 0);
}

TEST_F(AudioDocumentTest, ALongFileReadInPartsJoinsThemInOrderIntoWholeBlocks) {
    // Over two parts' worth of frames (the decoder splits from 2^20 frames a part), each frame
    // distinct, so that a part out of order or a frame lost at a joint shows.
    constexpr int64_t frames = (1 << 21) + 12345;
    Planes planes(2, std::vector<float>(static_cast<size_t>(frames)));
    for (size_t i = 0; i < planes[0].size(); ++i) {
        planes[0][i] = static_cast<float>(static_cast<int64_t>(i) % 60000 - 30000) / 32768.0f;
        planes[1][i] = static_cast<float>(static_cast<int64_t>(i / 60000) - 20) / 32768.0f;
    }
    const auto url = written("long.flac", planes, settingsOf(ExportFormat::flac, PCMBitDepth::int16));
    ASSERT_TRUE(openAndWait(url));
    const AudioContent& content = document.model().content();
    ASSERT_EQ(content.frameCount(), frames);
    EXPECT_TRUE(testing::planesOf(content) == planes);
    // Parts start on block boundaries: only the last block is short.
    for (size_t s = 0; s + 1 < content.segments().size(); ++s)
        EXPECT_EQ(content.segments()[s].count, AudioBlock::preferredFrameCount) << "segment " << s;
}

TEST_F(AudioDocumentTest, AFileThatIsNotAudioFailsAtOnceAndChangesNothing) {
    const auto url = path("notes.wav");
    std::ofstream(url) << "not a sound";
    EXPECT_THROW(document.open(url), HarluneError);
    EXPECT_FALSE(document.file());
    EXPECT_FALSE(document.model().busy());
}

TEST_F(AudioDocumentTest, ACancelledOpenKeepsTheContentAndReportsNoError) {
    const auto url =
        written("long.wav", quietNoise(2, 48000 * 5), settingsOf(ExportFormat::wav, PCMBitDepth::int16));
    QSignalSpy failed(&document, &AudioDocument::openFailed);
    document.open(url);
    ASSERT_TRUE(document.model().busy());
    EXPECT_EQ(document.model().busy()->title, "Opening \u201Clong.wav\u201D");
    document.model().busy()->token->cancel();
    ASSERT_TRUE(QTest::qWaitFor([&] { return failed.count() == 1; }, 20000));
    EXPECT_EQ(failed.front().at(0).toString(), QString());
    EXPECT_TRUE(failed.front().at(1).toBool());
    EXPECT_EQ(document.model().content().frameCount(), 0);
}

TEST_F(AudioDocumentTest, SavingRendersTheEnvelopesAndKeepsThemEditable) {
    const Planes planes = quietNoise(2, 30000);
    document.adopt(AudioContent(planes, rate), QStringLiteral("Sketch"));
    EXPECT_EQ(document.displayName(), "Sketch");
    const EnvelopeSet envelopes(GainEnvelope({EnvelopePoint(0, 0), EnvelopePoint(30000, -12)}));
    document.model().setSelection(FrameRange{0, 10}, std::nullopt);
    document.model().deleteNamed(QStringLiteral("Delete"));
    document.model().setEnvelopes(envelopes);
    ASSERT_TRUE(document.isDirty());

    const auto url = path("sketch.wav");
    ASSERT_FALSE(
        writeAndWait([&] { document.save(url, settingsOf(ExportFormat::wav, PCMBitDepth::float32)); }));
    EXPECT_FALSE(document.isDirty());
    EXPECT_EQ(document.file(), url);
    EXPECT_EQ(document.displayName(), "sketch.wav");
    EXPECT_EQ(document.model().envelopes(), envelopes);
    ASSERT_TRUE(document.model().fileInfo());
    EXPECT_TRUE(document.model().fileInfo()->isFloat);

    // Float samples come back exactly as the envelopes rendered them.
    const auto read = AudioDecoder::decodeToArrays(url);
    EXPECT_EQ(read.channels, testing::planesOf(EnvelopedSource(document.model().content(), envelopes)));
}

TEST_F(AudioDocumentTest, AnExportCoversItsRangeAndLeavesTheDocumentAlone) {
    const Planes planes = quietNoise(2, 20000);
    document.adopt(AudioContent(planes, rate), QStringLiteral("Sketch"));
    document.model().insertSilence(100);
    ASSERT_TRUE(document.isDirty());

    const auto url = path("part.flac");
    ASSERT_FALSE(writeAndWait([&] {
        document.exportAudio(url, settingsOf(ExportFormat::flac, PCMBitDepth::int24), FrameRange{1000, 5000});
    }));
    EXPECT_TRUE(document.isDirty());
    EXPECT_FALSE(document.file());
    const auto read = AudioDecoder::decodeToArrays(url);
    ASSERT_EQ(read.channels.size(), 2u);
    ASSERT_EQ(read.channels[0].size(), 4000u);
    for (size_t c = 0; c < 2; ++c)
        for (size_t i = 0; i < 4000; i += 7)
            ASSERT_NEAR(read.channels[c][i], planes[c][i + 900], 1.0 / (1 << 23)) << c << " " << i;
}

TEST_F(AudioDocumentTest, AWriteThatFailsLeavesTheDocumentAsItWas) {
    document.adopt(AudioContent(quietNoise(1, 1000), rate), QStringLiteral("Sketch"));
    document.model().insertSilence(10);
    const auto message = writeAndWait([&] {
        document.save(path("missing/folder/out.wav"), settingsOf(ExportFormat::wav, PCMBitDepth::int16));
    });
    ASSERT_TRUE(message);
    EXPECT_FALSE(message->isEmpty());
    EXPECT_FALSE(document.file());
    EXPECT_TRUE(document.isDirty());
}

TEST_F(AudioDocumentTest, SettingsMatchingAFileWriteItBackAsItWas) {
    const auto info = [](std::optional<ExportFormat> format, std::optional<int> depth, bool isFloat,
                         std::optional<int> kbps) {
        AudioFileInfo result;
        result.nativeExportFormat = format;
        result.bitDepth = depth;
        result.isFloat = isFloat;
        result.bitRateKbps = kbps;
        return result;
    };
    // Stored WAV settings of 16 bits do not change what a 24-bit file is written back as.
    Preferences::store(settingsOf(ExportFormat::wav, PCMBitDepth::int16));
    EXPECT_EQ(settingsMatching(info(ExportFormat::wav, 24, false, {}))->bitDepth, PCMBitDepth::int24);
    EXPECT_EQ(settingsMatching(info(ExportFormat::wav, 32, true, {}))->bitDepth, PCMBitDepth::float32);
    EXPECT_EQ(settingsMatching(info(ExportFormat::aiff, 32, true, {}))->bitDepth, PCMBitDepth::int24);
    EXPECT_EQ(settingsMatching(info(ExportFormat::mp3, {}, false, 130))->bitRateKbps, 128);
    EXPECT_FALSE(settingsMatching(info(std::nullopt, 16, false, {})));
}

} // namespace
} // namespace harlune
