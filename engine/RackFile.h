#pragma once

#include "core/Processing.h"
#include "engine/EffectSlot.h"

#include <filesystem>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace harlune {

/// What a saved rack holds: the slots and the two settings that go with the list.
struct SavedRack {
    std::vector<EffectSlot> slots;
    bool previewEnabled = true;
    EffectTailMode tailMode = EffectTailMode::mixIntoFollowing;

    friend bool operator==(const SavedRack&, const SavedRack&) = default;
};

/// A rack as read: what could be loaded, and a message for each thing skipped or repaired.
struct RackFileReading {
    /// Absent when the text is not a rack at all (not JSON, or neither an object nor a list).
    std::optional<SavedRack> rack;
    std::vector<std::string> messages;
    /// Per slot of `rack`: whether its id came from the file (a plain list of settings has none).
    std::vector<bool> storedIDs;
};

/// The saved form of an effects rack:
///
///     {"slots": [{"id": UUID, "isEnabled": bool, "builtin": {"<kind>": {"_0": {...}}}},
///                {"id": UUID, "isEnabled": bool,
///                 "plugin": {"uri": URI, "name": NAME, "state": {"<symbol>": number}}}],
///      "previewEnabled": bool, "tailMode": "mixIntoFollowing" | "truncate"}
///
/// A plain list of effect settings (the form `process --effects` has always read) is a rack of
/// enabled slots. Reading is lenient and never throws: an unknown kind, a malformed slot or a
/// plug-in that is not installed is skipped, a wrong type takes the default and a value out of
/// range is clamped, and each is told in `messages`. Settings records may leave keys out; those
/// take the defaults.
namespace RackFile {

/// Whether a plug-in can be loaded; a slot of one that cannot is skipped.
using PluginCheck = std::function<bool(const PluginDescriptor&)>;

nlohmann::json toJSON(const SavedRack& rack);
/// Indented JSON text, ending in a newline.
std::string text(const SavedRack& rack);

RackFileReading fromJSON(const nlohmann::json& json, const PluginCheck& isInstalled = {});
RackFileReading fromText(std::string_view text, const PluginCheck& isInstalled = {});
/// A file that cannot be read gives no rack and says why.
RackFileReading readFile(const std::filesystem::path& path, const PluginCheck& isInstalled = {});

} // namespace RackFile

} // namespace harlune
