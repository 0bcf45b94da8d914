// SPDX-License-Identifier: MIT
#include "Firmware.h"

#include <array>
#include <cstddef>

#include "BoxFiles.h"
#include "OtaFormat.h"
#include "STBLogger.h"

namespace
{

using ota_format::kBlockBytes;
using HeaderBytes = std::array<char, ota_format::kHeaderBytes>;

std::uint8_t byteAt(const HeaderBytes& bytes, std::size_t position)
{
    return static_cast<std::uint8_t>(bytes[position]);
}

std::uint16_t wordAt(const HeaderBytes& bytes, std::size_t position)
{
    return static_cast<std::uint16_t>(byteAt(bytes, position) | byteAt(bytes, position + 1) << 8);
}

} // namespace

std::unique_ptr<Firmware> Firmware::createWithLocation(const std::string& location)
{
    if (location.empty()) {
        LOG_ERROR("Empty path");
        return nullptr;
    }
    std::unique_ptr<Firmware> firmware{new Firmware{location}};
    if (!firmware->parseHeader()) {
        return nullptr;
    }
    // The stream is now at the payload; the upload relies on it staying there.
    return firmware;
}

Firmware::Firmware(const std::string& location) : mLocation{location}
{
    *mStream.rdbuf() = box_files::openRegularFile(location);
    if (!mStream.is_open()) {
        mStream.setstate(std::ios::failbit);
    }
}

bool Firmware::parseHeader()
{
    HeaderBytes bytes{};
    mStream.read(bytes.data(), bytes.size());
    if (mStream.fail()) {
        return false;
    }
    mHeader.offset = wordAt(bytes, 0);
    mHeader.signature = wordAt(bytes, 2);
    mHeader.version = wordAt(bytes, 4);
    mHeader.checksum = wordAt(bytes, 6);
    mHeader.length = wordAt(bytes, 8);
    mHeader.ota_flag = byteAt(bytes, 10);
    mHeader.reserved = byteAt(bytes, 11);
    LOG_DEBUG("offset: 0x%04x signature: 0x%04x version: 0x%04x checksum: 0x%04x length: 0x%04x "
              "ota_flag: 0x%02x reserved: 0x%02x",
              mHeader.offset, mHeader.signature, mHeader.version, mHeader.checksum, mHeader.length,
              mHeader.ota_flag, mHeader.reserved);
    return true;
}

int Firmware::fillBuffer(std::vector<std::uint8_t>& buffer)
{
    if (buffer.empty() || buffer.size() > kBlockBytes) {
        buffer.resize(kBlockBytes);
    }
    if (mStream.fail()) {
        buffer.clear();
        return 0;
    }
    // Byte by byte: read() returns nothing of a block if the disk fails within it.
    std::size_t count = 0;
    for (char byte = 0; count < buffer.size() && mStream.get(byte); ++count) {
        buffer[count] = static_cast<std::uint8_t>(byte);
    }
    buffer.resize(count);
    return static_cast<int>(buffer.size());
}

void Firmware::resetStream()
{
    mStream.clear();
    // Kept: the start of the file, so the header comes first again. The update doesn't call this.
    mStream.seekg(0);
}
