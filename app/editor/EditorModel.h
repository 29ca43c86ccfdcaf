#pragma once

#include "base/AudioFormats.h"
#include "base/ChannelSet.h"
#include "base/FrameRange.h"
#include "base/ProgressToken.h"
#include "core/AudioContent.h"
#include "core/GainEnvelope.h"
#include "core/Processing.h"
#include "core/TempoGrid.h"
#include "dsp/LoudnessNormalization.h"
#include "dsp/LoudnessResult.h"
#include "editor/AnalysisScheduler.h"
#include "editor/AnalysisScope.h"
#include "editor/AudioClipboard.h"
#include "editor/BusyState.h"
#include "editor/EditState.h"
#include "editor/InspectorTab.h"
#include "editor/LoudnessAdjustMode.h"
#include "editor/Marker.h"
#include "editor/MeterReading.h"
#include "editor/PlaybackControl.h"
#include "editor/RecordMode.h"
#include "editor/RecorderControl.h"
#include "editor/RepeatingTimer.h"
#include "editor/TimeFormat.h"
#include "engine/EffectsRack.h"
#include "engine/RackScheduler.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QUndoStack>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

class QTimer;

namespace harlune {

/// The collaborators a model owns. Player and recorder left empty are replaced by do-nothing
/// stand-ins; the measurements default to the real `LoudnessAnalysisScheduler` (pass a
/// `NullAnalysisScheduler` to measure nothing); an absent clipboard by one of the model's own
/// (the application shares one among all models). The effects rack is always the real one, on
/// `rackScheduler` (Qt's event loop and thread pool when absent); the transport's 30 Hz timer
/// comes from `timers` (Qt timers when absent).
struct EditorCollaborators {
    std::unique_ptr<PlaybackControl> player;
    std::unique_ptr<RackScheduler> rackScheduler;
    RepeatingTimerFactory timers;
    std::unique_ptr<RecorderControl> recorder;
    std::unique_ptr<AnalysisScheduler> analysis;
    std::shared_ptr<AudioClipboard> clipboard;
};

/// Everything one open document edits and shows: audio, markers, envelopes, selection, view,
/// transport, loudness figures and the busy state.
///
/// It lives on the main thread; every access from elsewhere is a programmer's error. Each
/// observable field has a getter, a setter and a `...Changed` signal. A setter given a value
/// equal to the current one emits nothing, but still stores it and runs the field's follow-ups
/// (preference writes, telling the player or the rack, scheduling measurements).
///
/// Undo works on whole `EditState`s: a command computes the next state from `snapshot`, takes
/// `before` = `snapshot`, calls `restore(next)` and then `registerUndo(before, name)`. Each undo
/// or redo swaps the stored state with a fresh snapshot, so the two directions are the same code.
/// Long work goes through `process`, which runs on a thread pool with value copies and commits
/// back on the main thread only while the model still exists. The loudness figures come the
/// same way, from debounced measurements that the `AnalysisScheduler` starts after each change
/// of content, envelopes or selection. Content and envelopes change together (`setAudio`): the
/// player and the measurements never see one without the other.
///
/// The transport drives the player and the effects rack: each play activates the rack on the
/// player's render state, and a 30 Hz timer moves the playhead to what is heard and derives the
/// meters from the content before the playhead, so that no level is measured on the audio thread.
class EditorModel : public QObject {
    Q_OBJECT

public:
    /// Called on the main thread with a failure that is not a cancellation.
    using ErrorPresenter = std::function<void(const std::exception& error)>;
    /// Background work of `process`: from a copy of the content to the new content. Reports
    /// progress into the token and should stop (throwing `HarluneError::cancelled()`) once its
    /// flag is set.
    using Work = std::function<AudioContent(AudioContent content, std::shared_ptr<ProgressToken> token)>;
    using MarkersProducer = std::function<std::vector<Marker>(const AudioContent& result)>;
    using EnvelopeProducer = std::function<EnvelopeSet(const AudioContent& result)>;

    static constexpr double minFramesPerPoint = 0.03125;

    EditorModel(AudioContent content, std::optional<AudioFileInfo> fileInfo,
                EditorCollaborators collaborators = {}, QObject* parent = nullptr);
    ~EditorModel() override;

    // Collaborators --------------------------------------------------------------------------

    PlaybackControl& player() { return *player_; }
    EffectsRack& rack() { return *rack_; }
    RecorderControl& recorder() { return *recorder_; }
    AnalysisScheduler& analysis() { return *analysis_; }
    AudioClipboard& clipboard() { return *clipboard_; }

    // Hooks ----------------------------------------------------------------------------------

    /// The document's undo stack, held weakly; without one edits go through unrecorded.
    QUndoStack* undoManager() const { return undoManager_.data(); }
    void setUndoManager(QUndoStack* stack);
    void setPresentError(ErrorPresenter presenter) { presentError_ = std::move(presenter); }
    /// The system's alert sound, played when a long operation is refused. Silent by default.
    void setAlertSound(std::function<void()> sound) { alertSound_ = std::move(sound); }

    // Document -------------------------------------------------------------------------------

    const AudioContent& content() const { return content_; }
    /// The content alone; the envelopes stay. See `setAudio`.
    void setContent(AudioContent content);
    /// Raised by every content change; views and waveform caches compare this, not the content.
    int64_t contentVersion() const { return contentVersion_; }
    /// Raised once by every change of what is heard: the content, the envelopes, or both in one
    /// step. Measurements are keyed by it, so a figure of an older state is never shown.
    int64_t audioVersion() const { return audioVersion_; }
    const std::optional<AudioFileInfo>& fileInfo() const { return fileInfo_; }
    void setFileInfo(std::optional<AudioFileInfo> fileInfo);
    const std::vector<Marker>& markers() const { return markers_; }
    void setMarkers(std::vector<Marker> markers);
    const EnvelopeSet& envelopes() const { return envelopes_; }
    void setEnvelopes(EnvelopeSet envelopes);
    /// Content and envelopes as one change: one version, one hand-over to the player, one round
    /// of measurements (of the content's kind).
    void setAudio(AudioContent content, EnvelopeSet envelopes);
    /// The envelope being edited: absent for the master, else a channel index.
    std::optional<int> envelopeTarget() const { return envelopeTarget_; }
    void setEnvelopeTarget(std::optional<int> target);

    // Selection ------------------------------------------------------------------------------

    const std::optional<FrameRange>& selection() const { return selection_; }
    /// The field itself: an empty range becomes absent. See the two-argument form for the command.
    void setSelection(std::optional<FrameRange> selection);
    const ChannelSet& activeChannels() const { return activeChannels_; }
    void setActiveChannels(ChannelSet channels);
    int64_t cursor() const { return cursor_; }
    void setCursor(int64_t cursor);
    bool snapToZeroCrossings() const { return snapToZeroCrossings_; }
    void setSnapToZeroCrossings(bool snap);

    // View -----------------------------------------------------------------------------------

    /// Zoom: frames per screen point.
    double framesPerPoint() const { return framesPerPoint_; }
    void setFramesPerPoint(double framesPerPoint);
    /// The frame at the left edge of the view.
    double scrollFrame() const { return scrollFrame_; }
    void setScrollFrame(double frame);
    /// Points.
    double viewWidth() const { return viewWidth_; }
    void setViewWidth(double width);
    double amplitudeZoom() const { return amplitudeZoom_; }
    void setAmplitudeZoom(double zoom);
    bool showLoudnessLane() const { return showLoudnessLane_; }
    void setShowLoudnessLane(bool show);
    /// Points.
    double loudnessLaneHeight() const { return loudnessLaneHeight_; }
    void setLoudnessLaneHeight(double height);
    /// dB shown above and below 0 in the envelope lane.
    double envelopeRangeDB() const { return envelopeRangeDB_; }
    void setEnvelopeRangeDB(double range);
    bool showInspector() const { return showInspector_; }
    void setShowInspector(bool show);
    InspectorTab inspectorTab() const { return inspectorTab_; }
    void setInspectorTab(InspectorTab tab);
    TimeFormat timeFormat() const { return timeFormat_; }
    void setTimeFormat(TimeFormat format);

    // Tempo grid -----------------------------------------------------------------------------

    const TempoGrid& grid() const { return grid_; }
    void setGrid(TempoGrid grid);
    bool showGrid() const { return showGrid_; }
    void setShowGrid(bool show);
    bool snapToGrid() const { return snapToGrid_; }
    void setSnapToGrid(bool snap);
    bool isDetectingTempo() const { return isDetectingTempo_; }
    void setIsDetectingTempo(bool detecting);
    std::optional<double> tempoConfidence() const { return tempoConfidence_; }
    void setTempoConfidence(std::optional<double> confidence);
    /// Wall-clock time stamps of tempo taps, in seconds; not observed.
    std::vector<double>& taps() { return taps_; }

    // Recording ------------------------------------------------------------------------------

    std::optional<int64_t> recordHead() const { return recordHead_; }
    void setRecordHead(std::optional<int64_t> head);
    // Bookkeeping of a take in progress; not observed.
    std::optional<EditState>& recordingBase() { return recordingBase_; }
    FrameRange& recordingTarget() { return recordingTarget_; }
    RecordMode& recordingMode() { return recordingMode_; }
    bool& recordingIntoEmpty() { return recordingIntoEmpty_; }
    bool& liveTakeVisible() { return liveTakeVisible_; }
    bool& analysisSuspended() { return analysisSuspended_; }
    /// A take starts: play stops, the document is kept as the base the live take is shown over,
    /// and the target range follows from the mode, the selection and the cursor. A take of
    /// another rate or channel count is not shown until it is finished.
    void beginRecording(RecordMode mode, double sampleRate, int channelCount);
    /// The take so far (ten times a second): moves `recordHead` and shows the take in place.
    void updateLiveTake(const AudioContent& take);
    /// The take ended: the document goes back to the base, then takes the take (converted to
    /// its format) as one undo step "Record". An absent or empty take leaves no trace.
    void finishRecording(std::optional<AudioContent> take);

    // Transport ------------------------------------------------------------------------------

    bool isPlaying() const { return isPlaying_; }
    void setIsPlaying(bool playing);
    bool isLooping() const { return isLooping_; }
    void setIsLooping(bool looping);
    int64_t playhead() const { return playhead_; }
    void setPlayhead(int64_t frame);
    const MeterReading& meter() const { return meter_; }
    void setMeter(MeterReading meter);
    /// Runs while playing, calling `transportTick` 30 times a second.
    RepeatingTimer* transportTimer() const { return transportTimer_.get(); }
    int64_t& playOrigin() { return playOrigin_; }
    int64_t& meterTick() { return meterTick_; }

    // Loudness -------------------------------------------------------------------------------

    const std::optional<LoudnessResult>& loudness() const { return loudness_; }
    void setLoudness(std::optional<LoudnessResult> result);
    const std::optional<LoudnessResult>& contentLoudness() const { return contentLoudness_; }
    void setContentLoudness(std::optional<LoudnessResult> result);
    const std::optional<LoudnessResult>& selectionLoudness() const { return selectionLoudness_; }
    void setSelectionLoudness(std::optional<LoudnessResult> result);
    const std::vector<double>& channelLoudness() const { return channelLoudness_; }
    void setChannelLoudness(std::vector<double> loudness);
    bool linkChannelLevels() const { return linkChannelLevels_; }
    void setLinkChannelLevels(bool link);
    bool isAnalyzing() const { return isAnalyzing_; }
    void setIsAnalyzing(bool analyzing);
    AnalysisScope analysisScope() const { return analysisScope_; }
    void setAnalysisScope(AnalysisScope scope);
    LoudnessAdjustMode adjustMode() const { return adjustMode_; }
    void setAdjustMode(LoudnessAdjustMode mode);
    double targetLUFS() const { return targetLUFS_; }
    void setTargetLUFS(double target);
    double ceilingDBTP() const { return ceilingDBTP_; }
    void setCeilingDBTP(double ceiling);
    double manualGainDB() const { return manualGainDB_; }
    void setManualGainDB(double gain);
    bool limitTruePeaks() const { return limitTruePeaks_; }
    void setLimitTruePeaks(bool limit);
    bool previewLoudness() const { return previewLoudness_; }
    void setPreviewLoudness(bool preview);
    /// The selection's measurement in selection scope with a selection, otherwise the file's.
    std::optional<LoudnessResult> activeLoudness() const;
    /// The gain the panel shows, from `activeLoudness`; none while that has no finite loudness.
    std::optional<LoudnessNormalization::Plan> loudnessPlan() const;
    /// Linear gain the player adds while the loudness is previewed: the plan's gain with
    /// `previewLoudness` on and a plan, otherwise 1. Limiting is not previewed.
    float previewGain() const;
    /// Renders the plan into the audio (the selection in selection scope, else the whole file),
    /// with the envelopes baked in first, as one undo step through `process`. Turns the preview
    /// off; nothing without a plan or while busy.
    void applyLoudness();

    // Busy -----------------------------------------------------------------------------------

    const std::optional<BusyState>& busy() const { return busy_; }
    QTimer* busyTimer() const { return busyTimer_.get(); }

    // Computed -------------------------------------------------------------------------------

    /// Absent when all channels are active, otherwise the active ones.
    std::optional<ChannelSet> targetChannels() const;
    /// "Mono"; "L"/"R"; "L", "R", "C", "LFE", "Ls", "Rs" for six; else the index plus 1.
    QString channelName(int index) const;
    /// Codec, rate, bit depth and channels joined by " · ".
    QString formatSummary() const;
    /// The selection when looping over one, otherwise the whole content.
    FrameRange playRange() const;

    // State and undo -------------------------------------------------------------------------

    /// Installs freshly read content: stops play, clears markers, envelopes and selection, and
    /// fits the view. The grid, the view toggles and the undo stack stay.
    void load(AudioContent content, std::optional<AudioFileInfo> fileInfo);
    EditState snapshot() const;
    /// Makes a state current: the way undo steps and every command's result come in.
    void restore(const EditState& state);
    /// Pushes an undo step that brings back `state`; nothing without an undo stack.
    void registerUndo(EditState state, const QString& name);
    /// Raises the versions and schedules the measurements of the new content.
    void contentDidChange();

    // Long operations ------------------------------------------------------------------------

    /// Runs `work` on a background job behind the busy overlay and commits its result as one
    /// undo step named `name`. `selection` given replaces the selection (with an absent value
    /// clearing it); `markers` and `envelope`, if given, make the new lists from the result;
    /// `landed` is told once the result is committed (not on failure or cancel).
    /// Refused with the alert sound while another operation is busy.
    void process(const QString& name, Work work,
                 std::optional<std::optional<FrameRange>> selection = std::nullopt,
                 MarkersProducer markers = {}, EnvelopeProducer envelope = {},
                 std::function<void()> landed = {});
    /// Shows the busy state of any long job; a 0.05 s timer copies the token's fraction.
    void beginExternalBusy(const QString& title, std::shared_ptr<ProgressToken> token);
    void endExternalBusy();

    // Transport ------------------------------------------------------------------------------

    /// Plays the selection when there is one and `selectionOnly` or looping holds, otherwise the
    /// whole content from the selection's start or the cursor (from 0 when that is the last frame
    /// or later). Failures of the device go to `presentError` and change nothing.
    void play(bool selectionOnly);
    /// Stops a take in progress, else stops play keeping the position, else plays everything.
    void togglePlayback();
    /// Stops play; with `keepPosition` and no selection the cursor moves to the playhead.
    void stop(bool keepPosition);
    /// Moves the cursor (clamped to the content), and while playing the playhead and the
    /// engine's position with it; scrolls the cursor into view.
    void seek(int64_t to);
    /// Stops, clears the selection and seeks to the first frame, scrolled fully left.
    void goToStart();
    /// Stops, clears the selection and seeks to the end.
    void goToEnd();
    /// 30 times a second during play: ends a play that ran out (the playhead back at its origin),
    /// moves the playhead to what is heard, keeps it in view and updates the meters.
    void transportTick();
    /// The meters from the content just before the playhead, after the envelopes' master curve
    /// and the loudness preview's gain: peak and RMS falling at 20 dB/s, a peak hold, and
    /// momentary and short-term loudness.
    void updateMeters();

    // Edit commands: each one undo step; a missing precondition makes them do nothing -------

    /// The selection (only the active channels, in ascending order, when restricted) onto the
    /// clipboard. Nothing without a selection.
    void copy();
    /// Removes the selection; with some channels inactive it silences the active ones instead,
    /// so that nothing moves. Nothing without a selection.
    void deleteNamed(const QString& name);
    /// Keeps only the selection, with the markers inside it, in all channels.
    void trimToSelection();
    /// Replaces the selection (or inserts at the cursor) with the clipboard in all channels, and
    /// selects what was pasted. A clip of another format is converted first, a rate change in a
    /// background job; into empty content the clip comes as it is, format and all.
    void paste();
    /// Mixes the clipboard over the content from the selection's start or the cursor, growing it
    /// at the end as needed, and selects the mixed stretch. Nothing into empty content.
    void pasteMix();
    /// `frames` of silence at the selection's start or the cursor, selected.
    void insertSilence(int64_t frames);
    /// The markers after `afterReplacing` became `newLength` frames long: those before stay,
    /// those inside stay unless the range vanished, those after move by the change of length.
    std::vector<Marker> markers(FrameRange afterReplacing, int64_t newLength) const;

    // Process commands: each one undo step through `process` (but Swap Channels, at once). The
    // range is the selection, else the whole file; the channels are `targetChannels`. A missing
    // precondition makes them do nothing ----------------------------------------------------

    void applyGain(double db);
    void normalizePeak(double toDB, bool independent);
    /// Needs a selection.
    void fade(FadeDirection direction, FadeShape shape);
    /// Needs a selection.
    void silence();
    void reverse();
    void invert();
    void removeDC();
    /// Two channels only; the whole file, whatever the selection; envelopes and trims stay.
    void swapChannels();
    /// All channels, the whole file.
    void convertChannels(int to);
    /// The whole file, all channels; selection, markers and envelopes scale with the rate.
    void changeSampleRate(double to);
    /// All channels; markers inside the range follow the stretch, those after it move.
    void timePitch(double rate, double pitchCents);
    /// The rack's active slots over the scope, with the envelopes baked in first; turns the
    /// preview off. Only the alert with no active slot or while busy.
    void applyEffects();

    // Envelope commands ------------------------------------------------------------------------

    /// Ends a drag of the target curve that started from `from`: one step, unless nothing moved.
    void endEnvelopeEdit(const GainEnvelope& from, const QString& name);
    void removeEnvelopePoint(const Uuid& id);
    /// Master, channel curves and trims, whatever the target.
    void clearEnvelope();
    /// Ends a drag of a trim that started from the set `from`.
    void endChannelTrimEdit(const EnvelopeSet& from);
    /// Trims that level the channels' loudness; only the alert without a finite figure for each
    /// of two or more channels.
    void balanceChannels();
    void resetChannelTrims();
    /// Renders the envelopes into the samples (a long operation) and empties them.
    void applyEnvelope();

    // Grid commands: no undo, the grid is a guide -----------------------------------------------

    /// Detects the tempo on a background job and lays the grid over it; the alert when none.
    void detectTempo();
    void tapTempo();
    /// At the playhead while playing, else the selection's start, else the cursor.
    void setDownbeatAtCursor();
    void scaleTempo(double factor);
    /// Seconds of wall-clock time for `tapTempo`; tests give their own.
    void setTapClock(std::function<double()> clock) { tapClock_ = std::move(clock); }

    // Marker commands: each one undo step; the list is kept sorted by frame (stable) ----------

    /// A marker named "Marker n" at `at`, else at the playhead while playing, the selection's
    /// start, or the cursor.
    void addMarker(std::optional<int64_t> at = std::nullopt);
    void removeMarker(const Uuid& id);
    void renameMarker(const Uuid& id, const QString& to);
    /// Moves a marker to `to`, clamped to the content. Without `registerUndo` the live list is
    /// written unsorted, as a drag goes on; `endMarkerDrag` then makes the drag one step.
    void moveMarker(const Uuid& id, int64_t to, bool registerUndo);
    /// Ends a drag that started from `original`: one undo step, unless nothing changed.
    void endMarkerDrag(const std::vector<Marker>& original);
    /// Seeks to the nearest marker after (or before) the playhead or cursor, skipping one that
    /// lies within a frame; backwards with none before goes to 0.
    void jumpToMarker(bool next);

    // View arithmetic ------------------------------------------------------------------------

    double maxFramesPerPoint() const;
    void clampScroll();
    void zoomToFit();
    /// Zooms by `factor` (above 1 zooms out) keeping the anchor at its place on screen, or
    /// bringing it to the middle when it was off screen.
    void zoom(double factor, std::optional<int64_t> anchorFrame = std::nullopt);
    void zoomToSelection();
    void scroll(double byPoints);
    void ensureVisible(int64_t frame);

    // Selection commands ---------------------------------------------------------------------

    void selectAll();
    void selectNone();
    /// The command: clamps the range, replaces the channels when given, and puts the cursor at
    /// the selection's start.
    void setSelection(std::optional<FrameRange> range, std::optional<ChannelSet> channels);
    /// `frame` clamped to the content and, with snapping on and strictly inside, moved to the
    /// nearest zero crossing within about six screen points.
    int64_t snapped(int64_t frame) const;

Q_SIGNALS:
    void contentChanged();
    void contentVersionChanged();
    void fileInfoChanged();
    void markersChanged();
    void envelopesChanged();
    void envelopeTargetChanged();
    void selectionChanged();
    void activeChannelsChanged();
    void cursorChanged();
    void snapToZeroCrossingsChanged();
    void framesPerPointChanged();
    void scrollFrameChanged();
    void viewWidthChanged();
    void amplitudeZoomChanged();
    void showLoudnessLaneChanged();
    void loudnessLaneHeightChanged();
    void envelopeRangeDBChanged();
    void showInspectorChanged();
    void inspectorTabChanged();
    void timeFormatChanged();
    void gridChanged();
    void showGridChanged();
    void snapToGridChanged();
    void isDetectingTempoChanged();
    void tempoConfidenceChanged();
    void recordHeadChanged();
    /// A finished take is in the document as an undo step: its safety copy may go.
    void takeKept();
    void isPlayingChanged();
    void isLoopingChanged();
    void playheadChanged();
    void meterChanged();
    void loudnessChanged();
    void contentLoudnessChanged();
    void selectionLoudnessChanged();
    void channelLoudnessChanged();
    void linkChannelLevelsChanged();
    void isAnalyzingChanged();
    void analysisScopeChanged();
    void adjustModeChanged();
    void targetLUFSChanged();
    void ceilingDBTPChanged();
    void manualGainDBChanged();
    void limitTruePeaksChanged();
    void previewLoudnessChanged();
    void busyChanged();
    /// Any observed field of the effects rack changed.
    void rackChanged();

private:
    template <class T> bool assign(T& field, T value, void (EditorModel::*changed)());
    void finishProcess(const QString& name, const std::shared_ptr<ProgressToken>& token,
                       std::optional<AudioContent> result, std::exception_ptr error,
                       const std::optional<std::optional<FrameRange>>& selection,
                       const MarkersProducer& markers, const EnvelopeProducer& envelope,
                       const std::function<void()>& landed);
    void resetMeter();
    static double wallClockSeconds();
    /// One undo step from `before` to `edited` envelopes, the rest of the state as it is.
    void commitEnvelopes(const EnvelopeSet& before, EnvelopeSet edited, const QString& name);
    /// A new 30 Hz transport timer in place of any running one.
    void startTransportTimer();
    /// Stores content and envelopes and raises the versions once; the player is not told. Returns
    /// whether the content differs from the one before.
    bool installAudio(AudioContent content, EnvelopeSet envelopes);
    /// Hands content, envelopes and play range to the player, in one call.
    void publishAudio(bool contentChanged);
    /// Hands `previewGain` to the player; runs wherever the plan or the preview may change.
    void updatePreviewGain();
    /// Hands a job's failure to `presentError`, unless it is a cancellation.
    void presentFailure(std::exception_ptr error);
    /// The undo frame of every command: `next` becomes current, the state before it one step.
    void commitEdit(const EditState& next, const QString& name);
    using ConformedContinuation = std::function<void(EditorModel& model, AudioContent conformed)>;
    /// Brings a clip to this content's channel count (at once) and rate (in a background job
    /// behind the busy overlay), then calls `then`, unless the conversion failed or was cancelled.
    void withConformed(AudioContent clip, ConformedContinuation then);

    // The rack runs on its scheduler and publishes into the player's render state: the player
    // goes first (its device stops before any runtime is dropped), the scheduler last.
    std::unique_ptr<RackScheduler> rackScheduler_;
    std::unique_ptr<EffectsRack> rack_;
    std::unique_ptr<PlaybackControl> player_;
    RepeatingTimerFactory timers_;
    std::unique_ptr<RecorderControl> recorder_;
    std::unique_ptr<AnalysisScheduler> analysis_;
    std::shared_ptr<AudioClipboard> clipboard_;

    QPointer<QUndoStack> undoManager_;
    ErrorPresenter presentError_;
    std::function<void()> alertSound_;

    AudioContent content_;
    int64_t contentVersion_ = 0;
    int64_t audioVersion_ = 0;
    std::optional<AudioFileInfo> fileInfo_;
    std::vector<Marker> markers_;
    EnvelopeSet envelopes_;
    std::optional<int> envelopeTarget_;

    std::optional<FrameRange> selection_;
    ChannelSet activeChannels_;
    int64_t cursor_ = 0;
    bool snapToZeroCrossings_ = false;

    double framesPerPoint_ = 256;
    double scrollFrame_ = 0;
    double viewWidth_ = 800;
    double amplitudeZoom_ = 1;
    bool showLoudnessLane_ = true;
    double loudnessLaneHeight_ = 130;
    double envelopeRangeDB_ = 12;
    bool showInspector_ = true;
    InspectorTab inspectorTab_ = InspectorTab::loudness;
    TimeFormat timeFormat_ = TimeFormat::hms;

    TempoGrid grid_;
    bool showGrid_ = false;
    bool snapToGrid_ = true;
    bool isDetectingTempo_ = false;
    std::optional<double> tempoConfidence_;
    std::vector<double> taps_;

    std::optional<int64_t> recordHead_;
    std::optional<EditState> recordingBase_;
    FrameRange recordingTarget_;
    RecordMode recordingMode_ = RecordMode::insert;
    bool recordingIntoEmpty_ = false;
    bool liveTakeVisible_ = true;
    bool analysisSuspended_ = false;

    bool isPlaying_ = false;
    bool isLooping_ = false;
    int64_t playhead_ = 0;
    std::function<double()> tapClock_ = wallClockSeconds;
    MeterReading meter_;
    std::unique_ptr<RepeatingTimer> transportTimer_;
    /// The range handed to the player for the play under way; kept over changes of the envelopes.
    FrameRange rangeInPlay_;
    int64_t playOrigin_ = 0;
    int64_t meterTick_ = 0;

    std::optional<LoudnessResult> loudness_;
    std::optional<LoudnessResult> contentLoudness_;
    std::optional<LoudnessResult> selectionLoudness_;
    std::vector<double> channelLoudness_;
    bool linkChannelLevels_ = false;
    bool isAnalyzing_ = false;
    AnalysisScope analysisScope_ = AnalysisScope::file;
    LoudnessAdjustMode adjustMode_ = LoudnessAdjustMode::target;
    double targetLUFS_ = -14;
    double ceilingDBTP_ = -1;
    double manualGainDB_ = 0;
    bool limitTruePeaks_ = true;
    bool previewLoudness_ = false;

    std::optional<BusyState> busy_;
    std::unique_ptr<QTimer> busyTimer_;
};

} // namespace harlune
