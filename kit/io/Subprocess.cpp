#include "io/Subprocess.h"

#include "base/HarluneError.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace harlune {

namespace {

using namespace std::chrono_literals;

void closeQuietly(int& fd) {
    if (fd >= 0)
        ::close(fd); // nothing useful to do about a failed close of a pipe end
    fd = -1;
}

// Bad sequences become U+FFFD, so a tool's message in another encoding still prints.
std::string repairedUTF8(const std::vector<char>& bytes) {
    std::string out;
    out.reserve(bytes.size());
    size_t i = 0;
    const size_t n = bytes.size();
    const auto byteAt = [&](size_t k) {
        return static_cast<unsigned char>(bytes[k]);
    };
    while (i < n) {
        const unsigned char lead = byteAt(i);
        size_t length = 0;
        uint32_t minimum = 0;
        if (lead < 0x80)
            length = 1;
        else if (lead >= 0xC2 && lead <= 0xDF)
            length = 2, minimum = 0x80;
        else if (lead >= 0xE0 && lead <= 0xEF)
            length = 3, minimum = 0x800;
        else if (lead >= 0xF0 && lead <= 0xF4)
            length = 4, minimum = 0x10000;
        bool valid = length > 0 && i + length <= n;
        uint32_t code = length == 1 ? lead : (lead & (0xFFu >> (length + 1)));
        for (size_t k = 1; valid && k < length; ++k) {
            const unsigned char next = byteAt(i + k);
            valid = (next & 0xC0) == 0x80;
            code = (code << 6) | (next & 0x3Fu);
        }
        if (valid && length > 1)
            valid = code >= minimum && code <= 0x10FFFF && !(code >= 0xD800 && code <= 0xDFFF);
        if (valid) {
            out.append(bytes.data() + i, length);
            i += length;
        } else {
            out += "\uFFFD";
            ++i;
        }
    }
    return out;
}

std::string trimmed(const std::string& text) {
    const auto isSpace = [](unsigned char c) {
        return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
    };
    size_t begin = 0;
    size_t end = text.size();
    while (begin < end && isSpace(static_cast<unsigned char>(text[begin])))
        ++begin;
    while (end > begin && isSpace(static_cast<unsigned char>(text[end - 1])))
        --end;
    return text.substr(begin, end - begin);
}

std::string toolName(const std::filesystem::path& executable) {
    const std::string name = executable.filename().string();
    return name.empty() ? "tool" : name;
}

int statusOf(int waitStatus) {
    if (WIFEXITED(waitStatus))
        return WEXITSTATUS(waitStatus);
    if (WIFSIGNALED(waitStatus))
        return WTERMSIG(waitStatus);
    return -1;
}

} // namespace

Subprocess::Subprocess(std::filesystem::path executable, std::vector<std::string> arguments)
    : executable_(std::move(executable)), arguments_(std::move(arguments)) {}

Subprocess::~Subprocess() {
    if (started_ && !reaped_)
        terminate();
    closeQuietly(stdoutPipe_[0]);
    closeQuietly(stdoutPipe_[1]);
    closeQuietly(stderrPipe_[0]);
    closeQuietly(stderrPipe_[1]);
    closeQuietly(wakePipe_[0]);
    closeQuietly(wakePipe_[1]);
}

void Subprocess::start() {
    const auto fail = [&](int error) {
        for (int* fd : {&stdoutPipe_[0], &stdoutPipe_[1], &stderrPipe_[0], &stderrPipe_[1], &wakePipe_[0],
                        &wakePipe_[1]})
            closeQuietly(*fd);
        throw HarluneError::decodeFailed("couldn\u2019t launch " + toolName(executable_) + ": " +
                                         std::strerror(error));
    };
    if (::pipe2(stdoutPipe_, O_CLOEXEC) != 0 || ::pipe2(stderrPipe_, O_CLOEXEC) != 0 ||
        ::pipe2(wakePipe_, O_CLOEXEC) != 0)
        fail(errno);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, stdoutPipe_[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, stderrPipe_[1], STDERR_FILENO);

    // The child starts with default signal handling and nothing blocked, whatever this process set.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<char*> argv;
    std::string program = executable_.string();
    argv.push_back(program.data());
    for (auto& argument : arguments_)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    const int error = ::posix_spawn(&process_, program.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (error != 0)
        fail(error);

    started_ = true;
    // A roomier pipe lets the child run ahead by more than 64 KB, which halves the hand-overs
    // between the two processes on a busy machine. Best effort: the default still works.
    ::fcntl(stdoutPipe_[0], F_SETPIPE_SZ, 1 << 20);
    // Only the child may hold the write ends, so that our reads see end of stream at its exit.
    closeQuietly(stdoutPipe_[1]);
    closeQuietly(stderrPipe_[1]);

    pthread_attr_t threadAttributes;
    pthread_attr_init(&threadAttributes);
    pthread_attr_setstacksize(&threadAttributes, 262144);
    pthread_t thread;
    const int threadError = pthread_create(&thread, &threadAttributes, &Subprocess::drainStderr, this);
    pthread_attr_destroy(&threadAttributes);
    if (threadError != 0) {
        terminate();
        throw HarluneError::decodeFailed("couldn\u2019t launch " + toolName(executable_) + ": " +
                                         std::strerror(threadError));
    }
    stderrThread_ = thread;
}

void* Subprocess::drainStderr(void* self) {
    auto& subprocess = *static_cast<Subprocess*>(self);
    const std::shared_ptr<StderrBox> box = subprocess.stderrBox_;
    pollfd fds[2] = {{subprocess.stderrPipe_[0], POLLIN, 0}, {subprocess.wakePipe_[0], POLLIN, 0}};
    char buffer[4096];
    for (;;) {
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        if (fds[1].revents != 0)
            break; // asked to stop: whatever is still in the pipe no longer matters
        if (fds[0].revents == 0)
            continue;
        const ssize_t n = ::read(fds[0].fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        const std::lock_guard guard(box->lock);
        box->data.insert(box->data.end(), buffer, buffer + n);
    }
    subprocess.stderrDone_.release();
    return nullptr;
}

size_t Subprocess::readStdout(void* into, size_t count) {
    for (;;) {
        const ssize_t n = ::read(stdoutPipe_[0], into, count);
        if (n >= 0)
            return static_cast<size_t>(n);
        if (errno != EINTR)
            throw HarluneError::decodeFailed("reading tool output failed (errno " + std::to_string(errno) +
                                             ")");
    }
}

bool Subprocess::waitForStdout(std::chrono::milliseconds limit) {
    pollfd fd{stdoutPipe_[0], POLLIN, 0};
    const int ready = ::poll(&fd, 1, static_cast<int>(limit.count()));
    // A failed poll says nothing about the pipe: let the read find out.
    return ready != 0 && !(ready < 0 && errno == EINTR);
}

size_t Subprocess::stdoutCapacity() const {
    const int size = stdoutPipe_[0] < 0 ? -1 : ::fcntl(stdoutPipe_[0], F_GETPIPE_SZ);
    return size > 0 ? static_cast<size_t>(size) : 0;
}

std::vector<char> Subprocess::readAllStdout(std::optional<std::chrono::steady_clock::time_point> deadline) {
    std::vector<char> result;
    std::vector<char> buffer(65536);
    for (;;) {
        if (deadline) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                *deadline - std::chrono::steady_clock::now());
            pollfd fd{stdoutPipe_[0], POLLIN, 0};
            const int ready = left.count() > 0 ? ::poll(&fd, 1, static_cast<int>(left.count())) : 0;
            if (ready < 0 && errno == EINTR)
                continue;
            if (ready == 0) {
                terminate();
                throw HarluneError::decodeFailed(toolName(executable_) + " didn\u2019t finish in time");
            }
        }
        const size_t n = readStdout(buffer.data(), buffer.size());
        if (n == 0)
            return result;
        result.insert(result.end(), buffer.data(), buffer.data() + n);
    }
}

std::string Subprocess::stderrText() const {
    std::vector<char> bytes;
    {
        const std::lock_guard guard(stderrBox_->lock);
        bytes = stderrBox_->data;
    }
    return trimmed(repairedUTF8(bytes));
}

bool Subprocess::waitForProcess(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    auto pause = 1ms;
    for (;;) {
        int waitStatus = 0;
        const pid_t result = ::waitpid(process_, &waitStatus, WNOHANG);
        if (result == process_) {
            status_ = statusOf(waitStatus);
            return true;
        }
        if (result < 0 && errno != EINTR) {
            status_ = -1; // not our child any more: nothing left to wait for
            return true;
        }
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::milliseconds(10));
    }
}

void Subprocess::finishStderr(std::chrono::milliseconds limit) {
    if (!stderrThread_)
        return;
    // A grandchild may still hold standard error open: stop listening rather than wait on it.
    if (!stderrDone_.try_acquire_for(limit)) {
        const char byte = 0;
        [[maybe_unused]] const ssize_t written = ::write(wakePipe_[1], &byte, 1);
        stderrDone_.acquire();
    }
    pthread_join(*stderrThread_, nullptr);
    stderrThread_.reset();
}

void Subprocess::closeStdout() {
    closeQuietly(stdoutPipe_[0]);
}

int Subprocess::waitForExit() {
    if (!started_)
        return -1;
    if (!reaped_) {
        if (!waitForProcess(10s)) {
            ::kill(process_, SIGKILL);
            if (!waitForProcess(5s))
                status_ = -1; // unkillable (stuck in the kernel): leave it rather than hang
        }
        finishStderr(2s);
        reaped_ = true;
    }
    return status_;
}

void Subprocess::terminate() {
    if (!started_ || reaped_)
        return;
    // A child blocked writing into a full pipe ignores SIGTERM: take its pipe away first, so the
    // write fails and it ends by itself.
    closeStdout();
    ::kill(process_, SIGTERM);
    if (!waitForProcess(2s)) {
        ::kill(process_, SIGKILL);
        if (!waitForProcess(5s))
            status_ = -1;
    }
    finishStderr(1s);
    reaped_ = true;
}

Subprocess::RunResult Subprocess::run(const std::filesystem::path& executable,
                                      std::vector<std::string> arguments,
                                      std::optional<std::chrono::milliseconds> timeout) {
    Subprocess subprocess(executable, std::move(arguments));
    subprocess.start();
    RunResult result;
    try {
        std::optional<std::chrono::steady_clock::time_point> deadline;
        if (timeout)
            deadline = std::chrono::steady_clock::now() + *timeout;
        result.stdoutData = subprocess.readAllStdout(deadline);
    } catch (...) {
        subprocess.terminate();
        throw;
    }
    result.status = subprocess.waitForExit();
    result.stderrText = subprocess.stderrText();
    return result;
}

} // namespace harlune
