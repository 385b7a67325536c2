#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace Vorl::Session {

/// The bytes in lower-case hexadecimal digits.
[[nodiscard]] inline std::string toHex(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 0xF];
    }
    return text;
}

} // namespace Vorl::Session
