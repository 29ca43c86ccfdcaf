#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <semaphore>
#include <string>
#include <sys/types.h>
#include <vector>

namespace harlune {

/// One child process, run without a shell: standard input from /dev/null, standard output and
/// standard error into two pipes. A dedicated thread drains standard error so that a chatty child
/// never stalls on a full pipe while this side reads standard output.
///
/// Every wait here is bounded: a child that ignores the polite signal (ffmpeg blocked writing into
/// a full pipe does) loses its pipes first and gets SIGKILL after two seconds.
class Subprocess {
public:
    struct RunResult {
        int status = -1; ///< exit code, or the signal number that ended the child
        std::vector<char> stdoutData;
        std::string stderrText;
    };

    /// Prepares the child; nothing runs yet. `arguments` exclude the program's own name.
    Subprocess(std::filesystem::path executable, std::vector<std::string> arguments);
    /// A child still running gets the polite signal, then SIGKILL if it does not end in time.
    ~Subprocess();
    Subprocess(const Subprocess&) = delete;
    Subprocess& operator=(const Subprocess&) = delete;

    /// Launches; throws `HarluneError::decodeFailed` ("couldn’t launch NAME: REASON").
    void start();
    /// One blocking read of at most `count` bytes; 0 at end of stream. Retries on EINTR; throws
    /// `HarluneError::decodeFailed` on other failures.
    size_t readStdout(void* into, size_t count);
    /// True as soon as a read of standard output would not block (data, end of stream or an
    /// error), false when `limit` passes first.
    bool waitForStdout(std::chrono::milliseconds limit);
    /// Bytes the standard-output pipe holds before the child's writes block; 0 when unknown.
    size_t stdoutCapacity() const;
    /// Everything up to end of stream. With a deadline, throws `HarluneError::decodeFailed` when it
    /// passes (after stopping the child).
    std::vector<char>
    readAllStdout(std::optional<std::chrono::steady_clock::time_point> deadline = std::nullopt);
    /// Standard error so far, as UTF-8 with bad sequences repaired, trimmed at both ends.
    std::string stderrText() const;
    /// Waits for the child's exit and the end of its standard error. A child that has closed its
    /// standard output ends soon; one that doesn't within 10 s is killed. Returns the status, or -1
    /// when it never started.
    int waitForExit();
    /// Stops a running child: closes our ends of its pipes, sends SIGTERM, waits up to 2 s, then
    /// SIGKILL. Ignores the status.
    void terminate();

    pid_t processIdentifier() const { return process_; }

    /// Start, read all, wait. With a timeout, a child still running when it passes is stopped and
    /// the call throws `HarluneError::decodeFailed`.
    static RunResult run(const std::filesystem::path& executable, std::vector<std::string> arguments,
                         std::optional<std::chrono::milliseconds> timeout = std::nullopt);

private:
    struct StderrBox {
        mutable std::mutex lock;
        std::vector<char> data;
    };

    static void* drainStderr(void* self);
    bool waitForProcess(std::chrono::milliseconds limit);
    void finishStderr(std::chrono::milliseconds limit);
    void closeStdout();

    std::filesystem::path executable_;
    std::vector<std::string> arguments_;

    pid_t process_ = -1;
    int stdoutPipe_[2] = {-1, -1};
    int stderrPipe_[2] = {-1, -1};
    int wakePipe_[2] = {-1, -1}; ///< written to end the standard-error thread early
    std::shared_ptr<StderrBox> stderrBox_ = std::make_shared<StderrBox>();
    std::binary_semaphore stderrDone_{0};
    std::optional<pthread_t> stderrThread_;
    bool started_ = false;
    bool reaped_ = false;
    int status_ = -1;
};

} // namespace harlune
