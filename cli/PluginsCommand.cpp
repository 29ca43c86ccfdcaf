#include "CliSupport.h"
#include "Commands.h"
#include "dsp/plugins/PluginEffect.h"

#include <algorithm>
#include <cstdio>

namespace harlune::cli {

int listPlugins() {
    const auto plugins = PluginEffect::installedPlugins();
    if (plugins.empty()) {
        std::fprintf(stderr, "no LV2 effect plug-ins found (set LV2_PATH to search other folders)\n");
        return exitSuccess;
    }
    size_t width = 0;
    for (const auto& plugin : plugins)
        width = std::max(width, plugin.name.size());
    for (const auto& plugin : plugins)
        std::printf("%-*s  %s\n", static_cast<int>(width), plugin.name.c_str(), plugin.id.c_str());
    return exitSuccess;
}

} // namespace harlune::cli
