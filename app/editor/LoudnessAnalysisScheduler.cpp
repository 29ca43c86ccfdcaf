#include "editor/LoudnessAnalysisScheduler.h"

#include "core/EnvelopedSource.h"
#include "dsp/LoudnessAnalyzer.h"
#include "editor/EditorModel.h"

#include <QCoreApplication>
#include <QPointer>
#include <QThreadPool>
#include <QTimer>
#include <cmath>
#include <limits>

namespace harlune {

namespace {

using Token = std::shared_ptr<ProgressToken>;
using Handle = Token& (EditorModel::*)();
using Observers = LoudnessAnalysisScheduler::Observers;

// Measurements queue behind the user's own long operations, which start at priority 0.
constexpr int measurementPriority = -1;
// A selection must be longer than one momentary window to have a loudness.
constexpr double shortestSelectionSeconds = 0.4;

void cancel(Token& handle) {
    if (handle) {
        handle->cancel();
        handle.reset();
    }
}

// Clears the model's handle of a kind once its job is over, unless a newer job holds it.
void release(EditorModel& model, Handle handle, const Token& token) {
    Token& current = (model.*handle)();
    if (current == token)
        current.reset();
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

// The common road of every kind: debounce on the main thread, measure on the pool, publish back
// on the main thread, each step only while the job is still wanted and the model still exists.
template <class Result>
void startJob(EditorModel& model, Handle handle, AnalysisKind kind, int delayMs,
              std::shared_ptr<const Observers> observers, std::function<Result(const ProgressToken&)> measure,
              std::function<void(EditorModel&, Result)> publish) {
    auto token = std::make_shared<ProgressToken>();
    (model.*handle)() = token;
    QPointer<EditorModel> weak(&model);

    QTimer::singleShot(delayMs, Qt::PreciseTimer, &model, [=] {
        if (token->isCancelled() || !weak)
            return;
        if (weak->analysisSuspended()) {
            release(*weak, handle, token);
            if (kind == AnalysisKind::file)
                weak->setIsAnalyzing(false);
            return;
        }
        if (observers->measuring)
            observers->measuring(kind);

        QThreadPool::globalInstance()->start(
            [=] {
                Result result = measure(*token);
                QCoreApplication* application = QCoreApplication::instance();
                if (!application)
                    return;
                QMetaObject::invokeMethod(
                    application,
                    [=, result = std::move(result)]() mutable {
                        if (token->isCancelled() || !weak)
                            return;
                        release(*weak, handle, token);
                        publish(*weak, std::move(result));
                        if (observers->published)
                            observers->published(kind);
                    },
                    Qt::QueuedConnection);
            },
            measurementPriority);
    });
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

std::vector<double> measureChannelsUntilCancelled(const AudioSource& source, const ProgressToken& token) {
    const auto goOn = [&token](double) {
        return !token.isCancelled();
    };
    return measureChannels(source, FunctionRef<bool(double)>(goOn));
}

} // namespace

LoudnessAnalysisScheduler::LoudnessAnalysisScheduler(Observers observers)
    : observers_(std::make_shared<const Observers>(std::move(observers))) {}

void LoudnessAnalysisScheduler::scheduleAnalysis(EditorModel& model) {
    cancel(model.analysisTask());
    cancel(model.envelopeAnalysisTask());
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
            FileFigures figures;
            figures.content = analyzeOrNone(content, token);
            const EnvelopedSource source(content, envelopes);
            figures.enveloped = envelopes.isFlat() ? figures.content : analyzeOrNone(source, token);
            figures.channels = measureChannelsUntilCancelled(source, token);
            return figures;
        };
    std::function<void(EditorModel&, FileFigures)> publish = [](EditorModel& target, FileFigures figures) {
        target.setContentLoudness(std::move(figures.content));
        target.setLoudness(std::move(figures.enveloped));
        target.setChannelLoudness(std::move(figures.channels));
        target.setIsAnalyzing(false);
    };
    startJob(model, &EditorModel::analysisTask, AnalysisKind::file, fileDelayMs, observers_,
             std::move(measure), std::move(publish));
}

void LoudnessAnalysisScheduler::scheduleEnvelopeAnalysis(EditorModel& model) {
    cancel(model.envelopeAnalysisTask());
    if (model.analysisSuspended())
        return;
    // An empty content has no figures; the file measurement has cleared them already.
    if (model.content().frameCount() == 0)
        return;

    std::function<EnvelopeFigures(const ProgressToken&)> measure = [source = EnvelopedSource(
                                                                        model.content(), model.envelopes())](
                                                                       const ProgressToken& token) {
        return EnvelopeFigures{analyzeOrNone(source, token), measureChannelsUntilCancelled(source, token)};
    };
    std::function<void(EditorModel&, EnvelopeFigures)> publish = [](EditorModel& target,
                                                                    EnvelopeFigures figures) {
        target.setLoudness(std::move(figures.enveloped));
        target.setChannelLoudness(std::move(figures.channels));
    };
    startJob(model, &EditorModel::envelopeAnalysisTask, AnalysisKind::envelope, envelopeDelayMs, observers_,
             std::move(measure), std::move(publish));
}

void LoudnessAnalysisScheduler::scheduleSelectionAnalysis(EditorModel& model) {
    cancel(model.selectionAnalysisTask());
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
    startJob(model, &EditorModel::selectionAnalysisTask, AnalysisKind::selection, selectionDelayMs,
             observers_, std::move(measure), std::move(publish));
}

std::vector<double> measureChannels(const AudioSource& source,
                                    std::optional<FunctionRef<bool(double)>> progress) {
    const int channels = source.channelCount();
    if (channels < 2 || channels > 8)
        return {};
    std::vector<double> loudness(static_cast<size_t>(channels), -std::numeric_limits<double>::infinity());
    for (int c = 0; c < channels; ++c) {
        std::vector<double> weights(static_cast<size_t>(channels), 0.0);
        weights[static_cast<size_t>(c)] = 1.0;
        try {
            loudness[static_cast<size_t>(c)] =
                LoudnessAnalyzer::analyze(source, std::nullopt, weights, progress).integratedLUFS;
        } catch (...) {
            // The channel stays at negative infinity: a failed figure is not shown as an error.
        }
    }
    return loudness;
}

} // namespace harlune
