// SPDX-License-Identifier: MIT
#include "sim/air/PairingToolbox.h"

#include <algorithm>

namespace vexasim::air
{

namespace
{

// "btle" and the salt of f5, in the byte order of the standard.
constexpr std::uint32_t kKeyId = 0x62746c65;
constexpr Block kSalt = {0x6c, 0x88, 0x83, 0x91, 0xaa, 0xf5, 0xa5, 0x38,
                         0x60, 0x37, 0x0b, 0xdb, 0x5a, 0x60, 0x83, 0xbe};
constexpr std::uint16_t kKeyBits = 256;

// Converts between the byte orders of the air and of the ciphers.
template <size_t size>
std::array<std::uint8_t, size> reversed(std::array<std::uint8_t, size> bytes)
{
    std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

// AES-CMAC of fields in the byte order of the air: the standard's last field comes first.
template <class... Field>
Key128 cmac(const Key128& key, const Field&... fields)
{
    Bytes message = encode(fields...);
    std::reverse(message.begin(), message.end());
    return reversed(aesCmac(reversed(key), message));
}

Key128 operator^(Key128 left, const Key128& right)
{
    for (size_t i = 0; i < left.size(); ++i) {
        left[i] ^= right[i];
    }
    return left;
}

template <class... Part>
Key128 join(const Part&... parts)
{
    const Bytes bytes = encode(parts...);
    Key128 joined{};
    std::copy_n(bytes.begin(), std::min(bytes.size(), joined.size()), joined.begin());
    return joined;
}

} // namespace

Key128 encryptBlock(const Key128& key, const Key128& block)
{
    return reversed(aes128(reversed(key), reversed(block)));
}

std::array<std::uint8_t, 3> ah(const Key128& identityKey, const std::array<std::uint8_t, 3>& random)
{
    const Key128 hash = encryptBlock(identityKey, join(random));
    return {hash[0], hash[1], hash[2]};
}

Key128 c1(const Key128& temporaryKey, const Key128& random, const std::array<std::uint8_t, 7>& request,
          const std::array<std::uint8_t, 7>& response, const Address& initiator, const Address& responder)
{
    const Key128 p1 = join(initiator.kind, responder.kind, request, response);
    const Key128 p2 = join(responder.octets, initiator.octets);
    return encryptBlock(temporaryKey, encryptBlock(temporaryKey, random ^ p1) ^ p2);
}

Key128 s1(const Key128& temporaryKey, const Key128& responderRandom, const Key128& initiatorRandom)
{
    std::array<std::uint8_t, 8> low{};
    std::copy_n(initiatorRandom.begin(), low.size(), low.begin());
    return encryptBlock(temporaryKey, join(low, responderRandom));
}

Key128 f4(const Scalar& u, const Scalar& v, const Key128& x, std::uint8_t z)
{
    return cmac(x, z, v, u);
}

SecureKeys f5(const Scalar& w, const Key128& n1, const Key128& n2, const Address& a1, const Address& a2)
{
    const Key128 key = cmac(reversed(kSalt), w);
    const auto half = [&](std::uint8_t counter) {
        return cmac(key, kKeyBits, a2.octets, a2.kind, a1.octets, a1.kind, n2, n1, kKeyId, counter);
    };
    return {half(0), half(1)};
}

Key128 f6(const Key128& w, const Key128& n1, const Key128& n2, const Key128& r,
          const std::array<std::uint8_t, 3>& capabilities, const Address& a1, const Address& a2)
{
    return cmac(w, a2.octets, a2.kind, a1.octets, a1.kind, capabilities, r, n2, n1);
}

Key128 sessionKey(const Key128& longTermKey, const std::array<std::uint8_t, 8>& centralHalf,
                  const std::array<std::uint8_t, 8>& peripheralHalf)
{
    return encryptBlock(longTermKey, join(centralHalf, peripheralHalf));
}

} // namespace vexasim::air
