// The commands that change samples. Each takes its range and channels on the main thread, then
// runs through `process`: a background job behind the busy overlay, one undo step. The one
// exception is Swap Channels, which only rearranges segments and so runs at once.

#include "base/HarluneError.h"
#include "core/AudioContentBuilder.h"
#include "core/Processing.h"
#include "core/TimePitchProcessing.h"
#include "dsp/Resampler.h"
#include "editor/CFormatted.h"
#include "editor/EditorModel.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace harlune {

namespace {

// The progress callback every command hands its work: the fraction into the token (clamped, as
// some renderers overshoot a little at the end), and whether to go on.
auto progressInto(const std::shared_ptr<ProgressToken>& token) {
    return [token](double fraction) {
        token->setFraction(std::clamp(fraction, 0.0, 1.0));
        return !token->isCancelled();
    };
}

// Work that cannot report progress: it runs whole, and a cancel during it drops the result.
EditorModel::Work simpleWork(std::function<AudioContent(const AudioContent&)> operation) {
    return [operation = std::move(operation)](AudioContent content, std::shared_ptr<ProgressToken> token) {
        if (token->isCancelled())
            throw HarluneError::cancelled();
        return operation(content);
    };
}

} // namespace

void EditorModel::applyGain(double db) {
    const std::optional<FrameRange> range = selection_; // absent: the whole file
    const auto channels = targetChannels();
    process(cFormatted("Gain %+.1f dB", db), simpleWork([=](const AudioContent& content) {
                return applyingGain(content, db, range, channels);
            }));
}

void EditorModel::normalizePeak(double toDB, bool independent) {
    const std::optional<FrameRange> range = selection_; // absent: the whole file
    const auto channels = targetChannels();
    process(QStringLiteral("Normalize"), simpleWork([=](const AudioContent& content) {
                return normalizingPeak(content, toDB, range, channels, independent);
            }));
}

void EditorModel::fade(FadeDirection direction, FadeShape shape) {
    if (!selection_)
        return;
    const FrameRange range = *selection_;
    const auto channels = targetChannels();
    const QString name =
        direction == FadeDirection::fadeIn ? QStringLiteral("Fade In") : QStringLiteral("Fade Out");
    process(name, simpleWork([=](const AudioContent& content) {
                return applyingFade(content, direction, shape, range, channels);
            }));
}

void EditorModel::silence() {
    if (!selection_)
        return;
    const FrameRange range = *selection_;
    const auto channels = targetChannels();
    process(QStringLiteral("Silence"),
            simpleWork([=](const AudioContent& content) { return silenced(content, range, channels); }));
}

void EditorModel::reverse() {
    const std::optional<FrameRange> range = selection_; // absent: the whole file
    const auto channels = targetChannels();
    process(QStringLiteral("Reverse"),
            simpleWork([=](const AudioContent& content) { return reversed(content, range, channels); }));
}

void EditorModel::invert() {
    const std::optional<FrameRange> range = selection_; // absent: the whole file
    const auto channels = targetChannels();
    process(QStringLiteral("Invert Polarity"),
            simpleWork([=](const AudioContent& content) { return inverted(content, range, channels); }));
}

void EditorModel::removeDC() {
    const std::optional<FrameRange> range = selection_; // absent: the whole file
    const auto channels = targetChannels();
    process(QStringLiteral("Remove DC Offset"), simpleWork([=](const AudioContent& content) {
                return removingDCOffset(content, range, channels);
            }));
}

void EditorModel::swapChannels() {
    if (content_.channelCount() != 2)
        return;
    // The samples only: channel envelopes and trims stay with their channel numbers.
    static constexpr std::array<int, 2> swapped{1, 0};
    EditState next = snapshot();
    next.content = rearrangingChannels(content_, swapped);
    commitEdit(next, QStringLiteral("Swap Channels"));
}

void EditorModel::convertChannels(int to) {
    if (to < 1 || to == content_.channelCount())
        return;
    process(to == 1 ? QStringLiteral("Convert to Mono") : QStringLiteral("Convert to Stereo"),
            simpleWork([to](const AudioContent& content) { return remixed(content, to); }));
}

void EditorModel::changeSampleRate(double to) {
    const double from = content_.sampleRate();
    if (!(to > 0) || to == from || !(from > 0))
        return;
    const double ratio = to / from;
    const auto scale = [ratio](int64_t frame) {
        return static_cast<int64_t>(static_cast<double>(frame) * ratio);
    };
    std::optional<FrameRange> newSelection;
    if (selection_)
        newSelection = FrameRange{scale(selection_->lower), scale(selection_->upper)};
    EnvelopeSet scaledEnvelopes = envelopes_.scaled(ratio);

    Work work = [to](AudioContent content, std::shared_ptr<ProgressToken> token) {
        AudioContentBuilder builder(content.channelCount(), to);
        auto progress = progressInto(token);
        Resampler::resample(content, std::nullopt, to, Resampler::Progress(progress),
                            [&builder](ChunkViews chunk) { builder.append(chunk); });
        return builder.build();
    };
    MarkersProducer markers = [scale, original = markers_](const AudioContent&) {
        std::vector<Marker> moved = original;
        for (Marker& marker : moved)
            marker.frame = scale(marker.frame);
        return moved;
    };
    process(QStringLiteral("Change Sample Rate"), std::move(work), newSelection, std::move(markers),
            [scaledEnvelopes](const AudioContent&) { return scaledEnvelopes; });
}

void EditorModel::timePitch(double rate, double pitchCents) {
    if (!(rate > 0) || (rate == 1 && pitchCents == 0))
        return;
    const FrameRange range = selection_.value_or(FrameRange{0, content_.frameCount()});
    const int64_t lo = range.lower;
    const int64_t hi = range.upper;
    const int64_t n = range.length();
    // Halves away from zero.
    const int64_t m = std::llround(static_cast<double>(n) / rate);
    const int64_t delta = m - n;
    std::optional<FrameRange> newSelection;
    if (selection_)
        newSelection = FrameRange{lo, lo + m};
    EnvelopeSet adjusted = envelopes_.adjusted(range, m);

    Work work = [range, rate, pitchCents](AudioContent content, std::shared_ptr<ProgressToken> token) {
        auto progress = progressInto(token);
        return timePitched(content, range, rate, pitchCents, TimePitch::Progress(progress));
    };
    MarkersProducer markers = [original = markers_, lo, hi, rate, delta](const AudioContent&) {
        std::vector<Marker> moved = original;
        for (Marker& marker : moved) {
            if (marker.frame <= lo)
                continue;
            if (marker.frame < hi)
                marker.frame = lo + static_cast<int64_t>(static_cast<double>(marker.frame - lo) / rate);
            else
                marker.frame += delta;
        }
        return moved;
    };
    process(cFormatted("Time & Pitch (%.0f%%, %+.0f ct)", rate * 100, pitchCents), std::move(work),
            newSelection, std::move(markers), [adjusted](const AudioContent&) { return adjusted; });
}

void EditorModel::applyEffects() {
    if (rack_->activeSlots().empty() || busy_) {
        if (alertSound_)
            alertSound_();
        return;
    }
    const std::optional<FrameRange> range = selection_; // absent: the whole file
    const auto channels = targetChannels();
    const EffectTailMode tail = rack_->tailMode();
    const QString name = QStringLiteral("Apply ") + QString::fromStdString(rack_->chainName());

    // Fresh processors: the preview's keep playing undisturbed. Plug-ins are made here too, on
    // the main thread, before any busy state.
    ProcessorHandoff handoff;
    try {
        handoff = rack_->makeOfflineChain();
    } catch (...) {
        presentFailure(std::current_exception());
        return;
    }

    // The effects hear the audio as the user hears it: the envelopes go into the samples first,
    // and the document's envelopes are emptied in the same step.
    Work work = [set = envelopes_, chain = std::move(handoff.chain), range, channels,
                 tail](AudioContent content, std::shared_ptr<ProgressToken> token) {
        const AudioContent baked = applyingEnvelopes(content, set);
        auto progress = progressInto(token);
        return applyingEffects(baked, chain, range, channels, tail, EffectRenderer::Progress(progress));
    };
    process(name, std::move(work), std::nullopt, {}, [](const AudioContent&) { return EnvelopeSet{}; });
    // The processed audio must not be heard through the effects a second time.
    rack_->setPreviewEnabled(false);
}

} // namespace harlune
