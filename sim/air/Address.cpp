// SPDX-License-Identifier: MIT
#include "sim/air/Address.h"

#include <cctype>
#include <cstdio>

namespace vexasim::air
{

namespace
{

constexpr size_t kTextLength = 17;

} // namespace

std::optional<Address> Address::parse(const std::string& text, AddressKind kind)
{
    if (text.size() != kTextLength) {
        return std::nullopt;
    }
    Address address;
    address.kind = kind;
    for (size_t i = 0; i < address.octets.size(); ++i) {
        const std::string digits = text.substr(i * 3, 2);
        const bool separated = i == 0 || text[i * 3 - 1] == ':';
        if (!separated || std::isxdigit(static_cast<unsigned char>(digits[0])) == 0 ||
            std::isxdigit(static_cast<unsigned char>(digits[1])) == 0) {
            return std::nullopt;
        }
        address.octets[address.octets.size() - 1 - i] =
            static_cast<std::uint8_t>(std::stoul(digits, nullptr, 16));
    }
    return address;
}

std::string Address::text() const
{
    char buffer[kTextLength + 1];
    std::snprintf(buffer, sizeof buffer, "%02X:%02X:%02X:%02X:%02X:%02X", octets[5], octets[4], octets[3],
                  octets[2], octets[1], octets[0]);
    return buffer;
}

} // namespace vexasim::air
