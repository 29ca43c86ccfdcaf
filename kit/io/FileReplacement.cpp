#include "io/FileReplacement.h"

#include "base/HarluneError.h"

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

namespace harlune::FileReplacement {

namespace {

// A version 4 UUID in its usual text form, upper case.
std::string makeUUID() {
    static thread_local std::mt19937_64 generator{std::random_device{}()};
    const uint64_t high = (generator() & 0xFFFFFFFFFFFF0FFFULL) | 0x0000000000004000ULL;
    const uint64_t low = (generator() & 0x3FFFFFFFFFFFFFFFULL) | 0x8000000000000000ULL;
    char text[37];
    std::snprintf(text, sizeof text, "%08X-%04X-%04X-%04X-%012llX", static_cast<unsigned>(high >> 32),
                  static_cast<unsigned>((high >> 16) & 0xFFFF), static_cast<unsigned>(high & 0xFFFF),
                  static_cast<unsigned>(low >> 48), static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFULL));
    return text;
}

std::string defaultExtension(ExportFormat format) {
    switch (format) {
    case ExportFormat::wav:
        return "wav";
    case ExportFormat::aiff:
        return "aiff";
    case ExportFormat::caf:
        return "caf";
    case ExportFormat::flac:
        return "flac";
    case ExportFormat::alac:
    case ExportFormat::aac:
        return "m4a";
    case ExportFormat::mp3:
        return "mp3";
    case ExportFormat::opus:
        return "opus";
    }
    return "tmp";
}

[[noreturn]] void moveFailed(const std::string& reason) {
    throw HarluneError::encodeFailed("couldn\u2019t move the finished file into place: " + reason);
}

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

// Linking an unnamed file into a folder (`linkat` with `AT_EMPTY_PATH`) takes
// CAP_DAC_READ_SEARCH in the effective set.
bool mayLinkUnnamedFiles() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("CapEff:", 0) != 0)
            continue;
        const unsigned long long effective = std::strtoull(line.c_str() + 7, nullptr, 16);
        constexpr unsigned capDacReadSearch = 2;
        return (effective >> capDacReadSearch) & 1;
    }
    return false;
}

bool namedForcedByEnvironment() {
    const char* value = std::getenv("HARLUNE_TEMPORARY_FILES");
    return value != nullptr && std::string_view(value) == "named";
}

std::filesystem::path folderOf(const std::filesystem::path& destination) {
    return destination.has_parent_path() ? destination.parent_path() : std::filesystem::path(".");
}

[[noreturn]] void createFailed(const std::string& name) {
    throw HarluneError::encodeFailed("can\u2019t create " + name + ": " + std::strerror(errno));
}

// The process id in a temporary's name ".<stem>-<UUID>.<pid>.tmp.<ext>", or none when `name` is
// not one.
std::optional<pid_t> writerOf(const std::string& name) {
    constexpr std::string_view marker = ".tmp.";
    const size_t end = name.rfind(marker);
    if (name.empty() || name.front() != '.' || end == std::string::npos || end == 0)
        return std::nullopt;
    const size_t dot = name.rfind('.', end - 1);
    constexpr size_t uuidLength = 36;
    if (dot == std::string::npos || dot + 1 == end || dot < uuidLength + 2 ||
        name[dot - uuidLength - 1] != '-')
        return std::nullopt;
    for (size_t i = dot - uuidLength; i < dot; ++i)
        if (!std::isxdigit(static_cast<unsigned char>(name[i])) && name[i] != '-')
            return std::nullopt;
    pid_t pid = 0;
    for (size_t i = dot + 1; i < end; ++i) {
        if (!std::isdigit(static_cast<unsigned char>(name[i])) || pid > 99999999)
            return std::nullopt;
        pid = pid * 10 + (name[i] - '0');
    }
    return pid > 0 ? std::optional<pid_t>(pid) : std::nullopt;
}

// Gives the file the old destination's mode and owner, if there is one, and flushes it.
void prepareForMove(int fd, const std::filesystem::path& destination) {
    struct stat old {};
    if (::stat(destination.c_str(), &old) == 0) {
        if (!S_ISREG(old.st_mode))
            moveFailed(destination.filename().string() + " is not a regular file");
        if (::fchmod(fd, old.st_mode & 07777) != 0)
            moveFailed(std::strerror(errno));
        // Only the owner's privileges allow giving a file away; a user replacing a file of their
        // own keeps it theirs anyway, so a refusal here is no reason to fail the export.
        if (::fchown(fd, old.st_uid, old.st_gid) != 0 && errno != EPERM)
            moveFailed(std::strerror(errno));
    } else if (errno != ENOENT) {
        moveFailed(std::strerror(errno));
    }
    if (::fsync(fd) != 0)
        moveFailed(std::strerror(errno));
}

// The move is durable only once the folder's entry is on disk.
void syncFolder(const std::filesystem::path& destination) {
    FileDescriptor directory(::open(folderOf(destination).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() >= 0)
        ::fsync(directory.get()); // the file is in place by now; a folder that refuses fsync changes nothing
}

} // namespace

std::filesystem::path temporaryPath(const std::filesystem::path& destination, ExportFormat format) {
    const std::string extension = destination.extension().string();
    std::string name = ".";
    name.append(destination.stem().string());
    name.append("-");
    name.append(makeUUID());
    name.append(".");
    name.append(std::to_string(::getpid()));
    name.append(".tmp.");
    name.append(extension.empty() ? defaultExtension(format) : extension.substr(1));
    return destination.parent_path() / name;
}

void removeAbandoned(const std::filesystem::path& folder) {
    std::error_code error;
    std::filesystem::directory_iterator entries(folder, error);
    if (error)
        return;
    for (const auto& entry : entries) {
        const std::string name = entry.path().filename().string();
        const auto writer = writerOf(name);
        if (!writer || *writer == ::getpid())
            continue;
        if (::kill(*writer, 0) != 0 && errno == ESRCH && entry.is_regular_file(error))
            std::filesystem::remove(entry.path(), error);
    }
}

TemporaryFile::TemporaryFile(const std::filesystem::path& destination, ExportFormat format, Naming naming)
    : destination_(destination), format_(format) {
    const std::filesystem::path folder = folderOf(destination);
    removeAbandoned(folder);
    if (naming == Naming::automatic && !namedForcedByEnvironment() && mayLinkUnnamedFiles()) {
        unnamedFd_ = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0666);
        // A file system without unnamed files refuses here; the named kind serves there.
        if (unnamedFd_ >= 0) {
            writePath_ = "/proc/self/fd/" + std::to_string(unnamedFd_);
            return;
        }
    }
    namedPath_ = temporaryPath(destination, format);
    const int fd = ::open(namedPath_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) {
        const std::string name = namedPath_.filename().string();
        namedPath_.clear();
        createFailed(name);
    }
    ::close(fd);
    writePath_ = namedPath_;
}

TemporaryFile::~TemporaryFile() {
    if (unnamedFd_ >= 0)
        ::close(unnamedFd_);
    if (!committed_ && !namedPath_.empty()) {
        std::error_code ignored;
        std::filesystem::remove(namedPath_, ignored);
    }
}

void TemporaryFile::startWriteback() const {
    const int fd = unnamedFd_ >= 0 ? unnamedFd_ : ::open(namedPath_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    ::sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE);
    if (fd != unnamedFd_)
        ::close(fd);
}

void TemporaryFile::commit() {
    if (unnamedFd_ >= 0) {
        prepareForMove(unnamedFd_, destination_);
        const std::filesystem::path folder = folderOf(destination_);
        FileDescriptor directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (directory.get() < 0)
            moveFailed(std::strerror(errno));
        // With no file at the destination, the finished file simply gets its name.
        if (::linkat(unnamedFd_, "", directory.get(), destination_.filename().c_str(), AT_EMPTY_PATH) == 0) {
            committed_ = true;
            syncFolder(destination_);
            return;
        }
        if (errno != EEXIST)
            moveFailed(std::strerror(errno));
        // Over an existing file: a name of its own first (carrying our process id, so that even
        // a kill in this instant is tidied later), then the atomic rename.
        const std::filesystem::path named = temporaryPath(destination_, format_);
        if (::linkat(unnamedFd_, "", directory.get(), named.filename().c_str(), AT_EMPTY_PATH) != 0)
            moveFailed(std::strerror(errno));
        namedPath_ = named;
    } else {
        FileDescriptor file(::open(namedPath_.c_str(), O_RDONLY | O_CLOEXEC));
        if (file.get() < 0)
            moveFailed(std::strerror(errno));
        prepareForMove(file.get(), destination_);
        if (::close(file.release()) != 0)
            moveFailed(std::strerror(errno));
    }
    if (::rename(namedPath_.c_str(), destination_.c_str()) != 0)
        moveFailed(std::strerror(errno));
    committed_ = true;
    syncFolder(destination_);
}

} // namespace harlune::FileReplacement
