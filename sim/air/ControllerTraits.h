// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>

/// What the controller says of itself in more than one place.
namespace vexasim::air::traits
{

constexpr uint8_t kBluetooth50 = 0x09;
/// The number set aside for what isn't on sale.
constexpr uint16_t kNoManufacturer = 0xffff;

/// Features of the link layer, Vol 6, B 4.6.
constexpr uint64_t kLeEncryption = 0x01;
constexpr uint64_t kLeDataLength = 0x20;

/// Bytes in a packet of the link.
constexpr uint16_t kMinimumPayload = 27;
constexpr uint16_t kMaximumPayload = 251;

constexpr uint16_t kFirstHandle = 0x0040;
constexpr uint16_t kLastHandle = 0x0eff;

} // namespace vexasim::air::traits
