#include "engine/InputChoice.h"

namespace harlune {

std::string InputChoice::title() const {
    if (channels.size() == 2)
        return "Inputs " + std::to_string(channels[0] + 1) + "\u2013" + std::to_string(channels[1] + 1) +
               " (stereo)";
    if (channels.size() == 1)
        return "Input " + std::to_string(channels[0] + 1) + " (mono)";
    return "All " + std::to_string(channels.size()) + " inputs";
}

std::vector<InputChoice> InputChoice::choices(int channelCount) {
    std::vector<InputChoice> result;
    if (channelCount <= 0)
        return result;
    if (channelCount == 1)
        return {InputChoice{{0}}};
    for (int c = 0; c + 1 < channelCount; c += 2)
        result.push_back(InputChoice{{c, c + 1}});
    for (int c = 0; c < channelCount; ++c)
        result.push_back(InputChoice{{c}});
    if (channelCount > 2) {
        InputChoice all;
        for (int c = 0; c < channelCount; ++c)
            all.channels.push_back(c);
        result.push_back(std::move(all));
    }
    return result;
}

} // namespace harlune
