// SPDX-License-Identifier: MIT
// How the simulated BlueZ behaves towards a plain client without bends: calls, discovery, pairing, the
// process.
#include <future>

#include "sim/tests/SimulatorTest.h"
#include "tests/kit/NamedCase.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using vexasim::Peripheral;
using vexasim::Simulator;
using vexasim::SimulatorOptions;

// --- refused calls ---

/// What happened before the refused call.
enum class Before { Nothing, Discovery, Pairing, PowerOff, PairingAndPowerOff };

struct Refusal : kit::NamedCase {
    Before before;
    const char* path;
    const char* method;
    const char* error; ///< its name and its message, or the start of the message
    const char* arguments = "()";
};

const Refusal kRefusals[] = {
    {"DiscoveryTwice", Before::Discovery, kAdapter, kStart,
     "org.bluez.Error.InProgress: Operation already in progress"},
    {"StopOfNoDiscovery", Before::Nothing, kAdapter, kStop, "org.bluez.Error.Failed: No discovery started"},
    {"DiscoveryWithoutPower", Before::PowerOff, kAdapter, kStart,
     "org.bluez.Error.NotReady: Resource Not Ready"},
    {"ConnectWithoutPower", Before::PairingAndPowerOff, kDevice, kConnect,
     "org.bluez.Error.Failed: Input/output error"},
    {"PairingTwice", Before::Pairing, kDevice, kPair,
     "org.bluez.Error.AuthenticationFailed: Authentication Failed"},
    {"CancelOfNoPairing", Before::Discovery, kDevice, kCancelPairing,
     "org.bluez.Error.DoesNotExist: Does Not Exist"},
    {"DisconnectWithoutLink", Before::Discovery, kDevice, kDisconnect,
     "org.bluez.Error.NotConnected: Not Connected"},
    {"RemovalOfTheUnknown", Before::Nothing, kAdapter, kRemove,
     "org.bluez.Error.DoesNotExist: Does Not Exist", "(objectpath '/x',)"},
    {"NotificationsOfAWriteOnly", Before::Pairing, kSwitch, kStartNotify,
     "org.bluez.Error.NotSupported: Operation is not supported"},
    {"StopOfNoNotifications", Before::Pairing, kLevel, kStopNotify,
     "org.bluez.Error.Failed: No notify session started"},
    {"WriteOfAReadOnly", Before::Pairing, kLevel, kWrite,
     "org.bluez.Error.NotSupported: Operation is not supported", "([byte 1], @a{sv} {})"},
    {"UnknownObject", Before::Nothing, "/org/bluez/hci7", kStart,
     "org.freedesktop.DBus.Error.UnknownObject: Method"},
    {"UnknownMethod", Before::Nothing, kAdapter, "org.bluez.Adapter1.NoSuchMethod",
     "org.freedesktop.DBus.Error.UnknownMethod: Method"},
    {"OtherArguments", Before::Nothing, kAdapter, kStart, "org.freedesktop.DBus.Error.UnknownMethod: Method",
     "('',)"},
};

class ARefusedCall : public ABoxWithARemoteInRange, public testing::WithParamInterface<Refusal>
{
protected:
    void prepare(Before before)
    {
        if (before == Before::Discovery) {
            discover();
        }
        if (before == Before::Pairing || before == Before::PairingAndPowerOff) {
            pair();
        }
        if (before == Before::PowerOff || before == Before::PairingAndPowerOff) {
            powerOff();
            ASSERT_TRUE(client.await(kAdapter, "PropertiesChanged", "'Powered': <false>"));
        }
    }
};

TEST_P(ARefusedCall, IsAnsweredWithBlueZsError)
{
    const Refusal& refusal = GetParam();
    prepare(refusal.before);
    const auto answer = client.call(refusal.path, refusal.method, vexasim::Variant::parse(refusal.arguments));
    EXPECT_THAT(answer.error + ": " + answer.message, testing::StartsWith(refusal.error));
}

INSTANTIATE_TEST_SUITE_P(Calls, ARefusedCall, testing::ValuesIn(kRefusals), kit::named);

// --- discovery ---

TEST_F(ABoxWithARemoteInRange, IsFoundOnceSomebodyDiscovers)
{
    discover();
    EXPECT_EQ(device("Name"), "(<'VEXA RC'>,)");
    EXPECT_EQ(device("RSSI"), "(<int16 -52>,)");
    EXPECT_EQ(device("Paired"), "(<false>,)");
    EXPECT_EQ(adapter("Discovering"), "(<true>,)");
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
    EXPECT_EQ(device("RSSI"), "[org.freedesktop.DBus.Error.InvalidArgs]");
}

TEST_F(ABoxWithARemoteInRange, TellsAnotherSignalStrengthWhileDiscovering)
{
    discover();
    sim.remote().setRssi(-70);
    EXPECT_TRUE(client.await(kDevice, "PropertiesChanged", "'RSSI': <int16 -70>"));
}

TEST_F(ABoxWithARemoteInRange, EndsDiscoveryAndLinksWithThePower)
{
    pair();
    powerOff();
    EXPECT_TRUE(client.await(kAdapter, "PropertiesChanged", "'Powered': <false>"));
    EXPECT_EQ(device("Connected"), "(<false>,)");
    EXPECT_EQ(adapter("Discovering"), "(<false>,)");
    EXPECT_FALSE(sim.remote().normal()->connected());
}

TEST_F(ABoxWithARemoteInRange, ForgetsWhatIsNotPairedWithThePower)
{
    discover();
    client.clearSignals();
    powerOff();
    ASSERT_FALSE(client.story().empty());
    EXPECT_EQ(client.story().front(), std::string("InterfacesRemoved ") + kDevice);
}

// --- names ---

TEST_F(ABoxWithARemoteInRange, HasNoNameUntilOneIsHeard)
{
    sim.remote().normal()->setAdvertisedName({});
    discover();
    EXPECT_EQ(device("Name"), "[org.freedesktop.DBus.Error.InvalidArgs]");
    EXPECT_EQ(device("Alias"), "(<'C0-FF-EE-00-00-01'>,)");
    sim.remote().normal()->setAdvertisedName("VEXA RC");
    EXPECT_TRUE(client.await(kDevice, "PropertiesChanged", "'Name': <'VEXA RC'>"));
}

TEST_F(ABoxWithARemoteInRange, KeepsANameAcrossRemoveDevice)
{
    discover();
    sim.remote().normal()->setAdvertisedName({});
    client.clearSignals();
    ASSERT_EQ(client.call(kAdapter, kRemove, objectPath(kDevice)).error, "");
    ASSERT_TRUE(client.await("/", "InterfacesAdded", kDevice));
    EXPECT_EQ(device("Name"), "(<'VEXA RC'>,)");
}

// --- pairing ---

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

struct FailingPairing : kit::NamedCase {
    Peripheral::Pairing behaviour;
    const char* error;
};

const FailingPairing kFailingPairings[] = {
    {"Unwilling", Peripheral::Pairing::Refuses, "org.bluez.Error.AuthenticationFailed"},
    {"Silent", Peripheral::Pairing::Silent, "org.bluez.Error.AuthenticationCanceled"},
    {"HangsUp", Peripheral::Pairing::DropsLink, "org.bluez.Error.AuthenticationCanceled"},
};

class ARemoteThatCannotBePaired : public ABoxWithARemoteInRange,
                                  public testing::WithParamInterface<FailingPairing>
{
};

TEST_P(ARemoteThatCannotBePaired, GivesBlueZsErrorAndLosesTheLink)
{
    sim.remote().setPairing(GetParam().behaviour);
    discover();
    EXPECT_EQ(client.call(kDevice, kPair).error, GetParam().error);
    EXPECT_EQ(device("Paired"), "(<false>,)");
    EXPECT_EQ(device("Connected"), "(<false>,)");
}

INSTANTIATE_TEST_SUITE_P(Box, ARemoteThatCannotBePaired, testing::ValuesIn(kFailingPairings), kit::named);

TEST_F(ABoxWithARemoteInRange, PairsWithoutServicesIfItsAttributeServerIsMute)
{
    sim.remote().normal()->setMute(true);
    discover();
    EXPECT_EQ(client.call(kDevice, kPair).error, "");
    EXPECT_EQ(device("Paired"), "(<true>,)");
    EXPECT_EQ(device("ServicesResolved"), "(<false>,)");
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
    setTiming(&vexasim::Timings::pairTimeout, std::chrono::seconds{60});
    discover();
    auto pairing = std::async(std::launch::async, [this] { return client.call(kDevice, kPair).error; });
    ASSERT_TRUE(sim.awaitCall("Pair"));
    EXPECT_EQ(client.call(kDevice, kCancelPairing).error, "");
    EXPECT_EQ(pairing.get(), "org.bluez.Error.AuthenticationCanceled");
}

// --- properties and methods in general ---

TEST_F(ABoxWithARemoteInRange, RefusesPropertiesAsBlueZsDBusLayerDoes)
{
    EXPECT_EQ(adapter("NoSuch"), "[org.freedesktop.DBus.Error.InvalidArgs]");
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

// --- the process ---

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
    // Returns after anything that the service may have sent.
    client.callOn("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.GetId");
    EXPECT_TRUE(client.signals().empty());
    sim.startService();
    EXPECT_EQ(device("Paired"), "(<true>,)");
    EXPECT_EQ(device("Connected"), "(<false>,)");
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
    EXPECT_EQ(device("Paired"), "(<true>,)");
    EXPECT_EQ(device("Name"), "(<'VEXA RC'>,)");
    ASSERT_EQ(client.call(kDevice, kConnect).error, "");
    EXPECT_TRUE(client.await(kDevice, "PropertiesChanged", "'ServicesResolved': <true>"));
}
