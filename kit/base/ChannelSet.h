#pragma once

#include <set>

namespace harlune {

/// A set of channel indices, ascending. Where an operation takes an optional set, absent means
/// all channels.
using ChannelSet = std::set<int>;

/// {0, 1, ..., count - 1}.
inline ChannelSet allChannels(int count) {
    ChannelSet set;
    for (int c = 0; c < count; ++c)
        set.insert(set.end(), c);
    return set;
}

} // namespace harlune
