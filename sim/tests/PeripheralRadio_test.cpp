// SPDX-License-Identifier: MIT
// A remote on the air, from a box's point of view, in complete procedures.
#include <set>

#include "sim/air/L2cap.h"
#include "sim/tests/AirBench.h"
#include "sim/tests/AirInitiator.h"

namespace vexasim::air
{

namespace
{

using hci::Opcode;
using hci::Status;

const Address kNormal = Address::parse("C0:FF:EE:00:00:01").value();
const Address kUpdate = Address::parse("C0:FF:EE:00:00:02").value();

class ARemoteOnTheAir : public testing::Test
{
protected:
    ARemoteOnTheAir() : remote(Remote::create(patient()))
    {
        remote->setSchedule([this](std::chrono::milliseconds delay, std::function<void()> action) {
            host.scheduler().after(delay, std::move(action));
        });
        normal = PeripheralRadio::create(host.scheduler(), host.air(), remote->normal());
        update = PeripheralRadio::create(host.scheduler(), host.air(), remote->update());
        host.setUp();
    }

    /// The answer to the switch must get through before the remote restarts.
    static RemoteOptions patient()
    {
        RemoteOptions options;
        options.switchTime = std::chrono::milliseconds(200);
        return options;
    }

    /// The addresses that advertise within a second.
    std::set<std::string> onAir()
    {
        std::set<std::string> addresses;
        host.scan(true, false);
        host.pass(std::chrono::seconds(1));
        host.scan(false);
        while (const auto report = host.take<hci::AdvertisingReport>()) {
            addresses.insert(report->address.text());
        }
        return addresses;
    }

    ScriptedHost host;
    std::shared_ptr<Remote> remote;
    std::shared_ptr<PeripheralRadio> normal;
    std::shared_ptr<PeripheralRadio> update;
};

} // namespace

TEST_F(ARemoteOnTheAir, IsFoundPairedReadAndSwitchedToItsUpdate)
{
    EXPECT_EQ(onAir(), std::set<std::string>{kNormal.text()});
    host.connect(kNormal);
    Initiator(host).pairSecurely();
    EXPECT_EQ(host.ask("0a 1200"), "0b50");
    EXPECT_EQ(host.ask("0a 2200"), "0ba301");
    EXPECT_TRUE(onAir().empty()) << "connected, and yet advertising";

    EXPECT_EQ(host.ask("12 2400 01"), "13");
    EXPECT_EQ(host.linkEnd(), Status::ConnectionTimeout);
    EXPECT_EQ(onAir(), std::set<std::string>{kUpdate.text()});
    host.connect(kUpdate);
    EXPECT_EQ(host.ask("12 1300 0100"), "13");
}

TEST_F(ARemoteOnTheAir, ReadsAndNotifiesOverAnEncryptedLinkWithOtherBytesOnTheAir)
{
    host.connect(kNormal);
    Initiator(host).pairLegacy();
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(host.ask("0a 1200"), "0b50");
    }
    EXPECT_EQ(host.ask("12 1300 0100"), "13");
    remote->setBattery(5);
    EXPECT_EQ(kit::toHex(host.awaitOn(Channel::Attributes).value()), "1b120005");
}

TEST_F(ARemoteOnTheAir, IsBackAfterItWasOutOfRange)
{
    host.connect(kNormal);
    Initiator initiator(host);
    initiator.pairSecurely();
    remote->leave();
    EXPECT_EQ(host.linkEnd(), Status::ConnectionTimeout);
    EXPECT_TRUE(onAir().empty());
    remote->comeBack();
    host.connect(kNormal);
    EXPECT_EQ(initiator.encrypt(), Status::Success);
}

TEST_F(ARemoteOnTheAir, AdvertisesAgainWhileTheBoxStillBelievesInTheOldLink)
{
    host.connect(kNormal);
    host.pass(std::chrono::seconds(1));
    remote->loseLink();
    EXPECT_EQ(host.status(Opcode::LeCreateConnection, ScriptedHost::connectionTo(kNormal)),
              Status::ConnectionExists);
    EXPECT_EQ(host.linkEnd(), Status::ConnectionTimeout);
    host.connect(kNormal);
}

TEST_F(ARemoteOnTheAir, EndsItsLinkOnlyAtTheTimeoutIfTheBoxHangsUpMeanwhile)
{
    host.connect(kNormal);
    host.pass(std::chrono::seconds(1));
    remote->leave();
    EXPECT_EQ(host.disconnect(), Status::Success);
    EXPECT_FALSE(host.linkEnd(std::chrono::milliseconds(400)));
    EXPECT_EQ(host.linkEnd(), Status::LocalHostEnded);
}

TEST_F(ARemoteOnTheAir, KeepsTheIntervalOfItsLink)
{
    host.connect(kNormal);
    const auto begin = host.scheduler().now();
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(host.ask("0a 1200"), "0b50");
    }
    // A request in one event, its answer in the next, 30 ms apart.
    EXPECT_GE(host.scheduler().now() - begin, std::chrono::milliseconds(570));
    EXPECT_LE(host.scheduler().now() - begin, std::chrono::milliseconds(630));
}

TEST_F(ARemoteOnTheAir, AsksForTheParametersThatItsUpdateIsToldToUse)
{
    remote->enterUpdateMode();
    host.connect(kUpdate);
    EXPECT_EQ(host.ask("12 1200 07 0600 1100 0000 f401"), "13");
    const auto request = host.awaitOn(Channel::Signaling);
    ASSERT_TRUE(request);
    EXPECT_EQ(kit::toHex(*request), "12010800060011000000f401");
    host.sendOn(Channel::Signaling, kit::fromHex("13 01 0200 0000"));
    EXPECT_EQ(host.ask("0a 0300"), "0b" + kit::toHex(std::string("BeeTgt")));
}

TEST_F(ARemoteOnTheAir, RejectsWhatItIsAskedOnTheSignalingChannel)
{
    host.connect(kNormal);
    host.sendOn(Channel::Signaling, kit::fromHex("14 07 0a00 25001700170040000100"));
    EXPECT_EQ(kit::toHex(host.awaitOn(Channel::Signaling).value()), "010702000000");
}

TEST_F(ARemoteOnTheAir, VanishesInTheMiddleOfAnUpdate)
{
    remote->enterUpdateMode();
    UpdateFault fault;
    fault.vanish = true;
    fault.block = 2;
    remote->receiver().setFault(UpdateStep::Data, fault);
    host.connect(kUpdate);
    EXPECT_EQ(host.ask("12 1500 " + std::string(40, '0')), "13");
    EXPECT_EQ(host.ask("12 1500 " + std::string(40, '0')), "13");
    EXPECT_EQ(host.ask("12 1500 " + std::string(40, '0')), "silence");
    EXPECT_EQ(host.linkEnd(), Status::ConnectionTimeout);
    EXPECT_TRUE(onAir().empty());
}

TEST_F(ARemoteOnTheAir, IgnoresDataOnChannelsThatItDoesNotHave)
{
    host.connect(kNormal);
    host.sendOn(Channel{0x0040}, {1, 2, 3});
    host.sendOn(Channel::Attributes, {});
    host.sendOn(Channel::Security, {});
    host.sendOn(Channel::Signaling, {0x12});
    EXPECT_EQ(host.ask("0a 1200"), "0b50");
}

TEST_F(ARemoteOnTheAir, AsksForItsPreferredParametersASecondAfterTheConnection)
{
    RadioOptions options;
    options.preferredParameters = PreferredParameters{12, 24, 10, 300};
    normal->setOptions(options);
    host.connect(kNormal);
    EXPECT_FALSE(host.awaitOn(Channel::Signaling, std::chrono::milliseconds(990)));
    EXPECT_EQ(kit::toHex(host.awaitOn(Channel::Signaling).value()), "120108000c0018000a002c01");
}

TEST(AHurriedAir, AnswersWithinMilliseconds)
{
    auto options = ScriptedHost::defaults();
    options.pace = Pace::Hurried;
    ScriptedHost host(options);
    const auto remote = Remote::create();
    const auto radio = PeripheralRadio::create(host.scheduler(), host.air(), remote->normal());
    host.setUp();
    host.connect(kNormal);
    const auto begin = host.scheduler().now();
    EXPECT_EQ(host.ask("0a 1200"), "0b50");
    EXPECT_LE(host.scheduler().now() - begin, std::chrono::milliseconds(3));
}

// --- fragmented packets ---

TEST(APacketInPieces, IsPutTogether)
{
    const Bytes payload = kit::fromHex("00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff");
    const auto pieces = fragment(Channel::Attributes, payload, 27);
    ASSERT_EQ(pieces.size(), 2U);
    EXPECT_EQ(kit::toHex(pieces[0].payload).substr(0, 8), "20000400");
    EXPECT_EQ(pieces[1].kind, LinkPacket::Continuation);
    Reassembler reassembler;
    EXPECT_FALSE(reassembler.add(pieces[0]));
    const auto packet = reassembler.add(pieces[1]);
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->payload, payload);
}

TEST(APacketInPieces, IsDroppedIfItIsTooLongOrItsBeginningIsMissing)
{
    Reassembler reassembler;
    EXPECT_FALSE(reassembler.add({LinkPacket::Continuation, kit::fromHex("01000400aa")}));
    EXPECT_FALSE(reassembler.add({LinkPacket::Start, kit::fromHex("01000400aabb")}));
    EXPECT_FALSE(reassembler.add({LinkPacket::Start, kit::fromHex("0100")}));
    EXPECT_TRUE(reassembler.add({LinkPacket::Start, kit::fromHex("01000400aa")}));
}

} // namespace vexasim::air
