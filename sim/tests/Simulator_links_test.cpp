// SPDX-License-Identifier: MIT
// How the simulated BlueZ behaves towards a plain client without bends: links, removal, attributes.
#include <future>

#include "sim/tests/SimulatorTest.h"

using testing::ElementsAre;
using testing::HasSubstr;

// --- connection ---

TEST_F(ABoxWithARemoteInRange, AnswersConnectBeforeTheServicesAreKnown)
{
    setTiming(&vexasim::Timings::resolve, std::chrono::milliseconds{300});
    discover();
    ASSERT_EQ(client.call(kDevice, kConnect).error, "");
    EXPECT_EQ(device("Connected"), "(<true>,)");
    EXPECT_EQ(device("ServicesResolved"), "(<false>,)");
    EXPECT_TRUE(client.await(kDevice, "PropertiesChanged", "'ServicesResolved': <true>"));
}

TEST_F(ABoxWithARemoteInRange, FailsToConnectToOneThatSleeps)
{
    discover();
    sim.remote().sleep();
    const auto answer = client.call(kDevice, kConnect);
    EXPECT_EQ(answer.error, "org.bluez.Error.Failed");
    EXPECT_EQ(answer.message, "le-connection-abort-by-local");
}

TEST_F(ABoxWithARemoteInRange, ConnectsToOneThatWakesInTime)
{
    setTiming(&vexasim::Timings::connectTimeout, std::chrono::seconds{60});
    discover();
    sim.remote().sleep();
    auto connecting = std::async(std::launch::async, [this] { return client.call(kDevice, kConnect).error; });
    ASSERT_TRUE(sim.awaitCall("Connect"));
    sim.remote().wake();
    EXPECT_EQ(connecting.get(), "");
}

TEST_F(ABoxWithARemoteInRange, KeepsItsObjectsWhenTheLinkIsLost)
{
    pair();
    client.clearSignals();
    sim.remote().leave();
    settle();
    const std::string changed = std::string("PropertiesChanged ") + kDevice + " ('org.bluez.Device1', ";
    EXPECT_THAT(client.story(),
                ElementsAre(changed + "{'Connected': <false>, 'ServicesResolved': <false>}, [])",
                            std::string("InterfacesRemoved ") + kDevice));
    EXPECT_THAT(client.signals().back().text, HasSubstr("['org.bluez.Battery1']"));
    const auto read = client.call(kLevel, kRead, noOptions());
    EXPECT_EQ(read.error, "org.bluez.Error.Failed");
    EXPECT_EQ(read.message, "Not connected");
}

TEST_F(ABoxWithARemoteInRange, ReconnectsOnlyWhenAsked)
{
    pair();
    sim.remote().leave();
    sim.remote().comeBack();
    settle();
    EXPECT_EQ(device("Connected"), "(<false>,)");
    ASSERT_EQ(client.call(kDevice, kConnect).error, "");
    EXPECT_TRUE(client.await(kDevice, "PropertiesChanged", "'ServicesResolved': <true>"));
}

TEST_F(ABoxWithARemoteInRange, HangsUpAtOnceIfItLostTheBond)
{
    pair();
    sim.remote().loseLink();
    sim.remote().normal()->setForgotBond(true);
    client.clearSignals();
    EXPECT_EQ(client.call(kDevice, kConnect).error, "");
    EXPECT_TRUE(client.await(kDevice, "PropertiesChanged", "'Connected': <false>"));
    EXPECT_EQ(device("Paired"), "(<true>,)");
}

TEST_F(ABoxWithARemoteInRange, DisconnectsOnRequest)
{
    discover();
    ASSERT_EQ(client.call(kDevice, kPair).error, "");
    EXPECT_EQ(client.call(kDevice, kDisconnect).error, "");
    EXPECT_TRUE(client.await(kDevice, "PropertiesChanged", "'Connected': <false>"));
    EXPECT_FALSE(sim.remote().normal()->connected());
}

// --- removal ---

TEST_F(ABoxWithARemoteInRange, IsRemovedChildrenFirst)
{
    pair();
    sim.remote().leave();
    settle();
    client.clearSignals();
    ASSERT_EQ(client.call(kAdapter, kRemove, objectPath(kDevice)).error, "");
    const std::string device = kDevice;
    EXPECT_THAT(client.story(),
                ElementsAre("InterfacesRemoved " + device + "/service0010/char0011/desc0013",
                            "InterfacesRemoved " + device + "/service0010/char0011",
                            "InterfacesRemoved " + device + "/service0010",
                            "InterfacesRemoved " + device + "/service0020/char0021",
                            "InterfacesRemoved " + device + "/service0020/char0023",
                            "InterfacesRemoved " + device + "/service0020", "InterfacesRemoved " + device));
    EXPECT_FALSE(sim.remote().normal()->paired());
}

TEST_F(ABoxWithARemoteInRange, IsRemovedAfterItsLinkEnded)
{
    pair();
    client.clearSignals();
    ASSERT_EQ(client.call(kAdapter, kRemove, objectPath(kDevice)).error, "");
    ASSERT_TRUE(client.await("/", "InterfacesRemoved", "'org.bluez.Device1'"));
    const auto story = client.story();
    EXPECT_THAT(story[0], HasSubstr("'ServicesResolved': <false>"));
    EXPECT_EQ(story[1], std::string("InterfacesRemoved ") + kDevice);
    EXPECT_THAT(story[2], HasSubstr("'Connected': <false>"));
}

TEST_F(ABoxWithARemoteInRange, GoesAWhileAfterItWasLastSeenUnpaired)
{
    setTiming(&vexasim::Timings::temporary, std::chrono::milliseconds{50});
    discover();
    ASSERT_EQ(client.call(kAdapter, kStop).error, "");
    EXPECT_TRUE(client.await("/", "InterfacesRemoved", kDevice));
}

TEST_F(ABoxWithARemoteInRange, StaysWhilePairedHoweverLongItIsAway)
{
    pair();
    setTiming(&vexasim::Timings::temporary, std::chrono::milliseconds{50});
    sim.remote().leave();
    // The other device's time starts later, so it also ends later.
    sim.announce(sim.remote().update());
    ASSERT_TRUE(client.await("/", "InterfacesRemoved", sim.updateDevicePath()));
    EXPECT_EQ(device("Paired"), "(<true>,)");
}

// --- attributes ---

TEST_F(ABoxWithARemoteInRange, TellsAValueReadBeforeItAnswers)
{
    pair();
    client.clearSignals();
    const auto read = client.call(kLevel, kRead, noOptions());
    EXPECT_EQ(kit::textOf(read.reply), "([0x50],)");
    EXPECT_THAT(client.story(), ElementsAre(HasSubstr("'Value': <[byte 0x50]>")));
}

TEST_F(ABoxWithARemoteInRange, AnswersAReadWithTheErrorOfTheAttribute)
{
    pair();
    auto& normal = *sim.remote().normal();
    normal.onRead(normal.handleOf(vexasim::uuid::kBatteryLevel),
                  [] { return vexasim::AttReply::refused(0x80); });
    const auto read = client.call(kLevel, kRead, noOptions());
    EXPECT_EQ(read.error, "org.bluez.Error.Failed");
    EXPECT_EQ(read.message, "Operation failed with ATT error: 0x80");
}

TEST_F(ABoxWithARemoteInRange, NotifiesOnlyThoseWhoAsked)
{
    pair();
    client.clearSignals();
    sim.remote().setBattery(70);
    settle();
    EXPECT_THAT(client.signals(), testing::Each(testing::Field(&kit::BusClient::Signal::path, kDevice)));
    ASSERT_EQ(client.call(kLevel, kStartNotify).error, "");
    sim.remote().setBattery(60);
    EXPECT_TRUE(client.await(kLevel, "PropertiesChanged", "'Value': <[byte 0x3c]>"));
    EXPECT_EQ(client.get(kLevel, "org.bluez.GattCharacteristic1", "Notifying"), "(<true>,)");
    ASSERT_EQ(client.call(kLevel, kStopNotify).error, "");
    EXPECT_EQ(client.get(kLevel, "org.bluez.GattCharacteristic1", "Notifying"), "(<false>,)");
}

TEST_F(ABoxWithARemoteInRange, TellsTheBatteryByAnInterfaceOfItsOwn)
{
    pair();
    EXPECT_EQ(client.get(kDevice, kBattery, "Percentage"), "(<byte 0x50>,)");
    client.clearSignals();
    sim.remote().setBattery(70);
    EXPECT_TRUE(
        client.await(kDevice, "PropertiesChanged", "('org.bluez.Battery1', {'Percentage': <byte 0x46>}"));
    sim.remote().leave();
    EXPECT_TRUE(client.await("/", "InterfacesRemoved", "['org.bluez.Battery1']"));
    EXPECT_EQ(client.get(kDevice, kBattery, "Percentage"), "[org.freedesktop.DBus.Error.InvalidArgs]");
}

TEST_F(ABoxWithARemoteInRange, TellsTheBatteryOnAfterAClientsNotificationsEnd)
{
    pair();
    ASSERT_EQ(client.call(kLevel, kStartNotify).error, "");
    ASSERT_EQ(client.call(kLevel, kStopNotify).error, "");
    sim.remote().setBattery(70);
    EXPECT_TRUE(client.await(kDevice, "PropertiesChanged", "'Percentage': <byte 0x46>"));
}

TEST_F(ABoxWithARemoteInRange, KeepsALevelAbove100ToItself)
{
    pair();
    client.clearSignals();
    sim.remote().setBattery(101);
    settle();
    EXPECT_TRUE(client.signals().empty());
    EXPECT_EQ(client.get(kDevice, kBattery, "Percentage"), "(<byte 0x50>,)");
}

TEST_F(ABoxWithARemoteInRange, NeverAnswersAWriteThatWantsABetterBond)
{
    pair();
    sim.remote().receiver().setFault(vexasim::UpdateStep::Switch, [] {
        vexasim::UpdateFault fault;
        fault.refuse = vexasim::att::kInsufficientAuthentication;
        return fault;
    }());
    auto first = std::async(std::launch::async, [this] { return client.call(kSwitch, kWrite, oneByte(1)); });
    ASSERT_TRUE(sim.awaitCall("WriteValue"));
    EXPECT_EQ(client.call(kSwitch, kWrite, oneByte(1)).error, "org.bluez.Error.InProgress");
    sim.remote().loseLink();
    EXPECT_EQ(first.get().message, "Operation failed with ATT error: 0x0e");
}
