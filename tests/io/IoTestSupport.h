#pragma once

#include "base/HarluneError.h"
#include "io/FFmpegTool.h"
#include "io/Subprocess.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace harlune::testing {

/// A fresh folder under the system's temporary directory, removed with everything in it.
class TempDir {
public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "harlune-io-test-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
    /// Names of the entries, hidden ones included.
    std::vector<std::string> entries() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path_))
            names.push_back(entry.path().filename().string());
        return names;
    }

private:
    std::filesystem::path path_;
};

inline const std::filesystem::path systemFFmpeg = "/usr/bin/ffmpeg";
inline const std::filesystem::path systemFFprobe = "/usr/bin/ffprobe";

/// Runs the system's ffmpeg with the arguments (after "-v error -y"); fails the test on error.
inline void ffmpeg(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"-nostdin", "-v", "error", "-y"});
    const auto result = Subprocess::run(systemFFmpeg, arguments);
    ASSERT_EQ(result.status, 0) << result.stderrText;
}

/// Two channels at 48 kHz that differ, with content up to 15 kHz so codecs have work to do.
inline std::vector<std::string> stereoSource(double seconds) {
    return {"-f", "lavfi", "-i",
            "aevalsrc=0.5*sin(2*PI*440*t)+0.1*sin(2*PI*15000*t)|0.3*sin(2*PI*1000*t)+0.2*sin(2*PI*50*t):s="
            "48000:d=" +
                std::to_string(seconds)};
}

/// The independent decode: ffmpeg's own float output, one plane per channel.
inline std::vector<std::vector<float>> referenceDecode(const std::filesystem::path& file, int channels) {
    const auto result =
        Subprocess::run(systemFFmpeg, {"-nostdin", "-v", "error", "-i", "file:" + file.string(), "-map",
                                       "0:a:0", "-f", "f32le", "-c:a", "pcm_f32le", "-"});
    EXPECT_EQ(result.status, 0) << result.stderrText;
    const size_t frames = result.stdoutData.size() / (sizeof(float) * static_cast<size_t>(channels));
    std::vector<std::vector<float>> planes(static_cast<size_t>(channels), std::vector<float>(frames));
    const auto* samples = reinterpret_cast<const float*>(result.stdoutData.data());
    for (size_t i = 0; i < frames; ++i)
        for (size_t c = 0; c < planes.size(); ++c)
            planes[c][i] = samples[i * planes.size() + c];
    return planes;
}

inline void writeFile(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
inline std::vector<uint8_t> readBytes(const std::filesystem::path& path) {
    const std::string bytes = readFile(path);
    return {bytes.begin(), bytes.end()};
}

/// Puts back the usual tool search at the end of a test that replaced it.
struct ToolSearchGuard {
    explicit ToolSearchGuard(std::vector<std::filesystem::path> directories) {
        FFmpegTool::setSearchDirectoriesForTesting(std::move(directories));
    }
    ~ToolSearchGuard() { FFmpegTool::setSearchDirectoriesForTesting(std::nullopt); }
};

/// Runs `body` and returns the HarluneError it threw; fails the test if it threw none.
template <class Body> HarluneError errorFrom(Body&& body) {
    try {
        body();
    } catch (const HarluneError& error) {
        return error;
    }
    ADD_FAILURE() << "expected a HarluneError";
    return HarluneError::decodeFailed("<none>");
}

} // namespace harlune::testing
