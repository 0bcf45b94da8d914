// SPDX-License-Identifier: MIT
#pragma once

#include "sim/air/PairingToolbox.h"

namespace vexasim::air
{

/// One packet of a link: whether it starts an upper packet (or is a link control packet), and its payload.
/// Bluetooth Core 5.3, Vol 6, B 2.4.
struct LinkPacket {
    enum Kind : std::uint8_t {
        Continuation = 1,
        Start = 2,
        Control = 3,
    };
    Kind kind = Start;
    Bytes payload;
};

/// What both ends contribute when encryption starts, Vol 6, B 2.4.2.4 and 2.4.2.5; least significant octet
/// first.
struct EncryptionHalves {
    std::array<std::uint8_t, 8> centralDiversifier{};
    std::array<std::uint8_t, 4> centralVector{};
    std::array<std::uint8_t, 8> peripheralDiversifier{};
    std::array<std::uint8_t, 4> peripheralVector{};
};

/// The cipher of one end of an encrypted link, Vol 6, E 2: encrypts sent packets, decrypts received ones, and
/// counts both.
class LinkCipher
{
public:
    enum class End { Central, Peripheral };

    LinkCipher(End end, const Key128& longTermKey, const EncryptionHalves& halves);

    /// The payload as sent over the air.
    Bytes seal(const LinkPacket& packet);

    /// The decrypted payload; empty if it was encrypted with another key or altered, or if an earlier packet
    /// was lost.
    std::optional<Bytes> open(const LinkPacket& packet);

private:
    std::array<std::uint8_t, 13> nonce(std::uint64_t counter, End sender) const;

    End mEnd;
    Block mKey;
    std::array<std::uint8_t, 8> mVector{};
    std::uint64_t mSent = 0;
    std::uint64_t mReceived = 0;
};

} // namespace vexasim::air
