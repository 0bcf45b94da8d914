// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

/**
 * The reader of one firmware image for the remote: a header of 12 bytes, decoded once and kept, and behind it
 * the payload, handed out block by block as it lies in the file.
 *
 * All numbers in the file are little-endian. Nothing in the header is judged here; what the daemon makes of
 * an odd image follows from streaming it. No function throws. One thread at a time may use an object.
 */
class Firmware
{
public:
    /// The decoded header, its fields in the order of the file.
    struct Header {
        std::uint16_t offset;
        std::uint16_t signature;
        std::uint16_t version;
        std::uint16_t checksum; ///< the remote's business, never computed on this side
        std::uint16_t length;   ///< of the payload, in words of four bytes
        std::uint8_t ota_flag;
        std::uint8_t reserved;
    };

    /// Opens the image at `location` and reads its header: the only way to make a Firmware. Empty on failure,
    /// which is logged for an empty path only; a regular file of 12 bytes or more never fails. Waits for
    /// nothing: a FIFO, a device or a folder can't be opened.
    static std::unique_ptr<Firmware> createWithLocation(const std::string& location);

    /// Decodes the 12 bytes at the stream's position into the header; false, in silence, if they can't be
    /// had.
    bool parseHeader();

    /// Reads the next bytes of the file into `buffer`, as many as it holds on entry: 20 if it is empty, and
    /// 20 at most. Cuts `buffer` to the bytes that came and returns their number, which is 0 from the end on,
    /// or from an error of the disk on.
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
