// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>

// AES (FIPS-197) for single blocks of 16 bytes, without a mode of operation: the caller decides what the
// blocks mean. Nothing here allocates, blocks or keeps state of its own.

/// The round keys of one AES key, both ways. The caller owns the record, zeroes it first and wipes it when
/// done: it holds key material. A word of a round key holds four key bytes, the first in the top bits.
struct AesContext {
    std::uint32_t encryptRoundKeys[64]; ///< In order of use when enciphering.
    std::uint32_t decryptRoundKeys[64]; ///< In order of use when deciphering (the equivalent inverse cipher).
    int rounds;                         ///< 10, 12 or 14.
};

/// Computes both key schedules of `key`, which holds `keyBits` / 8 bytes (FIPS-197, 5.2 and 5.3.5). Returns
/// 0, or 1 with the context unchanged if `keyBits` isn't 128, 192 or 256. The only function that writes to
/// the context; afterwards any number of threads may use it.
int aes_set_key(AesContext* context, const unsigned char* key, int keyBits);

/// Enciphers the 16 bytes at `input` into the 16 bytes at `output`, which may be the same block (FIPS-197,
/// 5.1). Any thread, once the key is set.
void aes_encrypt(const AesContext* context, const unsigned char* input, unsigned char* output);

/// Deciphers the 16 bytes at `input` into the 16 bytes at `output`, which may be the same block (FIPS-197,
/// 5.3.5). Any thread, once the key is set.
void aes_decrypt(const AesContext* context, const unsigned char* input, unsigned char* output);
