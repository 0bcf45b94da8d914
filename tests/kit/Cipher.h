// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "sim/model/UpdateReceiver.h"

namespace kit
{

// The update's key and cipher; the cipher is libcrypto's.

enum class Direction { Decipher, Encipher }; // the values that libcrypto uses

constexpr std::size_t kCipherBytes = 16;

/// AES in ECB mode over whole blocks; the key's size selects the variant.
std::vector<std::uint8_t> aesEcb(const std::vector<std::uint8_t>& key, const std::vector<std::uint8_t>& input,
                                 Direction direction);

/// The key of this build.
vexasim::UpdateKey sharedKey();
std::vector<std::uint8_t> enciphered(const std::vector<std::uint8_t>& plain,
                                     const vexasim::UpdateKey& key = sharedKey());
std::vector<std::uint8_t> deciphered(const std::vector<std::uint8_t>& cipher,
                                     const vexasim::UpdateKey& key = sharedKey());
/// A block of the payload as it is sent over the air: its first 16 bytes enciphered, if it has that many.
std::vector<std::uint8_t> onAir(std::vector<std::uint8_t> block, const vexasim::UpdateKey& key = sharedKey());

} // namespace kit
