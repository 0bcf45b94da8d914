// SPDX-License-Identifier: MIT
// What an idle pass makes of the flags, the firmware link and the remote's state.

#include "tests/kit/Box.h"
#include "tests/kit/Objects.h"

#include <gmock/gmock.h>

#include <filesystem>

using namespace vexabox;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using vexasim::Bend;

namespace
{

const std::string kDevice = "hci0/dev_C0_FF_EE_00_00_01";
const std::string kConnect = kDevice + " Device1.Connect ()";
const std::string kRemove =
    "hci0 Adapter1.RemoveDevice (objectpath '/org/bluez/hci0/dev_C0_FF_EE_00_00_01',)";
const std::string kFlag = "Pairing flag set, transiting to Pair";
const std::string kTakePair = "REMOVE /tmp/bluetooth_pair";
const std::string kTakeReset = "REMOVE /tmp/bluetooth_reset";
const std::string kTakeLink = "REMOVE: /tmp/bluetooth_rc_fw";
const std::string kTryToConnect = "Trying to connect to C0:FF:EE:00:00:01";
const std::string kRemoving = "Removing failed to pair device";
const std::string kNothing = "Do Action_eDoNothing";
const std::string kOther = "/org/bluez/hci0/dev_C0_FF_EE_00_00_0A";

// ---- no remote

class ABoxWithoutARemote : public InABox
{
protected:
    ABoxWithoutARemote() : InABox(noRemote()) {}
    void SetUp() override { startAtRest(); }
};

TEST_F(ABoxWithoutARemote, PairsOnTheFlag)
{
    box.setFlag("pair");
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, WARN, "main", kTakePair);
    EXPECT_LOG(box, INFO, "main", kFlag);
    EXPECT_FALSE(box.exists("bluetooth_pair"));
    box.clock().advance(500ms);
    EXPECT_LOG(box, DEBUG, "main", "Pairing...");
}

TEST_F(ABoxWithoutARemote, DoesntPublishInThePassThatTakesAFlag)
{
    const std::size_t writes = box.files().writes("bluetooth_status");
    box.setFlag("pair");
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(box.files().writes("bluetooth_status"), writes);
    EXPECT_EQ(box.log().count(isLog(INFO, "main", kFlag)), 1U);
}

TEST_F(ABoxWithoutARemote, TakesAFlagWhateverItHolds)
{
    box.writeText("bluetooth_pair", "no, don't\n");
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, INFO, "main", kFlag);
}

TEST_F(ABoxWithoutARemote, PairsOnTheResetFlagWithTheSameWords)
{
    box.setFlag("reset");
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, WARN, "main", kTakeReset);
    EXPECT_LOG(box, INFO, "main", kFlag);
    EXPECT_FALSE(box.exists("bluetooth_reset"));
}

TEST_F(ABoxWithoutARemote, TakesBothFlagsInOnePass)
{
    box.setFlag("pair");
    box.setFlag("reset");
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, WARN, "main", kTakePair);
    EXPECT_LOG(box, WARN, "main", kTakeReset);
    EXPECT_LOG(box, INFO, "main", kFlag);
    EXPECT_FALSE(box.exists("bluetooth_pair"));
    EXPECT_FALSE(box.exists("bluetooth_reset"));
}

TEST_F(ABoxWithoutARemote, LeavesTheFirmwareLinkToThePassAfterAResetsPairing)
{
    box.setFlag("reset");
    box.linkFirmware("/nowhere");
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, INFO, "main", kFlag);
    box.clock().advance(500ms);
    ASSERT_TRUE(box.awaitWaitAt("scanning"));
    EXPECT_TRUE(box.exists("bluetooth_rc_fw"));
    box.clock().advance(60s);

    EXPECT_LOG(box, INFO, "main", "Transiting to Idle...");
    EXPECT_LOG(box, DEBUG, "main", "Firmware symlink found: /nowhere");
    EXPECT_LOG(box, WARN, "main", kTakeLink);
}

TEST_F(ABoxWithoutARemote, LosesAPairFlagThatComesWithAFirmwareLink)
{
    box.setFlag("pair");
    box.linkFirmware("/nowhere");
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, WARN, "main", kTakePair);
    EXPECT_LOG(box, DEBUG, "main", "Firmware symlink found: /nowhere");
    EXPECT_LOG(box, WARN, "main", kTakeLink);
    EXPECT_TRUE(box.awaitStatus("rc_fw_update_canceled"));
    EXPECT_FALSE(box.exists("bluetooth_pair"));
    EXPECT_FALSE(box.exists("bluetooth_rc_fw"));
    ASSERT_TRUE(box.pass());
    EXPECT_NO_LOG(box, INFO, "main", kFlag);
}

TEST_F(ABoxWithoutARemote, RemovesTheLinkAndNotItsTarget)
{
    box.writeText("image", "an image\n");
    box.linkFirmware("/tmp/image");
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, DEBUG, "main", "Firmware symlink found: /tmp/image");
    EXPECT_EQ(box.content("image"), "an image\n");
}

TEST_F(ABoxWithoutARemote, LeavesAFirmwareFileAloneThatIsNoLink)
{
    box.writeText("bluetooth_rc_fw", "an image\n");
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, TRACE, "main", kNothing);
    EXPECT_EQ(box.content("bluetooth_rc_fw"), "an image\n");
}

TEST_F(ABoxWithoutARemote, TakesALinkWhoseTargetIsAsLongAsItCanBe)
{
    std::string target;
    while (target.size() < 4095) {
        target += "/" + std::string(std::min<std::size_t>(200, 4094 - target.size()), 'x');
    }
    ASSERT_EQ(target.size(), 4095U); // the kernel takes no longer one
    box.linkFirmware(target);
    ASSERT_TRUE(box.pass());

    EXPECT_TRUE(box.log().await(beginsLog(DEBUG, "main", "Firmware symlink found: /xxxx")));
    EXPECT_LOG(box, WARN, "main", kTakeLink);
    EXPECT_FALSE(box.exists("bluetooth_rc_fw"));
    EXPECT_TRUE(box.awaitStatus("rc_fw_update_canceled"));
}

TEST_F(ABoxWithoutARemote, TakesAFlagAgainAndAgainThatItCantRemove)
{
    std::filesystem::create_directories(box.file("bluetooth_reset/full"));
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, WARN, "main", kTakeReset);
    EXPECT_LOG(box, INFO, "main", kFlag);
    box.clock().advance(500ms);
    ASSERT_TRUE(box.awaitWaitAt("scanning"));
    box.clock().advance(60s);

    EXPECT_LOG(box, INFO, "main", "Transiting to Idle...");
    EXPECT_LOG(box, WARN, "main", kTakeReset);
    EXPECT_LOG(box, INFO, "main", kFlag);
}

// ---- a remote that is connected

class ABoxWithAConnectedRemote : public InABox
{
protected:
    ABoxWithAConnectedRemote() : InABox(pairedRemote()) {}
    void SetUp() override { startConnectedAtRest(); }
};

TEST_F(ABoxWithAConnectedRemote, SwallowsAPairFlag)
{
    box.setFlag("pair");
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, WARN, "main", kTakePair);
    EXPECT_LOG(box, TRACE, "main", kNothing);
    EXPECT_FALSE(box.exists("bluetooth_pair"));
    ASSERT_TRUE(box.pass());

    EXPECT_NO_LOG(box, INFO, "main", kFlag);
    EXPECT_THAT(box.busCalls(), IsEmpty());
    EXPECT_EQ(box.statusCourse().back(), "connected");
}

TEST_F(ABoxWithAConnectedRemote, PairsItAnewOnAReset)
{
    box.setFlag("reset");
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, INFO, "main", kFlag);
    box.clock().advance(500ms);

    EXPECT_LOG(box, INFO, "main", "VEXA RC C0:FF:EE:00:00:01 has been successfully paired");
}

TEST_F(ABoxWithAConnectedRemote, TakesNoActionInThePassInWhichItIsFoundAway)
{
    box.disconnectRemote();
    ASSERT_LOG(box, DEBUG, "main", "VEXA RC connection status changed: disconnected");
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, TRACE, "main", kNothing);
    EXPECT_TRUE(box.awaitStatus("disconnected"));
    EXPECT_THAT(box.busCalls(), IsEmpty());
}

TEST_F(ABoxWithAConnectedRemote, LeavesItAloneForAnHourAfterItHasGone)
{
    box.disconnectRemote();
    ASSERT_LOG(box, DEBUG, "main", "VEXA RC connection status changed: disconnected");
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass());
    ASSERT_TRUE(box.pass(3599999999us));
    EXPECT_THAT(box.busCalls(), IsEmpty());
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, INFO, "main", kTryToConnect);
    EXPECT_THAT(box.busCalls(), ElementsAre(kConnect));
}

// ---- a remote that is paired and away; the hour began with the clock's time

class ARemoteThatIsPairedAndAway : public InABox
{
protected:
    ARemoteThatIsPairedAndAway() : InABox(pairedRemote()) {}
    void SetUp() override { startDisconnectedAtRest(); }

    void expectNoConnection()
    {
        EXPECT_NO_LOG(box, INFO, "main", kTryToConnect);
        EXPECT_THAT(box.busCalls({"Connect"}), IsEmpty());
    }

    void refuseConnections() { box.sim().bend(Bend::error("Connect", "org.bluez.Error.Failed", "away")); }
};

TEST_F(ARemoteThatIsPairedAndAway, IsLeftAloneForAnHour)
{
    ASSERT_TRUE(box.pass(1800s));
    ASSERT_TRUE(box.pass(1799999999us));

    expectNoConnection();
    EXPECT_EQ(box.statusCourse().back(), "disconnected");
}

TEST_F(ARemoteThatIsPairedAndAway, IsConnectedAfterAnHour)
{
    ASSERT_TRUE(box.pass(3600s));

    EXPECT_LOG(box, INFO, "main", kTryToConnect);
    EXPECT_THAT(box.busCalls(), ElementsAre(kConnect));
    EXPECT_THAT(box.statusCourse(), ElementsAre("init", "disconnected", "connecting"));
    ASSERT_LOG(box, DEBUG, "main", "VEXA RC services resolved status changed: resolved");
    ASSERT_TRUE(box.pass());
    EXPECT_TRUE(box.awaitStatus("connected"));
}

TEST_F(ARemoteThatIsPairedAndAway, IsLeftAloneForAnotherHourAfterAConnectThatFailed)
{
    refuseConnections();
    ASSERT_TRUE(box.pass(3600s));
    EXPECT_LOG(box, ERROR, "Bluez", busError("org.bluez.Error.Failed", "away"));
    ASSERT_TRUE(box.pass()); // begins the hour anew
    EXPECT_TRUE(box.awaitStatus("disconnected"));
    ASSERT_TRUE(box.pass(3599999999us));
    EXPECT_THAT(box.busCalls(), ElementsAre(kConnect));
    ASSERT_TRUE(box.pass());

    EXPECT_THAT(box.busCalls(), ElementsAre(kConnect, kConnect));
}

TEST_F(ARemoteThatIsPairedAndAway, WaitsItsHourWhateverTheWallClockDoes)
{
    box.clock().stepWallClock(3h);
    ASSERT_TRUE(box.pass());
    box.clock().stepWallClock(-24h);
    ASSERT_TRUE(box.pass());

    expectNoConnection();
}

TEST_F(ARemoteThatIsPairedAndAway, IsConnectedAtOnceOnThePairFlag)
{
    box.setFlag("pair");
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, WARN, "main", kTakePair);
    EXPECT_LOG(box, INFO, "main", kTryToConnect);
    EXPECT_THAT(box.busCalls(), ElementsAre(kConnect));
    EXPECT_THAT(box.statusCourse(), ElementsAre("init", "disconnected", "connecting"));
    EXPECT_NO_LOG(box, INFO, "main", kFlag);
}

TEST_F(ARemoteThatIsPairedAndAway, BeginsItsHourAnewBehindThePairFlag)
{
    refuseConnections();
    ASSERT_TRUE(box.pass(1800s));
    box.setFlag("pair");
    ASSERT_TRUE(box.pass()); // connects, and clears the hour
    ASSERT_TRUE(box.pass()); // begins it
    ASSERT_TRUE(box.pass(3599999999us));

    EXPECT_THAT(box.busCalls(), ElementsAre(kConnect));
}

TEST_F(ARemoteThatIsPairedAndAway, EndsItsHourByComingBackByItself)
{
    ASSERT_TRUE(box.pass(1800s));
    box.connectRemote();
    ASSERT_LOG(box, DEBUG, "main", "VEXA RC connection status changed: connected");
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass());
    EXPECT_TRUE(box.awaitStatus("connected"));
    box.disconnectRemote();
    ASSERT_LOG(box, DEBUG, "main", "VEXA RC connection status changed: disconnected");
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass()); // begins a new hour
    ASSERT_TRUE(box.pass(1800s));

    expectNoConnection();
}

TEST_F(ARemoteThatIsPairedAndAway, EndsItsHourByBeingForgotten)
{
    ASSERT_TRUE(box.pass(1800s));
    const std::shared_ptr<vexasim::Peripheral> remote = box.remote().normal();
    box.sim().removePeripheral(remote);
    ASSERT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc");
    remote->setPresent(true);
    remote->setPaired(true);
    box.sim().addPeripheral(remote);
    ASSERT_LOG(box, DEBUG, "main", "RC found VEXA RC : /org/bluez/" + kDevice);
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass()); // begins a new hour
    ASSERT_TRUE(box.pass(1800s));

    expectNoConnection();
}

TEST_F(ARemoteThatIsPairedAndAway, KeepsItsHourWhenAnotherDeviceIsRemoved)
{
    ASSERT_TRUE(box.pass(1800s));
    box.sim().addObject(kOther, deviceObject("TV", "C0:FF:EE:00:00:0A", false, false));
    box.sim().removeObject(kOther);
    ASSERT_LOG(box, DEBUG, "main", "Device: - " + kOther);
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass(1800s));

    EXPECT_LOG(box, INFO, "main", kTryToConnect);
    EXPECT_THAT(box.busCalls({"Connect"}), ElementsAre(kConnect));
}

TEST_F(ARemoteThatIsPairedAndAway, LeavesItsHourToTheOneThatReplacesIt)
{
    box.sim().bend(Bend::answer("Connect", g_variant_new("()")));
    ASSERT_TRUE(box.pass(1800s));
    box.sim().addObject(kOther, deviceObject("VEXA RC 2", "C0:FF:EE:00:00:0A", true, false));
    ASSERT_LOG(box, DEBUG, "main", "RC found VEXA RC 2 : " + kOther);
    ASSERT_TRUE(box.awaitEvents());
    ASSERT_TRUE(box.pass(1800s));

    EXPECT_LOG(box, INFO, "main", "Trying to connect to C0:FF:EE:00:00:0A");
    EXPECT_THAT(box.busCalls({"Connect"}), ElementsAre("hci0/dev_C0_FF_EE_00_00_0A Device1.Connect ()"));
}

TEST_F(ARemoteThatIsPairedAndAway, IsPublishedAsConnectingBeforeTheCall)
{
    box.sim().bend(Bend::silence("Connect"));
    box.setFlag("pair");
    box.clock().advance(500ms);
    ASSERT_TRUE(box.sim().awaitCall("Connect", "", 1, kPatience));

    EXPECT_EQ(box.content("bluetooth_status"), "connecting\n");
}

TEST_F(ARemoteThatIsPairedAndAway, IsConnectedUnderTheLock)
{
    box.sim().bend(Bend::late("Connect", kLateAnswer));
    box.setFlag("pair");
    box.clock().advance(500ms);

    expectHandlersToWaitFor("Connect");
}

TEST_F(ARemoteThatIsPairedAndAway, HasNoStatusWrittenInThePassThatConnectsIt)
{
    const std::size_t writes = box.files().writes("bluetooth_status");
    ASSERT_TRUE(box.pass(3600s));

    EXPECT_EQ(box.files().writes("bluetooth_status"), writes + 1) << "\"connecting\" alone";
}

// ---- a remote that is known and not paired

class ARemoteThatIsKnownAndNotPaired : public InABox
{
protected:
    void SetUp() override
    {
        startAtRest();
        box.sim().announce(box.remote().normal());
        ASSERT_LOG(box, DEBUG, "main", "RC found VEXA RC : /org/bluez/" + kDevice);
        ASSERT_TRUE(box.awaitEvents());
        box.sim().clearCalls();
    }
};

TEST_F(ARemoteThatIsKnownAndNotPaired, IsRemoved)
{
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, WARN, "main", kRemoving);
    EXPECT_THAT(box.busCalls(), ElementsAre(kRemove));
    EXPECT_LOG(box, DEBUG, "main", "Device: - /org/bluez/" + kDevice);
    ASSERT_TRUE(box.pass());
    EXPECT_EQ(box.statusCourse().back(), "no device");
}

TEST_F(ARemoteThatIsKnownAndNotPaired, IsRemovedAlthoughTheFlagAsksToPair)
{
    box.setFlag("pair");
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, WARN, "main", kTakePair);
    EXPECT_LOG(box, WARN, "main", kRemoving);
    EXPECT_LOG(box, DEBUG, "main", "Device: - /org/bluez/" + kDevice);
    ASSERT_TRUE(box.pass());
    EXPECT_NO_LOG(box, INFO, "main", kFlag);

    box.setFlag("pair"); // a later one begins a pairing
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, INFO, "main", kFlag);
}

TEST_F(ARemoteThatIsKnownAndNotPaired, IsPairedOnAReset)
{
    box.setFlag("reset");
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, INFO, "main", kFlag);
    EXPECT_NO_LOG(box, WARN, "main", kRemoving);
}

TEST_F(ARemoteThatIsKnownAndNotPaired, IsRemovedAgainIfThatFailed)
{
    box.sim().bend(Bend::error("RemoveDevice", "org.bluez.Error.Failed", "busy").times(1));
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, ERROR, "Bluez", busError("org.bluez.Error.Failed", "busy"));
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, DEBUG, "main", "Device: - /org/bluez/" + kDevice);
    EXPECT_THAT(box.busCalls(), ElementsAre(kRemove, kRemove));
}

TEST_F(ARemoteThatIsKnownAndNotPaired, IsRemovedUnderTheLock)
{
    box.sim().bend(Bend::late("RemoveDevice", kLateAnswer));
    box.clock().advance(500ms);

    expectHandlersToWaitFor("RemoveDevice");
}

TEST_F(ARemoteThatIsKnownAndNotPaired, LeavesTheStatusAsItWas)
{
    box.sim().bend(Bend::error("RemoveDevice", "org.bluez.Error.Failed"));
    const std::size_t writes = box.files().writes("bluetooth_status");
    ASSERT_TRUE(box.pass());
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(box.files().writes("bluetooth_status"), writes);
}

TEST_F(ABoxWithoutARemote, KeepsAnUnpairedRemoteThatItHasNoAdapterFor)
{
    box.sim().addObject("/org/bluez/hci7/dev_C0_FF_EE_00_00_07",
                        deviceObject("VEXA RC", "C0:FF:EE:00:00:07", false, false));
    ASSERT_LOG(box, DEBUG, "main", "RC found VEXA RC : /org/bluez/hci7/dev_C0_FF_EE_00_00_07");
    ASSERT_TRUE(box.awaitEvents());
    box.sim().removeAdapter();
    ASSERT_LOG(box, DEBUG, "main", "Adapter: - /org/bluez/hci0");
    ASSERT_TRUE(box.awaitEvents());
    box.sim().clearCalls();
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, WARN, "main", kRemoving);
    EXPECT_THAT(box.busCalls(), IsEmpty());
}

} // namespace
