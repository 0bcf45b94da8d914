// SPDX-License-Identifier: MIT
// How the simulated BlueZ behaves to a plain client when nobody bends it.
#include "sim/bluez/Simulator.h"
#include "tests/kit/Bus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using vexasim::Peripheral;
using vexasim::Simulator;
using vexasim::SimulatorOptions;

namespace
{
constexpr const char* kAdapter = "/org/bluez/hci0";
constexpr const char* kDevice = "/org/bluez/hci0/dev_C0_FF_EE_00_00_01";
constexpr const char* kLevel = "/org/bluez/hci0/dev_C0_FF_EE_00_00_01/service0010/char0011";
constexpr const char* kSwitch = "/org/bluez/hci0/dev_C0_FF_EE_00_00_01/service0020/char0023";
constexpr const char* kBattery = "org.bluez.Battery1";
constexpr const char* kStart = "org.bluez.Adapter1.StartDiscovery";
constexpr const char* kStop = "org.bluez.Adapter1.StopDiscovery";
constexpr const char* kPair = "org.bluez.Device1.Pair";
constexpr const char* kConnect = "org.bluez.Device1.Connect";
constexpr const char* kRead = "org.bluez.GattCharacteristic1.ReadValue";
constexpr const char* kWrite = "org.bluez.GattCharacteristic1.WriteValue";
constexpr const char* kStartNotify = "org.bluez.GattCharacteristic1.StartNotify";

GVariant* noOptions()
{
    return g_variant_new_parsed("(@a{sv} {},)");
}

GVariant* oneByte(uint8_t byte)
{
    return g_variant_new_parsed("([%y], @a{sv} {})", byte);
}

GVariant* objectPath(const char* path)
{
    return g_variant_new("(o)", path);
}
} // namespace

class ABoxWithARemoteInRange : public testing::Test
{
protected:
    explicit ABoxWithARemoteInRange(const SimulatorOptions& options = {})
        : sim(options), client(sim.busAddress())
    {
    }

    void discover()
    {
        ASSERT_EQ(client.call(kAdapter, kStart).error, "");
        ASSERT_TRUE(client.await("/", "InterfacesAdded", kDevice));
    }

    void pair()
    {
        discover();
        ASSERT_EQ(client.call(kDevice, kPair).error, "");
        ASSERT_TRUE(client.await("/", "InterfacesAdded", kBattery));
    }

    /// Everything the simulator sent so far has reached the client.
    void settle()
    {
        sim.sync();
        client.call("/", "org.freedesktop.DBus.Peer.Ping");
    }

    Simulator sim;
    kit::BusClient client;
};

// ---- discovery

TEST_F(ABoxWithARemoteInRange, IsFoundOnceSomebodyDiscovers)
{
    discover();
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "Name"), "(<'VEXA RC'>,)");
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "RSSI"), "(<int16 -52>,)");
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "Paired"), "(<false>,)");
    EXPECT_EQ(client.get(kAdapter, "org.bluez.Adapter1", "Discovering"), "(<true>,)");
}

TEST_F(ABoxWithARemoteInRange, RefusesTheSameClientASecondDiscovery)
{
    discover();
    const auto second = client.call(kAdapter, kStart);
    EXPECT_EQ(second.error, "org.bluez.Error.InProgress");
    EXPECT_EQ(second.message, "Operation already in progress");
}

TEST_F(ABoxWithARemoteInRange, RefusesToStopWhatWasNeverStarted)
{
    const auto stop = client.call(kAdapter, kStop);
    EXPECT_EQ(stop.error, "org.bluez.Error.Failed");
    EXPECT_EQ(stop.message, "No discovery started");
}

TEST_F(ABoxWithARemoteInRange, DiscoversUntilTheLastClientStops)
{
    discover();
    kit::BusClient other(sim.busAddress());
    ASSERT_EQ(other.call(kAdapter, kStart).error, "");
    ASSERT_EQ(client.call(kAdapter, kStop).error, "");
    EXPECT_TRUE(sim.discovering());
    ASSERT_EQ(other.call(kAdapter, kStop).error, "");
    EXPECT_FALSE(sim.discovering());
}

TEST_F(ABoxWithARemoteInRange, EndsADiscoveryWhoseClientLeavesTheBus)
{
    kit::BusClient other(sim.busAddress());
    ASSERT_EQ(other.call(kAdapter, kStart).error, "");
    other.leave();
    EXPECT_TRUE(client.await(kAdapter, "PropertiesChanged", "'Discovering': <false>"));
}

TEST_F(ABoxWithARemoteInRange, ForgetsTheSignalStrengthWithTheDiscovery)
{
    discover();
    ASSERT_EQ(client.call(kAdapter, kStop).error, "");
    EXPECT_TRUE(client.await(kDevice, "PropertiesChanged", "['RSSI']"));
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "RSSI"), "[org.freedesktop.DBus.Error.InvalidArgs]");
}

TEST_F(ABoxWithARemoteInRange, TellsAnotherSignalStrengthWhileDiscovering)
{
    discover();
    sim.remote().setRssi(-70);
    EXPECT_TRUE(client.await(kDevice, "PropertiesChanged", "'RSSI': <int16 -70>"));
}

TEST_F(ABoxWithARemoteInRange, RefusesAllWithoutPower)
{
    ASSERT_EQ(client.set(kAdapter, "org.bluez.Adapter1", "Powered", g_variant_new_boolean(FALSE)).error, "");
    EXPECT_EQ(client.call(kAdapter, kStart).error, "org.bluez.Error.NotReady");
    EXPECT_EQ(client.call(kAdapter, kStart).message, "Resource Not Ready");
}

TEST_F(ABoxWithARemoteInRange, EndsDiscoveryAndLinksWithThePower)
{
    pair();
    ASSERT_EQ(client.set(kAdapter, "org.bluez.Adapter1", "Powered", g_variant_new_boolean(FALSE)).error, "");
    EXPECT_TRUE(client.await(kAdapter, "PropertiesChanged", "'Powered': <false>"));
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "Connected"), "(<false>,)");
    EXPECT_EQ(client.get(kAdapter, "org.bluez.Adapter1", "Discovering"), "(<false>,)");
    EXPECT_FALSE(sim.remote().normal()->connected());
}

TEST_F(ABoxWithARemoteInRange, ForgetsWhatIsNotPairedWithThePower)
{
    discover();
    client.clearSignals();
    ASSERT_EQ(client.set(kAdapter, "org.bluez.Adapter1", "Powered", g_variant_new_boolean(FALSE)).error, "");
    ASSERT_FALSE(client.story().empty());
    EXPECT_EQ(client.story().front(), std::string("InterfacesRemoved ") + kDevice);
}

TEST_F(ABoxWithARemoteInRange, FailsToConnectWithoutPower)
{
    pair();
    ASSERT_EQ(client.set(kAdapter, "org.bluez.Adapter1", "Powered", g_variant_new_boolean(FALSE)).error, "");
    ASSERT_TRUE(client.await(kAdapter, "PropertiesChanged", "'Powered': <false>"));
    const auto answer = client.call(kDevice, kConnect);
    EXPECT_EQ(answer.error, "org.bluez.Error.Failed");
    EXPECT_EQ(answer.message, "Input/output error");
}

// ---- names

TEST_F(ABoxWithARemoteInRange, HasNoNameUntilOneIsHeard)
{
    sim.remote().normal()->setAdvertisedName({});
    discover();
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "Name"), "[org.freedesktop.DBus.Error.InvalidArgs]");
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "Alias"), "(<'C0-FF-EE-00-00-01'>,)");
    sim.remote().normal()->setAdvertisedName("VEXA RC");
    EXPECT_TRUE(client.await(kDevice, "PropertiesChanged", "'Name': <'VEXA RC'>"));
}

TEST_F(ABoxWithARemoteInRange, KeepsANameAcrossRemoveDevice)
{
    discover();
    sim.remote().normal()->setAdvertisedName({});
    client.clearSignals();
    ASSERT_EQ(client.call(kAdapter, "org.bluez.Adapter1.RemoveDevice", objectPath(kDevice)).error, "");
    ASSERT_TRUE(client.await("/", "InterfacesAdded", kDevice));
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "Name"), "(<'VEXA RC'>,)");
}

// ---- pairing

TEST_F(ABoxWithARemoteInRange, PairsInBlueZsOrder)
{
    discover();
    client.clearSignals();
    ASSERT_EQ(client.call(kDevice, kPair).error, "");
    ASSERT_TRUE(client.await("/", "InterfacesAdded", kBattery));
    const std::string device = kDevice;
    const std::string changed = "PropertiesChanged " + device + " ('org.bluez.Device1', ";
    EXPECT_THAT(client.story(),
                ElementsAre(changed + "{'Connected': <true>}, [])", changed + "{'Bonded': <true>}, [])",
                            AllOf(HasSubstr(changed), HasSubstr("'Paired': <true>"),
                                  HasSubstr("'ServicesResolved': <true>")),
                            "InterfacesAdded " + device + "/service0010",
                            "InterfacesAdded " + device + "/service0010/char0011",
                            "InterfacesAdded " + device + "/service0010/char0011/desc0013",
                            "InterfacesAdded " + device + "/service0020",
                            "InterfacesAdded " + device + "/service0020/char0021",
                            "InterfacesAdded " + device + "/service0020/char0023",
                            "InterfacesAdded " + device));
    EXPECT_TRUE(sim.remote().normal()->paired());
}

TEST_F(ABoxWithARemoteInRange, RefusesToPairTwice)
{
    pair();
    EXPECT_EQ(client.call(kDevice, kPair).error, "org.bluez.Error.AuthenticationFailed");
}

TEST_F(ABoxWithARemoteInRange, FailsToPairWithAnUnwillingOne)
{
    sim.remote().setPairing(Peripheral::Pairing::Refuses);
    discover();
    EXPECT_EQ(client.call(kDevice, kPair).error, "org.bluez.Error.AuthenticationFailed");
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "Connected"), "(<false>,)");
}

TEST_F(ABoxWithARemoteInRange, CancelsPairingWithASilentOne)
{
    sim.remote().setPairing(Peripheral::Pairing::Silent);
    discover();
    EXPECT_EQ(client.call(kDevice, kPair).error, "org.bluez.Error.AuthenticationCanceled");
}

TEST_F(ABoxWithARemoteInRange, CancelsPairingWithOneThatHangsUp)
{
    sim.remote().setPairing(Peripheral::Pairing::DropsLink);
    discover();
    EXPECT_EQ(client.call(kDevice, kPair).error, "org.bluez.Error.AuthenticationCanceled");
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "Paired"), "(<false>,)");
}

TEST_F(ABoxWithARemoteInRange, PairsWithoutServicesIfItsAttributeServerIsMute)
{
    sim.remote().normal()->setMute(true);
    discover();
    EXPECT_EQ(client.call(kDevice, kPair).error, "");
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "Paired"), "(<true>,)");
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "ServicesResolved"), "(<false>,)");
}

TEST_F(ABoxWithARemoteInRange, FailsToPairWithOneThatLeft)
{
    discover();
    sim.remote().leave();
    const auto answer = client.call(kDevice, kPair);
    EXPECT_EQ(answer.error, "org.bluez.Error.ConnectionAttemptFailed");
    EXPECT_EQ(answer.message, "Page Timeout");
}

TEST_F(ABoxWithARemoteInRange, NeedsAnAgentIfAsked)
{
    sim.setRequireAgent(true);
    discover();
    EXPECT_EQ(client.call(kDevice, kPair).error, "org.bluez.Error.AuthenticationFailed");
    kit::BusClient agent(sim.busAddress());
    ASSERT_EQ(agent
                  .call("/org/bluez", "org.bluez.AgentManager1.RegisterAgent",
                        g_variant_new("(os)", "/agent", "NoInputNoOutput"))
                  .error,
              "");
    EXPECT_EQ(client.call(kDevice, kPair).error, "");
}

TEST_F(ABoxWithARemoteInRange, CancelsAPairingOnRequest)
{
    sim.remote().setPairing(Peripheral::Pairing::Silent);
    auto timings = sim.timings();
    timings.pairTimeout = std::chrono::seconds{60};
    sim.setTimings(timings);
    discover();
    EXPECT_EQ(client.call(kDevice, "org.bluez.Device1.CancelPairing").error, "org.bluez.Error.DoesNotExist");
    auto pairing = std::async(std::launch::async, [this] { return client.call(kDevice, kPair).error; });
    ASSERT_TRUE(sim.awaitCall("Pair"));
    EXPECT_EQ(client.call(kDevice, "org.bluez.Device1.CancelPairing").error, "");
    EXPECT_EQ(pairing.get(), "org.bluez.Error.AuthenticationCanceled");
}

// ---- connection

TEST_F(ABoxWithARemoteInRange, AnswersConnectBeforeTheServicesAreKnown)
{
    auto timings = sim.timings();
    timings.resolve = std::chrono::milliseconds{300};
    sim.setTimings(timings);
    discover();
    ASSERT_EQ(client.call(kDevice, kConnect).error, "");
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "Connected"), "(<true>,)");
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "ServicesResolved"), "(<false>,)");
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
    auto timings = sim.timings();
    timings.connectTimeout = std::chrono::seconds{60};
    sim.setTimings(timings);
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
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "Connected"), "(<false>,)");
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
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "Paired"), "(<true>,)");
}

TEST_F(ABoxWithARemoteInRange, DisconnectsOnRequest)
{
    discover();
    EXPECT_EQ(client.call(kDevice, "org.bluez.Device1.Disconnect").error, "org.bluez.Error.NotConnected");
    ASSERT_EQ(client.call(kDevice, kPair).error, "");
    EXPECT_EQ(client.call(kDevice, "org.bluez.Device1.Disconnect").error, "");
    EXPECT_TRUE(client.await(kDevice, "PropertiesChanged", "'Connected': <false>"));
    EXPECT_FALSE(sim.remote().normal()->connected());
}

// ---- removal

TEST_F(ABoxWithARemoteInRange, IsRemovedChildrenFirst)
{
    pair();
    sim.remote().leave();
    settle();
    client.clearSignals();
    ASSERT_EQ(client.call(kAdapter, "org.bluez.Adapter1.RemoveDevice", objectPath(kDevice)).error, "");
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
    ASSERT_EQ(client.call(kAdapter, "org.bluez.Adapter1.RemoveDevice", objectPath(kDevice)).error, "");
    ASSERT_TRUE(client.await("/", "InterfacesRemoved", "'org.bluez.Device1'"));
    const auto story = client.story();
    EXPECT_THAT(story[0], HasSubstr("'ServicesResolved': <false>"));
    EXPECT_EQ(story[1], std::string("InterfacesRemoved ") + kDevice);
    EXPECT_THAT(story[2], HasSubstr("'Connected': <false>"));
}

TEST_F(ABoxWithARemoteInRange, RefusesToRemoveWhatItDoesNotKnow)
{
    const auto answer = client.call(kAdapter, "org.bluez.Adapter1.RemoveDevice", objectPath(kDevice));
    EXPECT_EQ(answer.error, "org.bluez.Error.DoesNotExist");
    EXPECT_EQ(answer.message, "Does Not Exist");
}

TEST_F(ABoxWithARemoteInRange, GoesAWhileAfterItWasLastSeenUnpaired)
{
    auto timings = sim.timings();
    timings.temporary = std::chrono::milliseconds{50};
    sim.setTimings(timings);
    discover();
    ASSERT_EQ(client.call(kAdapter, kStop).error, "");
    EXPECT_TRUE(client.await("/", "InterfacesRemoved", kDevice));
}

TEST_F(ABoxWithARemoteInRange, StaysWhilePairedHoweverLongItIsAway)
{
    pair();
    auto timings = sim.timings();
    timings.temporary = std::chrono::milliseconds{50};
    sim.setTimings(timings);
    sim.remote().leave();
    // The other device's time begins later and ends later.
    sim.announce(sim.remote().update());
    ASSERT_TRUE(client.await("/", "InterfacesRemoved", sim.updateDevicePath()));
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "Paired"), "(<true>,)");
}

// ---- attributes

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
    ASSERT_EQ(client.call(kLevel, "org.bluez.GattCharacteristic1.StopNotify").error, "");
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
    ASSERT_EQ(client.call(kLevel, "org.bluez.GattCharacteristic1.StopNotify").error, "");
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

TEST_F(ABoxWithARemoteInRange, RefusesNotificationsWhereThereAreNone)
{
    pair();
    EXPECT_EQ(client.call(kSwitch, kStartNotify).error, "org.bluez.Error.NotSupported");
    const auto stop = client.call(kLevel, "org.bluez.GattCharacteristic1.StopNotify");
    EXPECT_EQ(stop.error, "org.bluez.Error.Failed");
    EXPECT_EQ(stop.message, "No notify session started");
}

TEST_F(ABoxWithARemoteInRange, RefusesAWriteWhereThereIsNone)
{
    pair();
    EXPECT_EQ(client.call(kLevel, kWrite, oneByte(1)).error, "org.bluez.Error.NotSupported");
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

// ---- properties and methods in general

TEST_F(ABoxWithARemoteInRange, AnswersAsBlueZsDBusLayerDoes)
{
    EXPECT_EQ(client.call("/org/bluez/hci7", kStart).error, "org.freedesktop.DBus.Error.UnknownObject");
    EXPECT_EQ(client.call(kAdapter, "org.bluez.Adapter1.NoSuchMethod").error,
              "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(client.call(kAdapter, kStart, g_variant_new("(s)", "")).error,
              "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(client.get(kAdapter, "org.bluez.Adapter1", "NoSuch"),
              "[org.freedesktop.DBus.Error.InvalidArgs]");
    EXPECT_EQ(client.get(kAdapter, "org.bluez.NoSuch1", "Powered"),
              "[org.freedesktop.DBus.Error.InvalidArgs]");
    EXPECT_EQ(client.set(kAdapter, "org.bluez.Adapter1", "Address", g_variant_new_string("")).error,
              "org.freedesktop.DBus.Error.PropertyReadOnly");
    EXPECT_EQ(client.set(kAdapter, "org.bluez.Adapter1", "Powered", g_variant_new_string("on")).error,
              "org.freedesktop.DBus.Error.InvalidSignature");
    EXPECT_EQ(client.set(kAdapter, "org.bluez.Adapter1", "NoSuch", g_variant_new_boolean(TRUE)).error,
              "org.freedesktop.DBus.Error.UnknownProperty");
}

TEST_F(ABoxWithARemoteInRange, ListsItsObjects)
{
    discover();
    const auto objects = client.call("/", "org.freedesktop.DBus.ObjectManager.GetManagedObjects");
    EXPECT_THAT(kit::textOf(objects.reply), AllOf(HasSubstr("'/org/bluez'"), HasSubstr("'/org/bluez/hci0'"),
                                                  HasSubstr(kDevice), HasSubstr("'org.bluez.Device1'")));
    const auto device = client.call(kDevice, "org.freedesktop.DBus.Properties.GetAll",
                                    g_variant_new("(s)", "org.bluez.Device1"));
    EXPECT_THAT(kit::textOf(device.reply), HasSubstr("'Address': <'C0:FF:EE:00:00:01'>"));
}

// ---- the process

TEST_F(ABoxWithARemoteInRange, TakesEverythingAlongWhenTerminated)
{
    pair();
    client.clearSignals();
    sim.stopService(Simulator::Stop::Terminate);
    ASSERT_TRUE(client.await("/", "InterfacesRemoved", "'/org/bluez/hci0'"));
    EXPECT_THAT(client.story(), testing::Contains(HasSubstr("InterfacesRemoved")).Times(8));
    EXPECT_EQ(client.call(kAdapter, kStart).error, "org.freedesktop.DBus.Error.ServiceUnknown");
}

TEST_F(ABoxWithARemoteInRange, SaysNothingWhenKilledAndComesBackPaired)
{
    pair();
    client.clearSignals();
    sim.stopService(Simulator::Stop::Kill);
    // Behind whatever the service may have sent.
    client.callOn("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.GetId");
    EXPECT_TRUE(client.signals().empty());
    sim.startService();
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "Paired"), "(<true>,)");
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "Connected"), "(<false>,)");
    EXPECT_THAT(sim.objects(), testing::Not(testing::Contains(HasSubstr("service"))));
    ASSERT_EQ(client.call(kDevice, kConnect).error, "");
    EXPECT_TRUE(client.await("/", "InterfacesAdded", kLevel));
}

TEST_F(ABoxWithARemoteInRange, SurvivesARestartOfTheBus)
{
    sim.stopService(Simulator::Stop::Kill);
    sim.bus()->stop();
    sim.bus()->start();
    sim.startService();
    kit::BusClient again(sim.busAddress());
    EXPECT_EQ(again.call(kAdapter, kStart).error, "");
}

TEST_F(ABoxWithARemoteInRange, LosesItsDevicesWithTheAdapter)
{
    discover();
    client.clearSignals();
    sim.removeAdapter();
    settle();
    EXPECT_THAT(client.story(), ElementsAre(std::string("InterfacesRemoved ") + kDevice,
                                            std::string("InterfacesRemoved ") + kAdapter));
}

class ABoxWithAPairedRemote : public ABoxWithARemoteInRange
{
protected:
    ABoxWithAPairedRemote()
        : ABoxWithARemoteInRange([] {
              SimulatorOptions options;
              options.remote.paired = true;
              return options;
          }())
    {
    }
};

TEST_F(ABoxWithAPairedRemote, HasItsDeviceFromTheStart)
{
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "Paired"), "(<true>,)");
    EXPECT_EQ(client.get(kDevice, "org.bluez.Device1", "Name"), "(<'VEXA RC'>,)");
    ASSERT_EQ(client.call(kDevice, kConnect).error, "");
    EXPECT_TRUE(client.await(kDevice, "PropertiesChanged", "'ServicesResolved': <true>"));
}
