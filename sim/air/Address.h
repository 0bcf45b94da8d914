// SPDX-License-Identifier: MIT
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <tuple>

namespace vexasim::air
{

enum class AddressKind : std::uint8_t {
    Public = 0,
    Random = 1,
};

/// The least significant octet first.
using AddressOctets = std::array<std::uint8_t, 6>;

/// A Bluetooth device address as it is sent: its kind, and six octets. Bluetooth Core 5.3, Vol 6, B 1.3.
struct Address {
    AddressKind kind = AddressKind::Public;
    AddressOctets octets{};

    auto fields() { return std::tie(kind, octets); }

    /// Reads "AA:BB:CC:DD:EE:FF"; empty if the text is anything else.
    static std::optional<Address> parse(const std::string& text, AddressKind kind = AddressKind::Public);

    /// The usual text form, upper case, most significant octet first.
    std::string text() const;

    bool operator==(const Address& other) const { return kind == other.kind && octets == other.octets; }
    bool operator!=(const Address& other) const { return !(*this == other); }
    bool operator<(const Address& other) const
    {
        return std::tie(kind, octets) < std::tie(other.kind, other.octets);
    }
};

} // namespace vexasim::air
