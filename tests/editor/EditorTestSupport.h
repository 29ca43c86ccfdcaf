#pragma once

#include "core/AudioContent.h"
#include "editor/EditorModel.h"
#include "editor/LoudnessAnalysisScheduler.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSettings>
#include <QTest>
#include <QThreadPool>
#include <QUndoStack>
#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace harlune::testing {

/// What the model told its collaborators, counted by the fakes below.
struct Probe {
    /// Hand-overs of content and envelopes, and what the last one held.
    int handovers = 0;
    std::optional<AudioContent> content;
    EnvelopeSet envelopes;
    FrameRange lastRange;
    int setLooping = 0;
    bool lastLooping = false;
    int pause = 0;
    int setPosition = 0;
    int64_t lastPosition = -1;
    int setGain = 0;
    float lastGain = 1.0f;
    int setEnvelopes = 0;
    int starts = 0;
    int scheduleAnalysis = 0;
    int scheduleSelectionAnalysis = 0;
    int scheduleEnvelopeAnalysis = 0;
};

class ProbePlayer final : public PlaybackControl {
public:
    explicit ProbePlayer(std::shared_ptr<Probe> probe) : probe_(std::move(probe)) {}
    void setAudio(const AudioContent& content, const EnvelopeSet& envelopes, FrameRange range) override {
        ++probe_->handovers;
        probe_->content = content;
        probe_->envelopes = envelopes;
        probe_->lastRange = range;
    }
    void setLooping(bool looping) override {
        ++probe_->setLooping;
        probe_->lastLooping = looping;
    }
    void pause() override { ++probe_->pause; }
    void setPosition(int64_t frame) override {
        ++probe_->setPosition;
        probe_->lastPosition = frame;
    }
    void setGain(float gain) override {
        ++probe_->setGain;
        probe_->lastGain = gain;
    }
    void setEnvelopes(const EnvelopeSet&) override { ++probe_->setEnvelopes; }
    void ensureGraph(const AudioContent&) override {}
    void start(const AudioContent&, FrameRange range, int64_t from, bool, float) override {
        ++probe_->starts;
        probe_->lastRange = range;
        probe_->lastPosition = from;
    }
    std::shared_ptr<RenderState> renderState() const override { return nullptr; }
    int64_t audiblePosition() const override { return probe_->lastPosition; }
    int64_t position() const override { return probe_->lastPosition; }
    bool finished() const override { return false; }

private:
    std::shared_ptr<Probe> probe_;
};

class ProbeAnalysis final : public AnalysisScheduler {
public:
    explicit ProbeAnalysis(std::shared_ptr<Probe> probe) : probe_(std::move(probe)) {}
    void scheduleAnalysis(EditorModel&) override { ++probe_->scheduleAnalysis; }
    void scheduleSelectionAnalysis(EditorModel&) override { ++probe_->scheduleSelectionAnalysis; }
    void scheduleEnvelopeAnalysis(EditorModel&) override { ++probe_->scheduleEnvelopeAnalysis; }

private:
    std::shared_ptr<Probe> probe_;
};

/// Collaborators that report into `probe`; the analysis one only when `withAnalysis`.
inline EditorCollaborators probeCollaborators(const std::shared_ptr<Probe>& probe, bool withAnalysis = true) {
    EditorCollaborators collaborators;
    collaborators.player = std::make_unique<ProbePlayer>(probe);
    if (withAnalysis)
        collaborators.analysis = std::make_unique<ProbeAnalysis>(probe);
    return collaborators;
}

/// A model whose collaborators report into `probe`.
inline std::unique_ptr<EditorModel> probedModel(AudioContent content, const std::shared_ptr<Probe>& probe,
                                                std::optional<AudioFileInfo> info = std::nullopt) {
    return std::make_unique<EditorModel>(std::move(content), std::move(info), probeCollaborators(probe));
}

/// What the real measurement scheduler reported, with the time of each report in ms since
/// `clock` started.
struct AnalysisLog {
    QElapsedTimer clock;
    std::vector<std::pair<AnalysisKind, qint64>> measuring;
    std::vector<std::pair<AnalysisKind, qint64>> published;

    AnalysisLog() { clock.start(); }
    static int count(const std::vector<std::pair<AnalysisKind, qint64>>& events, AnalysisKind kind) {
        return static_cast<int>(std::count_if(events.begin(), events.end(),
                                              [kind](const auto& event) { return event.first == kind; }));
    }
    int measured(AnalysisKind kind) const { return count(measuring, kind); }
    int publishedCount(AnalysisKind kind) const { return count(published, kind); }
    /// Runs the event loop until `kind` has published `times` times in all; false on timeout.
    bool waitForPublished(AnalysisKind kind, int times = 1, int timeoutMs = 20000) const {
        return QTest::qWaitFor([&] { return publishedCount(kind) >= times; }, timeoutMs);
    }
};

/// A model with the real measurement scheduler reporting into `log`, and the probe's player;
/// `onMeasuring` runs on the main thread as each job leaves its debounce.
inline std::unique_ptr<EditorModel> measuredModel(AudioContent content,
                                                  const std::shared_ptr<AnalysisLog>& log,
                                                  const std::shared_ptr<Probe>& probe,
                                                  LoudnessAnalysisScheduler** scheduler = nullptr,
                                                  std::function<void()> onMeasuring = {}) {
    LoudnessAnalysisScheduler::Observers observers;
    observers.measuring = [log, onMeasuring](AnalysisKind kind) {
        log->measuring.emplace_back(kind, log->clock.elapsed());
        if (onMeasuring)
            onMeasuring();
    };
    observers.published = [log](AnalysisKind kind) {
        log->published.emplace_back(kind, log->clock.elapsed());
    };
    EditorCollaborators collaborators = probeCollaborators(probe, false);
    auto measurements = std::make_unique<LoudnessAnalysisScheduler>(std::move(observers));
    if (scheduler)
        *scheduler = measurements.get();
    collaborators.analysis = std::move(measurements);
    return std::make_unique<EditorModel>(std::move(content), std::nullopt, std::move(collaborators));
}

/// Lets background jobs end and their queued commits run, so that none outlives a test.
inline void drainJobs() {
    QThreadPool::globalInstance()->waitForDone(20000);
    QCoreApplication::processEvents();
}

/// A content of `frames` frames of a slow ramp per channel (channel c starts at c / 10).
inline AudioContent rampContent(int64_t frames, int channels = 2, double rate = 48000) {
    std::vector<std::vector<float>> planes(static_cast<size_t>(channels));
    for (int c = 0; c < channels; ++c) {
        auto& plane = planes[static_cast<size_t>(c)];
        plane.resize(static_cast<size_t>(frames));
        for (int64_t i = 0; i < frames; ++i)
            plane[static_cast<size_t>(i)] =
                static_cast<float>(c) * 0.1f + static_cast<float>(i % 100) * 0.001f;
    }
    return AudioContent(std::move(planes), rate);
}

/// A marker at `frame` with a name and a fresh id.
inline Marker markerAt(int64_t frame, const char* name = "M") {
    Marker marker;
    marker.frame = frame;
    marker.name = QString::fromLatin1(name);
    return marker;
}

/// Every stored preference removed, so each test starts from the registered defaults.
inline void clearPreferences() {
    QSettings settings(QStringLiteral("Harlune"), QStringLiteral("Harlune"));
    settings.clear();
    settings.sync();
}

/// A fixture around a probed model of 1000 frames of stereo ramp with an undo stack; failures
/// shown to the user land in `errors`, alert sounds in `alerts`. No job outlives a test.
class ModelTest : public ::testing::Test {
protected:
    void SetUp() override {
        clearPreferences();
        use(rampContent(1000, 2));
    }
    void TearDown() override { drainJobs(); }

    /// A fresh model of `content`; a given clipboard is shared instead of the model's own.
    void use(AudioContent content, std::shared_ptr<AudioClipboard> clipboard = nullptr) {
        EditorCollaborators collaborators = probeCollaborators(probe);
        collaborators.clipboard = std::move(clipboard);
        model = std::make_unique<EditorModel>(std::move(content), std::nullopt, std::move(collaborators));
        model->setUndoManager(&stack);
        model->setPresentError([this](const std::exception& error) { errors.emplace_back(error.what()); });
        model->setAlertSound([this] { ++alerts; });
    }

    bool waitUntilIdle() {
        return QTest::qWaitFor([this] { return !model->busy(); }, 20000);
    }

    std::shared_ptr<Probe> probe = std::make_shared<Probe>();
    QUndoStack stack;
    std::unique_ptr<EditorModel> model;
    std::vector<std::string> errors;
    int alerts = 0;
};

/// The frames of a marker list, in order.
inline std::vector<int64_t> framesOf(const std::vector<Marker>& markers) {
    std::vector<int64_t> frames;
    for (const Marker& marker : markers)
        frames.push_back(marker.frame);
    return frames;
}

/// A fixture around a model measured by the real scheduler, which reports into `log`; every test
/// starts from the default preferences and leaves no job running.
class MeasuredModelTest : public ::testing::Test {
protected:
    void SetUp() override { clearPreferences(); }
    void TearDown() override {
        model.reset();
        drainJobs();
    }

    /// A model of `content`, past its first file measurement.
    void open(AudioContent content) {
        model = measuredModel(std::move(content), log, probe, &scheduler);
        ASSERT_TRUE(log->waitForPublished(AnalysisKind::file));
    }
    bool running(AnalysisKind kind) const { return scheduler->isRunning(kind); }
    /// Runs the event loop until no measurement is pending; false on timeout.
    bool settled() {
        return QTest::qWaitFor([this] { return !model->isAnalyzing(); }, 20000);
    }

    std::shared_ptr<AnalysisLog> log = std::make_shared<AnalysisLog>();
    std::shared_ptr<Probe> probe = std::make_shared<Probe>();
    std::unique_ptr<EditorModel> model;
    LoudnessAnalysisScheduler* scheduler = nullptr;
};

} // namespace harlune::testing
