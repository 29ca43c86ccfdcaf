#pragma once

#include "io/IoTestSupport.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <sys/mount.h>
#include <vector>

namespace harlune::testing {

using TemporaryFolder = TempDir;

/// A small tmpfs mounted on a temporary folder for as long as the object lives. `mounted()` is
/// false where the process may not mount (no root, or a container without the privilege).
class ScratchMount {
public:
    explicit ScratchMount(const std::string& options) {
        mounted_ = ::mount("tmpfs", folder_.path().c_str(), "tmpfs", 0, options.c_str()) == 0;
    }
    ~ScratchMount() {
        if (mounted_)
            ::umount2(folder_.path().c_str(), MNT_DETACH);
    }
    bool mounted() const { return mounted_; }
    bool remountReadOnly() {
        return ::mount("tmpfs", folder_.path().c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr) == 0;
    }
    const std::filesystem::path& path() const { return folder_.path(); }
    std::filesystem::path operator/(const std::string& name) const { return folder_.path() / name; }
    std::vector<std::string> entries() const { return folder_.entries(); }

private:
    TemporaryFolder folder_;
    bool mounted_ = false;
};

inline std::string shellQuoted(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    return quoted + "'";
}

/// Runs a shell command line and gives its standard output, or none when it failed.
inline std::optional<std::string> runCommand(const std::string& command) {
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr)
        return std::nullopt;
    std::string output;
    char buffer[65536];
    size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
        output.append(buffer, n);
    const int status = ::pclose(pipe);
    if (status != 0)
        return std::nullopt;
    return output;
}

inline bool haveTool(const std::string& name) {
    return std::system(("command -v " + name + " >/dev/null 2>&1").c_str()) == 0;
}

/// The file decoded by the real ffmpeg (not our reader) into planar floats, `channels` planes.
inline std::optional<std::vector<std::vector<float>>> decodeWithFFmpeg(const std::filesystem::path& file,
                                                                       int channels) {
    const auto raw = runCommand("ffmpeg -nostdin -v error -i " + shellQuoted("file:" + file.string()) +
                                " -f f32le -acodec pcm_f32le -");
    if (!raw)
        return std::nullopt;
    const size_t frames = raw->size() / sizeof(float) / static_cast<size_t>(channels);
    std::vector<std::vector<float>> planes(static_cast<size_t>(channels), std::vector<float>(frames));
    const auto* samples = reinterpret_cast<const float*>(raw->data());
    for (size_t f = 0; f < frames; ++f)
        for (size_t c = 0; c < planes.size(); ++c)
            planes[c][f] = samples[f * planes.size() + c];
    return planes;
}

/// One field of the first audio stream, as ffprobe reports it ("channel_layout", "sample_rate"...).
inline std::string probeStream(const std::filesystem::path& file, const std::string& field) {
    const auto text = runCommand("ffprobe -v error -select_streams a:0 -show_entries stream=" + field +
                                 " -of default=nw=1:nk=1 " + shellQuoted("file:" + file.string()));
    if (!text)
        return "";
    std::string value = *text;
    while (!value.empty() && (value.back() == '\n' || value.back() == '\r'))
        value.pop_back();
    return value;
}

} // namespace harlune::testing
