// SPDX-License-Identifier: MIT
#include "Delivery.h"

#include <cstdint>

#include "OtaFormat.h"

namespace
{

std::string bytes(std::size_t count)
{
    return std::to_string(count) + (count == 1 ? " byte" : " bytes");
}

} // namespace

Delivery Delivery::of(Firmware& firmware)
{
    Delivery delivery;
    delivery.version = firmware.header().version;
    delivery.announced = firmware.header().length * ota_format::kWordBytes;
    std::vector<std::uint8_t> block;
    while (firmware.fillBuffer(block) > 0) {
        delivery.present += block.size();
        if (delivery.sent < delivery.announced) {
            delivery.sent += block.size();
            delivery.lastBlock = block.size();
            ++delivery.blocks;
        }
        block.clear();
    }
    return delivery;
}

std::vector<std::string> Delivery::warnings() const
{
    std::vector<std::string> all;
    if (version == 0) {
        all.emplace_back("version 0: never newer than the remote's, so the daemon cancels the update");
    }
    if (announced == 0) {
        all.emplace_back("length 0: the daemon sends no data and asks the remote to verify at once");
    }
    if (present < announced) {
        all.push_back("the file ends " + bytes(announced - present) +
                      " before the announced length: the daemon sends what there is and logs \"Stream end\", "
                      "and the update fails");
    }
    if (sent > announced) {
        all.push_back(
            "the last block carries " + bytes(sent - announced) +
            " from beyond the payload: the length isn't a multiple of 5 words and the file goes on");
    }
    if (sent == announced && announced % ota_format::kBlockBytes != 0) {
        all.push_back("the length isn't a multiple of 5 words: the last block holds " + bytes(lastBlock) +
                      (lastBlock < ota_format::kCipherBytes
                           ? ", too few to be enciphered, and is sent in the clear"
                           : ""));
    }
    if (present > sent) {
        all.push_back("the last " + bytes(present - sent) + " of the file are never read");
    }
    return all;
}
