// SPDX-License-Identifier: MIT
// Compares the table of a complete update in docs/interface.md with a real update.

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <gmock/gmock.h>
#include <numeric>

#include "tests/daemon/UpdateStory.h"

namespace kit
{

using ::testing::ElementsAreArray;
using vexasim::Bytes;
using vexasim::UpdatePacket;

namespace
{

using Rows = std::vector<std::string>;

constexpr const char* kBegin = "<!-- the exchange of an update -->";
constexpr const char* kEnd = "<!-- end of the exchange -->";
constexpr std::size_t kPayloadBytes = 48;

// The rows between the markers, without the heading and the last column, which only explains.
Rows documentedExchange()
{
    std::ifstream document(VEXA_INTERFACE_DOCUMENT);
    Rows rows;
    std::string line;
    while (std::getline(document, line) && line != kBegin) {
    }
    while (std::getline(document, line) && line != kEnd) {
        if (line.rfind("| daemon", 0) == 0 || line.rfind("| remote", 0) == 0) {
            rows.push_back(line.substr(0, line.rfind('|', line.size() - 2) + 1));
        }
    }
    return rows;
}

// The document uses the published development key; this build may have another.
Bytes underTheDocumentsKey(Bytes packet, std::size_t cipherBegin)
{
    const auto begin = packet.begin() + static_cast<std::ptrdiff_t>(cipherBegin);
    const Bytes plain = deciphered(Bytes(begin, begin + kCipherBytes));
    const Bytes cipher = enciphered(plain, vexasim::developmentKey());
    std::copy(cipher.begin(), cipher.end(), begin);
    return packet;
}

Bytes asDocumented(const UpdatePacket& packet)
{
    if (packet.channel == UpdatePacket::Channel::Data && packet.bytes.size() >= kCipherBytes) {
        return underTheDocumentsKey(packet.bytes, 0);
    }
    if (packet.channel == UpdatePacket::Channel::ControlPoint && packet.bytes.size() == 1 + kCipherBytes) {
        return underTheDocumentsKey(packet.bytes, 1); // the start packet
    }
    return packet.bytes;
}

std::string row(const UpdatePacket& packet)
{
    const char* endpoint = packet.channel == UpdatePacket::Channel::Switch         ? "update switch"
                           : packet.channel == UpdatePacket::Channel::ControlPoint ? "control point"
                                                                                   : "data";
    return std::string("| ") + (packet.fromRemote ? "remote" : "daemon") + " | " + endpoint + " | `" +
           toHex(asDocumented(packet), " ").substr(1) + "` |";
}

class ARemoteWithItsReadings : public UpdateStory
{
};

TEST_F(ARemoteWithItsReadings, IsUpdatedAsTheInterfaceDocumentShows)
{
    ASSERT_TRUE(remoteIsRead());
    FirmwareImage image; // all zeros where the document says nothing
    image.offset = image.checksum = image.otaFlag = image.reserved = 0;
    image.signature = 0x5a5a;
    image.version = 0x1a4;
    image.length = kPayloadBytes / 4;
    image.payload.resize(kPayloadBytes);
    std::iota(image.payload.begin(), image.payload.end(), std::uint8_t{0});

    offer(image);
    ASSERT_TRUE(ends("succeed"));

    Rows exchange;
    for (const UpdatePacket& packet : box.remote().receiver().packets()) {
        exchange.push_back(row(packet));
    }
    EXPECT_THAT(documentedExchange(), ElementsAreArray(exchange)) << [&exchange] {
        std::string table = "the real exchange:\n";
        for (const std::string& line : exchange) {
            table += line + "\n";
        }
        return table;
    }();
}

} // namespace

} // namespace kit
