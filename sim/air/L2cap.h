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

/// Reassembles packets that arrive over a link in fragments.
class Reassembler
{
public:
    struct Packet {
        Channel channel{};
        Bytes payload;
    };

    /// Adds the next fragment; returns a packet when it is complete. A fragment that doesn't fit the
    /// announced length is dropped with the earlier ones.
    std::optional<Packet> add(const LinkPacket& piece);

private:
    Bytes mSoFar;
};

/// The frame of one packet, in fragments that fit the link.
std::vector<LinkPacket> fragment(Channel channel, const Bytes& payload, size_t maximumPiece);

/// The peripheral's side of the signaling channel: requests connection parameters, and rejects every request
/// that it receives. Vol 3, A 4. One thread.
class Signaling
{
public:
    using Send = std::function<void(Channel, const Bytes&)>;
    using Answer = std::function<void(bool accepted)>;

    explicit Signaling(Send send) : mSend(std::move(send)) {}

    /// Requests from the central an interval between `minimum` and `maximum` (units of 1.25 ms), a latency
    /// and a timeout (units of 10 ms).
    void requestParameters(std::uint16_t minimum, std::uint16_t maximum, std::uint16_t latency,
                           std::uint16_t timeout);

    void received(const Bytes& packet);

    /// `answer` is called with the central's answer to the last request.
    void onAnswer(Answer answer) { mAnswer = std::move(answer); }

private:
    Send mSend;
    Answer mAnswer;
    std::uint8_t mIdentifier = 0;
};

} // namespace vexasim::air
