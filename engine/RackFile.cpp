#include "engine/RackFile.h"

#include "dsp/effects/PartialSettings.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

namespace harlune::RackFile {

namespace {

using nlohmann::json;

constexpr std::string_view notARack =
    "a rack file holds an object with \u201cslots\u201d, or a list of effect settings";

struct Reader {
    const PluginCheck& isInstalled;
    RackFileReading reading;
    std::set<Uuid> usedIDs;

    void say(std::string message) { reading.messages.push_back(std::move(message)); }

    std::optional<EffectSettings> builtin(const json& value, const std::string& where) {
        std::string error;
        auto settings = readTaggedSettings(value, error);
        if (!settings) {
            say(where + ": " + error + "; skipped");
            return std::nullopt;
        }
        for (const auto& issue : settings->issues)
            say(where + " (" + std::string(displayName(settings->settings.kind())) + "): " + issue.message +
                "; " + issue.remedy);
        return std::move(settings->settings);
    }

    std::optional<EffectSlot::Plugin> plugin(const json& value, const std::string& where) {
        if (!value.is_object() || !value.contains("uri") || !value.at("uri").is_string() ||
            value.at("uri").get<std::string>().empty()) {
            say(where + ": a plug-in needs a \u201curi\u201d; skipped");
            return std::nullopt;
        }
        EffectSlot::Plugin plugin;
        plugin.descriptor.id = value.at("uri").get<std::string>();
        const auto name = value.find("name");
        plugin.descriptor.name =
            name != value.end() && name->is_string() ? name->get<std::string>() : plugin.descriptor.id;
        if (isInstalled && !isInstalled(plugin.descriptor)) {
            say(where + ": the plug-in \u201c" + plugin.descriptor.name + "\u201d (" + plugin.descriptor.id +
                ") is not installed; skipped");
            return std::nullopt;
        }
        const auto state = value.find("state");
        if (state == value.end() || state->is_null())
            return plugin;
        if (!state->is_object()) {
            say(where + " (" + plugin.descriptor.name +
                "): \u201cstate\u201d must be an object of control "
                "values; used the plug-in\u2019s defaults");
            return plugin;
        }
        json controls = json::object();
        for (const auto& [symbol, control] : state->items()) {
            if (control.is_number())
                controls[symbol] = control;
            else
                say(where + " (" + plugin.descriptor.name + "): control \u201c" + symbol +
                    "\u201d must be a number, not " + control.type_name() + "; skipped");
        }
        plugin.state = controls.dump();
        return plugin;
    }

    Uuid id(const json& slot, const std::string& where, bool& stored) {
        stored = false;
        const auto found = slot.find("id");
        std::optional<Uuid> id;
        if (found != slot.end()) {
            if (found->is_string())
                id = Uuid::fromString(found->get<std::string>());
            if (!id)
                say(where + ": \u201cid\u201d is not a UUID; gave the slot a new one");
            else if (usedIDs.contains(*id)) {
                say(where + ": its id is used by an earlier slot; gave it a new one");
                id.reset();
            } else {
                stored = true;
            }
        }
        return id.value_or(Uuid::random());
    }

    void slot(const json& value, size_t index) {
        const std::string where = "slot " + std::to_string(index + 1);
        if (!value.is_object()) {
            say(where + " is not an object; skipped");
            return;
        }
        const bool isSlotForm = value.contains("builtin") || value.contains("plugin") ||
                                value.contains("id") || value.contains("isEnabled");
        std::optional<EffectSlot::Source> source;
        bool stored = false;
        Uuid slotID = Uuid::random();
        bool isEnabled = true;
        if (!isSlotForm) { // an entry of a plain list of settings
            source = builtin(value, where);
        } else {
            for (const auto& [key, unused] : value.items())
                if (key != "id" && key != "isEnabled" && key != "builtin" && key != "plugin")
                    say(where + ": unknown key \u201c" + key + "\u201d skipped");
            if (value.contains("builtin") == value.contains("plugin")) {
                say(where + " needs one of \u201cbuiltin\u201d and \u201cplugin\u201d; skipped");
                return;
            }
            if (value.contains("builtin"))
                source = builtin(value.at("builtin"), where);
            else
                source = plugin(value.at("plugin"), where);
            if (!source)
                return;
            slotID = id(value, where, stored);
            if (const auto enabled = value.find("isEnabled"); enabled != value.end()) {
                if (enabled->is_boolean())
                    isEnabled = enabled->get<bool>();
                else
                    say(where + ": \u201cisEnabled\u201d must be true or false; the slot is on");
            }
        }
        if (!source)
            return;
        EffectSlot slot{.id = slotID, .isEnabled = isEnabled, .source = std::move(*source)};
        usedIDs.insert(slot.id);
        reading.rack->slots.push_back(std::move(slot));
        reading.storedIDs.push_back(stored);
    }

    void slots(const json& list) {
        for (size_t i = 0; i < list.size(); ++i)
            slot(list[i], i);
    }

    void rack(const json& root) {
        if (root.is_array()) {
            reading.rack = SavedRack{};
            slots(root);
            return;
        }
        if (!root.is_object()) {
            say(std::string(notARack));
            return;
        }
        reading.rack = SavedRack{};
        SavedRack& rack = *reading.rack;
        for (const auto& [key, value] : root.items()) {
            if (key == "slots") {
                if (value.is_array())
                    slots(value);
                else
                    say("\u201cslots\u201d must be a list; the rack is empty");
            } else if (key == "previewEnabled") {
                if (value.is_boolean())
                    rack.previewEnabled = value.get<bool>();
                else
                    say("\u201cpreviewEnabled\u201d must be true or false; the preview is on");
            } else if (key == "tailMode") {
                const auto mode =
                    value.is_string() ? effectTailModeFromRawValue(value.get<std::string>()) : std::nullopt;
                if (mode)
                    rack.tailMode = *mode;
                else
                    say("\u201ctailMode\u201d must be \u201cmixIntoFollowing\u201d or \u201ctruncate\u201d, "
                        "not " +
                        value.dump() + "; the tail mixes into what follows");
            } else {
                say("unknown key \u201c" + key + "\u201d skipped");
            }
        }
        if (!root.contains("slots"))
            say("no \u201cslots\u201d: the rack is empty");
    }
};

} // namespace

nlohmann::json toJSON(const SavedRack& rack) {
    json slots = json::array();
    for (const auto& slot : rack.slots) {
        json entry{{"id", slot.id}, {"isEnabled", slot.isEnabled}};
        if (const auto* settings = std::get_if<EffectSettings>(&slot.source)) {
            entry["builtin"] = *settings;
        } else {
            const auto& plugin = std::get<EffectSlot::Plugin>(slot.source);
            json state = json::object();
            if (plugin.state) {
                // Kept as the plug-in wrote it; text that is not JSON is dropped rather than saved broken.
                json parsed = json::parse(*plugin.state, nullptr, false);
                if (parsed.is_object())
                    state = std::move(parsed);
            }
            entry["plugin"] = {
                {"uri", plugin.descriptor.id}, {"name", plugin.descriptor.name}, {"state", state}};
        }
        slots.push_back(std::move(entry));
    }
    return {{"slots", std::move(slots)},
            {"previewEnabled", rack.previewEnabled},
            {"tailMode", std::string(rawValue(rack.tailMode))}};
}

std::string text(const SavedRack& rack) {
    return toJSON(rack).dump(2) + "\n";
}

RackFileReading fromJSON(const nlohmann::json& json, const PluginCheck& isInstalled) {
    Reader reader{isInstalled, {}, {}};
    reader.rack(json);
    return std::move(reader.reading);
}

RackFileReading fromText(std::string_view text, const PluginCheck& isInstalled) {
    json parsed;
    try {
        parsed = json::parse(text);
    } catch (const json::exception& error) {
        RackFileReading reading;
        reading.messages.push_back(std::string("not valid JSON: ") + error.what());
        return reading;
    }
    return fromJSON(parsed, isInstalled);
}

RackFileReading readFile(const std::filesystem::path& path, const PluginCheck& isInstalled) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream contents;
    if (file)
        contents << file.rdbuf();
    if (!file) {
        RackFileReading reading;
        reading.messages.push_back("can\u2019t read \u2018" + path.string() + "\u2019");
        return reading;
    }
    return fromText(contents.str(), isInstalled);
}

} // namespace harlune::RackFile
