// SPDX-License-Identifier: MIT
// Whether an offered image is sent to the remote at all, and what each outcome leaves behind.

#include <gmock/gmock.h>

#include "tests/daemon/UpdateStory.h"
#include "tests/kit/NamedCase.h"
#include "tests/kit/Objects.h"
#include "tests/kit/TrueTime.h"

namespace kit
{

using std::chrono_literals::operator""s;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace
{

const std::string kOther = "/org/bluez/hci0/dev_C0_FF_EE_00_00_0A";
constexpr const char* kVersionFile = "bluetooth_rc_fw_version";

class AnOfferedImage : public UpdateStory
{
protected:
    void expectCanceled(const Lines& log)
    {
        ASSERT_TRUE(ends("canceled"));
        ASSERT_TRUE(idlesWith("connected"));
        EXPECT_THAT(course(), ElementsAre("connected", "rc_fw_update_canceled", "connected"));
        EXPECT_THAT(updateLog(), ElementsAreArray(log));
        EXPECT_THAT(exchange(), IsEmpty());
        EXPECT_FALSE(box.exists("bluetooth_rc_fw"));
        EXPECT_TRUE(box.exists("image.bin")); // the link goes, not the image
    }

    /// Adds a device other than the remote: not on the air, but known to BlueZ.
    void announceOther(const std::string& name)
    {
        box.sim().addObject(kOther, deviceObject(name, "C0:FF:EE:00:00:0A", true, true));
    }

    std::string announceService(const std::string& name, const std::string& uuid)
    {
        box.sim().addObject(kOther + "/" + name, serviceObject(uuid, kOther));
        return kOther + "/" + name;
    }

    std::string announceCharacteristic(const std::string& service, const std::string& name,
                                       const std::string& uuid)
    {
        box.sim().addObject(service + "/" + name, characteristicObject(uuid, service));
        return service + "/" + name;
    }

    void answerReads(const std::string& path, const vexasim::Bytes& bytes)
    {
        box.sim().bend(
            vexasim::Bend::answer("ReadValue", g_variant_new("(@ay)", vexasim::Variant::bytes(bytes).get()))
                .on(path));
    }
};

const Lines kLinkTaken = {"D Firmware symlink found: /tmp/image.bin", "W REMOVE: /tmp/bluetooth_rc_fw"};

// --- the state of the remote ---

struct Refusal : NamedCase {
    std::uint8_t battery;
    std::uint16_t version;
    std::string state; ///< as logged
};

class AnImageForARemote : public AnOfferedImage, public ::testing::WithParamInterface<Refusal>
{
};

TEST_P(AnImageForARemote, IsRefused)
{
    ASSERT_TRUE(remoteIsRead(GetParam().battery, GetParam().version));
    const auto version = box.content(kVersionFile);

    offer(newerImage(5));

    expectCanceled(kLinkTaken + Lines{"W Update canceled: invalid state: " + GetParam().state});
    EXPECT_EQ(box.content(kVersionFile), version);
}

INSTANTIATE_TEST_SUITE_P(
    Update, AnImageForARemote,
    ::testing::Values(Refusal{{"WithABatteryAt0"}, 0, 0x1a3, "battery: 0% version: 1a3"},
                      Refusal{{"WithABatteryAt15"}, 15, 0x1a3, "battery: 15% version: 1a3"},
                      Refusal{{"WithABatteryAt101"}, 101, 0x1a3, "battery: 101% version: 1a3"},
                      Refusal{{"WithABatteryAt255"}, 255, 0x1a3, "battery: 255% version: 1a3"},
                      Refusal{{"OfUnknownVersion"}, 80, 0, "battery: 80% version: 0"}),
    named);

TEST_F(AnOfferedImage, IsRefusedBeforeTheFirstReading)
{
    ASSERT_TRUE(box.startConnected());

    offer(newerImage(5));

    expectCanceled(kLinkTaken + Lines{"W Update canceled: invalid state: battery: 0% version: 0"});
    EXPECT_FALSE(box.exists(kVersionFile));
}

class AnImageForABattery : public AnOfferedImage, public ::testing::WithParamInterface<int>
{
};

TEST_P(AnImageForABattery, IsSent)
{
    ASSERT_TRUE(remoteIsRead(static_cast<std::uint8_t>(GetParam())));

    offer(newerImage(5));

    ASSERT_TRUE(ends("succeed"));
    EXPECT_LOG(box, INFO, "main", "Firmware updated");
}

INSTANTIATE_TEST_SUITE_P(At, AnImageForABattery, ::testing::Values(16, 100));

// --- the version of the image ---

class AnImageOfVersion : public AnOfferedImage, public ::testing::WithParamInterface<int>
{
};

TEST_P(AnImageOfVersion, IsUnnecessary)
{
    ASSERT_TRUE(remoteIsRead());
    FirmwareImage image = newerImage(5);
    image.version = static_cast<std::uint16_t>(GetParam());

    offer(image);

    expectCanceled(logOfStart(image) + Lines{"W RC update is unnecessary"});
    EXPECT_EQ(box.content(kVersionFile), "1a3\n");
}

// The same, one below, and one that is greater only if bytes are swapped.
INSTANTIATE_TEST_SUITE_P(Number, AnImageOfVersion, ::testing::Values(0x1a3, 0x1a2, 0x0f, 0));

class ARemoteWithALongVersion : public AnOfferedImage
{
};

TEST_F(ARemoteWithALongVersion, IsNewerThanAnyImage)
{
    box.remote().setBattery(80);
    box.remote().setVersionBytes({0x00, 0x00, 0x01});
    ASSERT_TRUE(box.startConnected());
    box.clock().advance(20s);
    ASSERT_LOG(box, DEBUG, "main", "rc fw version: 10000");
    FirmwareImage image = newerImage(5);
    image.version = 0xffff;

    offer(image);

    expectCanceled(logOfStart(image) + Lines{"W RC update is unnecessary"});
}

// --- the file ---

TEST_F(AnOfferedImage, IsUnnecessaryIfItsHeaderIsCutOff)
{
    ASSERT_TRUE(remoteIsRead());
    box.writeText("short.bin", "eleven byte");

    box.linkFirmware("/tmp/short.bin");

    ASSERT_TRUE(ends("canceled"));
    ASSERT_TRUE(idlesWith("connected"));
    EXPECT_THAT(updateLog(), ElementsAre("D Firmware symlink found: /tmp/short.bin",
                                         "W REMOVE: /tmp/bluetooth_rc_fw", "W RC update is unnecessary"));
}

TEST_F(AnOfferedImage, IsUnnecessaryIfTheRemoteWasReplacedByOneWithoutAnUpdateSwitch)
{
    ASSERT_TRUE(remoteIsRead());
    announceOther("VEXA RC 2");
    const std::string battery = announceService("service0001", vexasim::uuid::kBatteryService);
    answerReads(announceCharacteristic(battery, "char0002", vexasim::uuid::kBatteryLevel), {80});
    const std::string vendor = announceService("service0004", vexasim::uuid::kVendorService);
    answerReads(announceCharacteristic(vendor, "char0005", vexasim::uuid::kVersion), {0x77});
    ASSERT_TRUE(box.awaitEvents());
    box.clock().advance(20s);
    ASSERT_LOG(box, DEBUG, "main", "rc fw version: 77");

    offer(newerImage(5));

    expectCanceled(kLinkTaken + Lines{"W RC update is unnecessary"});
}

TEST_F(AnOfferedImage, IsSentByWayOfTheUpdateSwitchThatWasAnnouncedLast)
{
    ASSERT_TRUE(remoteIsRead());
    announceOther("TV"); // not even of the remote
    const std::string service = announceService("service0001", vexasim::uuid::kVendorService);
    const std::string last = announceCharacteristic(service, "char0002", vexasim::uuid::kSwitch);
    announceCharacteristic(service, "char0003",
                           "0000FFD1-0000-1000-8000-00805F9B34FB"); // in upper case: none
    ASSERT_TRUE(box.awaitEvents());

    offer(newerImage(5));

    ASSERT_TRUE(ends("failed")); // nothing is behind it
    EXPECT_LOG(box, ERROR, "RcuOtaUpdater", "Write RESET failed");
    EXPECT_EQ(box.sim().calls("WriteValue", last).size(), 1U);
    EXPECT_EQ(box.sim().calls("WriteValue").size(), 1U);
}

struct Lack : NamedCase {
    std::function<void(Box&)> arrange;
};

class ABoxThatLacks : public AnOfferedImage, public ::testing::WithParamInterface<Lack>
{
};

TEST_P(ABoxThatLacks, MakesAnImageUnnecessary)
{
    ASSERT_TRUE(remoteIsRead());
    GetParam().arrange(box);
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.awaitPasses(2)); // the second of them begins after the change

    offer(newerImage(5));

    expectCanceled(kLinkTaken + Lines{"W RC update is unnecessary"});
}

void removeSwitch(Box& box)
{
    box.sim().removeObject(box.pathOf(vexasim::uuid::kSwitch));
}

void removeAddress(Box& box)
{
    box.sim().setProperty(box.remotePath(), "org.bluez.Device1", "Address", g_variant_new_string(""));
}

INSTANTIATE_TEST_SUITE_P(Its, ABoxThatLacks,
                         ::testing::Values(Lack{{"UpdateSwitch"}, removeSwitch},
                                           Lack{{"RemotesAddress"}, removeAddress},
                                           Lack{{"Adapter"}, [](Box& box) { box.loseAdapterAlone(); }}),
                         named);

TEST_F(AnOfferedImage, IsRefusedWithoutARemote)
{
    ASSERT_TRUE(remoteIsRead());
    box.sim().removeAdapter(); // and with it everything that was known through it
    ASSERT_TRUE(box.awaitStatus("no device"));

    offer(newerImage(5));

    ASSERT_TRUE(ends("canceled"));
    ASSERT_TRUE(idlesWith("no device"));
    EXPECT_THAT(updateLog(), ElementsAreArray(kLinkTaken + Lines{"W Update canceled: invalid state: "
                                                                 "battery: 0% version: 0"}));
}

// --- attempts ---

TEST_F(AnOfferedImage, IsServedOnceForEachLink)
{
    ASSERT_TRUE(remoteIsRead());
    FirmwareImage first = newerImage(5);
    first.version = 0x1a2;
    FirmwareImage second = newerImage(5);
    second.version = 0x1a3;

    offer(first, "first.bin");
    ASSERT_TRUE(ends("canceled"));
    offer(second, "second.bin"); // while the word of the first is still published
    ASSERT_TRUE(box.log().awaitCount(isLog(WARN, "main", "RC update is unnecessary"), 2));
    ASSERT_TRUE(idlesWith("connected"));
    ASSERT_TRUE(box.awaitPasses(2));

    EXPECT_THAT(updateLog(),
                ElementsAreArray(logOfStart(first, "first.bin") + Lines{"W RC update is unnecessary"} +
                                 logOfStart(second, "second.bin") + Lines{"W RC update is unnecessary"}));
}

TEST_F(AnOfferedImage, ReplacesThePublishedVersionWhenItIsInTheRemote)
{
    ASSERT_TRUE(remoteIsRead());
    EXPECT_EQ(box.content(kVersionFile), "1a3\n");

    offer(newerImage(5));
    ASSERT_TRUE(ends("succeed"));
    EXPECT_LOG(box, INFO, "main", "Firmware updated");
    ASSERT_TRUE(box.files().awaitGone(kVersionFile));
    ASSERT_TRUE(idlesWith("disconnected"));
    EXPECT_THAT(course(), ElementsAreArray(words({100}, {"rc_fw_update_succeed", "disconnected"})));

    box.setFlag("pair"); // asks for the connection at once instead of in an hour
    ASSERT_TRUE(box.awaitStatus("connected"));
    box.clock().advance(20s);
    ASSERT_LOG(box, DEBUG, "main", "rc fw version: 1a4");
    EXPECT_TRUE(box.files().await(kVersionFile, "1a4"));
}

// --- the outcome ---

struct Outcome : NamedCase { ///< named by its word
    std::uint16_t version;   ///< of the image
    bool refused;            ///< whether the remote refuses the switch
    const char* idle;
};

class AnOutcome : public AnOfferedImage, public ::testing::WithParamInterface<Outcome>
{
};

TEST_P(AnOutcome, StaysInSightForThreeSeconds)
{
    ASSERT_TRUE(remoteIsRead());
    if (GetParam().refused) {
        refused(vexasim::UpdateStep::Switch)(box);
    }
    FirmwareImage image = newerImage(5);
    image.version = GetParam().version;

    offer(image);
    ASSERT_TRUE(ends(GetParam().name));
    ASSERT_TRUE(idlesWith(GetParam().idle));

    const auto moments = box.files().moments("bluetooth_status");
    ASSERT_GE(moments.size(), 2U);
    const auto& outcome = moments[moments.size() - 2];
    EXPECT_EQ(outcome.content, std::string("rc_fw_update_") + GetParam().name);
    EXPECT_THAT(microseconds(moments.back().time) - microseconds(outcome.time), isAbout(3s));
}

INSTANTIATE_TEST_SUITE_P(ThatIs, AnOutcome,
                         ::testing::Values(Outcome{{"succeed"}, 0x1a4, false, "disconnected"},
                                           Outcome{{"failed"}, 0x1a4, true, "connected"},
                                           Outcome{{"canceled"}, 0x1a3, false, "connected"}),
                         named);

} // namespace

} // namespace kit
