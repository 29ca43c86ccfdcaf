#include "io/ReadAhead.h"

#include "base/HarluneError.h"
#include "io/Subprocess.h"

#include <algorithm>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <system_error>

namespace harlune {

namespace {

using namespace std::chrono_literals;

// How long the thread waits on a silent pipe before it looks whether it should stop.
constexpr auto stopCheck = 20ms;

// The pause after a read that emptied the pipe: half the time a child writing 1 GB/s (faster
// than any decoder) takes to fill it, so that the child does not wait on a full pipe. Below
// 100 µs a pause is not worth a sleep, and a small pipe is read as the data comes.
std::chrono::microseconds pauseFor(size_t pipeCapacity) {
    const auto pause = std::chrono::microseconds(pipeCapacity / 2000);
    return pause < 100us ? 0us : pause;
}

} // namespace

ReadAhead::ReadAhead(Subprocess& child, size_t bufferBytes, size_t bufferCount)
    : child_(child), bufferBytes_(bufferBytes), slots_(std::max<size_t>(bufferCount, 2)),
      pause_(pauseFor(child.stdoutCapacity())) {
    for (auto& slot : slots_)
        slot.data = std::make_unique_for_overwrite<std::byte[]>(bufferBytes_);
    try {
        thread_ = std::thread([this] { readLoop(); });
    } catch (const std::system_error& error) {
        // No thread means no reading: the same failure as a read that cannot be made.
        throw HarluneError::decodeFailed("reading tool output failed (errno " +
                                         std::to_string(error.code().value()) + ")");
    }
}

ReadAhead::~ReadAhead() {
    stop();
}

void ReadAhead::stop() {
    {
        const std::lock_guard guard(lock_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

ReadAhead::Buffer ReadAhead::next() {
    std::unique_lock guard(lock_);
    changed_.wait(guard, [&] { return produced_ > consumed_ || stopping_; });
    if (stopping_)
        return {{}, true};
    const Slot& slot = slots_[consumed_ % slots_.size()];
    if (slot.error)
        std::rethrow_exception(slot.error);
    return {std::span<const std::byte>(slot.data.get(), slot.filled), slot.ended};
}

void ReadAhead::release() {
    {
        const std::lock_guard guard(lock_);
        if (consumed_ < produced_)
            ++consumed_;
    }
    changed_.notify_all();
}

void ReadAhead::readLoop() {
    // The child's every write wakes this thread. As an ordinary thread it would take the child's
    // processor at once, again and again; as a batch thread it waits for a free processor or the
    // next tick, by which time the pipe holds more. Best effort: without it the reads still work.
    const sched_param normal{0};
    ::pthread_setschedparam(::pthread_self(), SCHED_BATCH, &normal);
    for (;;) {
        size_t index = 0;
        {
            std::unique_lock guard(lock_);
            changed_.wait(guard, [&] { return stopping_ || produced_ - consumed_ < slots_.size(); });
            if (stopping_)
                return;
            index = produced_ % slots_.size();
        }
        Slot& slot = slots_[index];
        slot.filled = 0;
        slot.ended = false;
        slot.error = nullptr;
        try {
            if (!fill(slot))
                return;
        } catch (...) {
            slot.error = std::current_exception();
        }
        const bool last = slot.ended || slot.error;
        {
            const std::lock_guard guard(lock_);
            ++produced_;
        }
        changed_.notify_all();
        if (last)
            return;
    }
}

bool ReadAhead::fill(Slot& slot) {
    while (slot.filled < bufferBytes_) {
        // Wait in short steps, so that a stop request is seen even while the child is silent.
        while (!child_.waitForStdout(stopCheck))
            if (stopRequested())
                return false;
        if (stopRequested())
            return false;
        const size_t n = child_.readStdout(slot.data.get() + slot.filled, bufferBytes_ - slot.filled);
        if (n == 0) {
            slot.ended = true;
            return true;
        }
        slot.filled += n;
        // The pipe is empty now. Waiting on it again would have each of the child's writes (32 KB
        // for ffmpeg) wake this thread, and the child pays for every wake-up; a short pause lets
        // the pipe fill up instead, and one read takes it all.
        if (slot.filled < bufferBytes_ && pause_.count() > 0)
            std::this_thread::sleep_for(pause_);
    }
    return true;
}

bool ReadAhead::stopRequested() {
    const std::lock_guard guard(lock_);
    return stopping_;
}

} // namespace harlune
