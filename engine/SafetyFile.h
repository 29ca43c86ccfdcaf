#pragma once

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

struct sf_private_tag;

namespace harlune {

/// The on-disk copy of a take while it is recorded: a 32-bit float CAF whose header libsndfile
/// rewrites after every write, synced to disk once per second of audio, so that a process killed
/// at any moment leaves a file every reader opens, missing at most the last second.
///
/// A write that fails (a full disk) stops the file where it stands; the take goes on in memory.
/// Tap thread only.
class SafetyFile {
public:
    /// Creates the folder and the file. Throws `std::runtime_error` with the reason on failure.
    SafetyFile(const std::filesystem::path& path, double sampleRate, int channelCount);
    ~SafetyFile();
    SafetyFile(const SafetyFile&) = delete;
    SafetyFile& operator=(const SafetyFile&) = delete;

    /// Appends planar frames; ignored once a write has failed.
    void write(std::span<const std::span<const float>> planes);
    /// Whether a write failed: the file holds what came before.
    bool hasFailed() const { return failed_; }
    int64_t framesWritten() const { return written_; }
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
    sf_private_tag* file_ = nullptr;
    int channels_;
    int64_t syncInterval_;
    int64_t sinceSync_ = 0;
    int64_t written_ = 0;
    bool failed_ = false;
    std::vector<float> interleaved_;
};

/// Removes a take's safety file once the take is kept elsewhere; a file that will not go is
/// harmless, so failures are ignored.
void removeSafetyFile(const std::filesystem::path& path);
/// "$XDG_DATA_HOME/Harlune/Recordings", with the data home defaulting to "~/.local/share".
std::filesystem::path recordingsFolder();
/// "Take 2026-11-26T04.10.33.caf" for a local time: ISO 8601 without fractions, ":" made ".".
std::string takeFileName(std::time_t time);

} // namespace harlune
