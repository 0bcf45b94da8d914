// SPDX-License-Identifier: MIT
// The table of a whole update in docs/interface.md against a real one.

#include "box/Box.h"

#include <gmock/gmock.h>

#include <array>
#include <cstdio>
#include <fstream>

using namespace vexabox;
using namespace std::chrono_literals;
using ::testing::ElementsAreArray;
using vexasim::Bytes;
using vexasim::UpdatePacket;

namespace
{

using Rows = std::vector<std::string>;

constexpr const char* kBegin = "<!-- the exchange of an update -->";
constexpr const char* kEnd = "<!-- end of the exchange -->";
constexpr std::size_t kPayloadBytes = 48;

// The rows between the marks, without the heading and the last column, which is for people.
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

std::string toHex(const Bytes& bytes)
{
    std::string text;
    for (const uint8_t byte : bytes) {
        std::array<char, 4> digits{};
        std::snprintf(digits.data(), digits.size(), "%s%02x", text.empty() ? "" : " ", byte);
        text += digits.data();
    }
    return text;
}

std::string row(const UpdatePacket& packet)
{
    const char* endpoint = packet.channel == UpdatePacket::Channel::Switch         ? "update switch"
                           : packet.channel == UpdatePacket::Channel::ControlPoint ? "control point"
                                                                                   : "data";
    return std::string("| ") + (packet.fromRemote ? "remote" : "daemon") + " | " + endpoint + " | `" +
           toHex(packet.bytes) + "` |";
}

// Version 1a4, signature 5a5a, 48 bytes of payload that count from 0.
std::string exampleImage()
{
    vexasim::ImageHeader header;
    header.signature = 0x5a5a;
    header.version = 0x1a4;
    header.length = kPayloadBytes / 4;
    Bytes image = header.encode();
    for (std::size_t i = 0; i < kPayloadBytes; ++i) {
        image.push_back(static_cast<uint8_t>(i));
    }
    return {image.begin(), image.end()};
}

class ARemoteWithItsReadings : public InABox
{
protected:
    ARemoteWithItsReadings() : InABox(pairedRemote()) {}

    void SetUp() override
    {
        ASSERT_TRUE(box.startConnected());
        box.clock().advance(20s);
        ASSERT_LOG(box, DEBUG, "main", "rc fw version: 1a3");
        std::ofstream(box.file("example.img"), std::ios::binary) << exampleImage();
    }
};

TEST_F(ARemoteWithItsReadings, IsUpdatedAsTheInterfaceDocumentShows)
{
    box.linkFirmware("/tmp/example.img");
    ASSERT_TRUE(box.awaitStatus("rc_fw_update_succeed"));

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
