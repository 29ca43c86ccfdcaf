#pragma once

#include "base/AudioSource.h"
#include "base/ChannelSet.h"
#include "base/FrameRange.h"
#include "base/FunctionRef.h"
#include "core/AudioBlock.h"
#include "core/PeakIndex.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace harlune {

/// The whole audio of a document, as a value.
///
/// A piece table: an ordered list of segments, each a window into an immutable shared
/// `AudioBlock`. Every edit makes a new value that shares all untouched blocks with the old
/// one, so an undo step costs no sample memory, and playback, drawing, measurement and export
/// can each hold a stable copy while the main thread goes on.
///
/// A copy is a few fields and two shared immutable arrays (segments and their start frames):
/// copying allocates nothing, which the audio thread relies on. Copies may be read from any
/// number of threads at once; mutation happens only on a private copy and swaps in new arrays.
///
/// Programmer's errors (a read outside the content, mismatched channel counts, a differing
/// rate on a non-empty replacement) stop the program. Ranges given to `slice`,
/// `replaceSubrange`, `transformed` and `peaks` are clamped instead.
class AudioContent final : public AudioSource {
public:
    /// Writable views of the active channels of one chunk, and the chunk's absolute start frame.
    using TransformBody = FunctionRef<void(std::span<const std::span<float>> channels, int64_t startFrame)>;

    /// Empty content. `channelCount` must be at least 1.
    AudioContent(int channelCount, double sampleRate);
    /// Drops segments of count 0 or less and indexes the rest; adjacent windows are not merged.
    AudioContent(int channelCount, double sampleRate, std::vector<Segment> segments);
    /// From planar arrays, through a builder.
    AudioContent(std::vector<std::vector<float>> channels, double sampleRate);
    /// From any source (the whole of it when `range` is absent), copied in 65536-frame chunks.
    static AudioContent copying(const AudioSource& source, std::optional<FrameRange> range = std::nullopt);
    static AudioContent silence(int64_t frames, int channelCount, double sampleRate);

    AudioContent(const AudioContent&) = default;
    AudioContent(AudioContent&&) noexcept = default;
    AudioContent& operator=(const AudioContent&) = default;
    AudioContent& operator=(AudioContent&&) noexcept = default;

    int channelCount() const override { return channelCount_; }
    double sampleRate() const override { return sampleRate_; }
    int64_t frameCount() const override { return frameCount_; }
    bool isEmpty() const { return frameCount_ == 0; }
    const std::vector<Segment>& segments() const { return *segments_; }
    const std::vector<int64_t>& starts() const { return *starts_; }
    int64_t segmentCount() const { return static_cast<int64_t>(segments_->size()); }

    /// Index of the segment holding `frame` (0 with fewer than two segments).
    int64_t locate(int64_t frame) const;

    /// The range must lie within `0...frameCount`. No allocation, no lock: safe on the audio thread.
    void read(FrameRange range, ChannelPointers destination) const override;
    /// Clears the destination for the whole range, then reads the part inside the content to its
    /// place. For reads that may run past either end.
    void readPadded(FrameRange range, ChannelPointers destination) const;
    float sample(int channel, int64_t frame) const;

    /// New windows on the same blocks; the range is clamped.
    AudioContent slice(FrameRange range) const;

    /// The one primitive of all structural edits. `other` must have the same channel count, and
    /// when not empty the same sample rate.
    void replaceSubrange(FrameRange range, const AudioContent& other);
    void deleteRange(FrameRange range);
    void insert(const AudioContent& other, int64_t at);
    void append(const AudioContent& other);

    /// The one primitive of all sample-changing edits: `body` rewrites the active channels
    /// (ascending; all when absent) chunk by chunk; frames outside the range keep their blocks.
    /// What `body` throws passes on, with this content untouched.
    AudioContent transformed(FrameRange range, const std::optional<ChannelSet>& channels, int64_t chunkSize,
                             TransformBody body) const;

    /// `other` times the gain added at `frame`, the content lengthened to hold all of it. No clipping.
    AudioContent mixing(const AudioContent& other, int64_t at, double clipGainDB) const;

    /// Rewrites runs of small segments (under 4096 frames) into fresh blocks once they crowd the list.
    void compactIfFragmented();

    /// Minimum, maximum and energy of a channel over a range (clamped), from the summaries
    /// wherever whole summary points or whole blocks are covered.
    PeakSummary peaks(int channel, FrameRange range) const;
    /// As above, for runs of queries moving forward (a drawing's columns): `segmentHint` (-1 at
    /// first) says where the last query ended, so the next one need not search for its start.
    PeakSummary peaks(int channel, FrameRange range, int64_t& segmentHint) const;

private:
    /// Installs a new segment list; its peak index is built unless given.
    void reindex(std::vector<Segment> segments, std::shared_ptr<const PeakIndex> peakIndex = nullptr);

    int channelCount_;
    double sampleRate_;
    std::shared_ptr<const std::vector<Segment>> segments_;
    std::shared_ptr<const std::vector<int64_t>> starts_;
    /// The segments' summaries, rebuilt with the list.
    std::shared_ptr<const PeakIndex> peakIndex_;
    int64_t frameCount_ = 0;
};

} // namespace harlune
