#pragma once

#include "base/EffectProcessor.h"
#include "dsp/plugins/PluginDescriptor.h"

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace harlune {

/// One control input of a plug-in, as the generic editor and the command line show it.
struct PluginParameter {
    std::string symbol; ///< the port's symbol: the key in state data
    std::string name;
    float minimum = 0;
    float maximum = 1;
    float defaultValue = 0;
    bool isToggle = false;
    bool isInteger = false;
    bool isLogarithmic = false;
};

/// An installed plug-in running as an effect processor (an LV2 instance here).
///
/// Threads: `instantiate` and `installedPlugins` may run on a background job; everything else but
/// `process`/`reset` on the main thread. `setParameter` and `restoreState` may be called while the
/// instance runs on the audio thread: the values travel lock-free and are copied to the control
/// ports before the next run.
class PluginEffect : public EffectProcessor {
public:
    /// A new instance of the plug-in, not yet prepared. Throws `HarluneError` when it is not
    /// installed or cannot be made.
    static std::shared_ptr<PluginEffect> instantiate(const PluginDescriptor& descriptor);
    /// The effect plug-ins found on the standard search path, sorted by name.
    static std::vector<PluginDescriptor> installedPlugins();

    virtual const PluginDescriptor& descriptor() const = 0;
    virtual std::span<const PluginParameter> parameters() const = 0;
    /// The control values as a JSON object text {"symbol": value, ...}; absent without controls.
    virtual std::optional<std::string> stateData() const = 0;
    /// Takes control values from `stateData` text; unknown symbols are ignored, values clamped.
    /// Throws `HarluneError` for text that is not such an object.
    virtual void restoreState(std::string_view data) = 0;
    /// The value of one control port (clamped to its range); unknown symbols are ignored.
    virtual void setParameter(std::string_view symbol, float value) = 0;

    /// Set on an instance made for an offline render, which may then run faster than real time.
    bool rendersOffline = false;
};

} // namespace harlune
