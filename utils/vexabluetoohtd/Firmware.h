// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

/**
 * Reads one firmware image for the remote: a header of 12 bytes, decoded once and kept, followed by the
 * payload, which is returned unchanged, block by block.
 *
 * All numbers in the file are little-endian. The header isn't validated here; how the daemon treats an odd
 * image follows from streaming it. No function throws. One thread at a time may use an object.
 */
class Firmware
{
public:
    /// The decoded header, its fields in the order of the file.
    struct Header {
        std::uint16_t offset;
        std::uint16_t signature;
        std::uint16_t version;
        std::uint16_t checksum; ///< for the remote; never computed on this side
        std::uint16_t length;   ///< of the payload, in words of four bytes
        std::uint8_t ota_flag;
        std::uint8_t reserved;
    };

    /// Opens the image at `location` and reads its header: the only way to create a Firmware. Empty on
    /// failure, which is logged only for an empty path; a regular file of 12 bytes or more never fails. Never
    /// blocks: FIFOs, devices and folders are refused.
    static std::unique_ptr<Firmware> createWithLocation(const std::string& location);

    /// Decodes the 12 bytes at the stream's position into the header; false, without a log message, if they
    /// can't be read.
    bool parseHeader();

    /// Reads the next bytes of the file into `buffer`, as many as its size on entry: 20 if it is empty, and
    /// 20 at most. Shrinks `buffer` to the bytes read and returns their number, which is 0 at the end of the
    /// file and after a disk error.
    int fillBuffer(std::vector<std::uint8_t>& buffer);

    /// Makes the stream readable again, from the first byte of the header and not of the payload.
    void resetStream();

    /// The header, which never changes once createWithLocation has returned.
    const Header& header() const { return mHeader; }

private:
    explicit Firmware(const std::string& location);

    std::string mLocation;
    std::ifstream mStream;
    Header mHeader{};
};
