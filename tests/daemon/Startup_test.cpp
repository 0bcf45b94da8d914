// SPDX-License-Identifier: MIT
// From the first line of the log to the main loop: the adapter, and the five seconds for the remote.

#include <algorithm>
#include <gmock/gmock.h>

#include "tests/daemon/AtRest.h"
#include "tests/daemon/Pacing.h"
#include "tests/kit/TrueTime.h"

namespace kit
{

using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""us;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using vexasim::Bend;

namespace
{

const std::string kPower = "hci0 DBus.Properties.Set ('org.bluez.Adapter1', 'Powered', <true>)";
const std::string kAdapterFound = "Adapter 00:1A:7D:DA:71:13 found";
const std::string kRcFound = "RC C0:FF:EE:00:00:01 found";
const std::string kReconnect = "RC C0:FF:EE:00:00:01 is paired and disconnected. Trying to reconnect...";

BoxOptions withoutAdapter()
{
    BoxOptions options;
    options.simulator.adapters.clear();
    return options;
}

// Merges the repeats of a line that is logged again and again during a wait.
std::vector<std::string> withoutRepeats(std::vector<std::string> lines)
{
    lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    return lines;
}

const std::vector<std::string> kRemovals = {
    "W REMOVE /tmp/bluetooth_status", "W REMOVE /tmp/bluetooth_rc", "W REMOVE /tmp/bluetooth_rc_rssi",
    "W REMOVE /tmp/bluetooth_rc_battery", "W REMOVE /tmp/bluetooth_rc_fw_version"};

class AStart : public InABox
{
protected:
    using InABox::InABox;

    void expectStatus1At(const std::string& line)
    {
        box.startDaemon();
        ASSERT_LOG(box, DEBUG, "main", line);
        ASSERT_TRUE(box.files().await("bluetooth_status", "init"));
        box.interruptTwice();
        EXPECT_EQ(box.awaitExit(), Exit::with(1));
        EXPECT_EQ(box.content("bluetooth_status"), "init\n");
        EXPECT_EQ(box.countLog(WARN, "main", "Interrupt!"), 2U);
    }
};

// --- the log's first lines, with the logger's own defaults ---

class ABoxThatStarts : public InABox
{
protected:
    ABoxThatStarts() : InABox(BoxOptions{{}, {}}) {}
};

TEST_F(ABoxThatStarts, GreetsPowersItsAdapterAndGoesToTheMainLoop)
{
    ASSERT_TRUE(box.startAndSkipWait());

    EXPECT_EQ(box.log().records()[0].summary(),
              "I Logger for application \"VEXA\" was successfully initialized (level:DEBUG)");
    EXPECT_THAT(box.logOf("Bluez"),
                ElementsAre("D Bluez constructor", "D Initing Bluez..", "D Init Bluez completed"));
    std::vector<std::string> lines = withoutRepeats(box.logOf("main"));
    if (lines.front() == "D Waiting adapter...") {
        lines.erase(lines.begin()); // unless BlueZ was quicker
    }
    EXPECT_THAT(lines, ElementsAre("D Adapter: + /org/bluez/hci0", "I " + kAdapterFound, "I Adapter powered",
                                   "D Waiting RC...", "D process loop start"));
    EXPECT_THAT(box.busCalls(), ElementsAre(kPower));
    EXPECT_TRUE(box.awaitStatus("no device"));
    EXPECT_THAT(box.statusCourse(), ElementsAre("init", "no device"));
}

TEST_F(ABoxThatStarts, ColoursItsLogAndGivesTimeLevelAndLine)
{
    ASSERT_TRUE(box.startAndSkipWait());

    const std::vector<LogRecord> records = box.log().records();
    EXPECT_THAT(
        records[0].raw,
        MatchesRegex("\x1b\\[34m    [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} I Logger for application .*"));
    EXPECT_THAT(
        records[1].raw,
        MatchesRegex("\x1b\\[0m\x1b\\[0m    [0-9:]{8}\\.[0-9]{3} D \\[Bluez:[0-9]+\\] Bluez constructor"));
}

TEST_F(ABoxThatStarts, SaysNothingOfTheAddressOfAnAdapterThatHasNone)
{
    box.sim().dropProperty(box.sim().adapterPath(), "org.bluez.Adapter1", "Address");
    ASSERT_TRUE(box.startAndSkipWait());

    EXPECT_EQ(box.countLog(INFO, "main", "Adapter powered"), 1U);
    EXPECT_NO_LOG(box, INFO, "main", kAdapterFound);
    EXPECT_NO_LOG(box, INFO, "main", "Adapter  found");
}

TEST_F(ABoxThatStarts, AsksARefusingAdapterAgainWithoutAPause)
{
    constexpr int kRefusals = 20;
    box.sim().bend(Bend::error("Set", "org.bluez.Error.Failed", "no power").times(kRefusals));
    ASSERT_TRUE(box.startAndSkipWait());

    EXPECT_EQ(box.busCalls().size(), kRefusals + 1U);
    EXPECT_EQ(box.countLog(ERROR, "Bluez", busError("org.bluez.Error.Failed", "no power")),
              std::size_t{kRefusals});
    EXPECT_EQ(box.countLog(INFO, "main", kAdapterFound), kRefusals + 1U);
    EXPECT_EQ(box.countLog(INFO, "main", "Adapter powered"), 1U);
    // With a pause of half a second between them they would have taken ten seconds.
    const std::vector<vexasim::Call> calls = box.sim().calls("Set");
    EXPECT_LT(calls.back().timeUs - calls.front().timeUs, 5000000);
}

TEST_F(ABoxThatStarts, StopsInOrderOnAnInterruptWhileItsAdapterRefuses)
{
    // Each refusal is slow, so that the interrupt comes in the middle of one.
    box.sim().dropProperty(box.sim().adapterPath(), "org.bluez.Adapter1", "Powered");
    box.sim().bend(Bend::late("Set", kLateAnswer));
    box.startDaemon();
    ASSERT_LOG(box, ERROR, "Bluez",
               busError("org.freedesktop.DBus.Error.UnknownProperty", "No such property 'Powered'"));
    ASSERT_TRUE(box.sim().awaitCall("Set", "", 2, kPatience));
    EXPECT_TRUE(box.stops());

    EXPECT_LOG(box, WARN, "main", "Interrupt!");
    EXPECT_LOG(box, DEBUG, "main", "Waiting RC...");
    EXPECT_LOG(box, DEBUG, "main", "process loop start");
    EXPECT_NO_LOG(box, INFO, "main", "Adapter powered");
    EXPECT_THAT(box.statusCourse(), ElementsAre("init", kGone));
}

TEST_F(ABoxThatStarts, TakesTheFirstOfTwoAdapters)
{
    box.sim().addAdapter({"hci1", "00:1A:7D:DA:71:14", true});
    ASSERT_TRUE(box.startAndSkipWait());

    EXPECT_THAT(box.busCalls(), ElementsAre(kPower));
}

TEST_F(ABoxThatStarts, WaitsFiveSecondsForARemoteThatNeverComes)
{
    box.clock().stop();
    box.startDaemon();
    ASSERT_LOG(box, DEBUG, "main", "Waiting RC...");
    ASSERT_TRUE(box.program().awaitMainThreadInNextSleep());

    box.clock().advance(4999999us);
    EXPECT_TRUE(box.program().awaitMainThreadInNextSleep());
    EXPECT_TRUE(box.program().awaitMainThreadInNextSleep());
    EXPECT_NO_LOG(box, DEBUG, "main", "process loop start");
    EXPECT_THAT(box.statusCourse(), ElementsAre("init"));

    box.clock().advance(1us);
    EXPECT_LOG(box, DEBUG, "main", "process loop start");
}

// --- no adapter, no BlueZ, no bus ---

class ABoxWithoutAnAdapter : public AStart
{
protected:
    ABoxWithoutAnAdapter() : AStart(withoutAdapter()) {}

    LogPredicate waiting = isLog(DEBUG, "main", "Waiting adapter...");
};

TEST_F(ABoxWithoutAnAdapter, SaysAboutTwiceASecondThatItWaitsUntilOneIsPluggedIn)
{
    box.startDaemon();
    ASSERT_TRUE(box.log().awaitCount(waiting, 8));
    EXPECT_THAT(box.statusCourse(), ElementsAre("init"));
    EXPECT_THAT(box.busCalls(), IsEmpty());
    EXPECT_THAT(Pacing(arrivals(box, waiting)).medianUs(), isAbout(500ms));
    box.sim().addAdapter({});

    EXPECT_LOG(box, DEBUG, "main", "Adapter: + /org/bluez/hci0");
    EXPECT_LOG(box, INFO, "main", kAdapterFound);
    EXPECT_LOG(box, INFO, "main", "Adapter powered");
    EXPECT_LOG(box, DEBUG, "main", "Waiting RC...");
}

TEST_F(ABoxWithoutAnAdapter, StopsInOrderOnAnInterrupt)
{
    box.startDaemon();
    ASSERT_TRUE(box.log().awaitCount(waiting, 1));
    box.interrupt();

    EXPECT_EQ(box.awaitExit(), Exit::with(0));
    std::vector<std::string> expected = {"D Waiting adapter...", "W Interrupt!", "D Waiting RC...",
                                         "D process loop start"};
    expected.insert(expected.end(), kRemovals.begin(), kRemovals.end());
    EXPECT_EQ(withoutRepeats(box.logOf("main")), expected);
    EXPECT_THAT(box.statusCourse(), ElementsAre("init", kGone));
}

BoxOptions withoutBlueZ()
{
    BoxOptions options;
    options.simulator.startService = false;
    return options;
}

class ABoxWhoseBlueZIsLate : public InABox
{
protected:
    ABoxWhoseBlueZIsLate() : InABox(withoutBlueZ()) {}
};

TEST_F(ABoxWhoseBlueZIsLate, WaitsForItAndGoesOn)
{
    box.startDaemon();
    ASSERT_LOG(box, DEBUG, "Bluez", "Init Bluez completed");
    ASSERT_LOG(box, DEBUG, "main", "Waiting adapter...");
    box.sim().startService();

    EXPECT_LOG(box, DEBUG, "main", "Adapter: + /org/bluez/hci0");
    EXPECT_LOG(box, INFO, "main", "Adapter powered");
}

class ABoxWithoutABus : public InABox
{
};

TEST_F(ABoxWithoutABus, SaysSoAndStillStopsInOrder)
{
    box.sim().bus()->stop();
    box.startDaemon();
    EXPECT_LOG(box, ERROR, "Bluez", "Connection failed");
    EXPECT_TRUE(box.log().awaitCount(isLog(DEBUG, "main", "Waiting adapter..."), 2));
    EXPECT_THAT(box.statusCourse(), ElementsAre("init"));

    EXPECT_TRUE(box.stops());
    EXPECT_THAT(box.statusCourse(), ElementsAre("init", kGone));
}

// --- a remote that has been paired before ---

class ABoxWithAPairedRemote : public InABox
{
protected:
    ABoxWithAPairedRemote() : InABox(pairedRemote()) {}
};

TEST_F(ABoxWithAPairedRemote, ConnectsItOnceAndWaitsNoLonger)
{
    box.startDaemon();
    EXPECT_LOG(box, DEBUG, "main", kRcFound);
    EXPECT_LOG(box, DEBUG, "main", kReconnect);
    EXPECT_LOG(box, DEBUG, "main", "process loop start");
    EXPECT_TRUE(box.awaitStatus("connected"));

    EXPECT_THAT(box.busCalls({"Connect"}), ElementsAre(kConnect));
    EXPECT_EQ(box.countLog(DEBUG, "main", kRcFound), 1U);
}

TEST_F(ABoxWithAPairedRemote, DoesntWaitForTheLinkBehindAConnectThatWasAnswered)
{
    box.sim().bend(Bend::answer("Connect", g_variant_new("()")));
    box.startDaemon();
    EXPECT_LOG(box, DEBUG, "main", "process loop start");
    EXPECT_TRUE(box.awaitStatus("disconnected"));

    EXPECT_THAT(box.busCalls({"Connect"}), ElementsAre(kConnect));
    EXPECT_THAT(box.statusCourse(), ElementsAre("init", "disconnected"));
}

TEST_F(ABoxWithAPairedRemote, TriesAgainEveryTenthOfASecondForFiveWhileEachConnectFails)
{
    box.sim().bend(Bend::error("Connect", "org.bluez.Error.Failed", "away"));
    box.clock().stop();
    box.startDaemon();
    ASSERT_TRUE(box.sim().awaitCall("Connect", kRemote, 12, kPatience));
    EXPECT_THAT(Pacing(times(box.sim().calls("Connect"))).medianUs(), isAbout(100ms));
    box.clock().advance(4999999us);
    const std::size_t soFar = box.busCalls({"Connect"}).size();
    ASSERT_TRUE(box.sim().awaitCall("Connect", kRemote, static_cast<unsigned>(soFar) + 3, kPatience));
    EXPECT_NO_LOG(box, DEBUG, "main", "process loop start");
    box.clock().advance(1us);
    EXPECT_LOG(box, DEBUG, "main", "process loop start");

    const std::size_t calls = box.busCalls({"Connect"}).size();
    EXPECT_EQ(box.countLog(DEBUG, "main", kRcFound), calls);
    EXPECT_EQ(box.countLog(DEBUG, "main", kReconnect), calls);
    EXPECT_EQ(box.countLog(ERROR, "Bluez", busError("org.bluez.Error.Failed", "away")), calls);
}

TEST_F(ABoxWithAPairedRemote, LeavesARemoteAloneThatIsConnectedAlready)
{
    box.connectRemote();
    box.sim().clearCalls();
    box.startDaemon();
    EXPECT_LOG(box, DEBUG, "main", kRcFound);
    EXPECT_LOG(box, DEBUG, "main", "process loop start");
    EXPECT_TRUE(box.awaitStatus("connected"));

    EXPECT_THAT(box.busCalls({"Connect"}), IsEmpty());
    EXPECT_NO_LOG(box, DEBUG, "main", kReconnect);
}

TEST_F(ABoxWithAPairedRemote, HearsOfWhatIsThereParentsBeforeChildren)
{
    box.connectRemote();
    box.startDaemon();

    EXPECT_LOG(box, DEBUG, "main", "Adapter: + /org/bluez/hci0");
    EXPECT_LOG(box, DEBUG, "main", "Device: + " + kRemote);
    EXPECT_LOG(box, DEBUG, "main", "RC found VEXA RC : " + kRemote);
    EXPECT_LOG(box, DEBUG, "main", "Battery service resolved");
    EXPECT_LOG(box, DEBUG, "main", "Battery level characteristic resolved");
    EXPECT_LOG(box, DEBUG, "main", "+GATT Descriptor: " + kRemote + "/service0010/char0011/desc0013");
}

TEST_F(ABoxWithAPairedRemote, EndsWithStatus0OnAnInterruptWhileItTries)
{
    box.sim().bend(Bend::error("Connect", "org.bluez.Error.Failed", "away"));
    box.startDaemon();
    ASSERT_TRUE(box.sim().awaitCall("Connect", kRemote, 2, kPatience));

    EXPECT_TRUE(box.stops());
    EXPECT_THAT(box.statusCourse(), ElementsAre("init", kGone));
}

// --- a remote that is known and not paired ---

class ABoxWithAStrangeRemote : public AStart
{
};

TEST_F(ABoxWithAStrangeRemote, IsLookedAtEveryTenthOfASecondForFiveSeconds)
{
    const LogPredicate found = isLog(DEBUG, "main", kRcFound);
    box.sim().announce(box.remote().normal());
    box.clock().stop();
    box.startDaemon();
    ASSERT_TRUE(box.log().awaitCount(found, 12)) << "said again on every pass";
    EXPECT_THAT(Pacing(arrivals(box, found)).medianUs(), isAbout(100ms));
    box.clock().advance(4999999us);
    EXPECT_TRUE(box.log().awaitCount(found, box.log().count(found) + 3));
    EXPECT_NO_LOG(box, DEBUG, "main", "process loop start");
    box.clock().advance(1us);

    EXPECT_LOG(box, DEBUG, "main", "process loop start");
    EXPECT_THAT(box.busCalls({"Connect", "Pair"}), IsEmpty());
}

TEST_F(ABoxWithAStrangeRemote, StopsInOrderOnAnInterruptInTheFiveSeconds)
{
    box.sim().announce(box.remote().normal());
    box.startDaemon();
    ASSERT_LOG(box, DEBUG, "main", kRcFound);

    EXPECT_TRUE(box.stops());
    EXPECT_LOG(box, WARN, "main", "Interrupt!");
    EXPECT_LOG(box, DEBUG, "main", "process loop start");
    EXPECT_THAT(box.statusCourse(), ElementsAre("init", kGone));
}

TEST_F(ABoxWithAStrangeRemote, EndsAtOnceOnTwoQuickInterruptsInTheFiveSeconds)
{
    box.sim().announce(box.remote().normal());
    expectStatus1At(kRcFound);
}

TEST_F(ABoxWithoutAnAdapter, EndsAtOnceOnTwoQuickInterruptsAndLeavesItsStatus)
{
    expectStatus1At("Waiting adapter...");
}

} // namespace

} // namespace kit
