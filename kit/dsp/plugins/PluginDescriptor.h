#pragma once

#include <string>

namespace harlune {

/// An installed effect plug-in (LV2) as a rack slot names it: enough to find and load it again.
struct PluginDescriptor {
    std::string id;   ///< the plug-in's URI
    std::string name; ///< as the plug-in names itself; shown in the rack and in chain names

    friend bool operator==(const PluginDescriptor&, const PluginDescriptor&) = default;
};

} // namespace harlune
