#include "editor/LoudnessAnalysisScheduler.h"

#include "core/EnvelopedSource.h"
#include "dsp/LoudnessAnalyzer.h"
#include "editor/EditorModel.h"

#include <cmath>
#include <limits>

namespace harlune {

namespace {

// Measurements queue behind the user's own long operations, which start at priority 0.
constexpr int measurementPriority = -1;
// A selection must be longer than one momentary window to have a loudness.
constexpr double shortestSelectionSeconds = 0.4;

int delayOf(AnalysisKind kind) {
    switch (kind) {
    case AnalysisKind::file:
        return LoudnessAnalysisScheduler::fileDelayMs;
    case AnalysisKind::envelope:
        return LoudnessAnalysisScheduler::envelopeDelayMs;
    case AnalysisKind::selection:
        break;
    }
    return LoudnessAnalysisScheduler::selectionDelayMs;
}

// A measurement whose failure (or cancellation) gives none: a cancelled job publishes nothing
// anyway, and a failed one leaves the figure empty.
std::optional<LoudnessResult> analyzeOrNone(const AudioSource& source, const ProgressToken& token,
                                            std::optional<FrameRange> range = std::nullopt) {
    const auto goOn = [&token](double) {
        return !token.isCancelled();
    };
    try {
        return LoudnessAnalyzer::analyze(source, range, std::nullopt, FunctionRef<bool(double)>(goOn));
    } catch (...) {
        return std::nullopt;
    }
}

LoudnessWithChannels measureWithChannelsOrNone(const AudioSource& source, const ProgressToken& token) {
    const auto goOn = [&token](double) {
        return !token.isCancelled();
    };
    return measureWithChannels(source, FunctionRef<bool(double)>(goOn));
}

struct FileFigures {
    std::optional<LoudnessResult> content;
    std::optional<LoudnessResult> enveloped;
    std::vector<double> channels;
};

struct EnvelopeFigures {
    std::optional<LoudnessResult> enveloped;
    std::vector<double> channels;
};

} // namespace

LoudnessAnalysisScheduler::LoudnessAnalysisScheduler(Observers observers)
    : observers_(std::make_shared<const Observers>(std::move(observers))) {}

bool LoudnessAnalysisScheduler::isRunning(AnalysisKind kind) const {
    const auto& job = jobs_[static_cast<int>(kind)];
    return job && job->isRunning();
}

BackgroundJob& LoudnessAnalysisScheduler::job(EditorModel& model, AnalysisKind kind) {
    auto& job = jobs_[static_cast<int>(kind)];
    if (!job) {
        const BackgroundJob::Timing timing{delayOf(kind), measurementPriority};
        job = std::make_unique<BackgroundJob>(model, timing, [&model] { return model.audioVersion(); });
    }
    return *job;
}

template <class Result>
void LoudnessAnalysisScheduler::start(EditorModel& model, AnalysisKind kind,
                                      std::function<Result(const ProgressToken&)> measure,
                                      std::function<void(EditorModel&, Result)> publish) {
    auto observers = observers_;
    // The model owns this scheduler, so it exists whenever a job's main-thread step runs.
    auto commit = [&model, kind, observers, publish = std::move(publish)](Result result) {
        publish(model, std::move(result));
        if (observers->published)
            observers->published(kind);
    };
    auto ready = [&model, kind, observers] {
        if (model.analysisSuspended()) {
            if (kind == AnalysisKind::file)
                model.setIsAnalyzing(false);
            return false;
        }
        if (observers->measuring)
            observers->measuring(kind);
        return true;
    };
    job(model, kind).start<Result>(std::move(measure), std::move(commit), std::move(ready));
}

void LoudnessAnalysisScheduler::scheduleAnalysis(EditorModel& model) {
    job(model, AnalysisKind::file).cancel();
    job(model, AnalysisKind::envelope).cancel();
    if (model.analysisSuspended())
        return;
    if (model.content().frameCount() == 0) {
        model.setLoudness(std::nullopt);
        model.setContentLoudness(std::nullopt);
        model.setChannelLoudness({});
        model.setIsAnalyzing(false);
        return;
    }
    model.setIsAnalyzing(true);

    std::function<FileFigures(const ProgressToken&)> measure =
        [content = model.content(), envelopes = model.envelopes()](const ProgressToken& token) {
            // Flat envelopes leave the audio as it is: one pass gives every figure.
            FileFigures figures;
            if (envelopes.isFlat()) {
                LoudnessWithChannels measured = measureWithChannelsOrNone(content, token);
                figures.content = measured.whole;
                figures.enveloped = std::move(measured.whole);
                figures.channels = std::move(measured.channels);
                return figures;
            }
            figures.content = analyzeOrNone(content, token);
            LoudnessWithChannels measured =
                measureWithChannelsOrNone(EnvelopedSource(content, envelopes), token);
            figures.enveloped = std::move(measured.whole);
            figures.channels = std::move(measured.channels);
            return figures;
        };
    std::function<void(EditorModel&, FileFigures)> publish = [](EditorModel& target, FileFigures figures) {
        target.setContentLoudness(std::move(figures.content));
        target.setLoudness(std::move(figures.enveloped));
        target.setChannelLoudness(std::move(figures.channels));
        target.setIsAnalyzing(false);
    };
    start(model, AnalysisKind::file, std::move(measure), std::move(publish));
}

void LoudnessAnalysisScheduler::scheduleEnvelopeAnalysis(EditorModel& model) {
    if (isRunning(AnalysisKind::file)) {
        scheduleAnalysis(model);
        return;
    }
    job(model, AnalysisKind::envelope).cancel();
    // Nothing while suspended; an empty content has no figures, and its file measurement has
    // cleared them already.
    if (model.analysisSuspended() || model.content().frameCount() == 0)
        return;

    std::function<EnvelopeFigures(const ProgressToken&)> measure =
        [source = EnvelopedSource(model.content(), model.envelopes())](const ProgressToken& token) {
            LoudnessWithChannels measured = measureWithChannelsOrNone(source, token);
            return EnvelopeFigures{std::move(measured.whole), std::move(measured.channels)};
        };
    std::function<void(EditorModel&, EnvelopeFigures)> publish = [](EditorModel& target,
                                                                    EnvelopeFigures figures) {
        target.setLoudness(std::move(figures.enveloped));
        target.setChannelLoudness(std::move(figures.channels));
    };
    start(model, AnalysisKind::envelope, std::move(measure), std::move(publish));
}

void LoudnessAnalysisScheduler::scheduleSelectionAnalysis(EditorModel& model) {
    job(model, AnalysisKind::selection).cancel();
    if (model.analysisSuspended())
        return;
    const std::optional<FrameRange>& selection = model.selection();
    const auto shortest =
        static_cast<int64_t>(std::trunc(model.content().sampleRate() * shortestSelectionSeconds));
    if (!selection || selection->length() <= shortest) {
        model.setSelectionLoudness(std::nullopt);
        return;
    }

    std::function<std::optional<LoudnessResult>(const ProgressToken&)> measure =
        [source = EnvelopedSource(model.content(), model.envelopes()),
         range = *selection](const ProgressToken& token) {
            return analyzeOrNone(source, token, range);
        };
    std::function<void(EditorModel&, std::optional<LoudnessResult>)> publish =
        [](EditorModel& target, std::optional<LoudnessResult> result) {
            target.setSelectionLoudness(std::move(result));
        };
    start(model, AnalysisKind::selection, std::move(measure), std::move(publish));
}

} // namespace harlune
