// SPDX-License-Identifier: MIT
// How the daemon's picture of the remote follows what BlueZ reports.

#include "tests/kit/Box.h"
#include "tests/kit/Objects.h"

#include <gmock/gmock.h>

using namespace vexabox;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

const std::string kDeviceInterface = "org.bluez.Device1";
const std::string kAddress = "C0:FF:EE:00:00:01";
const std::string kRemote = "/org/bluez/hci0/dev_C0_FF_EE_00_00_01";
const std::string kBatteryService = kRemote + "/service0010";
const std::string kBatteryLevel = kBatteryService + "/char0011";
const std::string kVersionPath = kRemote + "/service0020/char0021";
const std::string kSwitchPath = kRemote + "/service0020/char0023";
const std::string kOther = "/org/bluez/hci0/dev_C0_FF_EE_00_00_0A";
const std::string kBatteryFile = "bluetooth_rc_battery";
const std::string kVersionFile = "bluetooth_rc_fw_version";
const std::string kConnected = "VEXA RC connection status changed: connected";
const std::string kDisconnected = "VEXA RC connection status changed: disconnected";

std::string readOf(const std::string& path)
{
    return path.substr(11) + " GattCharacteristic1.ReadValue (@a{sv} {},)";
}

// ---- recognition

struct Name {
    const char* test;
    const char* name;
    bool remote;
};

std::ostream& operator<<(std::ostream& stream, const Name& name)
{
    return stream << name.name;
}

class ADevice : public InABox, public ::testing::WithParamInterface<Name>
{
protected:
    ADevice() : InABox(noRemote()) {}
};

TEST_P(ADevice, IsTheRemoteOrNotByItsName)
{
    startAtRest();
    box.sim().addObject(kOther, deviceObject(GetParam().name, "C0:FF:EE:00:00:0A", true, false));
    ASSERT_LOG(box, DEBUG, "main", "Device: + " + kOther);
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(box.countLog(DEBUG, "main", std::string("RC found ") + GetParam().name + " : " + kOther),
              GetParam().remote ? 1U : 0U);
    EXPECT_EQ(box.statusCourse().back(), GetParam().remote ? "disconnected" : "no device");
}

INSTANTIATE_TEST_SUITE_P(Named, ADevice,
                         ::testing::Values(Name{"VEXA", "VEXA", false}, Name{"VEXARC", "VEXA RC", true},
                                           Name{"OneMoreLetter", "VEXAx", true},
                                           Name{"LowerCase", "vexa rc", false},
                                           Name{"InTheMiddle", "My VEXA RC", false},
                                           Name{"OnTheSecondLine", "TV\nVEXA RC", false},
                                           Name{"Nothing", "", false}),
                         [](const auto& test) { return std::string(test.param.test); });

class AStrangeDevice : public InABox
{
protected:
    AStrangeDevice() : InABox(noRemote()) {}
    void SetUp() override { startAtRest(); }
};

TEST_F(AStrangeDevice, IsNotLookedAtAgainWhenItsNameBecomesKnown)
{
    vexasim::InterfaceMap nameless = deviceObject("", "C0:FF:EE:00:00:0A", true, true);
    nameless[kDeviceInterface].erase("Name");
    box.sim().addObject(kOther, nameless);
    ASSERT_LOG(box, DEBUG, "main", "Device: + " + kOther);
    ASSERT_TRUE(box.awaitEvents());
    box.sim().setProperty(kOther, kDeviceInterface, "Name", g_variant_new_string("VEXA RC"));
    ASSERT_LOG(box, DEBUG, "Bluez", "props changed: " + kOther);
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(box.log().count(beginsLog(DEBUG, "main", "RC found")), 0U);
    EXPECT_EQ(box.statusCourse().back(), "no device");
}

TEST_F(AStrangeDevice, HasItsPairingLoggedAndNothingElse)
{
    box.sim().addObject(kOther, deviceObject("TV", "C0:FF:EE:00:00:0A", false, false));
    ASSERT_LOG(box, DEBUG, "main", "Device: + " + kOther);
    ASSERT_TRUE(box.awaitEvents());
    for (const char* name : {"Connected", "ServicesResolved", "Paired"}) {
        box.sim().setProperty(kOther, kDeviceInterface, name, g_variant_new_boolean(TRUE));
    }
    EXPECT_LOG(box, DEBUG, "main", "Device " + kOther + " paired");
    box.sim().setProperty(kOther, kDeviceInterface, "Paired", g_variant_new_boolean(FALSE));
    EXPECT_LOG(box, DEBUG, "main", "Device " + kOther + " unpaired");

    EXPECT_EQ(box.log().count(beginsLog(DEBUG, "main", "VEXA RC")), 0U);
    EXPECT_TRUE(box.awaitEvents());
    EXPECT_TRUE(box.pass());
    EXPECT_EQ(box.statusCourse().back(), "no device");
}

TEST_F(AStrangeDevice, HasItsSignalStrengthLoggedAndInNoFile)
{
    box.sim().addObject(kOther, deviceObject("TV", "C0:FF:EE:00:00:0A", false, false));
    ASSERT_TRUE(box.awaitEvents());
    box.sim().setProperty(kOther, kDeviceInterface, "RSSI", g_variant_new_int16(-71));

    EXPECT_LOG(box, DEBUG, "main", "Device \"" + kOther + "\" rssi changed to -71");
    EXPECT_FALSE(box.exists("bluetooth_rc_rssi"));
}

TEST_F(AStrangeDevice, CanSayWhatItLikes)
{
    box.sim().addObject(kOther, deviceObject("VEXA RC", "C0:FF:EE:00:00:0A", true, true));
    ASSERT_LOG(box, DEBUG, "main", "RC found VEXA RC : " + kOther);
    box.sim().emitPropertiesChanged(kOther, kDeviceInterface, {});
    EXPECT_LOG(box, DEBUG, "Bluez", "props changed: " + kOther);
    box.sim().emitPropertiesChanged(
        kOther, kDeviceInterface,
        {{"Paired", g_variant_new_string("yes")}, {"RSSI", g_variant_new_string("loud")}});
    EXPECT_LOG(box, DEBUG, "Bluez", "props changed: " + kOther);
    box.sim().emitPropertiesChanged(kOther, kDeviceInterface, {{"Alias", g_variant_new_string("Remote")}});
    EXPECT_LOG(box, DEBUG, "Bluez", "props changed: " + kOther);

    EXPECT_TRUE(box.pass());
    EXPECT_TRUE(box.stops());
}

// ---- adapters

TEST_F(AStrangeDevice, IsScannedForOnTheSecondAdapterWhenTheFirstIsGone)
{
    box.sim().addAdapter({"hci1", "00:1A:7D:DA:71:14", true});
    EXPECT_LOG(box, DEBUG, "main", "Adapter: + /org/bluez/hci1");
    box.sim().removeAdapter("hci0");
    EXPECT_LOG(box, DEBUG, "main", "Adapter: - /org/bluez/hci0");
    box.setFlag("pair");
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass());
    box.sim().clearCalls();
    box.clock().advance(500ms);

    ASSERT_TRUE(box.awaitStatus("scanning"));
    EXPECT_THAT(box.busCalls(), ElementsAre("hci1 Adapter1.StartDiscovery ()"));
}

TEST_F(AStrangeDevice, IsScannedForOnAnAdapterThatCameBackAndWasntPoweredAgain)
{
    box.sim().removeAdapter("hci0");
    EXPECT_LOG(box, DEBUG, "main", "Adapter: - /org/bluez/hci0");
    box.sim().addAdapter({});
    EXPECT_LOG(box, DEBUG, "main", "Adapter: + /org/bluez/hci0");
    box.sim().clearCalls();
    box.setFlag("pair");
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass());
    box.clock().advance(500ms);

    ASSERT_TRUE(box.awaitStatus("scanning"));
    EXPECT_THAT(box.busCalls({"Set", "StartDiscovery"}), ElementsAre("hci0 Adapter1.StartDiscovery ()"));
}

// ---- a remote that is known: connected, at rest, and read once

class AKnownRemote : public InABox
{
protected:
    AKnownRemote() : InABox(pairedRemote()) {}

    void SetUp() override
    {
        startConnectedAtRest();
        ASSERT_TRUE(box.awaitEvents());
        ASSERT_TRUE(box.pass(16s));
        ASSERT_LOG(box, DEBUG, "main", "rc fw version: 1a3");
        ASSERT_EQ(box.content(kBatteryFile), "80\n");
        box.sim().clearCalls();
    }

    /// Waits out the delay of a fresh battery record; true if a reading was due then.
    bool isReadAfterTheDelay()
    {
        EXPECT_TRUE(box.awaitEvents()); // the delay begins in a handler
        const std::size_t before = box.countLog(DEBUG, "main", "Should read battery level");
        EXPECT_TRUE(box.pass(15999999us));
        EXPECT_EQ(box.countLog(DEBUG, "main", "Should read battery level"), before) << "before its time";
        EXPECT_TRUE(box.pass());
        return box.countLog(DEBUG, "main", "Should read battery level") == before + 1;
    }

    /// BlueZ reports that this object is gone with all its interfaces, and nothing of those below it.
    void loseAlone(const std::string& path, std::vector<std::string> interfaces)
    {
        interfaces.emplace_back("org.freedesktop.DBus.Properties");
        interfaces.emplace_back("org.freedesktop.DBus.Introspectable");
        box.sim().emitSignal(
            "/", "org.freedesktop.DBus.ObjectManager", "InterfacesRemoved",
            g_variant_new("(o@as)", path.c_str(), vexasim::Variant::strings(interfaces).get()));
    }

    /// What an update would go by: it is refused in a record with this level and no version.
    void expectKnownForAnUpdate(const std::string& level)
    {
        box.linkFirmware("/nowhere");
        ASSERT_TRUE(box.pass());
        EXPECT_LOG(box, WARN, "main", "Update canceled: invalid state: battery: " + level + "% version: 0");
    }
};

TEST_F(AKnownRemote, StaysKnownWhenItsLinkEnds)
{
    box.remote().loseLink();
    EXPECT_LOG(box, DEBUG, "main", kDisconnected);
    EXPECT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc_battery");
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass());

    EXPECT_TRUE(box.files().awaitGone(kBatteryFile));
    EXPECT_EQ(box.content("bluetooth_rc"), kAddress + "\n");
    EXPECT_EQ(box.content(kVersionFile), "1a3\n");
    EXPECT_EQ(box.content("bluetooth_status"), "disconnected\n");
    EXPECT_EQ(box.countLog(WARN, "main", "REMOVE /tmp/bluetooth_rc"), 0U);
}

TEST_F(AKnownRemote, IsReadAnewFifteenSecondsAfterItsReturn)
{
    box.remote().loseLink();
    EXPECT_LOG(box, DEBUG, "main", kDisconnected);
    box.connectRemote();
    EXPECT_LOG(box, DEBUG, "main", kConnected);
    EXPECT_TRUE(box.files().awaitGone(kBatteryFile));
    box.remote().setBatteryBytes({75});

    EXPECT_TRUE(isReadAfterTheDelay());
    EXPECT_EQ(box.content(kBatteryFile), "75\n") << "not merged with the level before";
}

TEST_F(AKnownRemote, IsForgottenWhenItsDeviceIsRemoved)
{
    box.sim().removePeripheral(box.remote().normal());
    EXPECT_LOG(box, DEBUG, "main", "Device: - " + kRemote);
    EXPECT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc");
    EXPECT_TRUE(box.files().awaitGone("bluetooth_rc"));
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(box.content("bluetooth_status"), "no device\n");
    EXPECT_TRUE(box.files().awaitGone("bluetooth_rc"));
}

TEST_F(AKnownRemote, LosesItsFilesWithItsServicesIfTheseGoFirst)
{
    box.sim().removePeripheral(box.remote().normal());
    EXPECT_LOG(box, DEBUG, "main", "Device: - " + kRemote);

    EXPECT_TRUE(box.files().awaitGone(kBatteryFile));
    EXPECT_TRUE(box.files().awaitGone(kVersionFile));
}

TEST_F(AKnownRemote, KeepsItsFilesIfItsServicesGoBehindItsDevice)
{
    loseAlone(kRemote, {kDeviceInterface, "org.bluez.Battery1"});
    ASSERT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc");
    box.sim().removeObject(kBatteryService);
    box.sim().removeObject(kVersionPath);
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(box.content(kBatteryFile), "80\n");
    EXPECT_EQ(box.content(kVersionFile), "1a3\n");
    EXPECT_NO_LOG(box, DEBUG, "main", "Battery service removed");
    expectKnownForAnUpdate("80"); // the battery's record stays, too
}

TEST_F(AKnownRemote, IsLeftAloneWhenAnotherDeviceIsRemoved)
{
    box.sim().addObject(kOther, deviceObject("TV", "C0:FF:EE:00:00:0A", false, false));
    ASSERT_LOG(box, DEBUG, "main", "Device: + " + kOther);
    ASSERT_TRUE(box.awaitEvents());
    box.sim().removeObject(kOther);
    ASSERT_LOG(box, DEBUG, "main", "Device: - " + kOther);
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass());
    EXPECT_EQ(box.content("bluetooth_rc"), kAddress + "\n");
    EXPECT_NO_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc");

    // The other one is off the list of devices, too.
    box.setFlag("reset");
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass());
    box.clock().advance(500ms);
    EXPECT_LOG(box, INFO, "main", "Removing device " + kRemote);
    EXPECT_LOG(box, DEBUG, "main", "Scanning on");
    EXPECT_NO_LOG(box, INFO, "main", "Removing device " + kOther);
}

TEST_F(AKnownRemote, IsReplacedByTheNextDeviceWhoseNameMatches)
{
    box.sim().addObject(kOther, deviceObject("VEXA RC 2", "C0:FF:EE:00:00:0A", true, true));
    ASSERT_LOG(box, DEBUG, "main", "RC found VEXA RC 2 : " + kOther);
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass());
    EXPECT_EQ(box.content("bluetooth_rc"), "C0:FF:EE:00:00:0A\n");
    EXPECT_EQ(box.content("bluetooth_status"), "connected\n");

    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass(4h)); // the paths of the first aren't the second's
    EXPECT_THAT(box.busCalls({"ReadValue"}), IsEmpty());
    box.remote().loseLink(); // nor is the first one's link
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass());
    EXPECT_EQ(box.content("bluetooth_status"), "connected\n");
    EXPECT_NO_LOG(box, DEBUG, "main", kDisconnected);
    EXPECT_EQ(box.content(kBatteryFile), "80\n");
    expectKnownForAnUpdate("80"); // the battery's record stays, the version doesn't
}

TEST_F(AKnownRemote, IsStillForgottenByAPairingAfterItWasReplaced)
{
    box.sim().addObject(kOther, deviceObject("VEXA RC 2", "C0:FF:EE:00:00:0A", true, true));
    ASSERT_LOG(box, DEBUG, "main", "RC found VEXA RC 2 : " + kOther);
    box.setFlag("reset");
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass());
    box.clock().advance(500ms);

    EXPECT_LOG(box, INFO, "main", "Removing device " + kRemote);
    EXPECT_LOG(box, INFO, "main", "Removing device " + kOther);
}

TEST_F(AKnownRemote, HasItsServicesResolvedLogged)
{
    for (const bool resolved : {false, true}) {
        box.sim().setProperty(kRemote, kDeviceInterface, "ServicesResolved",
                              g_variant_new_boolean(resolved ? TRUE : FALSE));
        EXPECT_LOG(box, DEBUG, "main",
                   std::string("VEXA RC services resolved status changed: ") +
                       (resolved ? "resolved" : "unresolved"));
    }
}

// ---- services and characteristics

TEST_F(AKnownRemote, LosesItsBatteryFileWithItsBatteryService)
{
    box.sim().removeObject(kBatteryService);
    EXPECT_LOG(box, DEBUG, "main", "Batter level characteristic removed");
    EXPECT_LOG(box, DEBUG, "main", "Battery service removed");
    EXPECT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc_battery");
    EXPECT_TRUE(box.files().awaitGone(kBatteryFile));
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass(4h));

    EXPECT_THAT(box.busCalls({"ReadValue"}), IsEmpty());
    // Another service that comes and goes at the same path isn't taken for it.
    box.sim().addObject(kBatteryService, serviceObject(vexasim::uuid128(0x1812), kRemote));
    box.sim().removeObject(kBatteryService);
    ASSERT_TRUE(box.awaitEvents());
    EXPECT_EQ(box.countLog(DEBUG, "main", "Battery service removed"), 1U);
}

TEST_F(AKnownRemote, ForgetsItsLevelWithItsBatteryServiceAlone)
{
    loseAlone(kBatteryService, {"org.bluez.GattService1"});
    ASSERT_LOG(box, DEBUG, "main", "Battery service removed");
    box.sim().addObject(kBatteryService, serviceObject(vexasim::uuid::kBatteryService, kRemote));
    ASSERT_LOG(box, DEBUG, "main", "Battery service resolved");

    EXPECT_TRUE(isReadAfterTheDelay()) << "the delay has begun anew";
    EXPECT_THAT(box.busCalls({"ReadValue"}), IsEmpty()) << "the level is to be announced again";
    EXPECT_NO_LOG(box, DEBUG, "main", "Batter level characteristic removed");
}

TEST_F(AKnownRemote, IsReadAnewWhenItsBatteryServiceComesBack)
{
    box.sim().removeObject(kBatteryService);
    EXPECT_LOG(box, DEBUG, "main", "Battery service removed");
    box.disconnectRemote();
    EXPECT_LOG(box, DEBUG, "main", kDisconnected);
    box.sim().addObject(kBatteryService, serviceObject(vexasim::uuid::kBatteryService, kRemote));
    EXPECT_LOG(box, DEBUG, "main", "Battery service resolved");
    box.sim().addObject(kBatteryLevel, characteristicObject(vexasim::uuid::kBatteryLevel, kBatteryService));
    EXPECT_LOG(box, DEBUG, "main", "Battery level characteristic resolved");
    box.sim().bend(
        vexasim::Bend::answer("ReadValue", g_variant_new("(@ay)", vexasim::Variant::bytes({33}).get()))
            .on(kBatteryLevel));
    box.sim().setProperty(kRemote, kDeviceInterface, "Connected", g_variant_new_boolean(TRUE));
    EXPECT_LOG(box, DEBUG, "main", kConnected);

    EXPECT_TRUE(isReadAfterTheDelay());
    EXPECT_EQ(box.content(kBatteryFile), "33\n");
}

TEST_F(AKnownRemote, KeepsItsBatteryFileWhenOnlyTheLevelIsRemoved)
{
    box.sim().removeObject(kBatteryLevel);
    EXPECT_LOG(box, DEBUG, "main", "Batter level characteristic removed");

    EXPECT_TRUE(isReadAfterTheDelay()) << "the delay has begun anew";
    EXPECT_EQ(box.content(kBatteryFile), "80\n");
    EXPECT_THAT(box.busCalls({"ReadValue"}), IsEmpty());
}

TEST_F(AKnownRemote, LosesItsVersionFileWithTheCharacteristicAndNotInTheLog)
{
    box.sim().removeObject(kVersionPath);
    EXPECT_TRUE(box.files().awaitGone(kVersionFile));
    EXPECT_NO_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc_fw_version");
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass(10801s));

    // The version itself is still known, and written again with the next reading.
    EXPECT_THAT(box.busCalls({"ReadValue"}), ElementsAre(readOf(kBatteryLevel)));
    EXPECT_EQ(box.content(kVersionFile), "1a3\n");
}

TEST_F(AKnownRemote, KeepsItsVersionFileWhenAnotherCharacteristicGoes)
{
    box.sim().removeObject(kSwitchPath);
    ASSERT_TRUE(box.awaitEvents());

    EXPECT_EQ(box.content(kVersionFile), "1a3\n");
    EXPECT_EQ(box.content(kBatteryFile), "80\n");
}

TEST_F(AKnownRemote, IsReadByTheLastCharacteristicOfItsBatteryServiceWhateverThatIs)
{
    const std::string last = kBatteryService + "/char00ff";
    box.sim().bend(
        vexasim::Bend::answer("ReadValue", g_variant_new("(@ay)", vexasim::Variant::bytes({7}).get()))
            .on(last));
    box.sim().addObject(last, characteristicObject(vexasim::uuid128(0x2a1a), kBatteryService));
    EXPECT_LOG(box, DEBUG, "main", "Battery level characteristic resolved");

    EXPECT_TRUE(isReadAfterTheDelay()); // its arrival has begun the delay anew
    EXPECT_THAT(box.busCalls({"ReadValue"}), ElementsAre(readOf(last), readOf(kVersionPath)));
    EXPECT_EQ(box.content(kBatteryFile), "7\n");
}

TEST_F(AKnownRemote, HasItsVersionReadFromWhicheverDeviceOfferedOneLast)
{
    const std::string otherService = kOther + "/service0001";
    const std::string otherVersion = otherService + "/char0002";
    box.sim().bend(
        vexasim::Bend::answer("ReadValue", g_variant_new("(@ay)", vexasim::Variant::bytes({0x77}).get()))
            .on(otherVersion));
    box.sim().addObject(kOther, deviceObject("TV", "C0:FF:EE:00:00:0A", false, false));
    box.sim().addObject(otherService, serviceObject(vexasim::uuid::kVendorService, kOther));
    box.sim().addObject(otherVersion, characteristicObject(vexasim::uuid::kVersion, otherService));
    box.sim().addObject(otherService + "/char0005", // in upper case it is no version
                        characteristicObject("0000FFD3-0000-1000-8000-00805F9B34FB", otherService));
    box.sim().addObject(otherVersion + "/desc0003",
                        {{"org.bluez.GattDescriptor1",
                          {{"UUID", g_variant_new_string(vexasim::uuid::kClientConfiguration.c_str())}}}});
    ASSERT_LOG(box, DEBUG, "main", "+GATT Descriptor: " + otherVersion + "/desc0003");
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass(10801s));

    EXPECT_THAT(box.busCalls({"ReadValue"}), ElementsAre(readOf(kBatteryLevel), readOf(otherVersion)));
    EXPECT_EQ(box.content(kVersionFile), "77\n");
}

TEST_F(AKnownRemote, IgnoresABatteryServiceOfAnotherDevice)
{
    const std::string otherService = kOther + "/service0001";
    const std::size_t before = box.countLog(DEBUG, "main", "Battery service resolved");
    box.sim().addObject(kOther, deviceObject("TV", "C0:FF:EE:00:00:0A", false, false));
    box.sim().addObject(otherService, serviceObject(vexasim::uuid::kBatteryService, kOther));
    box.sim().addObject(otherService + "/char0002",
                        characteristicObject(vexasim::uuid::kBatteryLevel, otherService));
    box.sim().removeObject(otherService);
    box.sim().removeObject(kOther);
    ASSERT_LOG(box, DEBUG, "main", "Device: - " + kOther);

    EXPECT_EQ(box.countLog(DEBUG, "main", "Battery service resolved"), before);
    EXPECT_NO_LOG(box, DEBUG, "main", "Battery service removed");
    EXPECT_EQ(box.content(kBatteryFile), "80\n");
}

TEST_F(AKnownRemote, IgnoresAServiceOfAnotherType)
{
    const std::size_t before = box.countLog(DEBUG, "main", "Battery service resolved");
    box.sim().addObject(kRemote + "/service00f0", serviceObject(vexasim::uuid128(0x1812), kRemote));
    box.sim().addObject(kRemote + "/service00f1", // BlueZ writes lower case
                        serviceObject("0000180F-0000-1000-8000-00805F9B34FB", kRemote));
    ASSERT_TRUE(box.awaitEvents());

    EXPECT_EQ(box.countLog(DEBUG, "main", "Battery service resolved"), before);
}

TEST_F(AKnownRemote, HasItsDescriptorsLogged)
{
    box.sim().removeObject(kBatteryLevel + "/desc0013");

    EXPECT_LOG(box, DEBUG, "main", "-GATT Descriptor: " + kBatteryLevel + "/desc0013");
}

TEST_F(AKnownRemote, IsntPublishedByItsNotifications)
{
    box.sim().emitPropertiesChanged(kBatteryLevel, "org.bluez.GattCharacteristic1",
                                    {{"Value", vexasim::Variant::bytes({12})}});
    ASSERT_LOG(box, DEBUG, "Bluez", "props changed: " + kBatteryLevel);
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(box.content(kBatteryFile), "80\n");
}

TEST_F(AKnownRemote, IsFoundAgainWhenBlueZHasBeenRestarted)
{
    box.sim().stopService(vexasim::Simulator::Stop::Kill);
    ASSERT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc");
    ASSERT_TRUE(box.pass()); // waits for the handler's lock
    EXPECT_EQ(box.content("bluetooth_status"), "no device\n");
    box.sim().startService();
    ASSERT_LOG(box, DEBUG, "main", "RC found VEXA RC : " + kRemote);
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(box.content("bluetooth_status"), "disconnected\n");
    EXPECT_EQ(box.content("bluetooth_rc"), kAddress + "\n");
}

} // namespace
