// The measurements the model keeps current behind the user's back: debounce, cancellation, the
// rules of each kind, and figures checked against measurements made here from scratch.
#include "EditorTestSupport.h"
#include "core/EnvelopedSource.h"
#include "dsp/LoudnessAnalyzer.h"
#include "support/TestAudio.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <utility>

namespace harlune {
namespace {

using testing::AnalysisLog;
using testing::Planes;

constexpr double rate = 48000;

// Noise with its own level per channel (amplitude 0 leaves the channel silent).
Planes scaledNoise(const std::vector<float>& amplitudes, int64_t frames, uint32_t seed = 3) {
    Planes planes = testing::noisePlanes(static_cast<int>(amplitudes.size()), frames, seed);
    for (size_t c = 0; c < planes.size(); ++c)
        for (float& x : planes[c])
            x *= amplitudes[c];
    return planes;
}

AudioContent noise(int channels, int64_t frames, float amplitude = 0.25f, uint32_t seed = 3) {
    return AudioContent(
        scaledNoise(std::vector<float>(static_cast<size_t>(channels), amplitude), frames, seed), rate);
}

class LoudnessAnalysisSchedulerTest : public testing::MeasuredModelTest {
protected:
    // Records each published whole-file figure, then waits until the last job is done.
    std::vector<double> publishedAfter(const std::function<void()>& change) {
        std::vector<double> figures;
        QObject::connect(model.get(), &EditorModel::loudnessChanged, model.get(), [&] {
            if (model->loudness())
                figures.push_back(model->loudness()->integratedLUFS);
        });
        change();
        EXPECT_TRUE(settled());
        QTest::qWait(LoudnessAnalysisScheduler::envelopeDelayMs + 50);
        testing::drainJobs();
        QObject::disconnect(model.get(), &EditorModel::loudnessChanged, model.get(), nullptr);
        return figures;
    }
};

TEST_F(LoudnessAnalysisSchedulerTest, aBurstOfEditsMeasuresOnceAfterTheLastEdit) {
    open(noise(2, 24000));
    const int before = log->measured(AnalysisKind::file);

    // Back to back: every timer but the last finds its job cancelled.
    for (int i = 1; i <= 5; ++i) {
        model->setContent(noise(2, 24000 + 1000 * i, 0.25f, static_cast<uint32_t>(i)));
        EXPECT_TRUE(model->isAnalyzing());
        QCoreApplication::processEvents();
    }
    const qint64 lastEdit = log->clock.elapsed();
    // Only the latest job clears the flag. Every earlier timer was armed before its own, so
    // has fired by then.
    ASSERT_TRUE(settled());
    ASSERT_EQ(log->measured(AnalysisKind::file), before + 1);
    EXPECT_GE(log->measuring.back().second - lastEdit, 140);
    EXPECT_EQ(log->publishedCount(AnalysisKind::file), 2);
    EXPECT_FALSE(running(AnalysisKind::file));
    // What was published is the last content's figure.
    const LoudnessResult expected = LoudnessAnalyzer::analyze(noise(2, 29000, 0.25f, 5));
    ASSERT_TRUE(model->contentLoudness());
    EXPECT_EQ(model->contentLoudness()->integratedLUFS, expected.integratedLUFS);
}

TEST_F(LoudnessAnalysisSchedulerTest, theFileFiguresWithAndWithoutEnvelopes) {
    const Planes planes = scaledNoise({0.3f, 0.1f}, 48000);
    open(AudioContent(planes, rate));
    ASSERT_TRUE(model->loudness() && model->contentLoudness());
    // With a flat envelope set both figures are one measurement.
    EXPECT_EQ(*model->loudness(), *model->contentLoudness());
    ASSERT_EQ(model->channelLoudness().size(), 2u);
    const LoudnessResult bare = *model->contentLoudness();
    const std::vector<double> bareChannels = model->channelLoudness();

    // A constant -6 dB on the master lowers everything measured through the envelopes by 6 LU.
    model->setEnvelopes(EnvelopeSet(GainEnvelope({EnvelopePoint(0, -6)})));
    ASSERT_TRUE(log->waitForPublished(AnalysisKind::envelope));
    EXPECT_EQ(log->measured(AnalysisKind::file), 1); // the bare figure was not measured again
    ASSERT_TRUE(model->loudness());
    EXPECT_NEAR(model->loudness()->integratedLUFS, bare.integratedLUFS - 6, 0.01);
    EXPECT_EQ(*model->contentLoudness(), bare);
    ASSERT_EQ(model->channelLoudness().size(), 2u);
    for (size_t c = 0; c < 2; ++c)
        EXPECT_NEAR(model->channelLoudness()[c], bareChannels[c] - 6, 0.01);

    // A content change measures both again, the enveloped one through the envelopes.
    model->setContent(AudioContent(planes, rate).slice({0, 40000}));
    ASSERT_TRUE(log->waitForPublished(AnalysisKind::file, 2));
    const AudioContent shorter = AudioContent(planes, rate).slice({0, 40000});
    EXPECT_EQ(model->contentLoudness()->integratedLUFS, LoudnessAnalyzer::analyze(shorter).integratedLUFS);
    EXPECT_NEAR(model->loudness()->integratedLUFS, model->contentLoudness()->integratedLUFS - 6, 0.01);
}

// Every figure the panel shows belongs to the state that stands when it lands: one measured on
// older content or older envelopes is dropped, never shown for a moment.
TEST_F(LoudnessAnalysisSchedulerTest, aFileLoadedAfterOneWithEnvelopesIsMeasuredBare) {
    open(noise(2, 48000 * 2, 0.3f, 4));
    model->setEnvelopes(EnvelopeSet(GainEnvelope({EnvelopePoint(0, -20)})));
    ASSERT_TRUE(log->waitForPublished(AnalysisKind::envelope));

    const AudioContent loaded = noise(2, 48000 * 2, 0.3f, 5);
    const double bare = LoudnessAnalyzer::analyze(loaded).integratedLUFS;
    const std::vector<double> figures = publishedAfter([&] { model->load(loaded, std::nullopt); });
    ASSERT_FALSE(figures.empty());
    for (const double figure : figures)
        EXPECT_NEAR(figure, bare, 0.01);
}

TEST_F(LoudnessAnalysisSchedulerTest, envelopesChangedRightAfterAnEditAreMeasuredWithTheEdit) {
    open(noise(2, 48000 * 2, 0.3f, 4));
    const AudioContent edited = noise(2, 48000 * 3, 0.3f, 6);
    const EnvelopeSet quieter(GainEnvelope({EnvelopePoint(0, -12)}));
    const double expected = LoudnessAnalyzer::analyze(EnvelopedSource(edited, quieter)).integratedLUFS;
    const std::vector<double> figures = publishedAfter([&] {
        model->setContent(edited);
        model->setEnvelopes(quieter);
    });
    ASSERT_FALSE(figures.empty());
    for (const double figure : figures)
        EXPECT_NEAR(figure, expected, 0.01);
    EXPECT_EQ(model->contentLoudness()->integratedLUFS, LoudnessAnalyzer::analyze(edited).integratedLUFS);
}

TEST_F(LoudnessAnalysisSchedulerTest, eachChannelMeasuresLikeAContentOfThatChannelAlone) {
    const Planes planes = scaledNoise({0.5f, 0.05f, 0.0f}, 72000);
    open(AudioContent(planes, rate));
    const std::vector<double>& figures = model->channelLoudness();
    ASSERT_EQ(figures.size(), 3u);
    for (size_t c = 0; c < 2; ++c) {
        const double alone = LoudnessAnalyzer::analyze(AudioContent({planes[c]}, rate)).integratedLUFS;
        EXPECT_NEAR(figures[c], alone, 1e-6) << "channel " << c;
    }
    EXPECT_EQ(figures[2], -std::numeric_limits<double>::infinity()); // silent
    EXPECT_GT(figures[0], figures[1] + 15);
}

TEST_F(LoudnessAnalysisSchedulerTest, channelFiguresOnlyFromTwoToEightChannels) {
    for (const int channels : {1, 9}) {
        model = testing::measuredModel(noise(channels, 24000), log, probe);
        ASSERT_TRUE(settled());
        ASSERT_TRUE(model->loudness()) << channels;
        EXPECT_TRUE(std::isfinite(model->loudness()->integratedLUFS)) << channels;
        EXPECT_TRUE(model->channelLoudness().empty()) << channels;
    }
    EXPECT_EQ(measureChannels(noise(2, 24000)).size(), 2u);
    EXPECT_EQ(measureChannels(noise(8, 24000)).size(), 8u);
    // A measurement that fails gives negative infinity for its channel.
    const std::vector<double> failed =
        measureChannels(noise(3, 24000), FunctionRef<bool(double)>([](double) { return false; }));
    ASSERT_EQ(failed.size(), 3u);
    for (const double figure : failed)
        EXPECT_EQ(figure, -std::numeric_limits<double>::infinity());
}

TEST_F(LoudnessAnalysisSchedulerTest, aSelectionMustBeLongerThan400ms) {
    open(noise(2, 48000));
    LoudnessResult stale;
    stale.integratedLUFS = -3;
    model->setSelectionLoudness(stale);

    // 19200 frames are exactly 400 ms at 48 kHz: cleared at once, nothing measured.
    model->setSelection(FrameRange{1000, 20200});
    EXPECT_FALSE(model->selectionLoudness());
    EXPECT_FALSE(running(AnalysisKind::selection));
    QTest::qWait(LoudnessAnalysisScheduler::selectionDelayMs + 150);
    EXPECT_EQ(log->measured(AnalysisKind::selection), 0);

    model->setSelection(FrameRange{1000, 20201});
    EXPECT_TRUE(running(AnalysisKind::selection));
    ASSERT_TRUE(log->waitForPublished(AnalysisKind::selection));
    ASSERT_TRUE(model->selectionLoudness());
    const LoudnessResult expected = LoudnessAnalyzer::analyze(noise(2, 48000), FrameRange{1000, 20201});
    EXPECT_EQ(model->selectionLoudness()->integratedLUFS, expected.integratedLUFS);
    EXPECT_EQ(model->selectionLoudness()->samplePeakDBFS, expected.samplePeakDBFS);

    // Through the envelopes: a -10 dB master takes the selection's figure 10 LU down.
    model->setEnvelopes(EnvelopeSet(GainEnvelope({EnvelopePoint(0, -10)})));
    ASSERT_TRUE(log->waitForPublished(AnalysisKind::selection, 2));
    EXPECT_NEAR(model->selectionLoudness()->integratedLUFS, expected.integratedLUFS - 10, 0.01);

    model->setSelection(std::nullopt);
    EXPECT_FALSE(model->selectionLoudness());
}

TEST_F(LoudnessAnalysisSchedulerTest, anEmptyContentClearsTheFiguresAtOnce) {
    open(noise(2, 24000));
    ASSERT_TRUE(model->loudness());
    model->setContent(AudioContent(2, rate));
    EXPECT_FALSE(model->loudness());
    EXPECT_FALSE(model->contentLoudness());
    EXPECT_TRUE(model->channelLoudness().empty());
    EXPECT_FALSE(model->isAnalyzing());
    EXPECT_FALSE(running(AnalysisKind::file));
}

TEST_F(LoudnessAnalysisSchedulerTest, anEditDuringAMeasurementDiscardsIt) {
    const AudioContent second = noise(2, 24000, 0.1f, 9);
    bool edited = false;
    // The edit comes from inside the first job, once its debounce is over: its result must not land.
    model = testing::measuredModel(noise(2, 96000, 0.5f), log, probe, nullptr, [&] {
        if (!std::exchange(edited, true))
            model->setContent(second);
    });
    ASSERT_TRUE(log->waitForPublished(AnalysisKind::file));
    testing::drainJobs();
    EXPECT_EQ(log->measured(AnalysisKind::file), 2);
    EXPECT_EQ(log->publishedCount(AnalysisKind::file), 1);
    EXPECT_EQ(model->contentLoudness()->integratedLUFS, LoudnessAnalyzer::analyze(second).integratedLUFS);
    model.reset(); // before the hook's references go
}

TEST_F(LoudnessAnalysisSchedulerTest, aModelClosedMidMeasurementTakesNothing) {
    // Long enough that the job is still walking when the model goes.
    model = testing::measuredModel(noise(4, 48000 * 20), log, probe);
    model->setEnvelopes(EnvelopeSet(GainEnvelope({EnvelopePoint(0, -3)})));
    model->setSelection(FrameRange{0, 48000 * 10});
    ASSERT_TRUE(QTest::qWaitFor([&] { return log->measured(AnalysisKind::file) == 1; }, 20000));
    model.reset();
    testing::drainJobs();
    QTest::qWait(LoudnessAnalysisScheduler::envelopeDelayMs + 50);
    testing::drainJobs();
    EXPECT_TRUE(log->published.empty());
}

TEST_F(LoudnessAnalysisSchedulerTest, nothingIsMeasuredWhileSuspendedAndLoadingResumes) {
    open(noise(2, 24000));
    model->analysisSuspended() = true;
    model->setContent(noise(2, 30000));
    model->setEnvelopes(EnvelopeSet(GainEnvelope({EnvelopePoint(0, -3)})));
    model->setSelection(FrameRange{0, 30000});
    EXPECT_FALSE(running(AnalysisKind::file));
    EXPECT_FALSE(running(AnalysisKind::envelope));
    EXPECT_FALSE(running(AnalysisKind::selection));
    QTest::qWait(LoudnessAnalysisScheduler::envelopeDelayMs + 100);
    EXPECT_EQ(log->measuring.size(), 1u); // the first file measurement only

    const AudioContent loaded = noise(2, 36000, 0.2f, 11);
    model->load(loaded, std::nullopt);
    EXPECT_FALSE(model->analysisSuspended());
    EXPECT_TRUE(model->isAnalyzing());
    ASSERT_TRUE(log->waitForPublished(AnalysisKind::file, 2));
    EXPECT_EQ(model->contentLoudness()->integratedLUFS, LoudnessAnalyzer::analyze(loaded).integratedLUFS);
}

} // namespace
} // namespace harlune
