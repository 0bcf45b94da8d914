// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>

/**
 * What the remote's firmware requires for an update: its names, its characteristics and the sizes of the data
 * it accepts. Used by the daemon, the tool for images and the pairing agent. Constants only; any thread.
 */
namespace ota_format
{

/// A POSIX extended regular expression for the remote's names in its everyday mode.
inline constexpr char kRemoteNamePattern[] = "^VEXA.+$";
/// What the remote's name contains in its update mode.
inline constexpr char kUpdateNamePart[] = "BeeTgt";

/// Characteristic of its update mode that takes commands and notifies the responses.
inline constexpr char kControlPointUuid[] = "00006487-3c17-d293-8e48-14fe2e4da212";
/// Characteristic of its update mode that takes the image's payload.
inline constexpr char kDataUuid[] = "00006387-3c17-d293-8e48-14fe2e4da212";

/// Bytes of an image's header.
inline constexpr std::size_t kHeaderBytes = 12;
/// Bytes of a word, the unit of the length in the header.
inline constexpr std::size_t kWordBytes = 4;
/// Bytes of payload in one write; the last one may have fewer.
inline constexpr std::size_t kBlockBytes = 20;
/// Bytes at the beginning of a block that are enciphered; a shorter block isn't enciphered.
inline constexpr std::size_t kCipherBytes = 16;

} // namespace ota_format
