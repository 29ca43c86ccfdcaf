#pragma once

#include "CliSupport.h"
#include "base/EffectProcessor.h"
#include "core/Processing.h"
#include "engine/EffectSlot.h"

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace harlune::cli {

/// One `--effect` value: KIND, KIND=JSON, KIND=@FILE or KIND@FILE for a built-in effect (JSON:
/// some or all of its settings keys, the rest take the defaults); lv2:URI or lv2:URI=JSON for a
/// plug-in (JSON: control values by port symbol). Throws `UsageError` naming what is wrong and
/// where: an unknown kind or plug-in, text that is not JSON, an unknown key, a wrong type, a
/// value out of range.
EffectSlot parseEffectArgument(const std::string& text);

/// What happens to the tail that effects leave after the processed range.
enum class TailChoice {
    mix,  ///< mixed over what follows (and appended at the file's end): the rack's mixIntoFollowing
    keep, ///< inserted after the range whole; what followed moves later
    cut,  ///< dropped: the range keeps its length (the rack's truncate)
};
/// "keep", "cut" or "mix"; `UsageError` otherwise.
TailChoice parseTailChoice(const std::string& text);
TailChoice tailChoice(EffectTailMode mode);

/// Fresh processors for one offline render of the enabled slots, in order: built-ins from the
/// factory, plug-ins instantiated with their control values and set to render offline. Throws
/// what making one throws.
std::vector<std::shared_ptr<EffectProcessor>> makeOfflineChain(std::span<const EffectSlot> slots);

} // namespace harlune::cli
