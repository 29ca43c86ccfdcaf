#include "io/ChunkHandoff.h"

#include "base/Precondition.h"

#include <algorithm>

namespace harlune {

// ChunkHandoff --------------------------------------------------------------------------------

ChunkHandoff::ChunkHandoff(int channels, std::unique_ptr<ChunkSink> next, size_t depth)
    : next_(std::move(next)), slots_(depth), views_(static_cast<size_t>(channels)) {
    HARLUNE_PRECONDITION(next_ != nullptr && channels > 0 && depth > 0,
                         "ChunkHandoff needs channels and a next stage");
    for (size_t i = 0; i < depth; ++i) {
        slots_[i].channels.resize(static_cast<size_t>(channels));
        free_.push_back(i);
    }
    thread_ = std::thread([this] { run(); });
}

ChunkHandoff::~ChunkHandoff() {
    stopThread();
}

void ChunkHandoff::consume(ChunkViews chunk) {
    if (chunk.empty() || chunk.front().empty())
        return;
    HARLUNE_PRECONDITION(chunk.size() == views_.size(), "ChunkHandoff got the wrong channel count");
    size_t index = 0;
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return !free_.empty() || error_ != nullptr; });
        if (error_ != nullptr)
            std::rethrow_exception(error_);
        index = free_.front();
        free_.pop_front();
    }
    Slot& slot = slots_[index];
    slot.frames = chunk.front().size();
    for (size_t c = 0; c < chunk.size(); ++c) {
        if (slot.channels[c].size() < slot.frames)
            slot.channels[c].resize(slot.frames);
        std::copy(chunk[c].begin(), chunk[c].end(), slot.channels[c].begin());
    }
    {
        std::lock_guard lock(mutex_);
        ready_.push_back(index);
    }
    changed_.notify_all();
}

void ChunkHandoff::finish() {
    {
        std::unique_lock lock(mutex_);
        ended_ = true;
        changed_.notify_all();
        changed_.wait(lock, [&] { return idle_; });
    }
    thread_.join();
    if (error_ != nullptr)
        std::rethrow_exception(error_);
    next_->finish();
}

void ChunkHandoff::abort() noexcept {
    stopThread();
    next_->abort();
}

void ChunkHandoff::stopThread() noexcept {
    if (!thread_.joinable())
        return;
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void ChunkHandoff::run() {
    while (true) {
        size_t index = 0;
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [&] { return stopping_ || !ready_.empty() || ended_; });
            if (stopping_ || ready_.empty()) {
                idle_ = true;
                changed_.notify_all();
                return;
            }
            index = ready_.front();
            ready_.pop_front();
        }
        Slot& slot = slots_[index];
        for (size_t c = 0; c < views_.size(); ++c)
            views_[c] = std::span<const float>(slot.channels[c].data(), slot.frames);
        try {
            next_->consume(views_);
        } catch (...) {
            std::lock_guard lock(mutex_);
            error_ = std::current_exception();
            idle_ = true;
            changed_.notify_all();
            return;
        }
        {
            std::lock_guard lock(mutex_);
            free_.push_back(index);
        }
        changed_.notify_all();
    }
}

// Rechunker -----------------------------------------------------------------------------------

Rechunker::Rechunker(int channels, int64_t frames, std::unique_ptr<ChunkSink> next)
    : next_(std::move(next)), frames_(frames), buffer_(static_cast<size_t>(channels)),
      views_(static_cast<size_t>(channels)) {
    HARLUNE_PRECONDITION(next_ != nullptr && channels > 0 && frames > 0,
                         "Rechunker needs channels and a next stage");
}

void Rechunker::consume(ChunkViews chunk) {
    if (chunk.empty() || chunk.front().empty())
        return;
    HARLUNE_PRECONDITION(chunk.size() == buffer_.size(), "Rechunker got the wrong channel count");
    const auto whole = static_cast<size_t>(frames_);
    size_t offset = 0;
    const size_t length = chunk.front().size();
    while (offset < length) {
        if (filled_ == 0 && length - offset >= whole) {
            for (size_t c = 0; c < views_.size(); ++c)
                views_[c] = chunk[c].subspan(offset, whole);
            next_->consume(views_);
            offset += whole;
            continue;
        }
        const size_t take = std::min(whole - filled_, length - offset);
        for (size_t c = 0; c < buffer_.size(); ++c) {
            if (buffer_[c].size() < whole)
                buffer_[c].resize(whole);
            std::copy_n(chunk[c].begin() + static_cast<std::ptrdiff_t>(offset), take,
                        buffer_[c].begin() + static_cast<std::ptrdiff_t>(filled_));
        }
        filled_ += take;
        offset += take;
        if (filled_ == whole)
            flush();
    }
}

void Rechunker::flush() {
    if (filled_ == 0)
        return;
    for (size_t c = 0; c < views_.size(); ++c)
        views_[c] = std::span<const float>(buffer_[c].data(), filled_);
    filled_ = 0;
    next_->consume(views_);
}

void Rechunker::finish() {
    flush();
    next_->finish();
}

void Rechunker::abort() noexcept {
    next_->abort();
}

} // namespace harlune
