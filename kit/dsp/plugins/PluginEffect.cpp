#include "dsp/plugins/PluginEffect.h"

#include "base/HarluneError.h"

namespace harlune {

// Placeholder until the LV2 host lands: no plug-in is installed.
std::shared_ptr<PluginEffect> PluginEffect::instantiate(const PluginDescriptor& descriptor) {
    throw HarluneError::codecUnavailable("plug-in hosting is not built in: " + descriptor.id);
}

std::vector<PluginDescriptor> PluginEffect::installedPlugins() {
    return {};
}

} // namespace harlune
