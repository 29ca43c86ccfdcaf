#include "core/AudioContentBuilder.h"

#include "base/Precondition.h"

#include <algorithm>
#include <cstdint>
#include <sys/mman.h>
#include <unistd.h>

namespace harlune {

namespace {

// Fresh block memory costs a page fault per 4 KiB at first touch, the largest single cost of a
// long decode in this process. Asking the kernel to map a large stretch in one call costs about a
// third less. Small appends fault as usual; a kernel without MADV_POPULATE_WRITE just refuses.
void prefault(const float* begin, size_t count) {
    constexpr size_t worthwhile = 65536;
    if (count * sizeof(float) < worthwhile)
        return;
    static const auto pageSize = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));
    const auto first = reinterpret_cast<uintptr_t>(begin) & ~(pageSize - 1);
    const auto last = (reinterpret_cast<uintptr_t>(begin + count) + pageSize - 1) & ~(pageSize - 1);
    ::madvise(reinterpret_cast<void*>(first), last - first, MADV_POPULATE_WRITE);
}

} // namespace

AudioContentBuilder::AudioContentBuilder(int channelCount, double sampleRate)
    : channelCount_(channelCount), sampleRate_(sampleRate) {
    startPending();
}

void AudioContentBuilder::startPending() {
    pending_.assign(static_cast<size_t>(std::max(0, channelCount_)), {});
    for (auto& channel : pending_)
        channel.reserve(static_cast<size_t>(AudioBlock::preferredFrameCount));
}

int64_t AudioContentBuilder::frameCount() const {
    if (pending_.empty())
        return 0;
    int64_t total = static_cast<int64_t>(pending_.front().size());
    for (const auto& segment : segments_)
        total += segment.count;
    return total;
}

void AudioContentBuilder::append(std::span<const std::span<const float>> buffers) {
    if (buffers.empty() || buffers.front().empty())
        return;
    HARLUNE_PRECONDITION(buffers.size() == pending_.size(), "builder append with another channel count");
    const auto total = buffers.front().size();
    for (const auto& buffer : buffers)
        HARLUNE_PRECONDITION(buffer.size() >= total, "builder append with channels of differing length");

    size_t done = 0;
    const auto blockFrames = static_cast<size_t>(AudioBlock::preferredFrameCount);
    while (done < total) {
        const size_t n = std::min(total - done, blockFrames - pending_.front().size());
        for (size_t c = 0; c < pending_.size(); ++c) {
            prefault(pending_[c].data() + pending_[c].size(), n);
            pending_[c].insert(pending_[c].end(), buffers[c].data() + done, buffers[c].data() + done + n);
        }
        done += n;
        if (pending_.front().size() == blockFrames)
            flush();
    }
}

void AudioContentBuilder::append(const std::vector<std::vector<float>>& arrays) {
    if (arrays.empty() || arrays.front().empty())
        return;
    std::vector<std::span<const float>> views(arrays.begin(), arrays.end());
    append(std::span<const std::span<const float>>(views));
}

void AudioContentBuilder::append(const AudioContent& content) {
    HARLUNE_PRECONDITION(content.channelCount() == channelCount_,
                         "builder append of content with another channel count");
    flush();
    segments_.insert(segments_.end(), content.segments().begin(), content.segments().end());
}

void AudioContentBuilder::appendSilence(int64_t frames) {
    if (frames < 1)
        return;
    const std::vector<float> zeros(static_cast<size_t>(std::min(frames, AudioBlock::preferredFrameCount)),
                                   0.0f);
    std::vector<std::span<const float>> views(pending_.size());
    for (int64_t done = 0; done < frames;) {
        const int64_t n = std::min(frames - done, static_cast<int64_t>(zeros.size()));
        for (auto& view : views)
            view = std::span<const float>(zeros.data(), static_cast<size_t>(n));
        append(std::span<const std::span<const float>>(views));
        done += n;
    }
}

AudioContent AudioContentBuilder::snapshot() const {
    std::vector<Segment> segments = segments_;
    if (!pending_.empty() && !pending_.front().empty()) {
        const auto count = static_cast<int64_t>(pending_.front().size());
        segments.push_back({AudioBlock::make(pending_), 0, count});
    }
    return AudioContent(channelCount_, sampleRate_, std::move(segments));
}

AudioContent AudioContentBuilder::build() {
    flush();
    return AudioContent(channelCount_, sampleRate_, segments_);
}

void AudioContentBuilder::flush() {
    if (pending_.empty() || pending_.front().empty())
        return;
    const auto count = static_cast<int64_t>(pending_.front().size());
    if (count < AudioBlock::preferredFrameCount)
        for (auto& channel : pending_)
            channel.shrink_to_fit(); // a short block keeps only what it holds
    segments_.push_back({AudioBlock::make(std::move(pending_)), 0, count});
    startPending();
}

} // namespace harlune
