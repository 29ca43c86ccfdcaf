#include "base/Uuid.h"

#include <nlohmann/json.hpp>
#include <random>

namespace harlune {

Uuid Uuid::random() {
    // One generator per thread, seeded once from the system: identities are made on any thread.
    thread_local std::mt19937_64 generator{[] {
        std::random_device device;
        std::seed_seq seed{device(), device(), device(), device(), device(), device()};
        return std::mt19937_64(seed);
    }()};
    Uuid uuid;
    const uint64_t high = generator();
    const uint64_t low = generator();
    for (size_t i = 0; i < 8; ++i) {
        uuid.bytes[i] = static_cast<uint8_t>(high >> (56 - 8 * i));
        uuid.bytes[i + 8] = static_cast<uint8_t>(low >> (56 - 8 * i));
    }
    uuid.bytes[6] = static_cast<uint8_t>((uuid.bytes[6] & 0x0F) | 0x40); // version 4
    uuid.bytes[8] = static_cast<uint8_t>((uuid.bytes[8] & 0x3F) | 0x80); // RFC 4122 variant
    return uuid;
}

namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

bool isDashPosition(size_t i) {
    return i == 8 || i == 13 || i == 18 || i == 23;
}

} // namespace

std::optional<Uuid> Uuid::fromString(std::string_view text) {
    if (text.size() != 36)
        return std::nullopt;
    Uuid uuid;
    size_t nibble = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if (isDashPosition(i)) {
            if (text[i] != '-')
                return std::nullopt;
            continue;
        }
        const int value = hexValue(text[i]);
        if (value < 0)
            return std::nullopt;
        auto& byte = uuid.bytes[nibble / 2];
        byte = static_cast<uint8_t>(nibble % 2 == 0 ? value << 4 : byte | value);
        ++nibble;
    }
    return uuid;
}

std::string Uuid::string() const {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            text.push_back('-');
        text.push_back(digits[bytes[i] >> 4]);
        text.push_back(digits[bytes[i] & 0x0F]);
    }
    return text;
}

void to_json(nlohmann::json& json, const Uuid& uuid) {
    json = uuid.string();
}

void from_json(const nlohmann::json& json, Uuid& uuid) {
    const auto parsed = Uuid::fromString(json.get<std::string>());
    if (!parsed)
        throw nlohmann::json::other_error::create(501, "not a UUID string", &json);
    uuid = *parsed;
}

} // namespace harlune
