#include "uuid.h"

#include <array>
#include <cctype>
#include <cstdint>
#include <random>

namespace trakctl {

namespace {

// The form of a uuid: 'x' a hexadecimal digit, anything else itself.
constexpr std::string_view kForm = "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}";

}  // namespace

std::string new_uuid() {
    std::random_device random;
    std::array<std::uint8_t, 16> bytes{};
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0FU) | 0x40U);  // version 4: random
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3FU) | 0x80U);  // the standard variant
    static constexpr std::string_view kHex = "0123456789abcdef";
    std::string uuid;
    std::size_t next = 0;
    for (const char c : kForm) {
        if (c != 'x') {
            uuid += c;
            continue;
        }
        const std::uint8_t byte = bytes.at(next / 2);
        uuid += kHex.at(next % 2 == 0 ? byte >> 4U : byte & 0x0FU);
        ++next;
    }
    return uuid;
}

bool is_uuid(std::string_view text) {
    if (text.size() != kForm.size()) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool digit_wanted = kForm[i] == 'x';
        const bool ok = digit_wanted ? std::isxdigit(static_cast<unsigned char>(text[i])) != 0
                                     : text[i] == kForm[i];
        if (!ok) {
            return false;
        }
    }
    return true;
}

std::string_view uuid_digits(std::string_view uuid) { return uuid.substr(1, uuid.size() - 2); }

}  // namespace trakctl
