// SPDX-License-Identifier: MIT
#include "sim/air/L2cap.h"

#include <algorithm>

namespace vexasim::air
{

namespace
{

constexpr size_t kHeaderSize = 4;

enum class Code : std::uint8_t {
    CommandReject = 0x01,
    ParameterUpdateRequest = 0x12,
    ParameterUpdateResponse = 0x13,
};

constexpr std::uint16_t kNotUnderstood = 0;
constexpr std::uint16_t kAccepted = 0;

Bytes command(Code code, std::uint8_t identifier, const Bytes& data)
{
    return encode(code, identifier, static_cast<std::uint16_t>(data.size()), data);
}

} // namespace

std::optional<Reassembler::Packet> Reassembler::add(const LinkPacket& piece)
{
    if (piece.kind == LinkPacket::Start) {
        mSoFar.clear();
    } else if (mSoFar.empty()) {
        return std::nullopt;
    }
    mSoFar = std::move(mSoFar) + piece.payload;
    if (mSoFar.size() < kHeaderSize) {
        return std::nullopt;
    }

    L2capHeader header;
    Decoder decoder(mSoFar);
    decoder(header);
    if (decoder.left() < header.length) {
        return std::nullopt;
    }
    const bool fits = decoder.left() == header.length;
    Packet packet{header.channel, decoder.bytes(header.length)};
    mSoFar.clear();
    if (!fits) {
        return std::nullopt;
    }
    return packet;
}

std::vector<LinkPacket> fragment(Channel channel, const Bytes& payload, size_t maximumPiece)
{
    const Bytes frame = encode(L2capHeader{static_cast<std::uint16_t>(payload.size()), channel}) + payload;
    std::vector<LinkPacket> pieces;
    for (size_t at = 0; at < frame.size(); at += maximumPiece) {
        const auto from = frame.begin() + static_cast<std::ptrdiff_t>(at);
        const auto to =
            frame.begin() + static_cast<std::ptrdiff_t>(std::min(frame.size(), at + maximumPiece));
        pieces.push_back({at == 0 ? LinkPacket::Start : LinkPacket::Continuation, Bytes(from, to)});
    }
    return pieces;
}

void Signaling::requestParameters(std::uint16_t minimum, std::uint16_t maximum, std::uint16_t latency,
                                  std::uint16_t timeout)
{
    // Zero isn't a valid identifier.
    mIdentifier = mIdentifier == 0xff ? std::uint8_t{1} : static_cast<std::uint8_t>(mIdentifier + 1);
    mSend(Channel::Signaling,
          command(Code::ParameterUpdateRequest, mIdentifier, encode(minimum, maximum, latency, timeout)));
}

void Signaling::received(const Bytes& packet)
{
    const auto received = decodeFields<Code, std::uint8_t, std::uint16_t, Bytes>(packet);
    if (!received) {
        return;
    }
    const auto& [code, identifier, length, data] = *received;
    if (length != data.size() || code == Code::CommandReject) {
        return;
    }
    if (code != Code::ParameterUpdateResponse) {
        return mSend(Channel::Signaling, command(Code::CommandReject, identifier, encode(kNotUnderstood)));
    }
    const auto result = decode<std::uint16_t>(data);
    if (result && identifier == mIdentifier && mAnswer) {
        mAnswer(*result == kAccepted);
    }
}

} // namespace vexasim::air
