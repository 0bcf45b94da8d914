// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kit
{

/// A firmware image to be written to a file, with any header and any payload.
struct FirmwareImage {
    std::uint16_t offset = 0x0011;
    std::uint16_t signature = 0x1234;
    std::uint16_t version = 0x0205;
    std::uint16_t checksum = 0xbeef;
    std::uint16_t length = 0; ///< in words of four bytes, whatever the payload holds
    std::uint8_t otaFlag = 0x5a;
    std::uint8_t reserved = 0xa5;
    std::vector<std::uint8_t> payload;

    /// An image of `words` words whose header announces them.
    static FirmwareImage ofWords(std::uint16_t words) { return ofBytes(words, std::size_t{4} * words); }

    /// An image that announces `words` words and holds `bytes` bytes of payload.
    static FirmwareImage ofBytes(std::uint16_t words, std::size_t bytes)
    {
        FirmwareImage image;
        image.length = words;
        for (std::size_t i = 0; i < bytes; ++i) {
            // No two blocks are alike, so that a swapped or repeated one shows.
            image.payload.push_back(static_cast<std::uint8_t>(i * 7 + i / 256));
        }
        return image;
    }

    std::vector<std::uint8_t> header() const
    {
        std::vector<std::uint8_t> bytes;
        for (const std::uint16_t field : {offset, signature, version, checksum, length}) {
            bytes.push_back(static_cast<std::uint8_t>(field & 0xff));
            bytes.push_back(static_cast<std::uint8_t>(field >> 8));
        }
        bytes.push_back(otaFlag);
        bytes.push_back(reserved);
        return bytes;
    }

    /// The file's content.
    std::vector<std::uint8_t> file() const
    {
        std::vector<std::uint8_t> bytes = header();
        bytes.insert(bytes.end(), payload.begin(), payload.end());
        return bytes;
    }
};

} // namespace kit
