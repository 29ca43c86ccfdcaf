#include "engine/SafetyFile.h"

#include <cstdlib>
#include <ctime>
#include <sndfile.h>
#include <stdexcept>

namespace harlune {

SafetyFile::SafetyFile(const std::filesystem::path& path, double sampleRate, int channelCount)
    : path_(path), channels_(channelCount),
      syncInterval_(std::max<int64_t>(1, static_cast<int64_t>(sampleRate))) {
    std::error_code error;
    std::filesystem::create_directories(path.parent_path(), error);
    if (error)
        throw std::runtime_error(error.message());
    SF_INFO info{};
    info.samplerate = static_cast<int>(sampleRate);
    info.channels = channelCount;
    info.format = SF_FORMAT_CAF | SF_FORMAT_FLOAT;
    file_ = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!file_)
        throw std::runtime_error(sf_strerror(nullptr));
    // Without this the header says 0 frames until close, and a killed take reads back empty.
    sf_command(file_, SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
}

SafetyFile::~SafetyFile() {
    if (file_)
        sf_close(file_);
}

void SafetyFile::write(std::span<const std::span<const float>> planes) {
    if (failed_ || planes.empty() || static_cast<int>(planes.size()) != channels_)
        return;
    const size_t frames = planes[0].size();
    interleaved_.resize(frames * static_cast<size_t>(channels_));
    for (size_t c = 0; c < planes.size(); ++c)
        for (size_t i = 0; i < frames; ++i)
            interleaved_[i * static_cast<size_t>(channels_) + c] = planes[c][i];
    const sf_count_t done = sf_writef_float(file_, interleaved_.data(), static_cast<sf_count_t>(frames));
    if (done > 0)
        written_ += done;
    if (done != static_cast<sf_count_t>(frames)) {
        failed_ = true;
        return;
    }
    sinceSync_ += done;
    if (sinceSync_ >= syncInterval_) {
        sf_write_sync(file_);
        sinceSync_ = 0;
    }
}

std::filesystem::path recordingsFolder() {
    std::filesystem::path dataHome;
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg == '/')
        dataHome = xdg;
    else if (const char* home = std::getenv("HOME"); home && *home)
        dataHome = std::filesystem::path(home) / ".local" / "share";
    else
        dataHome = std::filesystem::temp_directory_path();
    return dataHome / "Harlune" / "Recordings";
}

std::string takeFileName(std::time_t time) {
    std::tm local{};
    localtime_r(&time, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H.%M.%S", &local);
    return std::string("Take ") + text + ".caf";
}

void removeSafetyFile(const std::filesystem::path& path) {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
}

} // namespace harlune
