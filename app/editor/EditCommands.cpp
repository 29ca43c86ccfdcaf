// The structural edit commands of the editor model and the clipboard conversion they share. They
// only rearrange segments, so they run on the main thread; the one exception is a clip of another
// sample rate, which is resampled in a background job before the paste lands.

#include "core/AudioContentBuilder.h"
#include "core/Processing.h"
#include "dsp/Resampler.h"
#include "editor/BackgroundJob.h"
#include "editor/EditorModel.h"

#include <algorithm>
#include <exception>
#include <vector>

namespace harlune {

namespace {

ChannelSet existingChannels(const ChannelSet& channels, const AudioContent& content) {
    ChannelSet valid;
    for (const int channel : channels)
        if (channel >= 0 && channel < content.channelCount())
            valid.insert(channel);
    return valid;
}

// The active channels that exist in `content` for a copy, or absent when that is all of them (or
// none: a clip of no channels is no clip).
std::optional<ChannelSet> copiedChannels(const std::optional<ChannelSet>& target,
                                         const AudioContent& content) {
    if (!target)
        return std::nullopt;
    ChannelSet valid = existingChannels(*target, content);
    if (valid.empty() || valid == allChannels(content.channelCount()))
        return std::nullopt;
    return valid;
}

} // namespace

std::vector<Marker> EditorModel::markers(FrameRange afterReplacing, int64_t newLength) const {
    const int64_t delta = newLength - afterReplacing.length();
    std::vector<Marker> result;
    result.reserve(markers_.size());
    for (const Marker& marker : markers_) {
        if (marker.frame < afterReplacing.lower) {
            result.push_back(marker);
        } else if (marker.frame < afterReplacing.upper) {
            // Inside a replaced stretch a marker keeps its distance from the start of the file.
            if (newLength > 0)
                result.push_back(marker);
        } else {
            Marker moved = marker;
            moved.frame += delta;
            result.push_back(std::move(moved));
        }
    }
    return result;
}

void EditorModel::copy() {
    if (!selection_)
        return;
    AudioContent clip = content_.slice(*selection_);
    if (const auto channels = copiedChannels(targetChannels(), content_)) {
        const std::vector<int> order(channels->begin(), channels->end());
        clip = rearrangingChannels(clip, order);
    }
    clipboard_->setContent(std::move(clip));
}

void EditorModel::deleteNamed(const QString& name) {
    if (!selection_)
        return;
    const FrameRange range = *selection_;
    EditState next = snapshot();
    if (const std::optional<ChannelSet> target = targetChannels()) {
        // Some channels only, or none at all: the length must not change, or the channels would
        // fall out of step.
        const ChannelSet channels = existingChannels(*target, content_);
        if (!channels.empty())
            next.content = silenced(content_, range, channels);
    } else {
        next.content.deleteRange(range);
        next.markers = markers(range, 0);
        next.envelope = envelopes_.adjusted(range, 0);
        next.selection.reset();
        next.cursor = range.lower;
    }
    commitEdit(next, name);
}

void EditorModel::trimToSelection() {
    if (!selection_)
        return;
    const auto [lo, hi] = *selection_;
    EditState next = snapshot();
    next.content = content_.slice(*selection_);
    next.markers.clear();
    for (const Marker& marker : markers_) {
        if (marker.frame < lo || marker.frame >= hi)
            continue;
        Marker kept = marker;
        kept.frame -= lo;
        next.markers.push_back(std::move(kept));
    }
    next.envelope = envelopes_.adjusted({hi, content_.frameCount()}, 0).adjusted({0, lo}, 0);
    next.selection.reset();
    next.cursor = 0;
    commitEdit(next, QStringLiteral("Trim"));
}

void EditorModel::paste() {
    const auto& clip = clipboard_->content();
    if (!clip || clip->isEmpty())
        return;

    if (content_.isEmpty()) {
        // Nothing to fit into: the clip comes with its own rate and channels.
        EditState next = snapshot();
        next.content = *clip;
        next.selection = FrameRange{0, clip->frameCount()};
        next.activeChannels = allChannels(clip->channelCount());
        commitEdit(next, QStringLiteral("Paste"));
        zoomToFit();
        return;
    }

    // Taken now, so that a paste that waits for a conversion still lands where it was asked.
    const FrameRange range =
        selection_.value_or(FrameRange{cursor_, cursor_}).clamped({0, content_.frameCount()});
    withConformed(*clip, [range](EditorModel& model, AudioContent conformed) {
        const FrameRange target = range.clamped({0, model.content_.frameCount()});
        const int64_t n = conformed.frameCount();
        EditState next = model.snapshot();
        next.content.replaceSubrange(target, conformed);
        next.markers = model.markers(target, n);
        next.envelope = model.envelopes_.adjusted(target, n);
        next.selection = FrameRange{target.lower, target.lower + n};
        model.commitEdit(next, QStringLiteral("Paste"));
    });
}

void EditorModel::pasteMix() {
    const auto& clip = clipboard_->content();
    if (!clip || clip->isEmpty() || content_.isEmpty())
        return;
    const int64_t at =
        std::clamp(selection_ ? selection_->lower : cursor_, int64_t{0}, content_.frameCount());
    withConformed(*clip, [at](EditorModel& model, AudioContent conformed) {
        // Nothing before the end of the file changes place, so markers and envelopes stay.
        const int64_t n = conformed.frameCount();
        EditState next = model.snapshot();
        next.content = model.content_.mixing(conformed, at, 0);
        next.selection = FrameRange{at, at + n};
        model.commitEdit(next, QStringLiteral("Paste Mix"));
    });
}

void EditorModel::insertSilence(int64_t frames) {
    if (frames < 1)
        return;
    const int64_t at =
        std::clamp(selection_ ? selection_->lower : cursor_, int64_t{0}, content_.frameCount());
    const FrameRange range{at, at};
    EditState next = snapshot();
    next.content.replaceSubrange(
        range, AudioContent::silence(frames, content_.channelCount(), content_.sampleRate()));
    next.markers = markers(range, frames);
    next.envelope = envelopes_.adjusted(range, frames);
    next.selection = FrameRange{at, at + frames};
    commitEdit(next, QStringLiteral("Insert Silence"));
}

void EditorModel::withConformed(AudioContent clip, ConformedContinuation then) {
    const int channels = content_.channelCount();
    const double rate = content_.sampleRate();
    if (clip.channelCount() != channels)
        clip = remixed(clip, channels);
    if (clip.sampleRate() == rate) {
        then(*this, std::move(clip));
        return;
    }

    // Not through `process`: the undo step is the continuation's, under its own name.
    auto token = std::make_shared<ProgressToken>();
    beginExternalBusy(QStringLiteral("Converting clipboard sample rate"), token);
    auto convert = [token, clip = std::move(clip), rate]() {
        AudioContentBuilder builder(clip.channelCount(), rate);
        auto progress = [&token](double fraction) {
            token->setFraction(fraction);
            return !token->isCancelled();
        };
        auto collect = [&builder](ChunkViews chunk) {
            builder.append(chunk);
        };
        Resampler::resample(clip, std::nullopt, rate, Resampler::Progress(progress), collect);
        return builder.build();
    };
    auto finish = [this, token, then = std::move(then)](std::optional<AudioContent> result,
                                                        std::exception_ptr error) {
        endExternalBusy();
        // A conversion that finished after Cancel is thrown away all the same.
        if (token->isCancelled())
            return;
        if (error) {
            presentFailure(error);
            return;
        }
        // The document's format cannot change behind the busy overlay; should it have, the clip
        // no longer fits and the paste is dropped.
        if (!result || result->channelCount() != content_.channelCount() ||
            result->sampleRate() != content_.sampleRate())
            return;
        then(*this, std::move(*result));
    };
    runInBackground<AudioContent>(*this, std::move(convert), std::move(finish));
}

} // namespace harlune
