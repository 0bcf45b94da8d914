// SPDX-License-Identifier: MIT
#include "sim/air/LinkCipher.h"

#include <algorithm>

namespace vexasim::air
{

namespace
{

constexpr std::uint64_t kFromCentral = std::uint64_t{1} << 39;

} // namespace

LinkCipher::LinkCipher(End end, const Key128& longTermKey, const EncryptionHalves& halves)
    : mEnd(end), mKey(sessionKey(longTermKey, halves.centralDiversifier, halves.peripheralDiversifier))
{
    // The underlying cipher takes its key with the most significant octet first.
    std::reverse(mKey.begin(), mKey.end());
    std::copy(halves.centralVector.begin(), halves.centralVector.end(), mVector.begin());
    std::copy(halves.peripheralVector.begin(), halves.peripheralVector.end(),
              mVector.begin() + halves.centralVector.size());
}

Bytes LinkCipher::seal(const LinkPacket& packet)
{
    if (packet.payload.empty()) {
        return {};
    }
    return aesCcmSeal(mKey, nonce(mSent++, mEnd), packet.kind, packet.payload);
}

std::optional<Bytes> LinkCipher::open(const LinkPacket& packet)
{
    const End sender = mEnd == End::Central ? End::Peripheral : End::Central;
    if (packet.payload.empty()) {
        return Bytes();
    }
    return aesCcmOpen(mKey, nonce(mReceived++, sender), packet.kind, packet.payload);
}

std::array<std::uint8_t, 13> LinkCipher::nonce(std::uint64_t counter, End sender) const
{
    if (sender == End::Central) {
        counter |= kFromCentral;
    }
    std::array<std::uint8_t, 13> nonce{};
    for (size_t i = 0; i < 5; ++i) {
        nonce[i] = static_cast<std::uint8_t>(counter >> (8 * i));
    }
    std::copy(mVector.begin(), mVector.end(), nonce.begin() + 5);
    return nonce;
}

} // namespace vexasim::air
