// SPDX-License-Identifier: MIT
#pragma once

#include "sim/air/Address.h"
#include "sim/air/Ciphers.h"

// The cryptographic toolbox of pairing and of the encrypted link, Bluetooth Core 5.3, Vol 3, H 2.2, and Vol
// 6, B 5.1.3. Every byte string, results included, is as sent over the air: the least significant octet
// first. Pure functions; any thread.

namespace vexasim::air
{

using Key128 = std::array<std::uint8_t, 16>;

/// The security function e: AES-128 of one block.
Key128 encryptBlock(const Key128& key, const Key128& block);

/// The random address hash ah, H 2.2.2.
std::array<std::uint8_t, 3> ah(const Key128& identityKey, const std::array<std::uint8_t, 3>& random);

/// The confirm value c1 of legacy pairing, H 2.2.3. `request` and `response` are the whole packets with their
/// codes.
Key128 c1(const Key128& temporaryKey, const Key128& random, const std::array<std::uint8_t, 7>& request,
          const std::array<std::uint8_t, 7>& response, const Address& initiator, const Address& responder);

/// The key generation function s1 of legacy pairing, H 2.2.4: `responderRandom` is r1, `initiatorRandom` is
/// r2.
Key128 s1(const Key128& temporaryKey, const Key128& responderRandom, const Key128& initiatorRandom);

/// The confirm value f4 of secure connections, H 2.2.6.
Key128 f4(const Scalar& u, const Scalar& v, const Key128& x, std::uint8_t z);

struct SecureKeys {
    Key128 macKey{};
    Key128 longTermKey{};
};

/// The keys f5 of secure connections, H 2.2.7: `w` is the shared secret.
SecureKeys f5(const Scalar& w, const Key128& n1, const Key128& n2, const Address& a1, const Address& a2);

/// The check value f6 of secure connections, H 2.2.8. `capabilities` holds the input and output capability,
/// the out-of-band flag and the requirements.
Key128 f6(const Key128& w, const Key128& n1, const Key128& n2, const Key128& r,
          const std::array<std::uint8_t, 3>& capabilities, const Address& a1, const Address& a2);

/// The key of an encrypted link, made from both ends' halves of the diversifier.
Key128 sessionKey(const Key128& longTermKey, const std::array<std::uint8_t, 8>& centralHalf,
                  const std::array<std::uint8_t, 8>& peripheralHalf);

} // namespace vexasim::air
