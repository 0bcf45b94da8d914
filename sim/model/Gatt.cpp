// SPDX-License-Identifier: MIT
#include "sim/model/Gatt.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace vexasim
{

bool GattCharacteristic::has(const std::string& flag) const
{
    return std::find(flags.begin(), flags.end(), flag) != flags.end();
}

std::string uuid128(std::uint16_t uuid16)
{
    std::array<char, 37> text{};
    std::snprintf(text.data(), text.size(), "0000%04x-0000-1000-8000-00805f9b34fb", unsigned{uuid16});
    return text.data();
}

AttReply AttReply::ok(Bytes value)
{
    AttReply reply;
    reply.value = std::move(value);
    return reply;
}

AttReply AttReply::refused(std::uint8_t error)
{
    AttReply reply;
    reply.error = error;
    return reply;
}

AttReply AttReply::silence()
{
    AttReply reply;
    reply.kind = Kind::NoAnswer;
    return reply;
}

AttReply AttReply::lost()
{
    AttReply reply;
    reply.kind = Kind::LinkLost;
    reply.error = att::kUnlikelyError;
    return reply;
}

} // namespace vexasim
