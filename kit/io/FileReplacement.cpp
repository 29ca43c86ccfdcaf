#include "io/FileReplacement.h"

#include "base/HarluneError.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <string>
#include <sys/stat.h>
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

} // namespace

std::filesystem::path temporaryPath(const std::filesystem::path& destination, ExportFormat format) {
    const std::string extension = destination.extension().string();
    std::string name = ".";
    name.append(destination.stem().string());
    name.append("-");
    name.append(makeUUID());
    name.append(".tmp.");
    name.append(extension.empty() ? defaultExtension(format) : extension.substr(1));
    return destination.parent_path() / name;
}

void createExclusive(const std::filesystem::path& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0)
        throw HarluneError::encodeFailed("can\u2019t create " + path.filename().string() + ": " +
                                         std::strerror(errno));
    ::close(fd);
}

void replace(const std::filesystem::path& destination, const std::filesystem::path& temporary) {
    FileDescriptor file(::open(temporary.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0)
        moveFailed(std::strerror(errno));

    struct stat old {};
    if (::stat(destination.c_str(), &old) == 0) {
        if (!S_ISREG(old.st_mode))
            moveFailed(destination.filename().string() + " is not a regular file");
        if (::fchmod(file.get(), old.st_mode & 07777) != 0)
            moveFailed(std::strerror(errno));
        // Only the owner's privileges allow giving a file away; a user replacing a file of their
        // own keeps it theirs anyway, so a refusal here is no reason to fail the export.
        if (::fchown(file.get(), old.st_uid, old.st_gid) != 0 && errno != EPERM)
            moveFailed(std::strerror(errno));
    } else if (errno != ENOENT) {
        moveFailed(std::strerror(errno));
    }

    if (::fsync(file.get()) != 0)
        moveFailed(std::strerror(errno));
    if (::close(file.release()) != 0)
        moveFailed(std::strerror(errno));
    if (::rename(temporary.c_str(), destination.c_str()) != 0)
        moveFailed(std::strerror(errno));

    // The rename is durable only once the folder's entry is on disk.
    const std::filesystem::path folder = destination.has_parent_path() ? destination.parent_path() : ".";
    FileDescriptor directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() >= 0)
        ::fsync(directory.get()); // the file is in place by now; a folder that refuses fsync changes nothing
}

} // namespace harlune::FileReplacement
