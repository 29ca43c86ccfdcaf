// The recording side of the editor model: a take grows live in the document over a snapshot of
// it, and when it ends the document goes back to that snapshot and takes the take in one undo step.
#include "core/AudioContentBuilder.h"
#include "core/Processing.h"
#include "dsp/Resampler.h"
#include "editor/EditorModel.h"

#include <algorithm>

namespace harlune {

namespace {

/// A head past 90 % of the view scrolls it so that the head stands at 10 %.
constexpr double recordFollowEdge = 0.9;
constexpr double recordFollowLead = 0.1;

} // namespace

void EditorModel::beginRecording(RecordMode mode, double sampleRate, int channelCount) {
    stop(false);
    recordingBase_ = snapshot();
    recordingMode_ = mode;
    const int64_t frames = content_.frameCount();
    recordingIntoEmpty_ = frames == 0;
    if (recordingIntoEmpty_) {
        recordingTarget_ = FrameRange{0, 0};
    } else {
        const int64_t p = std::clamp(selection_ ? selection_->lower : cursor_, int64_t{0}, frames);
        switch (mode) {
        case RecordMode::insert:
            recordingTarget_ = FrameRange{p, p};
            break;
        case RecordMode::replace:
            recordingTarget_ = selection_ ? *selection_ : FrameRange{p, p};
            break;
        case RecordMode::append:
            recordingTarget_ = FrameRange{frames, frames};
            break;
        }
    }
    // A take that must be converted shows no waveform until it is finished.
    liveTakeVisible_ = recordingIntoEmpty_ ||
                       (sampleRate == content_.sampleRate() && channelCount == content_.channelCount());
    // No loudness job on content that changes ten times a second.
    analysisSuspended_ = true;
    setRecordHead(recordingTarget_.lower);
}

void EditorModel::updateLiveTake(const AudioContent& take) {
    if (!recordingBase_)
        return;
    const AudioContent& base = recordingBase_->content;
    int64_t frames = take.frameCount();
    if (!recordingIntoEmpty_ && take.sampleRate() > 0 && base.sampleRate() != take.sampleRate())
        frames = static_cast<int64_t>(base.sampleRate() / take.sampleRate() * static_cast<double>(frames));
    const int64_t lower = recordingTarget_.lower;
    setRecordHead(lower + frames);
    if (!liveTakeVisible_)
        return;

    if (recordingIntoEmpty_) {
        setContent(take);
    } else {
        FrameRange replaced{lower, lower};
        if (recordingMode_ == RecordMode::replace)
            replaced.upper = std::max(std::min(lower + frames, base.frameCount()), recordingTarget_.upper);
        AudioContent live = base;
        live.replaceSubrange(replaced, take);
        setContent(std::move(live));
    }

    const double visible = viewWidth_ * framesPerPoint_;
    if (static_cast<double>(*recordHead_) > scrollFrame_ + visible * recordFollowEdge) {
        if (recordingIntoEmpty_) {
            zoomToFit();
        } else {
            setScrollFrame(static_cast<double>(*recordHead_) - visible * recordFollowLead);
            clampScroll();
        }
    }
}

void EditorModel::finishRecording(std::optional<AudioContent> take) {
    analysisSuspended_ = false;
    setRecordHead(std::nullopt);
    if (!recordingBase_)
        return;
    const EditState base = std::move(*recordingBase_);
    recordingBase_.reset();
    restore(base);
    if (!take || take->frameCount() == 0)
        return;

    if (recordingIntoEmpty_) {
        const EditState before = snapshot();
        EditState next = before;
        next.content = *take;
        next.selection.reset();
        next.cursor = 0;
        next.activeChannels = allChannels(take->channelCount());
        next.envelope = EnvelopeSet{};
        restore(next);
        registerUndo(before, QStringLiteral("Record"));
        AudioFileInfo info;
        info.containerName = "CAF";
        info.codecName = "32-bit float";
        info.sampleRate = take->sampleRate();
        info.channelCount = take->channelCount();
        info.bitDepth = 32;
        info.isFloat = true;
        info.frameCount = take->frameCount();
        setFileInfo(info);
        zoomToFit();
        Q_EMIT takeKept();
        return;
    }

    const double rate = content_.sampleRate();
    const int channels = content_.channelCount();
    const bool converts = take->sampleRate() != rate;
    const QString name =
        converts
            ? QStringLiteral("Record (converted from %1 Hz)").arg(static_cast<qint64>(take->sampleRate()))
            : QStringLiteral("Record");
    const RecordMode mode = recordingMode_;
    const FrameRange target = recordingTarget_;
    // The take's length in the document's frames, as the work will produce it.
    const int64_t newLength = converts
                                  ? Resampler::outputFrameCount(take->frameCount(), take->sampleRate(), rate)
                                  : take->frameCount();
    const auto replaced = [mode, target, newLength](int64_t documentFrames) {
        FrameRange range = target;
        if (mode == RecordMode::replace)
            range.upper = std::min(std::max(target.upper, target.lower + newLength), documentFrames);
        return range;
    };
    const int64_t documentFrames = content_.frameCount();
    const FrameRange range = replaced(documentFrames);
    process(
        name,
        [take = std::move(*take), rate, channels, range](AudioContent content,
                                                         const std::shared_ptr<ProgressToken>& token) {
            AudioContent converted = take;
            if (converted.sampleRate() != rate) {
                AudioContentBuilder builder(converted.channelCount(), rate);
                auto progress = [&token](double fraction) {
                    token->setFraction(fraction);
                    return !token->isCancelled();
                };
                auto collect = [&builder](ChunkViews chunk) {
                    builder.append(chunk);
                };
                Resampler::resample(converted, std::nullopt, rate, Resampler::Progress(progress), collect);
                converted = builder.build();
            }
            if (converted.channelCount() != channels)
                converted = remixed(converted, channels);
            content.replaceSubrange(range, converted);
            return content;
        },
        std::nullopt, [this, range, newLength](const AudioContent&) { return markers(range, newLength); },
        [this, range, newLength](const AudioContent&) { return envelopes_.adjusted(range, newLength); },
        [this] { Q_EMIT takeKept(); });
}

} // namespace harlune
