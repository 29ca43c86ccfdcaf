#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace harlune {

/// A 128-bit identity (RFC 4122). Random ones are version 4; the text form is the usual
/// 8-4-4-4-12 hexadecimal in upper case, and both cases are accepted when parsing.
struct Uuid {
    std::array<uint8_t, 16> bytes{};

    /// A fresh random identity.
    static Uuid random();
    /// Absent unless `text` is exactly 36 characters of the 8-4-4-4-12 form.
    static std::optional<Uuid> fromString(std::string_view text);
    std::string string() const;

    friend bool operator==(const Uuid&, const Uuid&) = default;
    friend auto operator<=>(const Uuid&, const Uuid&) = default;
};

void to_json(nlohmann::json& json, const Uuid& uuid);
/// Throws nlohmann::json::exception for a value that is not a UUID string.
void from_json(const nlohmann::json& json, Uuid& uuid);

} // namespace harlune

template <> struct std::hash<harlune::Uuid> {
    size_t operator()(const harlune::Uuid& uuid) const noexcept {
        uint64_t a = 0;
        uint64_t b = 0;
        for (size_t i = 0; i < 8; ++i) {
            a = (a << 8) | uuid.bytes[i];
            b = (b << 8) | uuid.bytes[i + 8];
        }
        return static_cast<size_t>(a ^ (b * 0x9E3779B97F4A7C15ull));
    }
};
