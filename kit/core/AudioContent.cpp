#include "core/AudioContent.h"

#include "base/Precondition.h"
#include "core/AudioContentBuilder.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace harlune {

namespace {

constexpr int64_t smallSegmentFrames = 4096;

const std::shared_ptr<const std::vector<Segment>>& emptySegments() {
    static const auto empty = std::make_shared<const std::vector<Segment>>();
    return empty;
}

const std::shared_ptr<const std::vector<int64_t>>& emptyStarts() {
    static const auto empty = std::make_shared<const std::vector<int64_t>>();
    return empty;
}

const std::shared_ptr<const PeakIndex>& emptyPeakIndex() {
    static const auto empty = std::make_shared<const PeakIndex>();
    return empty;
}

} // namespace

AudioContent::AudioContent(int channelCount, double sampleRate)
    : channelCount_(channelCount), sampleRate_(sampleRate), segments_(emptySegments()),
      starts_(emptyStarts()), peakIndex_(emptyPeakIndex()) {
    HARLUNE_PRECONDITION(channelCount >= 1, "AudioContent needs at least one channel");
}

AudioContent::AudioContent(int channelCount, double sampleRate, std::vector<Segment> segments)
    : AudioContent(channelCount, sampleRate) {
    std::erase_if(segments, [](const Segment& s) { return s.count <= 0; });
    for (const auto& segment : segments) {
        HARLUNE_PRECONDITION(segment.block && segment.block->channelCount() == channelCount,
                             "segment's block has another channel count");
        HARLUNE_PRECONDITION(segment.offset >= 0 &&
                                 segment.offset + segment.count <= segment.block->frameCount(),
                             "segment window outside its block");
    }
    reindex(std::move(segments));
}

AudioContent::AudioContent(std::vector<std::vector<float>> channels, double sampleRate)
    : AudioContent(static_cast<int>(channels.size()), sampleRate) {
    AudioContentBuilder builder(channelCount_, sampleRate);
    builder.append(channels);
    *this = builder.build();
}

AudioContent AudioContent::copying(const AudioSource& source, std::optional<FrameRange> range) {
    AudioContentBuilder builder(source.channelCount(), source.sampleRate());
    source.forEachChunk(range, AudioBlock::preferredFrameCount,
                        [&](ChunkViews views, int64_t) { builder.append(views); });
    return builder.build();
}

AudioContent AudioContent::silence(int64_t frames, int channelCount, double sampleRate) {
    AudioContentBuilder builder(channelCount, sampleRate);
    builder.appendSilence(frames);
    return builder.build();
}

void AudioContent::reindex(std::vector<Segment> segments, std::shared_ptr<const PeakIndex> peakIndex) {
    std::vector<int64_t> starts;
    starts.reserve(segments.size());
    int64_t total = 0;
    for (const auto& segment : segments) {
        starts.push_back(total);
        total += segment.count;
    }
    frameCount_ = total;
    if (segments.empty()) {
        segments_ = emptySegments();
        starts_ = emptyStarts();
        peakIndex_ = emptyPeakIndex();
        return;
    }
    peakIndex_ = peakIndex ? std::move(peakIndex) : PeakIndex::make(segments, channelCount_);
    HARLUNE_PRECONDITION(peakIndex_->segments.size() == segments.size() * static_cast<size_t>(channelCount_),
                         "peak index out of step with the segments");
    segments_ = std::make_shared<const std::vector<Segment>>(std::move(segments));
    starts_ = std::make_shared<const std::vector<int64_t>>(std::move(starts));
}

int64_t AudioContent::locate(int64_t frame) const {
    const auto& starts = *starts_;
    if (starts.size() <= 1)
        return 0;
    int64_t lo = 0;
    auto hi = static_cast<int64_t>(starts.size()) - 1;
    while (lo < hi) {
        const int64_t mid = (lo + hi + 1) / 2;
        if (frame < starts[static_cast<size_t>(mid)])
            hi = mid - 1;
        else
            lo = mid;
    }
    return lo;
}

namespace {

/// The copy loop of `read`, writing to each destination at `destinationOffset` frames in.
void copyFrames(const std::vector<Segment>& segments, const std::vector<int64_t>& starts, int64_t first,
                FrameRange range, ChannelPointers destination, int channels, int64_t destinationOffset) {
    const size_t channelsToWrite = std::min(destination.size(), static_cast<size_t>(channels));
    int64_t position = range.lower;
    for (auto i = static_cast<size_t>(first); i < segments.size() && position < range.upper; ++i) {
        const Segment& segment = segments[i];
        const int64_t local = position - starts[i];
        const int64_t end = std::min(range.upper - starts[i], segment.count);
        const int64_t n = end - local;
        if (n <= 0)
            continue;
        const auto bytes = static_cast<size_t>(n) * sizeof(float);
        const int64_t source = segment.offset + local;
        const int64_t target = destinationOffset + position - range.lower;
        for (size_t c = 0; c < channelsToWrite; ++c)
            std::memcpy(destination[c] + target, segment.block->channel(static_cast<int>(c)) + source, bytes);
        position += n;
    }
}

} // namespace

void AudioContent::read(FrameRange range, ChannelPointers destination) const {
    HARLUNE_PRECONDITION(range.lower >= 0 && range.lower <= range.upper && range.upper <= frameCount_,
                         "AudioContent read outside the content");
    if (range.isEmpty() || segments_->empty())
        return;
    copyFrames(*segments_, *starts_, locate(range.lower), range, destination, channelCount_, 0);
}

void AudioContent::readPadded(FrameRange range, ChannelPointers destination) const {
    if (range.isEmpty())
        return;
    const size_t channels = std::min(destination.size(), static_cast<size_t>(channelCount_));
    for (size_t c = 0; c < channels; ++c)
        std::memset(destination[c], 0, static_cast<size_t>(range.length()) * sizeof(float));
    const FrameRange inside = range.clamped({0, frameCount_});
    if (inside.isEmpty() || segments_->empty())
        return;
    copyFrames(*segments_, *starts_, locate(inside.lower), inside, destination, channelCount_,
               inside.lower - range.lower);
}

float AudioContent::sample(int channel, int64_t frame) const {
    HARLUNE_PRECONDITION(channel >= 0 && channel < channelCount_, "sample channel out of range");
    HARLUNE_PRECONDITION(frame >= 0 && frame < frameCount_, "sample frame outside the content");
    const auto i = static_cast<size_t>(locate(frame));
    const Segment& segment = (*segments_)[i];
    return segment.block->channel(channel)[segment.offset + frame - (*starts_)[i]];
}

AudioContent AudioContent::slice(FrameRange range) const {
    const FrameRange clamped = range.clamped({0, frameCount_});
    AudioContent result(channelCount_, sampleRate_);
    if (clamped.isEmpty())
        return result;
    const auto& segments = *segments_;
    const auto& starts = *starts_;
    std::vector<Segment> windows;
    for (auto i = static_cast<size_t>(locate(clamped.lower));
         i < segments.size() && starts[i] < clamped.upper; ++i) {
        const int64_t from = std::max(clamped.lower, starts[i]) - starts[i];
        const int64_t to = std::min(clamped.upper - starts[i], segments[i].count);
        windows.push_back({segments[i].block, segments[i].offset + from, to - from});
    }
    result.reindex(std::move(windows));
    return result;
}

void AudioContent::replaceSubrange(FrameRange range, const AudioContent& other) {
    HARLUNE_PRECONDITION(other.channelCount_ == channelCount_, "replaceSubrange with another channel count");
    HARLUNE_PRECONDITION(other.isEmpty() || other.sampleRate_ == sampleRate_,
                         "replaceSubrange with another sample rate");
    const FrameRange clamped = range.clamped({0, frameCount_});
    const auto& segments = *segments_;
    const auto& starts = *starts_;

    std::vector<Segment> result;
    result.reserve(segments.size() + other.segments_->size() + 2);
    // The summaries of kept segments are copied, not recomputed: an edit of a long content stays
    // a copy of two flat arrays.
    const auto channels = static_cast<size_t>(channelCount_);
    const std::vector<PeakIndex::Entry>& known = peakIndex_->segments;
    std::vector<PeakIndex::Entry> entries;
    entries.reserve(result.capacity() * channels);

    if (clamped.lower > 0) {
        const auto at = static_cast<size_t>(locate(clamped.lower));
        result.insert(result.end(), segments.begin(), segments.begin() + static_cast<ptrdiff_t>(at));
        entries.insert(entries.end(), known.begin(), known.begin() + static_cast<ptrdiff_t>(at * channels));
        const int64_t kept = clamped.lower - starts[at];
        if (kept > 0) {
            result.push_back({segments[at].block, segments[at].offset, kept});
            PeakIndex::appendEntries(entries, result.back(), channelCount_);
        }
    }
    result.insert(result.end(), other.segments_->begin(), other.segments_->end());
    entries.insert(entries.end(), other.peakIndex_->segments.begin(), other.peakIndex_->segments.end());
    if (clamped.upper < frameCount_) {
        const auto at = static_cast<size_t>(locate(clamped.upper));
        const int64_t skipped = clamped.upper - starts[at];
        result.push_back({segments[at].block, segments[at].offset + skipped, segments[at].count - skipped});
        PeakIndex::appendEntries(entries, result.back(), channelCount_);
        result.insert(result.end(), segments.begin() + static_cast<ptrdiff_t>(at + 1), segments.end());
        entries.insert(entries.end(), known.begin() + static_cast<ptrdiff_t>((at + 1) * channels),
                       known.end());
    }
    reindex(std::move(result), PeakIndex::fromEntries(std::move(entries), channelCount_));
    compactIfFragmented();
}

void AudioContent::deleteRange(FrameRange range) {
    replaceSubrange(range, AudioContent(channelCount_, sampleRate_));
}

void AudioContent::insert(const AudioContent& other, int64_t at) {
    replaceSubrange({at, at}, other);
}

void AudioContent::append(const AudioContent& other) {
    replaceSubrange({frameCount_, frameCount_}, other);
}

AudioContent AudioContent::transformed(FrameRange range, const std::optional<ChannelSet>& channels,
                                       int64_t chunkSize, TransformBody body) const {
    const FrameRange clamped = range.clamped({0, frameCount_});
    if (clamped.isEmpty())
        return *this;
    HARLUNE_PRECONDITION(chunkSize >= 1, "transformed needs a positive chunk size");

    std::vector<int> active;
    if (channels) {
        for (const int c : *channels) {
            HARLUNE_PRECONDITION(c >= 0 && c < channelCount_, "transformed channel out of range");
            active.push_back(c);
        }
    } else {
        for (int c = 0; c < channelCount_; ++c)
            active.push_back(c);
    }

    const auto capacity = static_cast<size_t>(std::min(chunkSize, clamped.length()));
    std::vector<std::vector<float>> buffers(static_cast<size_t>(channelCount_), std::vector<float>(capacity));
    std::vector<float*> pointers(buffers.size());
    for (size_t c = 0; c < buffers.size(); ++c)
        pointers[c] = buffers[c].data();
    std::vector<std::span<float>> activeViews(active.size());
    std::vector<std::span<const float>> allViews(buffers.size());
    AudioContentBuilder builder(channelCount_, sampleRate_);

    for (int64_t position = clamped.lower; position < clamped.upper;) {
        const int64_t n = std::min(static_cast<int64_t>(capacity), clamped.upper - position);
        const auto length = static_cast<size_t>(n);
        read({position, position + n}, pointers);
        for (size_t a = 0; a < active.size(); ++a)
            activeViews[a] = std::span<float>(buffers[static_cast<size_t>(active[a])].data(), length);
        body(std::span<const std::span<float>>(activeViews), position);
        for (size_t c = 0; c < buffers.size(); ++c)
            allViews[c] = std::span<const float>(buffers[c].data(), length);
        builder.append(std::span<const std::span<const float>>(allViews));
        position += n;
    }

    AudioContent result = *this;
    result.replaceSubrange(clamped, builder.build());
    return result;
}

AudioContent AudioContent::mixing(const AudioContent& other, int64_t at, double clipGainDB) const {
    HARLUNE_PRECONDITION(other.channelCount_ == channelCount_, "mixing content of another channel count");
    if (other.isEmpty())
        return *this;
    const int64_t end = at + other.frameCount_;
    AudioContent base = *this;
    if (end > frameCount_)
        base.append(silence(end - frameCount_, channelCount_, sampleRate_));

    const auto gain = static_cast<float>(std::pow(10.0, clipGainDB / 20.0));
    const auto chunk = static_cast<size_t>(AudioBlock::preferredFrameCount);
    std::vector<std::vector<float>> scratch(static_cast<size_t>(channelCount_), std::vector<float>(chunk));
    std::vector<float*> pointers(scratch.size());
    for (size_t c = 0; c < scratch.size(); ++c)
        pointers[c] = scratch[c].data();

    return base.transformed({at, end}, std::nullopt, AudioBlock::preferredFrameCount,
                            [&](std::span<const std::span<float>> channels, int64_t start) {
                                const int64_t n = static_cast<int64_t>(channels.front().size());
                                other.read({start - at, start - at + n}, pointers);
                                for (size_t c = 0; c < channels.size(); ++c) {
                                    float* destination = channels[c].data();
                                    const float* source = scratch[c].data();
                                    for (int64_t i = 0; i < n; ++i)
                                        destination[i] = source[i] * gain + destination[i];
                                }
                            });
}

void AudioContent::compactIfFragmented() {
    const auto& segments = *segments_;
    if (segments.size() < 9)
        return;
    const auto small = std::count_if(segments.begin(), segments.end(),
                                     [](const Segment& s) { return s.count < smallSegmentFrames; });
    if (small <= 16)
        return;

    std::vector<Segment> output;
    std::vector<Segment> run;
    int64_t runFrames = 0;
    const auto flushRun = [&] {
        if (run.size() <= 1) {
            output.insert(output.end(), run.begin(), run.end());
        } else {
            const AudioContent crumbs(channelCount_, sampleRate_, run);
            const AudioContent copied = copying(crumbs);
            output.insert(output.end(), copied.segments().begin(), copied.segments().end());
        }
        run.clear();
        runFrames = 0;
    };
    for (const auto& segment : segments) {
        if (segment.count < smallSegmentFrames) {
            run.push_back(segment);
            runFrames += segment.count;
            if (runFrames >= AudioBlock::preferredFrameCount)
                flushRun();
        } else {
            flushRun();
            output.push_back(segment);
        }
    }
    flushRun();
    reindex(std::move(output));
}

PeakSummary AudioContent::peaks(int channel, FrameRange range) const {
    int64_t hint = -1;
    return peaks(channel, range, hint);
}

PeakSummary AudioContent::peaks(int channel, FrameRange range, int64_t& segmentHint) const {
    HARLUNE_PRECONDITION(channel >= 0 && channel < channelCount_, "peaks channel out of range");
    PeakSummary result = PeakSummary::empty();
    const FrameRange clamped = range.clamped({0, frameCount_});
    if (clamped.isEmpty())
        return result;
    const auto& segments = *segments_;
    const auto& starts = *starts_;
    const PeakIndex& index = *peakIndex_;
    const auto n = static_cast<int64_t>(segments.size());
    const auto endOf = [&](int64_t segment) {
        return segment < n ? starts[static_cast<size_t>(segment)] : frameCount_;
    };
    // Whole groups and whole segments from the index; only the segments cut by the range's ends
    // are read from their blocks.
    // From the hint forward when it lies at or before the range (a step or two for a query that
    // follows the previous one); otherwise, or when that walk grows long, by bisection.
    constexpr int64_t longestWalk = 64;
    int64_t first = segmentHint;
    if (first >= 0 && first < n && starts[static_cast<size_t>(first)] <= clamped.lower) {
        int64_t steps = 0;
        while (first + 1 < n && starts[static_cast<size_t>(first + 1)] <= clamped.lower &&
               steps++ < longestWalk)
            ++first;
        if (steps > longestWalk)
            first = locate(clamped.lower);
    } else {
        first = locate(clamped.lower);
    }
    int64_t i = first;
    for (; i < n && starts[static_cast<size_t>(i)] < clamped.upper;) {
        const int64_t start = starts[static_cast<size_t>(i)];
        if (start >= clamped.lower) {
            // The largest whole group that starts here and ends inside the range.
            bool merged = false;
            for (size_t level = PeakIndex::groupSizes.size(); level-- > 0 && !merged;) {
                const int64_t size = PeakIndex::groupSizes[level];
                if (i % size != 0)
                    continue;
                const int64_t last = std::min(n, i + size);
                if (const int64_t end = endOf(last); end <= clamped.upper) {
                    const PeakIndex::Entry& group = index.group(level, i / size, channel);
                    result.merge(group.min, group.max, group.sumSquares, end - start);
                    i = last;
                    merged = true;
                }
            }
            if (merged)
                continue;
            if (const int64_t end = endOf(i + 1); end <= clamped.upper) {
                const PeakIndex::Entry& whole = index.segment(i, channel);
                result.merge(whole.min, whole.max, whole.sumSquares, end - start);
                ++i;
                continue;
            }
        }
        const Segment& segment = segments[static_cast<size_t>(i)];
        const int64_t lo = segment.offset + std::max<int64_t>(0, clamped.lower - start);
        const int64_t hi = segment.offset + std::min(segment.count, clamped.upper - start);
        const PeakSummary part = blockPeaks(*segment.block, channel, lo, hi);
        result.merge(part.min, part.max, part.sumSquares, part.count);
        ++i;
    }
    // The segment holding the range's last frame, where the next column starts.
    segmentHint = std::max(first, i - 1);
    return result;
}

} // namespace harlune
