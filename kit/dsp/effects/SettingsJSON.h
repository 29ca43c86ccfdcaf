#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace harlune::settingsJSON {

/// The failure every settings decoder throws, carrying `message`.
[[noreturn]] inline void fail(const std::string& message, const nlohmann::json& at) {
    throw nlohmann::json::other_error::create(501, message, &at);
}

/// Reads a required string key and maps it through `fromRaw`; an unknown string fails.
template <class Enum, class FromRaw>
Enum enumAt(const nlohmann::json& json, const char* key, FromRaw fromRaw) {
    const auto& value = json.at(key);
    const std::optional<Enum> parsed = fromRaw(value.template get<std::string>());
    if (!parsed)
        fail(std::string("unknown value for \"") + key + "\"", value);
    return *parsed;
}

template <class T> void read(const nlohmann::json& json, const char* key, T& field) {
    field = json.at(key).template get<T>();
}

} // namespace harlune::settingsJSON
