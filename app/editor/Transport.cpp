// The transport of the editor model: play, stop, seek, and the 30 Hz tick that moves the playhead
// and computes the meters from the content around it.
#include "base/Decibels.h"
#include "dsp/LoudnessAnalyzer.h"
#include "editor/EditorModel.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <exception>

namespace harlune {

namespace {

constexpr std::chrono::microseconds transportInterval{1'000'000 / 30};
/// Seconds of content before the playhead behind each meter.
constexpr double levelWindowSeconds = 0.05;
constexpr double momentaryWindowSeconds = 0.4;
constexpr double shortTermWindowSeconds = 3;
/// dB per tick that a level meter falls: 20 dB per second at 30 ticks.
constexpr double fallPerTick = 2.0 / 3.0;
/// The hold falls by `holdFall` dB once every `holdTicks` ticks (1.5 s).
constexpr int64_t holdTicks = 45;
constexpr double holdFall = 0.5;
/// The short-term loudness is measured every third tick.
constexpr int64_t shortTermTicks = 3;
/// Follow scrolling: when the playhead leaves the view or passes 95 % of it, it comes back in at 5 %.
constexpr double followEdge = 0.95;
constexpr double followLead = 0.05;

int64_t framesOf(double sampleRate, double seconds) {
    return static_cast<int64_t>(sampleRate * seconds);
}

} // namespace

void EditorModel::play(bool selectionOnly) {
    const int64_t frames = content_.frameCount();
    if (frames == 0 || recorder_->isRecording())
        return;

    FrameRange range{0, frames};
    int64_t start = 0;
    if (selection_ && (selectionOnly || isLooping_)) {
        range = *selection_;
        start = selection_->lower;
    } else {
        start = selection_ ? selection_->lower : cursor_;
        // From the last frame there is nothing left to hear: play the whole from the top.
        if (start >= frames - 1 || start < 0)
            start = 0;
    }

    if (const std::shared_ptr<RenderState> state = player_->renderState())
        rack_->activate(state, content_.sampleRate(), content_.channelCount());
    player_->setEnvelopes(envelopes_);
    const float gain = previewGain();
    try {
        player_->ensureGraph(content_);
        player_->start(content_, range, start, isLooping_, gain);
    } catch (...) {
        presentFailure(std::current_exception());
        return;
    }

    rangeInPlay_ = range;
    playOrigin_ = start;
    setPlayhead(start);
    setIsPlaying(true);
    setMeter(MeterReading::reset(content_.channelCount()));
    meterTick_ = 0;
    startTransportTimer();
}

void EditorModel::togglePlayback() {
    if (recorder_->isRecording())
        recorder_->stop();
    else if (isPlaying_)
        stop(true);
    else
        play(false);
}

void EditorModel::stop(bool keepPosition) {
    if (!isPlaying_)
        return;
    player_->pause();
    setIsPlaying(false);
    transportTimer_.reset();
    if (keepPosition && !selection_)
        setCursor(std::clamp(playhead_, int64_t{0}, content_.frameCount()));
    resetMeter();
}

void EditorModel::startTransportTimer() {
    transportTimer_.reset();
    transportTimer_ = timers_(transportInterval, [this] { transportTick(); });
}

void EditorModel::seek(int64_t to) {
    setCursor(std::clamp(to, int64_t{0}, content_.frameCount()));
    if (isPlaying_) {
        player_->setPosition(cursor_);
        setPlayhead(cursor_);
    }
    ensureVisible(cursor_);
}

void EditorModel::goToStart() {
    stop(false);
    setSelection(std::nullopt);
    seek(0);
    setScrollFrame(0);
}

void EditorModel::goToEnd() {
    stop(false);
    setSelection(std::nullopt);
    seek(content_.frameCount());
}

void EditorModel::transportTick() {
    if (!isPlaying_)
        return;
    if (player_->finished()) {
        // The playhead goes back to where the play began; the cursor stays.
        stop(false);
        setPlayhead(playOrigin_);
        return;
    }
    const int64_t heard = player_->audiblePosition();
    if (heard != playhead_)
        setPlayhead(heard);

    const double span = viewWidth_ * framesPerPoint_;
    const auto head = static_cast<double>(playhead_);
    if (head > scrollFrame_ + span * followEdge || head < scrollFrame_) {
        setScrollFrame(head - span * followLead);
        clampScroll();
    }
    updateMeters();
}

void EditorModel::updateMeters() {
    const int channels = content_.channelCount();
    MeterReading next = meter_;
    if (next.peakDB.size() != static_cast<size_t>(channels))
        next = MeterReading::reset(channels);

    // What is heard, before the rack: the preview's gain and the master curve. Channel curves and
    // trims are left out.
    const double offset = Decibels::fromLinear(static_cast<double>(previewGain())) +
                          envelopes_.master.gainDB(static_cast<double>(playhead_));
    const double rate = content_.sampleRate();
    const int64_t upper = std::min(playhead_, content_.frameCount());
    const int64_t lower =
        std::max(playhead_ - std::max(framesOf(rate, levelWindowSeconds), int64_t{1}), int64_t{0});

    for (int channel = 0; channel < channels; ++channel) {
        double peak = MeterReading::resetValue;
        double rms = MeterReading::resetValue;
        if (lower < upper) {
            const PeakSummary summary = content_.peaks(channel, {lower, upper});
            if (!summary.isEmpty()) {
                const float magnitude = std::max(std::abs(summary.min), std::abs(summary.max));
                peak = Decibels::fromLinear(magnitude) + offset;
                rms = Decibels::fromLinear(summary.rms()) + offset;
            }
        }
        const auto c = static_cast<size_t>(channel);
        next.peakDB[c] = std::max(next.peakDB[c] - fallPerTick, peak);
        next.rmsDB[c] = std::max(next.rmsDB[c] - fallPerTick, rms);
        if (peak < next.holdDB[c]) {
            if (meterTick_ % holdTicks == 0)
                next.holdDB[c] -= holdFall;
        } else {
            next.holdDB[c] = peak;
        }
    }

    const auto windowFrom = [&](double seconds) {
        return FrameRange{std::max(playhead_ - framesOf(rate, seconds), int64_t{0}), upper};
    };
    // An empty window (the very start of a play) leaves the figures as they were.
    if (const FrameRange momentary = windowFrom(momentaryWindowSeconds); momentary.lower < momentary.upper) {
        next.momentaryLUFS = offset + LoudnessAnalyzer::windowLoudness(content_, momentary);
        next.maxMomentaryLUFS = std::max(next.maxMomentaryLUFS, next.momentaryLUFS);
    }
    if (meterTick_ % shortTermTicks == 0) {
        if (const FrameRange shortTerm = windowFrom(shortTermWindowSeconds);
            shortTerm.lower < shortTerm.upper)
            next.shortTermLUFS = offset + LoudnessAnalyzer::windowLoudness(content_, shortTerm);
    }

    ++meterTick_;
    setMeter(std::move(next));
}

} // namespace harlune
