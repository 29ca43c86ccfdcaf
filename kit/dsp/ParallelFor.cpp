#include "dsp/ParallelFor.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace harlune {

void parallelFor(int64_t count, bool concurrent, FunctionRef<void(int64_t)> body) {
    if (count <= 0)
        return;
    const auto cores = static_cast<int64_t>(std::max(1u, std::thread::hardware_concurrency()));
    const int64_t workers = std::min(count, cores);
    if (!concurrent || workers <= 1) {
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
    threads.reserve(static_cast<size_t>(workers - 1));
    for (int64_t t = 1; t < workers; ++t)
        threads.emplace_back(work);
    work(); // the calling thread takes its share
    for (auto& thread : threads)
        thread.join();
    if (firstError)
        std::rethrow_exception(firstError);
}

} // namespace harlune
