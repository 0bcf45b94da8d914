// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "sim/model/UpdateReceiver.h"

namespace kit
{

// The update's key and cipher, the latter by libcrypto.

enum class Direction { Decipher, Encipher }; // as libcrypto numbers them

constexpr std::size_t kCipherBytes = 16;

/// AES in mode ECB over whole blocks; the key's size tells which.
std::vector<std::uint8_t> aesEcb(const std::vector<std::uint8_t>& key, const std::vector<std::uint8_t>& input,
                                 Direction direction);

/// The key of this build.
vexasim::UpdateKey sharedKey();
std::vector<std::uint8_t> enciphered(const std::vector<std::uint8_t>& plain,
                                     const vexasim::UpdateKey& key = sharedKey());
std::vector<std::uint8_t> deciphered(const std::vector<std::uint8_t>& cipher,
                                     const vexasim::UpdateKey& key = sharedKey());
/// A block of the payload as it goes over the air: its first 16 bytes enciphered, if it has so many.
std::vector<std::uint8_t> onAir(std::vector<std::uint8_t> block, const vexasim::UpdateKey& key = sharedKey());

} // namespace kit
