// SPDX-License-Identifier: MIT
#include "sim/air/PairingToolbox.h"

#include <algorithm>

namespace vexasim::air
{

namespace
{

// "btle" and the salt of f5, as the standard prints them.
constexpr uint32_t kKeyId = 0x62746c65;
constexpr Block kSalt = {0x6c, 0x88, 0x83, 0x91, 0xaa, 0xf5, 0xa5, 0x38,
                         0x60, 0x37, 0x0b, 0xdb, 0x5a, 0x60, 0x83, 0xbe};
constexpr uint16_t kKeyBits = 256;

// From the order of the air to that of the ciphers, and back.
template <size_t size>
std::array<uint8_t, size> reversed(std::array<uint8_t, size> bytes)
{
    std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

// A message for AES-CMAC, built with its most significant octet first.
class Message
{
public:
    template <size_t size>
    Message& add(const std::array<uint8_t, size>& bytes)
    {
        mBytes.insert(mBytes.end(), bytes.rbegin(), bytes.rend());
        return *this;
    }
    Message& add(uint8_t octet)
    {
        mBytes.push_back(octet);
        return *this;
    }
    Message& add(const Address& address)
    {
        return add(static_cast<uint8_t>(address.kind)).add(address.octets);
    }

    Key128 underKey(const Key128& key) const { return reversed(aesCmac(reversed(key), mBytes)); }

private:
    Bytes mBytes;
};

Key128 operator^(Key128 left, const Key128& right)
{
    for (size_t i = 0; i < left.size(); ++i)
        left[i] ^= right[i];
    return left;
}

template <class... Part>
Key128 join(const Part&... parts)
{
    Encoder encoder;
    encoder(parts...);
    const Bytes bytes = encoder.take();
    Key128 joined{};
    std::copy_n(bytes.begin(), std::min(bytes.size(), joined.size()), joined.begin());
    return joined;
}

Key128 f5Half(const Key128& key, uint8_t counter, const Key128& n1, const Key128& n2, const Address& a1,
              const Address& a2)
{
    Message message;
    message.add(counter);
    for (int shift = 24; shift >= 0; shift -= 8)
        message.add(static_cast<uint8_t>(kKeyId >> shift));
    message.add(n1).add(n2).add(a1).add(a2);
    message.add(static_cast<uint8_t>(kKeyBits >> 8)).add(static_cast<uint8_t>(kKeyBits & 0xff));
    return message.underKey(key);
}

} // namespace

Key128 encryptBlock(const Key128& key, const Key128& block)
{
    return reversed(aes128(reversed(key), reversed(block)));
}

std::array<uint8_t, 3> ah(const Key128& identityKey, const std::array<uint8_t, 3>& random)
{
    const Key128 hash = encryptBlock(identityKey, join(random));
    return {hash[0], hash[1], hash[2]};
}

Key128 c1(const Key128& temporaryKey, const Key128& random, const std::array<uint8_t, 7>& request,
          const std::array<uint8_t, 7>& response, const Address& initiator, const Address& responder)
{
    const Key128 p1 = join(initiator.kind, responder.kind, request, response);
    const Key128 p2 = join(responder.octets, initiator.octets);
    return encryptBlock(temporaryKey, encryptBlock(temporaryKey, random ^ p1) ^ p2);
}

Key128 s1(const Key128& temporaryKey, const Key128& responderRandom, const Key128& initiatorRandom)
{
    std::array<uint8_t, 8> low{};
    std::array<uint8_t, 8> high{};
    std::copy_n(initiatorRandom.begin(), low.size(), low.begin());
    std::copy_n(responderRandom.begin(), high.size(), high.begin());
    return encryptBlock(temporaryKey, join(low, high));
}

Key128 f4(const Scalar& u, const Scalar& v, const Key128& x, uint8_t z)
{
    return Message().add(u).add(v).add(z).underKey(x);
}

SecureKeys f5(const Scalar& w, const Key128& n1, const Key128& n2, const Address& a1, const Address& a2)
{
    const Key128 key = Message().add(w).underKey(reversed(kSalt));
    return {f5Half(key, 0, n1, n2, a1, a2), f5Half(key, 1, n1, n2, a1, a2)};
}

Key128 f6(const Key128& w, const Key128& n1, const Key128& n2, const Key128& r,
          const std::array<uint8_t, 3>& capabilities, const Address& a1, const Address& a2)
{
    return Message().add(n1).add(n2).add(r).add(capabilities).add(a1).add(a2).underKey(w);
}

Key128 sessionKey(const Key128& longTermKey, const std::array<uint8_t, 8>& centralHalf,
                  const std::array<uint8_t, 8>& peripheralHalf)
{
    return encryptBlock(longTermKey, join(centralHalf, peripheralHalf));
}

} // namespace vexasim::air
