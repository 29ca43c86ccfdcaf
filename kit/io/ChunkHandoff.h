#pragma once

#include "io/ChunkSink.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace harlune {

/// Runs the rest of a chain on a thread of its own: `consume` copies the chunk into one of a few
/// buffers and returns, while the thread hands the buffered chunks to `next` in order. So the
/// stage ahead (a decoder, a converter) and the stages behind (a converter, a writer) work at the
/// same time, with memory bounded by `depth` chunks.
///
/// An error of the stages behind comes back at the next `consume` or at `finish`, as it was
/// thrown. `finish` waits for the thread and then finishes `next` on the caller's thread;
/// `abort` stops the thread, drops what is still queued and aborts `next`.
class ChunkHandoff final : public ChunkSink {
public:
    ChunkHandoff(int channels, std::unique_ptr<ChunkSink> next, size_t depth = 4);
    ~ChunkHandoff() override;

    void consume(ChunkViews chunk) override;
    void finish() override;
    void abort() noexcept override;

    ChunkSink& next() { return *next_; }

private:
    struct Slot {
        std::vector<std::vector<float>> channels;
        size_t frames = 0;
    };

    void run();
    void stopThread() noexcept;

    std::unique_ptr<ChunkSink> next_;
    std::vector<Slot> slots_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<size_t> free_;  ///< slots the producer may fill
    std::deque<size_t> ready_; ///< filled slots, in order
    bool ended_ = false;       ///< no more chunks will come
    bool stopping_ = false;    ///< drop everything and leave
    bool idle_ = false;        ///< the thread has left its loop
    std::exception_ptr error_;
    std::vector<std::span<const float>> views_; ///< used by the thread only
    std::thread thread_;
};

/// Regroups a stream into chunks of exactly `frames` frames (the last one shorter), whatever the
/// lengths that come in. Chunks that already line up pass through without a copy. An encode fed
/// from a decoder sees the same chunk borders as one fed from memory, which keeps the dither's
/// noise sequence, drawn channel by channel within a chunk, the same.
class Rechunker final : public ChunkSink {
public:
    Rechunker(int channels, int64_t frames, std::unique_ptr<ChunkSink> next);

    void consume(ChunkViews chunk) override;
    void finish() override;
    void abort() noexcept override;

private:
    void flush();

    std::unique_ptr<ChunkSink> next_;
    int64_t frames_;
    std::vector<std::vector<float>> buffer_;
    size_t filled_ = 0;
    std::vector<std::span<const float>> views_;
};

} // namespace harlune
