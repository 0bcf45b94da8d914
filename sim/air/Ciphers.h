// SPDX-License-Identifier: MIT
#pragma once

#include <memory>

#include "sim/air/Bytes.h"

struct evp_pkey_st; // libcrypto's EVP_PKEY

// The ciphers of the air, by libcrypto. Here, and only here, byte strings have the most significant octet
// first, as in FIPS-197, RFC 4493 and FIPS 186-4.

namespace vexasim::air
{

using Block = std::array<std::uint8_t, 16>;
using Scalar = std::array<std::uint8_t, 32>;

/// AES-128 of one block (FIPS-197).
Block aes128(const Block& key, const Block& block);

/// AES-CMAC with a key of 128 bits (RFC 4493).
Block aesCmac(const Block& key, const Bytes& message);

/// AES-CCM with a nonce of 13 bytes and a tag of 4 (RFC 3610): the ciphertext followed by the tag.
Bytes aesCcmSeal(const Block& key, const std::array<std::uint8_t, 13>& nonce, std::uint8_t associated,
                 const Bytes& plain);

/// The reverse; empty if the tag doesn't match.
std::optional<Bytes> aesCcmOpen(const Block& key, const std::array<std::uint8_t, 13>& nonce,
                                std::uint8_t associated, const Bytes& sealed);

/// Fills in unpredictable bytes.
void fillRandomly(std::uint8_t* bytes, std::size_t size);

template <std::size_t size>
std::array<std::uint8_t, size> randomArray()
{
    std::array<std::uint8_t, size> array{};
    fillRandomly(array.data(), size);
    return array;
}

/// A point of the curve P-256.
struct Point {
    Scalar x{};
    Scalar y{};

    bool operator==(const Point& other) const { return x == other.x && y == other.y; }
};

/// A key pair on P-256 (FIPS 186-4), for the key agreement of secure connections. Any thread.
class KeyPair
{
public:
    /// A new random pair.
    KeyPair();

    /// The pair of a known private key; throws std::runtime_error if the number isn't a private key of the
    /// curve.
    explicit KeyPair(const Scalar& privateKey);

    Point publicKey() const { return mPublic; }

    /// The shared secret with the owner of `peer`; empty if `peer` isn't a point of the curve.
    std::optional<Scalar> agree(const Point& peer) const;

private:
    /// Owns the key.
    explicit KeyPair(evp_pkey_st* key);

    std::shared_ptr<evp_pkey_st> mKey;
    Point mPublic;
};

} // namespace vexasim::air
