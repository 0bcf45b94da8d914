// SPDX-License-Identifier: MIT
// How the daemon's picture of the remote follows what BlueZ reports.

#include <gmock/gmock.h>

#include "tests/daemon/AtRest.h"
#include "tests/kit/NamedCase.h"

namespace kit
{

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""us;
using std::chrono_literals::operator""h;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

const std::string kBatteryService = kRemote + "/service0010";
const std::string kBatteryLevel = kBatteryService + "/char0011";
const std::string kVersionPath = kRemote + "/service0020/char0021";
const std::string kSwitchPath = kRemote + "/service0020/char0023";
const std::string kBatteryFile = "bluetooth_rc_battery";
const std::string kVersionFile = "bluetooth_rc_fw_version";
const std::string kConnected = "VEXA RC connection status changed: connected";
const std::string kDisconnected = "VEXA RC connection status changed: disconnected";

std::string readOf(const std::string& path)
{
    return path.substr(11) + " GattCharacteristic1.ReadValue (@a{sv} {},)";
}

// --- recognition ---

struct Name : NamedCase {
    const char* text;
    bool remote;
};

class ADevice : public AtRest, public ::testing::WithParamInterface<Name>
{
protected:
    ADevice() : AtRest(noRemote()) {}
};

TEST_P(ADevice, IsTheRemoteOrNotByItsName)
{
    startAtRest();
    announceOther(GetParam().text, true);
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(box.countLog(DEBUG, "main", std::string("RC found ") + GetParam().text + " : " + kOther),
              GetParam().remote ? 1U : 0U);
    EXPECT_EQ(box.statusCourse().back(), GetParam().remote ? "disconnected" : "no device");
}

INSTANTIATE_TEST_SUITE_P(Named, ADevice,
                         ::testing::Values(Name{{"VEXA"}, "VEXA", false}, Name{{"VEXARC"}, "VEXA RC", true},
                                           Name{{"OneMoreLetter"}, "VEXAx", true},
                                           Name{{"LowerCase"}, "vexa rc", false},
                                           Name{{"InTheMiddle"}, "My VEXA RC", false},
                                           Name{{"OnTheSecondLine"}, "TV\nVEXA RC", false},
                                           Name{{"Nothing"}, "", false}),
                         named);

class AStrangeDevice : public AtRest
{
protected:
    AStrangeDevice() : AtRest(noRemote()) {}
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
    settle();

    EXPECT_EQ(box.log().count(beginsLog(DEBUG, "main", "RC found")), 0U);
    EXPECT_EQ(box.statusCourse().back(), "no device");
}

TEST_F(AStrangeDevice, HasItsPairingAndItsSignalLoggedAndNothingElse)
{
    announceOther("TV");
    for (const char* name : {"Connected", "ServicesResolved", "Paired"}) {
        box.sim().setProperty(kOther, kDeviceInterface, name, g_variant_new_boolean(TRUE));
    }
    EXPECT_LOG(box, DEBUG, "main", "Device " + kOther + " paired");
    box.sim().setProperty(kOther, kDeviceInterface, "Paired", g_variant_new_boolean(FALSE));
    EXPECT_LOG(box, DEBUG, "main", "Device " + kOther + " unpaired");
    box.sim().setProperty(kOther, kDeviceInterface, "RSSI", g_variant_new_int16(-71));
    EXPECT_LOG(box, DEBUG, "main", "Device \"" + kOther + "\" rssi changed to -71");

    EXPECT_EQ(box.log().count(beginsLog(DEBUG, "main", "VEXA RC")), 0U);
    settle();
    EXPECT_EQ(box.statusCourse().back(), "no device");
    EXPECT_FALSE(box.exists("bluetooth_rc_rssi"));
}

TEST_F(AStrangeDevice, CanSayWhatItLikes)
{
    announceOther("VEXA RC", true, true);
    for (const vexasim::PropertyMap& properties :
         {vexasim::PropertyMap{},
          vexasim::PropertyMap{{"Paired", g_variant_new_string("yes")},
                               {"RSSI", g_variant_new_string("loud")}},
          vexasim::PropertyMap{{"Alias", g_variant_new_string("Remote")}}}) {
        box.sim().emitPropertiesChanged(kOther, kDeviceInterface, properties);
        EXPECT_LOG(box, DEBUG, "Bluez", "props changed: " + kOther);
    }

    EXPECT_TRUE(box.pass());
    EXPECT_TRUE(box.stops());
}

// --- adapters ---

TEST_F(AStrangeDevice, IsScannedForOnTheSecondAdapterWhenTheFirstIsGone)
{
    box.sim().addAdapter({"hci1", "00:1A:7D:DA:71:14", true});
    EXPECT_LOG(box, DEBUG, "main", "Adapter: + /org/bluez/hci1");
    box.sim().removeAdapter("hci0");
    EXPECT_LOG(box, DEBUG, "main", "Adapter: - /org/bluez/hci0");
    box.setFlag("pair");
    settle();
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
    settle();
    box.clock().advance(500ms);

    ASSERT_TRUE(box.awaitStatus("scanning"));
    EXPECT_THAT(box.busCalls({"Set", "StartDiscovery"}), ElementsAre("hci0 Adapter1.StartDiscovery ()"));
}

// --- a remote that is known: connected, at rest, and read once ---

class AKnownRemote : public AtRest
{
protected:
    AKnownRemote() : AtRest(pairedRemote()) {}

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

    /// BlueZ reports that this object is gone with all its interfaces, but reports none of the objects below
    /// it.
    void loseAlone(const std::string& path, std::vector<std::string> interfaces)
    {
        interfaces.emplace_back("org.freedesktop.DBus.Properties");
        interfaces.emplace_back("org.freedesktop.DBus.Introspectable");
        box.sim().emitSignal(
            "/", "org.freedesktop.DBus.ObjectManager", "InterfacesRemoved",
            g_variant_new("(o@as)", path.c_str(), vexasim::Variant::strings(interfaces).get()));
    }

    void expectForgottenByAPairing(const std::vector<std::string>& devices)
    {
        box.setFlag("reset");
        settle();
        box.clock().advance(500ms);
        for (const std::string& device : devices) {
            EXPECT_LOG(box, INFO, "main", "Removing device " + device);
        }
        EXPECT_LOG(box, DEBUG, "main", "Scanning on");
        EXPECT_EQ(box.log().count(beginsLog(INFO, "main", "Removing device ")), devices.size());
    }

    /// Checks what an update would be based on: it is refused in a record with this level and no version.
    void expectKnownForAnUpdate(const std::string& level)
    {
        box.linkFirmware("/nowhere");
        ASSERT_TRUE(box.pass());
        EXPECT_LOG(box, WARN, "main", "Update canceled: invalid state: battery: " + level + "% version: 0");
    }
};

TEST_F(AKnownRemote, StaysKnownWhenItsLinkEnds)
{
    loseLink();
    EXPECT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc_battery");
    ASSERT_TRUE(box.pass());

    EXPECT_FALSE(box.exists(kBatteryFile));
    EXPECT_EQ(box.content("bluetooth_rc"), kRemoteAddress + "\n");
    EXPECT_EQ(box.content(kVersionFile), "1a3\n");
    EXPECT_EQ(box.content("bluetooth_status"), "disconnected\n");
    EXPECT_EQ(box.countLog(WARN, "main", "REMOVE /tmp/bluetooth_rc"), 0U);
}

TEST_F(AKnownRemote, IsReadAnewFifteenSecondsAfterItsReturn)
{
    loseLink();
    EXPECT_FALSE(box.exists(kBatteryFile));
    box.connectRemote();
    EXPECT_LOG(box, DEBUG, "main", kConnected);
    box.remote().setBatteryBytes({75});

    EXPECT_TRUE(isReadAfterTheDelay());
    EXPECT_EQ(box.content(kBatteryFile), "75\n") << "not merged with the level before";
}

// Its services go first.
TEST_F(AKnownRemote, IsForgottenWithItsFilesWhenItsDeviceIsRemoved)
{
    box.sim().removePeripheral(box.remote().normal());
    EXPECT_LOG(box, DEBUG, "main", "Device: - " + kRemote);
    EXPECT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc");
    settle();

    EXPECT_EQ(box.content("bluetooth_status"), "no device\n");
    for (const std::string& file : {std::string("bluetooth_rc"), kBatteryFile, kVersionFile}) {
        EXPECT_FALSE(box.exists(file)) << file;
    }
}

TEST_F(AKnownRemote, KeepsItsFilesIfItsServicesGoBehindItsDevice)
{
    loseAlone(kRemote, {kDeviceInterface, "org.bluez.Battery1"});
    ASSERT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc");
    box.sim().removeObject(kBatteryService);
    box.sim().removeObject(kVersionPath);
    settle();

    EXPECT_EQ(box.content(kBatteryFile), "80\n");
    EXPECT_EQ(box.content(kVersionFile), "1a3\n");
    EXPECT_NO_LOG(box, DEBUG, "main", "Battery service removed");
    expectKnownForAnUpdate("80"); // the battery's record stays, too
}

TEST_F(AKnownRemote, IsLeftAloneWhenAnotherDeviceIsRemoved)
{
    announceOther("TV");
    box.sim().removeObject(kOther);
    settle();
    EXPECT_EQ(box.content("bluetooth_rc"), kRemoteAddress + "\n");
    EXPECT_NO_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc");

    expectForgottenByAPairing({kRemote}); // the other device has left the list, too
}

TEST_F(AKnownRemote, IsReplacedByTheNextDeviceWhoseNameMatches)
{
    announceOther("VEXA RC 2", true, true);
    ASSERT_TRUE(box.pass());
    EXPECT_EQ(box.content("bluetooth_rc"), "C0:FF:EE:00:00:0A\n");
    EXPECT_EQ(box.content("bluetooth_status"), "connected\n");

    settle(4h); // the paths of the first aren't the second's
    EXPECT_THAT(box.busCalls({"ReadValue"}), IsEmpty());
    box.remote().loseLink(); // nor is the first one's link
    settle();
    EXPECT_EQ(box.content("bluetooth_status"), "connected\n");
    EXPECT_NO_LOG(box, DEBUG, "main", kDisconnected);
    EXPECT_EQ(box.content(kBatteryFile), "80\n");
    expectKnownForAnUpdate("80"); // the battery's record stays, the version doesn't
}

TEST_F(AKnownRemote, IsStillForgottenByAPairingAfterItWasReplaced)
{
    announceOther("VEXA RC 2", true, true);
    expectForgottenByAPairing({kRemote, kOther});
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

// --- services and characteristics ---

TEST_F(AKnownRemote, LosesItsBatteryFileWithItsBatteryService)
{
    box.sim().removeObject(kBatteryService);
    EXPECT_LOG(box, DEBUG, "main", "Batter level characteristic removed");
    EXPECT_LOG(box, DEBUG, "main", "Battery service removed");
    EXPECT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc_battery");
    settle(4h);

    EXPECT_FALSE(box.exists(kBatteryFile));
    EXPECT_THAT(box.busCalls({"ReadValue"}), IsEmpty());
    // Another service that comes and goes at the same path isn't mistaken for it.
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
    answerReads(kBatteryLevel, 33);
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
    settle(10801s);

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
    answerReads(last, 7);
    box.sim().addObject(last, characteristicObject(vexasim::uuid128(0x2a1a), kBatteryService));
    EXPECT_LOG(box, DEBUG, "main", "Battery level characteristic resolved");

    EXPECT_TRUE(isReadAfterTheDelay()); // its arrival restarted the delay
    EXPECT_THAT(box.busCalls({"ReadValue"}), ElementsAre(readOf(last), readOf(kVersionPath)));
    EXPECT_EQ(box.content(kBatteryFile), "7\n");
}

TEST_F(AKnownRemote, HasItsVersionReadFromWhicheverDeviceOfferedOneLast)
{
    const std::string otherService = kOther + "/service0001";
    const std::string otherVersion = otherService + "/char0002";
    answerReads(otherVersion, 0x77);
    announceOther("TV");
    box.sim().addObject(otherService, serviceObject(vexasim::uuid::kVendorService, kOther));
    box.sim().addObject(otherVersion, characteristicObject(vexasim::uuid::kVersion, otherService));
    box.sim().addObject(otherService + "/char0005", // in upper case it is no version
                        characteristicObject("0000FFD3-0000-1000-8000-00805F9B34FB", otherService));
    box.sim().addObject(otherVersion + "/desc0003",
                        {{"org.bluez.GattDescriptor1",
                          {{"UUID", g_variant_new_string(vexasim::uuid::kClientConfiguration.c_str())}}}});
    ASSERT_LOG(box, DEBUG, "main", "+GATT Descriptor: " + otherVersion + "/desc0003");
    settle(10801s);

    EXPECT_THAT(box.busCalls({"ReadValue"}), ElementsAre(readOf(kBatteryLevel), readOf(otherVersion)));
    EXPECT_EQ(box.content(kVersionFile), "77\n");
}

TEST_F(AKnownRemote, IgnoresServicesThatArentItsBatteryService)
{
    const std::string otherService = kOther + "/service0001";
    const std::size_t before = box.countLog(DEBUG, "main", "Battery service resolved");
    announceOther("TV");
    box.sim().addObject(otherService, serviceObject(vexasim::uuid::kBatteryService, kOther));
    box.sim().addObject(otherService + "/char0002",
                        characteristicObject(vexasim::uuid::kBatteryLevel, otherService));
    box.sim().addObject(kRemote + "/service00f0", serviceObject(vexasim::uuid128(0x1812), kRemote));
    box.sim().addObject(kRemote + "/service00f1", // BlueZ writes lower case
                        serviceObject("0000180F-0000-1000-8000-00805F9B34FB", kRemote));
    box.sim().removeObject(otherService);
    box.sim().removeObject(kOther);
    ASSERT_LOG(box, DEBUG, "main", "Device: - " + kOther);

    EXPECT_EQ(box.countLog(DEBUG, "main", "Battery service resolved"), before);
    EXPECT_NO_LOG(box, DEBUG, "main", "Battery service removed");
    EXPECT_EQ(box.content(kBatteryFile), "80\n");
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
    settle();

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
    settle();

    EXPECT_EQ(box.content("bluetooth_status"), "disconnected\n");
    EXPECT_EQ(box.content("bluetooth_rc"), kRemoteAddress + "\n");
}

} // namespace

} // namespace kit
