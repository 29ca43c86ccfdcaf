#include "dsp/ParallelFor.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace harlune {

void parallelFor(int64_t count, bool concurrent, FunctionRef<void(int64_t)> body) {
    const auto cores = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    parallelFor(count, concurrent ? cores : 1, body,
                [](FunctionRef<void()> work) { return std::thread([work] { work(); }); });
}

void parallelFor(int64_t count, int workers, FunctionRef<void(int64_t)> body, ThreadStarter startThread) {
    if (count <= 0)
        return;
    if (std::min<int64_t>(count, workers) <= 1) {
        for (int64_t i = 0; i < count; ++i)
            body(i);
        return;
    }

    std::atomic<int64_t> next{0};
    std::atomic<bool> failed{false};
    std::exception_ptr firstError;
    std::mutex errorLock;
    const auto work = [&] {
        for (int64_t i = next.fetch_add(1); i < count && !failed.load(); i = next.fetch_add(1)) {
            try {
                body(i);
            } catch (...) {
                const std::lock_guard guard(errorLock);
                if (!firstError)
                    firstError = std::current_exception();
                failed = true;
            }
        }
    };
    std::vector<std::thread> threads;
    threads.reserve(static_cast<size_t>(std::min<int64_t>(count, workers) - 1));
    for (int64_t t = 1; t < std::min<int64_t>(count, workers); ++t) {
        try {
            threads.push_back(startThread(work));
        } catch (const std::system_error&) {
            // Out of threads (or of memory for their stacks): the iterations are taken from one
            // counter, so the threads already running and this one simply do more of them.
            break;
        }
    }
    work(); // the calling thread takes its share
    for (auto& thread : threads)
        thread.join();
    if (firstError)
        std::rethrow_exception(firstError);
}

} // namespace harlune
