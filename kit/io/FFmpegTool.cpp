#include "io/FFmpegTool.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <string>
#include <unistd.h>

namespace harlune {

namespace {

struct ToolCache {
    std::mutex lock;
    std::optional<std::vector<std::filesystem::path>> replacedDirectories;
    std::optional<std::optional<std::filesystem::path>> cachedFFmpeg;
    std::optional<std::optional<std::filesystem::path>> cachedFFprobe;
};

ToolCache& cache() {
    static ToolCache instance;
    return instance;
}

std::vector<std::filesystem::path> defaultDirectories() {
    std::vector<std::filesystem::path> result{"/opt/homebrew/bin", "/usr/local/bin", "/usr/bin"};
    if (const char* path = std::getenv("PATH")) {
        const std::string text = path;
        size_t start = 0;
        while (start <= text.size()) {
            const size_t end = std::min(text.find(':', start), text.size());
            if (end > start)
                result.emplace_back(text.substr(start, end - start));
            start = end + 1;
        }
    }
    return result;
}

std::optional<std::filesystem::path> locateIn(const std::vector<std::filesystem::path>& directories,
                                              std::string_view name) {
    std::vector<std::filesystem::path> tried;
    for (const auto& directory : directories) {
        if (directory.empty() || std::find(tried.begin(), tried.end(), directory) != tried.end())
            continue;
        tried.push_back(directory);
        const std::filesystem::path candidate = directory / name;
        std::error_code error;
        if (std::filesystem::exists(candidate, error) && !std::filesystem::is_directory(candidate, error) &&
            ::access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    return std::nullopt;
}

std::optional<std::filesystem::path> cached(std::optional<std::optional<std::filesystem::path>>& slot,
                                            std::string_view name) {
    auto& state = cache();
    const std::lock_guard guard(state.lock);
    if (!slot)
        slot = locateIn(state.replacedDirectories.value_or(defaultDirectories()), name);
    return *slot;
}

} // namespace

std::vector<std::filesystem::path> FFmpegTool::searchDirectories() {
    auto& state = cache();
    const std::lock_guard guard(state.lock);
    return state.replacedDirectories.value_or(defaultDirectories());
}

std::optional<std::filesystem::path> FFmpegTool::locate(std::string_view name) {
    return locateIn(searchDirectories(), name);
}

std::optional<std::filesystem::path> FFmpegTool::ffmpegURL() {
    return cached(cache().cachedFFmpeg, "ffmpeg");
}

std::optional<std::filesystem::path> FFmpegTool::ffprobeURL() {
    return cached(cache().cachedFFprobe, "ffprobe");
}

void FFmpegTool::setSearchDirectoriesForTesting(
    std::optional<std::vector<std::filesystem::path>> directories) {
    auto& state = cache();
    const std::lock_guard guard(state.lock);
    state.replacedDirectories = std::move(directories);
    state.cachedFFmpeg.reset();
    state.cachedFFprobe.reset();
}

} // namespace harlune
