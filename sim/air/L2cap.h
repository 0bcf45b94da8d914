// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <optional>

#include "sim/air/Bytes.h"
#include "sim/air/Link.h"

namespace vexasim::air
{

/// Fixed channels of an LE link, Bluetooth Core 5.0, Vol 3, A 2.1.
enum class Channel : std::uint16_t {
    Attributes = 0x0004,
    Signaling = 0x0005,
    Security = 0x0006,
};

struct L2capHeader {
    std::uint16_t length = 0;
    Channel channel{};
    auto fields() { return std::tie(length, channel); }
};

/// Puts packets together that come over a link in pieces.
class Reassembler
{
public:
    struct Packet {
        Channel channel{};
        Bytes payload;
    };

    /// Takes the next piece; returns a packet when it is complete. A piece that doesn't fit the announced
    /// length is dropped with what came before it.
    std::optional<Packet> add(const LinkPacket& piece);

private:
    Bytes mSoFar;
};

/// The frame of one packet, in pieces that fit the link.
std::vector<LinkPacket> fragment(Channel channel, const Bytes& payload, size_t maximumPiece);

/// The peripheral's side of the signaling channel: asks for connection parameters, rejects everything that it
/// is asked. Vol 3, A 4. One thread.
class Signaling
{
public:
    using Send = std::function<void(Channel, const Bytes&)>;
    using Answer = std::function<void(bool accepted)>;

    explicit Signaling(Send send) : mSend(std::move(send)) {}

    /// Asks the central for an interval between `minimum` and `maximum` (units of 1.25 ms), a latency and a
    /// timeout (units of 10 ms).
    void requestParameters(std::uint16_t minimum, std::uint16_t maximum, std::uint16_t latency,
                           std::uint16_t timeout);

    void received(const Bytes& packet);

    /// Called with what the central said to the last request.
    void onAnswer(Answer answer) { mAnswer = std::move(answer); }

private:
    Send mSend;
    Answer mAnswer;
    std::uint8_t mIdentifier = 0;
};

} // namespace vexasim::air
