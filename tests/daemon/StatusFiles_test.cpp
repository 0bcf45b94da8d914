// SPDX-License-Identifier: MIT
// The files that the daemon publishes, and the readings behind them.

#include <filesystem>
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
using vexasim::Bend;
using vexasim::Bytes;

namespace
{

const std::string kBattery = "bluetooth_rc_battery";
const std::string kVersion = "bluetooth_rc_fw_version";
const std::string kShouldRead = "Should read battery level";
const std::string kBatteryCall =
    "hci0/dev_C0_FF_EE_00_00_01/service0010/char0011 GattCharacteristic1.ReadValue (@a{sv} {},)";
const std::string kVersionCall =
    "hci0/dev_C0_FF_EE_00_00_01/service0020/char0021 GattCharacteristic1.ReadValue (@a{sv} {},)";

BoxOptions withRemote(const vexasim::RemoteOptions& remote)
{
    BoxOptions options;
    options.simulator.remote = remote;
    options.simulator.remote.paired = true;
    return options;
}

/// A remote that has just been connected; the daemon's clock stands still.
class AConnectedRemote : public AtRest
{
protected:
    explicit AConnectedRemote(const vexasim::RemoteOptions& remote = {}) : AtRest(withRemote(remote)) {}
    void SetUp() override { startConnectedAtRest(); }

    /// Lets the first delay pass; the reading happens in this pass if there is one.
    void letItBeRead()
    {
        ASSERT_TRUE(box.pass(16s));
        EXPECT_LOG(box, DEBUG, "main", kShouldRead);
    }

    /// Restarts the delay at the clock's current time.
    void restartDelay()
    {
        box.sim().emitPropertiesChanged(box.remotePath(), kDeviceInterface,
                                        {{"Connected", g_variant_new_boolean(TRUE)}});
        ASSERT_TRUE(box.awaitEvents());
    }

    std::size_t readings() { return box.busCalls({"ReadValue"}).size(); }
    void setProperty(const std::string& name, const vexasim::Variant& value)
    {
        box.sim().setProperty(box.remotePath(), kDeviceInterface, name, value);
        ASSERT_TRUE(box.awaitEvents());
    }
};

// --- the words and the address ---

TEST_F(AConnectedRemote, HasItsFilesBackAPassAfterSomebodyRemovedThem)
{
    std::filesystem::remove(box.file("bluetooth_rc"));
    std::filesystem::remove(box.file("bluetooth_status"));
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(box.content("bluetooth_rc"), kRemoteAddress + "\n");
    EXPECT_EQ(box.content("bluetooth_status"), "connected\n");
    const std::size_t writes = box.files().writes("bluetooth_rc");
    ASSERT_TRUE(box.pass());
    EXPECT_EQ(box.files().writes("bluetooth_rc"), writes + 1) << "it is written on each pass";
}

TEST_F(AConnectedRemote, KeepsItsOldAddressFileWhenItsAddressIsEmpty)
{
    setProperty("Address", g_variant_new_string(""));
    const std::size_t writes = box.files().writes("bluetooth_rc");
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(box.content("bluetooth_rc"), kRemoteAddress + "\n");
    EXPECT_EQ(box.files().writes("bluetooth_rc"), writes);
    EXPECT_EQ(box.content("bluetooth_status"), "connected\n");
}

TEST_F(AConnectedRemote, IsPublishedAsDisconnectedAndNotReadAfterItsLinkEnded)
{
    loseLink();
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(box.content("bluetooth_status"), "disconnected\n");
    EXPECT_EQ(box.content("bluetooth_rc"), kRemoteAddress + "\n");
    ASSERT_TRUE(box.pass(20s));
    EXPECT_EQ(readings(), 0U);
    EXPECT_NO_LOG(box, DEBUG, "main", kShouldRead);
}

// The bond is lost between the two checks of it in one pass, the only ones that can show this.
TEST_F(AConnectedRemote, IsPublishedAsNotPairedIfItsBondIsLostWithinAPass)
{
    const std::string path = box.remotePath();
    setProperty("Connected", g_variant_new_boolean(FALSE));
    constexpr unsigned kBackOffBegins = 3; // readings: the pass is due, its beginning is noted, then this
    box.clock().advanceAndHold(500ms, kBackOffBegins);
    ASSERT_TRUE(box.clock().awaitHeld());
    box.sim().setProperty(path, kDeviceInterface, "Paired", g_variant_new_boolean(FALSE));
    EXPECT_LOG(box, DEBUG, "main", "Device " + path + " unpaired");
    box.clock().letGo();

    EXPECT_TRUE(box.awaitStatus("not paired"));
    EXPECT_EQ(box.content("bluetooth_rc"), kRemoteAddress + "\n") << "it stays as it is";
}

TEST_F(AConnectedRemote, IsPublishedAlthoughOneOfItsFilesCantBeWritten)
{
    std::filesystem::remove(box.file("bluetooth_rc"));
    std::filesystem::create_directory(box.file("bluetooth_rc"));
    loseLink();
    const std::size_t errors = box.log().count([](const LogRecord& record) { return record.level == ERROR; });
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(box.content("bluetooth_status"), "disconnected\n");
    EXPECT_EQ(box.log().count([](const LogRecord& record) { return record.level == ERROR; }), errors);
}

// The properties of the remote, each of which is needed.
class AConnectedRemoteWithout : public AConnectedRemote, public ::testing::WithParamInterface<const char*>
{
};

TEST_P(AConnectedRemoteWithout, IsPublishedAsAnErrorForAsLongAsThatLasts)
{
    const vexasim::Variant value = box.sim().property(box.remotePath(), kDeviceInterface, GetParam());
    box.sim().dropProperty(box.remotePath(), kDeviceInterface, GetParam(), vexasim::Simulator::Emit::Yes);
    settle();
    EXPECT_EQ(box.content("bluetooth_status"), "error\n");
    ASSERT_TRUE(box.pass(20s)); // nor is anything read on such a pass
    EXPECT_EQ(box.content("bluetooth_status"), "error\n");
    EXPECT_EQ(readings(), 0U);
    EXPECT_EQ(box.content("bluetooth_rc"), kRemoteAddress + "\n");

    setProperty(GetParam(), value);
    ASSERT_TRUE(box.pass());
    EXPECT_EQ(box.content("bluetooth_status"), "connected\n");
}

INSTANTIATE_TEST_SUITE_P(Property, AConnectedRemoteWithout,
                         ::testing::Values("Address", "Paired", "Connected"),
                         [](const auto& test) { return std::string(test.param); });

class ABoxWithoutARemote : public AtRest
{
protected:
    ABoxWithoutARemote() : AtRest(noRemote()) {}
};

TEST_F(ABoxWithoutARemote, SaysSoAndRemovesAStaleAddressButNoOtherFile)
{
    for (const char* name : {"bluetooth_rc", "bluetooth_rc_battery", "bluetooth_rc_fw_version"}) {
        box.writeText(name, "of an earlier run\n");
    }
    ASSERT_TRUE(box.startToIdle());
    EXPECT_TRUE(box.awaitStatus("no device"));

    EXPECT_FALSE(box.exists("bluetooth_rc"));
    EXPECT_TRUE(box.exists(kBattery));
    EXPECT_TRUE(box.exists(kVersion));
    EXPECT_NO_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc");
}

TEST_F(ABoxWithoutARemote, TouchesASignalStrengthFromElsewhereOnlyAtItsEnd)
{
    box.writeText("bluetooth_rc_rssi", "-60\n");
    ASSERT_TRUE(box.startToIdle());
    ASSERT_TRUE(box.awaitPasses(2));
    EXPECT_EQ(box.content("bluetooth_rc_rssi"), "-60\n");
    EXPECT_TRUE(box.stops());

    EXPECT_THAT(box.files().course("bluetooth_rc_rssi"), ElementsAre("-60", kGone));
    EXPECT_EQ(box.files().writes("bluetooth_rc_rssi"), 1U) << "this case's own";
}

// --- when it is read ---

TEST_F(AConnectedRemote, IsNotReadAtFifteenWholeSeconds)
{
    restartDelay();
    for (const std::chrono::microseconds step : {1000000us, 1000000us, 1000000us, 12999999us}) {
        ASSERT_TRUE(box.pass(step));
    }

    for (const char* seconds : {"1", "2", "3", "15"}) {
        EXPECT_LOG(box, TRACE, "main", std::string("Read delay ") + seconds + "s of 15s");
    }
    EXPECT_NO_LOG(box, DEBUG, "main", kShouldRead);
    EXPECT_EQ(readings(), 0U);
}

TEST_F(AConnectedRemote, IsReadAtSixteen)
{
    restartDelay();
    ASSERT_TRUE(box.pass(16s));

    EXPECT_LOG(box, DEBUG, "main", kShouldRead);
    EXPECT_LOG(box, DEBUG, "main", "Battery level read: 80 valid");
    EXPECT_LOG(box, DEBUG, "main", "rc fw version: 1a3");
    EXPECT_THAT(box.busCalls(), ElementsAre(kBatteryCall, kVersionCall));
    EXPECT_EQ(box.content(kBattery), "80\n");
    EXPECT_EQ(box.content(kVersion), "1a3\n");
}

TEST_F(AConnectedRemote, IsReadAgainASecondAfterThreeHours)
{
    letItBeRead();
    ASSERT_TRUE(box.pass(60s));
    ASSERT_TRUE(box.pass(10740999999us)); // 10800 whole seconds in all
    EXPECT_EQ(readings(), 2U);
    EXPECT_EQ(box.files().writes(kBattery), 1U);
    EXPECT_EQ(box.files().writes(kVersion), 1U);
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, DEBUG, "main", kShouldRead);
    EXPECT_THAT(box.busCalls(), ElementsAre(kBatteryCall, kVersionCall, kBatteryCall, kVersionCall));
    EXPECT_EQ(box.files().writes(kBattery), 2U);
    EXPECT_EQ(box.files().writes(kVersion), 2U);
}

TEST_F(AConnectedRemote, IsReadWhateverTheWallClockDoes)
{
    box.clock().stepWallClock(-24h);
    letItBeRead();
    box.clock().stepWallClock(48h);
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(readings(), 2U);
}

// --- levels ---

struct Reading : NamedCase {
    Bytes bytes;
    std::string log;
    std::vector<std::string> file;
};

class ABatteryLevel : public AConnectedRemote, public ::testing::WithParamInterface<Reading>
{
};

TEST_P(ABatteryLevel, IsReadAndJudged)
{
    box.remote().setBatteryBytes(GetParam().bytes);
    letItBeRead();

    EXPECT_LOG(box, DEBUG, "main", "Battery level read: " + GetParam().log);
    EXPECT_EQ(box.files().course(kBattery), GetParam().file);
    EXPECT_EQ(box.content(kVersion), "1a3\n") << "which follows in any case";
}

INSTANTIATE_TEST_SUITE_P(Of, ABatteryLevel,
                         ::testing::Values(Reading{{"0"}, {0}, "0 invalid", {}},
                                           Reading{{"1"}, {1}, "1 valid", {"1"}},
                                           Reading{{"42"}, {42}, "42 valid", {"42"}},
                                           Reading{{"100"}, {100}, "100 valid", {"100"}},
                                           Reading{{"101"}, {101}, "101 invalid", {}},
                                           Reading{{"255"}, {255}, "255 invalid", {}},
                                           Reading{{"NoBytes"}, {}, "0 invalid", {}}),
                         named);

class ASecondLevel : public ABatteryLevel
{
};

// The first level was 80; the second is combined with it by a bitwise or.
TEST_P(ASecondLevel, IsJudgedAndFollowedByAThirdAfterThreeHours)
{
    letItBeRead();
    box.remote().setBatteryBytes(GetParam().bytes);
    ASSERT_TRUE(box.pass(10801s));

    EXPECT_LOG(box, DEBUG, "main", "Battery level read: " + GetParam().log);
    EXPECT_EQ(box.content(kBattery), GetParam().file.back());
    EXPECT_EQ(box.files().writes(kBattery), GetParam().file.size());
    ASSERT_TRUE(box.pass(10800999999us));
    EXPECT_EQ(readings(), 4U);
    ASSERT_TRUE(box.pass());
    EXPECT_EQ(readings(), 6U);
}

INSTANTIATE_TEST_SUITE_P(Of, ASecondLevel,
                         ::testing::Values(Reading{{"75"}, {75}, "91 valid", {"80\n", "91\n"}},
                                           Reading{{"47"}, {47}, "127 invalid", {"80\n"}},
                                           Reading{{"NoBytes"}, {}, "80 valid", {"80\n", "80\n"}}),
                         named);

TEST_F(AConnectedRemote, IsReadAgainOnEachPassWhileItsLevelHasTwoBytes)
{
    box.remote().setBatteryBytes({80, 0});
    letItBeRead();
    ASSERT_TRUE(box.pass());
    ASSERT_TRUE(box.pass());

    EXPECT_THAT(box.busCalls(), ElementsAre(kBatteryCall, kVersionCall, kBatteryCall, kVersionCall,
                                            kBatteryCall, kVersionCall));
    EXPECT_EQ(box.log().count(beginsLog(DEBUG, "main", "Battery level read")), 0U);
    EXPECT_FALSE(box.exists(kBattery));
    EXPECT_EQ(box.files().writes(kVersion), 3U);

    box.remote().setBatteryBytes({80});
    ASSERT_TRUE(box.pass());
    EXPECT_EQ(box.content(kBattery), "80\n");
    ASSERT_TRUE(box.pass());
    EXPECT_EQ(readings(), 8U);
}

TEST_F(AConnectedRemote, IsReadAgainOnEachPassWhileTheReadingFails)
{
    box.sim().bend(Bend::error("ReadValue", "org.bluez.Error.Failed", "busy")
                       .on(box.pathOf(vexasim::uuid::kBatteryLevel))
                       .times(2));
    letItBeRead();
    EXPECT_LOG(box, ERROR, "Bluez", busError("org.bluez.Error.Failed", "busy"));
    EXPECT_FALSE(box.exists(kBattery));
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, ERROR, "Bluez", busError("org.bluez.Error.Failed", "busy"));
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, DEBUG, "main", "Battery level read: 80 valid");
    EXPECT_EQ(box.content(kBattery), "80\n");
    EXPECT_EQ(box.countLog(DEBUG, "main", kShouldRead), 3U) << "at every pass";
}

TEST_F(AConnectedRemote, HasItsLevelLeftAsItIsByAReadingThatFailsThreeHoursLater)
{
    letItBeRead();
    box.sim().bend(Bend::error("ReadValue", "org.bluez.Error.Failed", "busy")
                       .on(box.pathOf(vexasim::uuid::kBatteryLevel)));
    ASSERT_TRUE(box.pass(10801s));
    EXPECT_LOG(box, DEBUG, "main", kShouldRead);
    EXPECT_LOG(box, ERROR, "Bluez", busError("org.bluez.Error.Failed", "busy"));

    EXPECT_EQ(box.content(kBattery), "80\n");
    EXPECT_EQ(box.files().writes(kBattery), 1U) << "the level counts no longer as valid";
    // It still counts for an update: this one lacks only its image.
    box.linkFirmware("/nowhere");
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, WARN, "main", "RC update is unnecessary");
}

// --- versions ---

class AFirmwareVersion : public AConnectedRemote, public ::testing::WithParamInterface<Reading>
{
};

TEST_P(AFirmwareVersion, IsReadAsALittleEndianNumberAndWrittenInHexadecimal)
{
    box.remote().setVersionBytes(GetParam().bytes);
    letItBeRead();

    EXPECT_LOG(box, DEBUG, "main", "rc fw version: " + GetParam().log);
    EXPECT_EQ(box.files().course(kVersion), GetParam().file);
}

INSTANTIATE_TEST_SUITE_P(
    Of, AFirmwareVersion,
    ::testing::Values(Reading{{"TwoBytes"}, {0xa3, 0x01}, "1a3", {"1a3"}},
                      Reading{{"OneByte"}, {0x0c}, "c", {"c"}},
                      Reading{{"ThreeBytes"}, {0x01, 0x02, 0x03}, "30201", {"30201"}},
                      Reading{{"FourBytes"}, {0xef, 0xcd, 0xab, 0x89}, "89abcdef", {"89abcdef"}},
                      Reading{{"NoBytes"}, {}, "0", {}}, Reading{{"Zero"}, {0, 0}, "0", {}}),
    named);

TEST_F(AConnectedRemote, KeepsItsVersionOverAnAnswerOfFiveBytes)
{
    letItBeRead();
    box.remote().setVersionBytes({1, 2, 3, 4, 5});
    ASSERT_TRUE(box.pass(10801s));

    EXPECT_LOG(box, ERROR, "main", "Read fw version: invalid response");
    EXPECT_THAT(box.files().course(kVersion), ElementsAre("1a3"));
    EXPECT_EQ(box.files().writes(kVersion), 2U) << "written again with the one that is known";
}

TEST_F(AConnectedRemote, LosesItsVersionOverAReadingThatFails)
{
    letItBeRead();
    box.sim().bend(
        Bend::error("ReadValue", "org.bluez.Error.Failed", "busy").on(box.pathOf(vexasim::uuid::kVersion)));
    ASSERT_TRUE(box.pass(10801s));

    EXPECT_LOG(box, ERROR, "Bluez", busError("org.bluez.Error.Failed", "busy"));
    EXPECT_LOG(box, ERROR, "Bluez", "Empty variant");
    EXPECT_LOG(box, ERROR, "Bluez", "Not an array");
    EXPECT_LOG(box, DEBUG, "main", "rc fw version: 0");
    EXPECT_EQ(box.content(kVersion), "1a3\n");
    EXPECT_EQ(box.files().writes(kVersion), 1U);
    // An update is refused until a later reading succeeds.
    box.linkFirmware("/nowhere");
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, WARN, "main", "Update canceled: invalid state: battery: 80% version: 0");
}

// --- what the remote may lack ---

vexasim::RemoteOptions without(bool vexasim::RemoteOptions::*service)
{
    vexasim::RemoteOptions remote;
    remote.*service = false;
    return remote;
}

class ARemoteWithoutABatteryService : public AConnectedRemote
{
protected:
    ARemoteWithoutABatteryService() : AConnectedRemote(without(&vexasim::RemoteOptions::batteryService)) {}
};

TEST_F(ARemoteWithoutABatteryService, IsDueToBeReadAtEveryPassAndNeverRead)
{
    ASSERT_TRUE(box.pass(16s));
    ASSERT_TRUE(box.pass());
    ASSERT_TRUE(box.pass(24h));

    EXPECT_EQ(box.countLog(DEBUG, "main", kShouldRead), 3U);
    EXPECT_EQ(readings(), 0U);
    EXPECT_FALSE(box.exists(kBattery));
    EXPECT_FALSE(box.exists(kVersion));
    EXPECT_EQ(box.content("bluetooth_status"), "connected\n");
    box.linkFirmware("/nowhere");
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, WARN, "main", "Update canceled: invalid state: battery: 0% version: 0");
}

class ARemoteWithoutAVersion : public AConnectedRemote
{
protected:
    ARemoteWithoutAVersion() : AConnectedRemote(without(&vexasim::RemoteOptions::vendorService)) {}
};

TEST_F(ARemoteWithoutAVersion, StillHasItsBatteryRead)
{
    letItBeRead();

    EXPECT_EQ(box.content(kBattery), "80\n");
    EXPECT_FALSE(box.exists(kVersion));
    EXPECT_THAT(box.busCalls(), ElementsAre(kBatteryCall));
}

} // namespace

} // namespace kit
