// SPDX-License-Identifier: MIT
// How an idle pass reacts to the flags, the firmware link and the remote's state.

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
using ::testing::IsEmpty;
using vexasim::Bend;

namespace
{

const std::string kRemove =
    "hci0 Adapter1.RemoveDevice (objectpath '/org/bluez/hci0/dev_C0_FF_EE_00_00_01',)";
const std::string kFlag = "Pairing flag set, transiting to Pair";
const std::string kTakePair = "REMOVE /tmp/bluetooth_pair";
const std::string kTakeReset = "REMOVE /tmp/bluetooth_reset";
const std::string kTakeLink = "REMOVE: /tmp/bluetooth_rc_fw";
const std::string kTryToConnect = "Trying to connect to C0:FF:EE:00:00:01";
const std::string kRemoving = "Removing failed to pair device";
const std::string kNothing = "Do Action_eDoNothing";

// --- no remote ---

class ABoxWithoutARemote : public AtRest
{
protected:
    ABoxWithoutARemote() : AtRest(noRemote()) {}
    void SetUp() override { startAtRest(); }
};

struct Flags : NamedCase {
    const char* pair; ///< what the file holds; null: no such flag
    const char* reset;
};

class ABoxWithFlags : public ABoxWithoutARemote, public ::testing::WithParamInterface<Flags>
{
};

TEST_P(ABoxWithFlags, TakesThemInOnePassAndPairsInTheNext)
{
    const std::size_t writes = box.files().writes("bluetooth_status");
    const auto& [pair, reset] = std::pair(GetParam().pair, GetParam().reset);
    if (pair != nullptr) {
        box.writeText("bluetooth_pair", pair);
    }
    if (reset != nullptr) {
        box.writeText("bluetooth_reset", reset);
    }
    ASSERT_TRUE(box.pass());

    EXPECT_TRUE(pair == nullptr || box.awaitLog(WARN, "main", kTakePair));
    EXPECT_TRUE(reset == nullptr || box.awaitLog(WARN, "main", kTakeReset));
    EXPECT_LOG(box, INFO, "main", kFlag);
    EXPECT_EQ(box.countLog(INFO, "main", kFlag), 1U);
    EXPECT_FALSE(box.exists("bluetooth_pair"));
    EXPECT_FALSE(box.exists("bluetooth_reset"));
    EXPECT_EQ(box.files().writes("bluetooth_status"), writes) << "nothing is published in that pass";
    EXPECT_NO_LOG(box, DEBUG, "main", "Pairing...");
    box.clock().advance(500ms);
    EXPECT_LOG(box, DEBUG, "main", "Pairing...");
}

INSTANTIATE_TEST_SUITE_P(Named, ABoxWithFlags,
                         ::testing::Values(Flags{{"Pair"}, "", nullptr},
                                           Flags{{"PairThatHoldsText"}, "no, don't\n", nullptr},
                                           Flags{{"Reset"}, nullptr, ""}, Flags{{"PairAndReset"}, "", ""}),
                         named);

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
    ASSERT_EQ(target.size(), 4095U); // the longest that the kernel takes
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

// --- a remote that is connected ---

class ABoxWithAConnectedRemote : public AtRest
{
protected:
    ABoxWithAConnectedRemote() : AtRest(pairedRemote()) {}
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

TEST_F(ABoxWithAConnectedRemote, LeavesItAloneForAnHourAfterItHasGone)
{
    loseLink();
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, TRACE, "main", kNothing);
    EXPECT_TRUE(box.awaitStatus("disconnected"));
    ASSERT_TRUE(box.pass(3599999999us));
    EXPECT_THAT(box.busCalls(), IsEmpty());
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, INFO, "main", kTryToConnect);
    EXPECT_THAT(box.busCalls(), ElementsAre(kConnect));
}

// --- a remote that is paired and away; the hour began at the clock's time ---

class ARemoteThatIsPairedAndAway : public AtRest
{
protected:
    ARemoteThatIsPairedAndAway() : AtRest(pairedRemote()) {}
    void SetUp() override { startDisconnectedAtRest(); }

    void expectNoConnection()
    {
        EXPECT_NO_LOG(box, INFO, "main", kTryToConnect);
        EXPECT_THAT(box.busCalls({"Connect"}), IsEmpty());
    }

    void refuseConnections() { box.sim().bend(Bend::error("Connect", "org.bluez.Error.Failed", "away")); }
};

TEST_F(ARemoteThatIsPairedAndAway, IsLeftAloneForAnHourAndThenConnected)
{
    ASSERT_TRUE(box.pass(1800s));
    ASSERT_TRUE(box.pass(1799999999us));
    expectNoConnection();
    EXPECT_EQ(box.statusCourse().back(), "disconnected");
    const std::size_t writes = box.files().writes("bluetooth_status");
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, INFO, "main", kTryToConnect);
    EXPECT_THAT(box.busCalls(), ElementsAre(kConnect));
    EXPECT_THAT(box.statusCourse(), ElementsAre("init", "disconnected", "connecting"));
    EXPECT_EQ(box.files().writes("bluetooth_status"), writes + 1) << "\"connecting\" alone";
    ASSERT_LOG(box, DEBUG, "main", "VEXA RC services resolved status changed: resolved");
    ASSERT_TRUE(box.pass());
    EXPECT_TRUE(box.awaitStatus("connected"));
}

TEST_F(ARemoteThatIsPairedAndAway, IsLeftAloneForAnotherHourAfterAConnectThatFailed)
{
    refuseConnections();
    ASSERT_TRUE(box.pass(3600s));
    EXPECT_LOG(box, ERROR, "Bluez", busError("org.bluez.Error.Failed", "away"));
    ASSERT_TRUE(box.pass()); // restarts the hour
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
    settle();
    EXPECT_TRUE(box.awaitStatus("connected"));
    loseLink();
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
    ASSERT_LOG(box, DEBUG, "main", "RC found VEXA RC : " + kRemote);
    settle(); // begins a new hour
    ASSERT_TRUE(box.pass(1800s));

    expectNoConnection();
}

TEST_F(ARemoteThatIsPairedAndAway, KeepsItsHourWhenAnotherDeviceIsRemoved)
{
    ASSERT_TRUE(box.pass(1800s));
    announceOther("TV");
    box.sim().removeObject(kOther);
    settle(1800s);

    EXPECT_LOG(box, INFO, "main", kTryToConnect);
    EXPECT_THAT(box.busCalls({"Connect"}), ElementsAre(kConnect));
}

TEST_F(ARemoteThatIsPairedAndAway, LeavesItsHourToTheOneThatReplacesIt)
{
    box.sim().bend(Bend::answer("Connect", g_variant_new("()")));
    ASSERT_TRUE(box.pass(1800s));
    announceOther("VEXA RC 2", true);
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

// --- a remote that is known and not paired ---

class ARemoteThatIsKnownAndNotPaired : public AtRest
{
protected:
    void SetUp() override
    {
        startAtRest();
        box.sim().announce(box.remote().normal());
        ASSERT_LOG(box, DEBUG, "main", "RC found VEXA RC : " + kRemote);
        ASSERT_TRUE(box.awaitEvents());
        box.sim().clearCalls();
    }
};

TEST_F(ARemoteThatIsKnownAndNotPaired, IsRemoved)
{
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, WARN, "main", kRemoving);
    EXPECT_THAT(box.busCalls(), ElementsAre(kRemove));
    EXPECT_LOG(box, DEBUG, "main", "Device: - " + kRemote);
    ASSERT_TRUE(box.pass());
    EXPECT_EQ(box.statusCourse().back(), "no device");
}

TEST_F(ARemoteThatIsKnownAndNotPaired, IsRemovedAlthoughTheFlagAsksToPair)
{
    box.setFlag("pair");
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, WARN, "main", kTakePair);
    EXPECT_LOG(box, WARN, "main", kRemoving);
    EXPECT_LOG(box, DEBUG, "main", "Device: - " + kRemote);
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
    const std::size_t writes = box.files().writes("bluetooth_status");
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, ERROR, "Bluez", busError("org.bluez.Error.Failed", "busy"));
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, DEBUG, "main", "Device: - " + kRemote);
    EXPECT_THAT(box.busCalls(), ElementsAre(kRemove, kRemove));
    EXPECT_EQ(box.files().writes("bluetooth_status"), writes) << "nothing is published in such a pass";
}

TEST_F(ARemoteThatIsKnownAndNotPaired, IsRemovedUnderTheLock)
{
    box.sim().bend(Bend::late("RemoveDevice", kLateAnswer));
    box.clock().advance(500ms);

    expectHandlersToWaitFor("RemoveDevice");
}

TEST_F(ABoxWithoutARemote, KeepsAnUnpairedRemoteThatItHasNoAdapterFor)
{
    box.sim().addObject("/org/bluez/hci7/dev_C0_FF_EE_00_00_07",
                        deviceObject("VEXA RC", "C0:FF:EE:00:00:07", false, false));
    box.sim().removeAdapter();
    ASSERT_TRUE(box.awaitEvents());
    box.sim().clearCalls();
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, WARN, "main", kRemoving);
    EXPECT_THAT(box.busCalls(), IsEmpty());
}

} // namespace

} // namespace kit
