#include "dsp/plugins/PluginEffect.h"

#include "dsp/plugins/Lv2World.h"

namespace harlune {

std::shared_ptr<PluginEffect> PluginEffect::instantiate(const PluginDescriptor& descriptor) {
    return instantiateLv2Effect(Lv2World::shared(), descriptor);
}

std::vector<PluginDescriptor> PluginEffect::installedPlugins() {
    return Lv2World::shared()->installedPlugins();
}

} // namespace harlune
