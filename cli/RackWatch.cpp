#include "RackWatch.h"

#include "dsp/effects/EffectParameters.h"

#include <nlohmann/json.hpp>

namespace harlune::cli {

namespace {

/// What must stay the same for a slot to keep its id: the effect's kind, or the plug-in.
std::string identity(const EffectSlot& slot) {
    if (const auto* settings = std::get_if<EffectSettings>(&slot.source))
        return std::string(rawValue(settings->kind()));
    return "lv2:" + std::get<EffectSlot::Plugin>(slot.source).descriptor.id;
}

nlohmann::json values(const EffectSlot& slot) {
    if (const auto* settings = std::get_if<EffectSettings>(&slot.source)) {
        nlohmann::json record;
        std::visit([&](const auto& s) { record = s; }, settings->value());
        return record;
    }
    const auto& state = std::get<EffectSlot::Plugin>(slot.source).state;
    const auto parsed = state ? nlohmann::json::parse(*state, nullptr, false) : nlohmann::json::object();
    return parsed.is_object() ? parsed : nlohmann::json::object();
}

std::string shown(const nlohmann::json& value) {
    if (value.is_number())
        return formatParameterNumber(value.get<double>());
    return value.is_null() ? "(none)" : value.dump();
}

/// "key a -> b" for each key whose value differs; bands of an EQ one by one.
void diff(const nlohmann::json& before, const nlohmann::json& after, const std::string& prefix,
          std::vector<std::string>& changes) {
    for (const auto& [key, value] : after.items()) {
        const auto old = before.find(key);
        const nlohmann::json previous = old == before.end() ? nlohmann::json() : *old;
        // A band read without an id gets a new one on each read; ids are not heard.
        if (previous == value || key == "id")
            continue;
        if (key == "bands" && value.is_array() && previous.is_array() && value.size() == previous.size()) {
            for (size_t b = 0; b < value.size(); ++b)
                diff(previous[b], value[b], prefix + "bands[" + std::to_string(b) + "].", changes);
        } else if (key == "profile") {
            changes.push_back(prefix + "profile changed");
        } else {
            changes.push_back(prefix + key + " " + shown(previous) + " -> " + shown(value));
        }
    }
}

std::string chain(const std::vector<EffectSlot>& slots) {
    std::string names;
    for (const auto& slot : slots)
        names += (names.empty() ? "" : " + ") + slot.name() + (slot.isEnabled ? "" : " (off)");
    return names.empty() ? "no effects" : names;
}

} // namespace

void carryOverIDs(const std::vector<EffectSlot>& before, const std::vector<bool>& storedIDs,
                  std::vector<EffectSlot>& slots) {
    for (size_t i = 0; i < slots.size() && i < before.size(); ++i)
        if (i < storedIDs.size() && !storedIDs[i] && identity(before[i]) == identity(slots[i]))
            slots[i].id = before[i].id;
}

std::vector<std::string> describeRackChange(const SavedRack& before, const SavedRack& after) {
    std::vector<std::string> lines;
    bool sameStructure = before.slots.size() == after.slots.size();
    for (size_t i = 0; sameStructure && i < after.slots.size(); ++i)
        sameStructure = before.slots[i].structuralKey() == after.slots[i].structuralKey();
    if (!sameStructure) {
        lines.push_back("new chain: " + chain(after.slots));
    } else {
        for (size_t i = 0; i < after.slots.size(); ++i) {
            const EffectSlot& old = before.slots[i];
            const EffectSlot& now = after.slots[i];
            const std::string where = "slot " + std::to_string(i + 1) + " (" + now.name() + "): ";
            if (old.isEnabled != now.isEnabled)
                lines.push_back(where + (now.isEnabled ? "on" : "off"));
            std::vector<std::string> changes;
            diff(values(old), values(now), "", changes);
            for (const auto& change : changes)
                lines.push_back(where + change);
        }
    }
    if (before.previewEnabled != after.previewEnabled)
        lines.push_back(after.previewEnabled ? "preview on" : "preview off: playing dry");
    if (before.tailMode != after.tailMode)
        lines.push_back("tail mode " + std::string(rawValue(after.tailMode)));
    return lines;
}

FileWatch::FileWatch(std::filesystem::path path) : path_(std::move(path)), last_(stamp()) {}

std::optional<FileWatch::Stamp> FileWatch::stamp() const {
    std::error_code error;
    const auto time = std::filesystem::last_write_time(path_, error);
    if (error)
        return std::nullopt;
    const auto size = std::filesystem::file_size(path_, error);
    if (error)
        return std::nullopt;
    return Stamp{time, size};
}

bool FileWatch::changed() {
    const auto now = stamp();
    if (now == last_)
        return false;
    last_ = now;
    return true;
}

} // namespace harlune::cli
