// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kit
{

/// Converts hexadecimal digits to bytes; skips blanks between them. Throws std::invalid_argument on anything
/// else.
inline std::vector<std::uint8_t> fromHex(std::string_view text)
{
    std::string digits;
    for (const char c : text) {
        if (c != ' ') {
            digits += c;
        }
    }
    if (digits.size() % 2 != 0 || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        throw std::invalid_argument("not hexadecimal: " + std::string{text});
    }
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

/// Two lower-case digits for each byte, each byte preceded by `separator`.
template <typename Bytes>
std::string toHex(const Bytes& bytes, const char* separator = "")
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const auto value : bytes) {
        const auto byte = static_cast<std::uint8_t>(value); // text has signed ones
        text += separator;
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

} // namespace kit
