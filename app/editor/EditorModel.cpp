#include "editor/EditorModel.h"

#include "base/Clamped.h"
#include "base/HarluneError.h"
#include "base/Precondition.h"
#include "core/Processing.h"
#include "editor/BackgroundJob.h"
#include "editor/LoudnessAnalysisScheduler.h"
#include "editor/Preferences.h"
#include "editor/QtRackScheduler.h"

#include <QThread>
#include <QTimer>
#include <QUndoCommand>
#include <QUndoStack>
#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace harlune {

namespace {

// Contents are equal when they are the same windows on the same blocks: an identity test that
// costs no sample work.
bool sameContent(const AudioContent& a, const AudioContent& b) {
    if (a.channelCount() != b.channelCount() || a.sampleRate() != b.sampleRate() ||
        a.frameCount() != b.frameCount())
        return false;
    const auto& left = a.segments();
    const auto& right = b.segments();
    if (&left == &right)
        return true;
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](const Segment& x, const Segment& y) {
                          return x.block == y.block && x.offset == y.offset && x.count == y.count;
                      });
}

template <class T> bool equalValues(const T& a, const T& b) {
    return a == b;
}

// One undo step. Undo and redo do the same thing: bring back the stored state and keep the
// state that was current instead, so redo restores what stood when undo ran.
class StateSwapCommand final : public QUndoCommand {
public:
    StateSwapCommand(EditorModel* model, EditState state, const QString& name)
        : QUndoCommand(name), model_(model), state_(std::move(state)) {}

    void undo() override { swap(); }

    void redo() override {
        // QUndoStack::push runs redo at once, but the change is already made.
        if (pushed_) {
            pushed_ = false;
            return;
        }
        swap();
    }

private:
    void swap() {
        if (!model_)
            return;
        EditState now = model_->snapshot();
        model_->restore(state_);
        state_ = std::move(now);
    }

    QPointer<EditorModel> model_;
    EditState state_;
    bool pushed_ = true;
};

constexpr int busyTickMilliseconds = 50;

} // namespace

// Construction ---------------------------------------------------------------------------------

EditorModel::EditorModel(AudioContent content, std::optional<AudioFileInfo> fileInfo,
                         EditorCollaborators collaborators, QObject* parent)
    : QObject(parent), rackScheduler_(std::move(collaborators.rackScheduler)),
      player_(std::move(collaborators.player)), timers_(std::move(collaborators.timers)),
      recorder_(std::move(collaborators.recorder)), analysis_(std::move(collaborators.analysis)),
      clipboard_(std::move(collaborators.clipboard)), content_(std::move(content)),
      fileInfo_(std::move(fileInfo)) {
    if (!rackScheduler_)
        rackScheduler_ = std::make_unique<QtRackScheduler>();
    rack_ = std::make_unique<EffectsRack>(*rackScheduler_);
    rack_->onChange = [this] {
        emit rackChanged();
    };
    if (!player_)
        player_ = std::make_unique<NullPlaybackControl>();
    if (!timers_)
        timers_ = qtRepeatingTimers();
    if (!recorder_)
        recorder_ = std::make_unique<NullRecorderControl>();
    if (!analysis_)
        analysis_ = std::make_unique<LoudnessAnalysisScheduler>();
    if (!clipboard_)
        clipboard_ = std::make_shared<AudioClipboard>();

    using namespace Preferences;
    snapToZeroCrossings_ = boolValue(Keys::snapToZeroCrossings);
    showLoudnessLane_ = boolValue(Keys::showLoudnessLane);
    loudnessLaneHeight_ = std::max(doubleValue(Keys::loudnessLaneHeight), 80.0);
    showInspector_ = boolValue(Keys::showInspector);
    timeFormat_ = timeFormatFromRawValue(stringValue(Keys::timeFormat)).value_or(TimeFormat::hms);
    targetLUFS_ = doubleValue(Keys::loudnessTarget);
    ceilingDBTP_ = doubleValue(Keys::truePeakCeiling);

    setActiveChannels(allChannels(content_.channelCount()));
    meter_ = MeterReading::reset(content_.channelCount());
    contentDidChange();
    recorder_->setModel(this);
}

// The scheduler cancels the measurements still under way as it goes. The transport timer goes
// first: it calls into the model.
EditorModel::~EditorModel() {
    transportTimer_.reset();
    rack_->onChange = nullptr;
}

template <class T> bool EditorModel::assign(T& field, T value, void (EditorModel::*changed)()) {
    const bool differs = !equalValues(field, value);
    field = std::move(value);
    if (differs)
        emit(this->*changed)();
    return differs;
}

void EditorModel::setUndoManager(QUndoStack* stack) {
    undoManager_ = stack;
}

// Fields with follow-ups -----------------------------------------------------------------------

void EditorModel::setContent(AudioContent content) {
    setAudio(std::move(content), envelopes_);
}

void EditorModel::setEnvelopes(EnvelopeSet envelopes) {
    if (!assign(envelopes_, std::move(envelopes), &EditorModel::envelopesChanged))
        return;
    ++audioVersion_;
    publishAudio(false);
    analysis_->scheduleEnvelopeAnalysis(*this);
    if (selection_)
        analysis_->scheduleSelectionAnalysis(*this);
}

void EditorModel::setAudio(AudioContent content, EnvelopeSet envelopes) {
    publishAudio(installAudio(std::move(content), std::move(envelopes)));
}

bool EditorModel::installAudio(AudioContent content, EnvelopeSet envelopes) {
    // Both fields are stored before anyone is told, so no observer sees one without the other.
    const bool contentDiffers = !sameContent(content_, content);
    const bool envelopesDiffer = envelopes_ != envelopes;
    content_ = std::move(content);
    envelopes_ = std::move(envelopes);
    if (contentDiffers)
        emit contentChanged();
    if (envelopesDiffer)
        emit envelopesChanged();
    // One measurement of the whole file covers the envelopes too.
    contentDidChange();
    return contentDiffers;
}

void EditorModel::publishAudio(bool contentChanged) {
    // A play keeps its range (a selection played alone, say) until its content changes; then it
    // goes on over the range that a new play would take.
    if (!isPlaying_ || contentChanged)
        rangeInPlay_ = playRange();
    player_->setAudio(content_, envelopes_, rangeInPlay_);
}

void EditorModel::setSelection(std::optional<FrameRange> selection) {
    if (selection && selection->isEmpty())
        selection.reset();
    if (assign(selection_, selection, &EditorModel::selectionChanged))
        analysis_->scheduleSelectionAnalysis(*this);
    updatePreviewGain();
}

void EditorModel::setActiveChannels(ChannelSet channels) {
    assign(activeChannels_, std::move(channels), &EditorModel::activeChannelsChanged);
    std::vector<bool> mask(static_cast<size_t>(std::max(content_.channelCount(), 0)));
    for (size_t channel = 0; channel < mask.size(); ++channel)
        mask[channel] = activeChannels_.contains(static_cast<int>(channel));
    rack_->setProcessMask(std::move(mask));
}

void EditorModel::setIsLooping(bool looping) {
    assign(isLooping_, looping, &EditorModel::isLoopingChanged);
    player_->setLooping(looping);
}

void EditorModel::setSnapToZeroCrossings(bool snap) {
    assign(snapToZeroCrossings_, snap, &EditorModel::snapToZeroCrossingsChanged);
    Preferences::setValue(Preferences::Keys::snapToZeroCrossings, snap);
}

void EditorModel::setShowLoudnessLane(bool show) {
    assign(showLoudnessLane_, show, &EditorModel::showLoudnessLaneChanged);
    Preferences::setValue(Preferences::Keys::showLoudnessLane, show);
}

void EditorModel::setLoudnessLaneHeight(double height) {
    assign(loudnessLaneHeight_, height, &EditorModel::loudnessLaneHeightChanged);
    Preferences::setValue(Preferences::Keys::loudnessLaneHeight, height);
}

void EditorModel::setShowInspector(bool show) {
    assign(showInspector_, show, &EditorModel::showInspectorChanged);
    Preferences::setValue(Preferences::Keys::showInspector, show);
}

void EditorModel::setTimeFormat(TimeFormat format) {
    assign(timeFormat_, format, &EditorModel::timeFormatChanged);
    Preferences::setValue(Preferences::Keys::timeFormat, rawValue(format));
}

void EditorModel::setTargetLUFS(double target) {
    assign(targetLUFS_, target, &EditorModel::targetLUFSChanged);
    Preferences::setValue(Preferences::Keys::loudnessTarget, target);
    updatePreviewGain();
}

void EditorModel::setCeilingDBTP(double ceiling) {
    assign(ceilingDBTP_, ceiling, &EditorModel::ceilingDBTPChanged);
    Preferences::setValue(Preferences::Keys::truePeakCeiling, ceiling);
    updatePreviewGain();
}

// Plain observable fields ----------------------------------------------------------------------

// Fields the loudness plan depends on: each change may change the previewed gain.
#define HARLUNE_PLAN_SETTER(Type, field, Setter)                                                             \
    void EditorModel::Setter(Type value) {                                                                   \
        assign(field##_, std::move(value), &EditorModel::field##Changed);                                    \
        updatePreviewGain();                                                                                 \
    }

HARLUNE_PLAN_SETTER(std::optional<LoudnessResult>, loudness, setLoudness)
HARLUNE_PLAN_SETTER(std::optional<LoudnessResult>, selectionLoudness, setSelectionLoudness)
HARLUNE_PLAN_SETTER(AnalysisScope, analysisScope, setAnalysisScope)
HARLUNE_PLAN_SETTER(LoudnessAdjustMode, adjustMode, setAdjustMode)
HARLUNE_PLAN_SETTER(double, manualGainDB, setManualGainDB)
HARLUNE_PLAN_SETTER(bool, previewLoudness, setPreviewLoudness)

#undef HARLUNE_PLAN_SETTER

#define HARLUNE_PLAIN_SETTER(Type, field, Setter)                                                            \
    void EditorModel::Setter(Type value) {                                                                   \
        assign(field##_, std::move(value), &EditorModel::field##Changed);                                    \
    }

HARLUNE_PLAIN_SETTER(std::optional<AudioFileInfo>, fileInfo, setFileInfo)
HARLUNE_PLAIN_SETTER(std::vector<Marker>, markers, setMarkers)
HARLUNE_PLAIN_SETTER(std::optional<int>, envelopeTarget, setEnvelopeTarget)
HARLUNE_PLAIN_SETTER(int64_t, cursor, setCursor)
HARLUNE_PLAIN_SETTER(double, framesPerPoint, setFramesPerPoint)
HARLUNE_PLAIN_SETTER(double, scrollFrame, setScrollFrame)
HARLUNE_PLAIN_SETTER(double, viewWidth, setViewWidth)
HARLUNE_PLAIN_SETTER(double, amplitudeZoom, setAmplitudeZoom)
HARLUNE_PLAIN_SETTER(double, envelopeRangeDB, setEnvelopeRangeDB)
HARLUNE_PLAIN_SETTER(InspectorTab, inspectorTab, setInspectorTab)
HARLUNE_PLAIN_SETTER(TempoGrid, grid, setGrid)
HARLUNE_PLAIN_SETTER(bool, showGrid, setShowGrid)
HARLUNE_PLAIN_SETTER(bool, snapToGrid, setSnapToGrid)
HARLUNE_PLAIN_SETTER(bool, isDetectingTempo, setIsDetectingTempo)
HARLUNE_PLAIN_SETTER(std::optional<double>, tempoConfidence, setTempoConfidence)
HARLUNE_PLAIN_SETTER(std::optional<int64_t>, recordHead, setRecordHead)
HARLUNE_PLAIN_SETTER(bool, isPlaying, setIsPlaying)
HARLUNE_PLAIN_SETTER(int64_t, playhead, setPlayhead)
HARLUNE_PLAIN_SETTER(MeterReading, meter, setMeter)
HARLUNE_PLAIN_SETTER(std::optional<LoudnessResult>, contentLoudness, setContentLoudness)
HARLUNE_PLAIN_SETTER(std::vector<double>, channelLoudness, setChannelLoudness)
HARLUNE_PLAIN_SETTER(bool, linkChannelLevels, setLinkChannelLevels)
HARLUNE_PLAIN_SETTER(bool, isAnalyzing, setIsAnalyzing)
HARLUNE_PLAIN_SETTER(bool, limitTruePeaks, setLimitTruePeaks)

#undef HARLUNE_PLAIN_SETTER

// Computed -------------------------------------------------------------------------------------

std::optional<ChannelSet> EditorModel::targetChannels() const {
    if (activeChannels_ == allChannels(content_.channelCount()))
        return std::nullopt;
    return activeChannels_;
}

QString EditorModel::channelName(int index) const {
    const int count = content_.channelCount();
    if (count == 1)
        return QStringLiteral("Mono");
    if (count == 2)
        return index == 0 ? QStringLiteral("L") : QStringLiteral("R");
    if (count == 6 && index >= 0 && index < 6) {
        static const char* const names[] = {"L", "R", "C", "LFE", "Ls", "Rs"};
        return QString::fromLatin1(names[index]);
    }
    return QString::number(index + 1);
}

QString EditorModel::formatSummary() const {
    QStringList parts;
    if (fileInfo_)
        parts << QString::fromStdString(fileInfo_->codecName);
    const double rate = content_.sampleRate();
    if (std::fmod(rate, 1000.0) == 0)
        parts << QString::number(rate / 1000.0, 'f', 0) + QStringLiteral(" kHz");
    else
        parts << QString::asprintf("%.1f kHz", rate / 1000.0);
    if (fileInfo_ && fileInfo_->bitDepth)
        parts << QString::number(*fileInfo_->bitDepth) +
                     (fileInfo_->isFloat ? QStringLiteral("-bit float") : QStringLiteral("-bit"));
    const int channels = content_.channelCount();
    if (channels == 1)
        parts << QStringLiteral("Mono");
    else if (channels == 2)
        parts << QStringLiteral("Stereo");
    else
        parts << QString::number(channels) + QStringLiteral(" ch");
    return parts.join(QStringLiteral(" \u00B7 "));
}

FrameRange EditorModel::playRange() const {
    if (selection_ && isLooping_)
        return *selection_;
    return {0, content_.frameCount()};
}

// State and undo -------------------------------------------------------------------------------

void EditorModel::contentDidChange() {
    assign(contentVersion_, contentVersion_ + 1, &EditorModel::contentVersionChanged);
    ++audioVersion_;
    if (analysisSuspended_)
        return;
    analysis_->scheduleAnalysis(*this);
    if (selection_)
        analysis_->scheduleSelectionAnalysis(*this);
}

void EditorModel::resetMeter() {
    setMeter(MeterReading::reset(content_.channelCount()));
}

void EditorModel::load(AudioContent content, std::optional<AudioFileInfo> fileInfo) {
    stop(false);
    // A file read in after an interrupted take is measured like any other.
    analysisSuspended_ = false;
    // The new content comes without the old file's envelopes, in one step: measured or heard
    // through them it would be a different sound.
    installAudio(std::move(content), EnvelopeSet{});
    setFileInfo(std::move(fileInfo));
    setMarkers({});
    setEnvelopeTarget(std::nullopt);
    setSelection(std::nullopt);
    setCursor(0);
    setActiveChannels(allChannels(content_.channelCount()));
    publishAudio(true);
    resetMeter();
    zoomToFit();
}

EditState EditorModel::snapshot() const {
    return EditState{content_, selection_, activeChannels_, cursor_, markers_, envelopes_};
}

void EditorModel::restore(const EditState& state) {
    HARLUNE_PRECONDITION(QThread::currentThread() == thread(), "EditorModel used off its thread");
    const AudioContent& next = state.content;
    const int channels = next.channelCount();
    const bool rateChanged = next.sampleRate() != content_.sampleRate();
    const bool formatChanged = rateChanged || channels != content_.channelCount();

    // Zoom, scroll and grid are not part of a step, but they follow a change of rate so that
    // the picture stays in place in both directions of undo.
    if (rateChanged && content_.sampleRate() > 0) {
        const double ratio = next.sampleRate() / content_.sampleRate();
        setFramesPerPoint(framesPerPoint_ * ratio);
        setScrollFrame(scrollFrame_ * ratio);
        setGrid(grid_.scaled(ratio));
    }

    // A change of format ends play before the new state is handed over.
    if (isPlaying_ && formatChanged)
        stop(false);
    if (envelopeTarget_ && (*envelopeTarget_ < 0 || *envelopeTarget_ >= channels))
        setEnvelopeTarget(std::nullopt);
    const bool contentChanged = installAudio(next, state.envelope.fitted(channels));

    const int64_t frames = content_.frameCount();
    if (state.selection)
        setSelection(state.selection->clamped({0, frames}));
    else
        setSelection(std::nullopt);

    ChannelSet active;
    for (const int channel : state.activeChannels)
        if (channel >= 0 && channel < channels)
            active.insert(channel);
    setActiveChannels(active.empty() ? allChannels(channels) : std::move(active));

    setCursor(std::min(state.cursor, frames));
    setMarkers(state.markers);
    // Once, with the selection in place: a loop over it plays on without a gap.
    publishAudio(contentChanged);

    if (meter_.peakDB.size() != static_cast<size_t>(channels))
        resetMeter();
    clampScroll();
}

void EditorModel::commitEdit(const EditState& next, const QString& name) {
    EditState before = snapshot();
    restore(next);
    registerUndo(std::move(before), name);
}

void EditorModel::registerUndo(EditState state, const QString& name) {
    if (!undoManager_)
        return;
    undoManager_->push(new StateSwapCommand(this, std::move(state), name));
}

// Long operations ------------------------------------------------------------------------------

void EditorModel::process(const QString& name, Work work, std::optional<std::optional<FrameRange>> selection,
                          MarkersProducer markers, EnvelopeProducer envelope, std::function<void()> landed) {
    HARLUNE_PRECONDITION(QThread::currentThread() == thread(), "EditorModel used off its thread");
    if (busy_) {
        if (alertSound_)
            alertSound_();
        return;
    }

    auto token = std::make_shared<ProgressToken>();
    beginExternalBusy(name, token);

    // The job holds only value copies; a model closed meanwhile drops the result.
    runInBackground<AudioContent>(
        *this, [token, copy = content_, work = std::move(work)] { return work(copy, token); },
        [this, name, token, selection, markers = std::move(markers), envelope = std::move(envelope),
         landed = std::move(landed)](std::optional<AudioContent> result, std::exception_ptr error) {
            finishProcess(name, token, std::move(result), error, selection, markers, envelope, landed);
        });
}

void EditorModel::finishProcess(const QString& name, const std::shared_ptr<ProgressToken>& token,
                                std::optional<AudioContent> result, std::exception_ptr error,
                                const std::optional<std::optional<FrameRange>>& selection,
                                const MarkersProducer& markers, const EnvelopeProducer& envelope,
                                const std::function<void()>& landed) {
    endExternalBusy();

    if (error) {
        if (!token->isCancelled())
            presentFailure(error);
        return;
    }
    // A result that arrives after Cancel was pressed is thrown away, even when complete.
    if (token->isCancelled() || !result)
        return;

    EditState next = snapshot();
    if (markers)
        next.markers = markers(*result);
    if (envelope)
        next.envelope = envelope(*result);
    if (selection)
        next.selection = *selection;
    if (result->channelCount() != content_.channelCount())
        next.activeChannels = allChannels(result->channelCount());
    next.content = std::move(*result);
    commitEdit(next, name);
    if (landed)
        landed();
}

void EditorModel::presentFailure(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const HarluneError& failure) {
        if (!failure.isCancelled() && presentError_)
            presentError_(failure);
    } catch (const std::exception& failure) {
        if (presentError_)
            presentError_(failure);
    } catch (...) {
        if (presentError_)
            presentError_(std::runtime_error("The operation failed."));
    }
}

void EditorModel::beginExternalBusy(const QString& title, std::shared_ptr<ProgressToken> token) {
    BusyState state;
    state.title = title;
    state.token = std::move(token);
    const Uuid id = state.id;
    assign(busy_, std::optional<BusyState>(std::move(state)), &EditorModel::busyChanged);

    busyTimer_.reset();
    busyTimer_ = std::make_unique<QTimer>();
    busyTimer_->setInterval(busyTickMilliseconds);
    connect(busyTimer_.get(), &QTimer::timeout, this, [this, id] {
        if (!busy_ || busy_->id != id)
            return;
        BusyState updated = *busy_;
        updated.fraction = updated.token ? updated.token->fraction() : 0.0;
        assign(busy_, std::optional<BusyState>(std::move(updated)), &EditorModel::busyChanged);
    });
    busyTimer_->start();
}

void EditorModel::endExternalBusy() {
    busyTimer_.reset();
    assign(busy_, std::optional<BusyState>(), &EditorModel::busyChanged);
}

// View arithmetic ------------------------------------------------------------------------------

namespace {

double framesForZoom(const AudioContent& content) {
    return static_cast<double>(std::max(content.frameCount(), int64_t{1}));
}

double widthForZoom(double viewWidth) {
    return std::max(viewWidth, 100.0);
}

} // namespace

double EditorModel::maxFramesPerPoint() const {
    return std::max(0.0625, (framesForZoom(content_) / widthForZoom(viewWidth_)) * 1.02);
}

void EditorModel::clampScroll() {
    setFramesPerPoint(clamped(framesPerPoint_, minFramesPerPoint, maxFramesPerPoint()));
    const double limit =
        std::max(0.0, static_cast<double>(content_.frameCount()) - viewWidth_ * framesPerPoint_);
    setScrollFrame(clamped(scrollFrame_, 0.0, limit));
}

void EditorModel::zoomToFit() {
    setFramesPerPoint(maxFramesPerPoint() / 1.02);
    setScrollFrame(0);
    clampScroll();
}

void EditorModel::zoom(double factor, std::optional<int64_t> anchorFrame) {
    int64_t anchorValue = cursor_;
    if (anchorFrame)
        anchorValue = *anchorFrame;
    else if (isPlaying_)
        anchorValue = playhead_;
    else if (selection_)
        anchorValue = selection_->lower;
    const auto anchor = static_cast<double>(anchorValue);

    double anchorPoint = (anchor - scrollFrame_) / framesPerPoint_;
    setFramesPerPoint(clamped(factor * framesPerPoint_, minFramesPerPoint, maxFramesPerPoint()));
    if (!(anchorPoint >= 0 && anchorPoint <= viewWidth_))
        anchorPoint = viewWidth_ / 2;
    setScrollFrame(anchor - anchorPoint * framesPerPoint_);
    clampScroll();
}

void EditorModel::zoomToSelection() {
    if (!selection_)
        return;
    const auto n = static_cast<double>(selection_->length());
    const auto start = static_cast<double>(selection_->lower);
    setFramesPerPoint(clamped((n / widthForZoom(viewWidth_)) * 1.05, minFramesPerPoint, maxFramesPerPoint()));
    setScrollFrame(start - (viewWidth_ * framesPerPoint_ - n) / 2);
    clampScroll();
}

void EditorModel::scroll(double byPoints) {
    setScrollFrame(scrollFrame_ + byPoints * framesPerPoint_);
    clampScroll();
}

void EditorModel::ensureVisible(int64_t frame) {
    const auto position = static_cast<double>(frame);
    const double span = viewWidth_ * framesPerPoint_;
    if (scrollFrame_ <= position && position <= scrollFrame_ + span)
        return;
    setScrollFrame(position - 0.1 * span);
    clampScroll();
}

// Selection commands ---------------------------------------------------------------------------

void EditorModel::selectAll() {
    if (content_.isEmpty())
        return;
    setSelection(FrameRange{0, content_.frameCount()});
    setActiveChannels(allChannels(content_.channelCount()));
}

void EditorModel::selectNone() {
    setSelection(std::nullopt);
    setActiveChannels(allChannels(content_.channelCount()));
}

void EditorModel::setSelection(std::optional<FrameRange> range, std::optional<ChannelSet> channels) {
    if (range)
        setSelection(range->clamped({0, content_.frameCount()}));
    else
        setSelection(std::nullopt);
    if (channels)
        setActiveChannels(std::move(*channels));
    if (selection_)
        setCursor(selection_->lower);
}

int64_t EditorModel::snapped(int64_t frame) const {
    const int64_t frames = content_.frameCount();
    frame = std::clamp(frame, int64_t{0}, frames);
    if (!snapToZeroCrossings_ || frame == 0 || frame == frames)
        return frame;
    const auto radius = static_cast<int64_t>(std::max(framesPerPoint_ * 6, 64.0));
    return nearestZeroCrossing(content_, frame, radius);
}

} // namespace harlune
