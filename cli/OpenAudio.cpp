#include "OpenAudio.h"

#include "CliSupport.h"
#include "core/AudioContentBuilder.h"
#include "io/AudioDecoder.h"
#include "io/DecodeInParts.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace harlune::cli {

OpenedAudio openAudio(const std::filesystem::path& path, DecodeProgress progress) {
    // A long file is read in parts on all cores, one builder per part, joined in order.
    std::vector<AudioContentBuilder> builders;
    AudioFileInfo announced;
    const auto onFormat = [&](const AudioFileInfo& info, int parts) {
        announced = info;
        builders.clear();
        for (int part = 0; part < parts; ++part)
            builders.emplace_back(info.channelCount, info.sampleRate);
    };
    const auto onChunk = [&](int part, ChunkViews chunk) {
        builders[static_cast<size_t>(part)].append(chunk);
    };
    const AudioFileInfo final = AudioDecoder::decodeInParts(path, progress, onFormat, onChunk);
    AudioContent content = builders.front().build();
    for (size_t part = 1; part < builders.size(); ++part)
        content.append(builders[part].build());
    return {announced, final, std::move(content)};
}

OpenedAudio openAudioShowingProgress(const std::filesystem::path& path) {
    ProgressBar bar("reading ");
    auto update = [&](double fraction) {
        return bar.update(fraction);
    };
    return openAudio(path, FunctionRef<bool(double)>(update));
}

void refuseNonFiniteSamples(const AudioContent& content) {
    int64_t count = 0;
    content.forEachChunk(std::nullopt, 65536, [&](ChunkViews chunk, int64_t) {
        for (const auto channel : chunk)
            count += std::count_if(channel.begin(), channel.end(), [](float x) { return !std::isfinite(x); });
    });
    if (count > 0)
        throw std::runtime_error(
            "the audio holds " + std::to_string(count) +
            (count == 1 ? " sample that is not a finite number" : " samples that are not finite numbers") +
            " (NaN or infinity), so it can\u2019t be measured or processed");
}

namespace {

// The one place the command line holds memory past its owners, on purpose; reachable to the end,
// so leak checkers do not count it.
std::vector<AudioContent>& keptContents() {
    static auto* const kept = new std::vector<AudioContent>(); // never destroyed
    return *kept;
}

} // namespace

void keepUntilExit(AudioContent content) {
    keptContents().push_back(std::move(content));
}

void releaseKeptContents() {
    keptContents().clear();
}

} // namespace harlune::cli
