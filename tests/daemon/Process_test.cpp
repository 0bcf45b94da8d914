// SPDX-License-Identifier: MIT
// How the daemon ends: by one interrupt, by two, and by other signals, wherever
// its main thread stands.

#include "tests/kit/Box.h"

#include <gmock/gmock.h>

#include <csignal>

using namespace vexabox;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using vexasim::Bend;

namespace
{

const std::string kRemote = "/org/bluez/hci0/dev_C0_FF_EE_00_00_01";
const std::vector<std::string> kPublished = {"bluetooth_status", "bluetooth_rc", "bluetooth_rc_rssi",
                                             "bluetooth_rc_battery", "bluetooth_rc_fw_version"};

class ADaemon : public InABox
{
protected:
    std::vector<std::string> published()
    {
        std::vector<std::string> there;
        for (const std::string& name : kPublished) {
            if (box.exists(name)) {
                there.push_back(name);
            }
        }
        return there;
    }

    /// Until pair() waits for a remote, with nothing on the air.
    void startScanning()
    {
        ASSERT_TRUE(box.startToIdle());
        box.remote().leave();
        box.setFlag("reset");
        ASSERT_TRUE(box.awaitWaitAt("scanning"));
    }

    /// The stack says that it is paired, but never tells of the change.
    void claimPaired()
    {
        box.sim().bend(
            Bend::answer("Get", g_variant_new("(v)", g_variant_new_boolean(TRUE))).property("Paired"));
        box.sim().bend(Bend::silence("Pair"));
    }
};

// ---- one interrupt

TEST_F(ADaemon, EndsWithStatus0AndNoWordOnAnInterruptBeforeItsObjectExists)
{
    box.interruptEarly();
    box.startDaemon();

    EXPECT_EQ(box.awaitExit(), Exit::with(0));
    EXPECT_THAT(box.log().records(), IsEmpty());
    EXPECT_THAT(published(), IsEmpty());
}

TEST_F(ADaemon, EndsItsClientAndThenRemovesItsFilesOnAnInterrupt)
{
    for (const std::string& name : kPublished) {
        box.writeText(name, "of an earlier run\n");
    }
    ASSERT_TRUE(box.startToIdle());
    box.log().skip();
    box.interrupt();

    EXPECT_EQ(box.awaitExit(), Exit::with(0));
    EXPECT_LOG(box, WARN, "main", "Interrupt!");
    EXPECT_LOG(box, DEBUG, "Bluez", "Stopping loop task");
    EXPECT_LOG(box, DEBUG, "Bluez", "Deiniting Bluez..");
    EXPECT_LOG(box, DEBUG, "Bluez", "Deiniting Bluez completed");
    EXPECT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_status");
    EXPECT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc");
    EXPECT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc_rssi");
    EXPECT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc_battery");
    EXPECT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc_fw_version");
    EXPECT_EQ(box.log().records().back().text, "REMOVE /tmp/bluetooth_rc_fw_version");
    EXPECT_THAT(published(), IsEmpty());
}

TEST_F(ADaemon, LeavesTheRequestsOfTheBoxAloneWhenItStops)
{
    box.sim().removeAdapter(); // so that it never comes to serve them
    box.setFlag("pair");
    box.setFlag("reset");
    box.linkFirmware("/nowhere");
    box.startDaemon();
    ASSERT_LOG(box, DEBUG, "main", "Waiting adapter...");

    EXPECT_TRUE(box.stops());
    EXPECT_TRUE(box.exists("bluetooth_pair"));
    EXPECT_TRUE(box.exists("bluetooth_reset"));
    EXPECT_TRUE(box.exists("bluetooth_rc_fw"));
}

TEST_F(ADaemon, TakesNoArguments)
{
    box.startDaemon({"--help", "--version", "stop"});

    EXPECT_LOG(box, DEBUG, "main", "process loop start");
    EXPECT_TRUE(box.stops());
    EXPECT_THAT(box.output().records(), IsEmpty());
}

// The three seconds in which the outcome of an update stands.
TEST_F(ADaemon, EndsAnInterruptedPauseEarly)
{
    ASSERT_TRUE(box.startToIdle());
    box.linkFirmware("/nowhere");
    ASSERT_TRUE(box.awaitStatus("rc_fw_update_canceled"));
    ASSERT_TRUE(box.program().awaitMainThreadInUsleep());
    const auto start = std::chrono::steady_clock::now();

    EXPECT_TRUE(box.stops());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
}

TEST_F(ADaemon, StopsAlthoughTheBusIsGone)
{
    ASSERT_TRUE(box.startToIdle());
    box.sim().stopService(vexasim::Simulator::Stop::Kill);

    EXPECT_TRUE(box.stops());
}

/// A tree that takes twenty seconds to be read, since each name does.
class ADaemonThatReadsASlowTree : public ADaemon
{
protected:
    ADaemonThatReadsASlowTree()
    {
        for (int i = 10; i < 30; ++i) {
            box.sim().addObject("/org/bluez/hci0/dev_00_00_00_00_00_" + std::to_string(i),
                                {{"org.bluez.Device1", {}}});
        }
        box.sim().bend(Bend::late("Get", 1s).property("Name"));
    }
};

TEST_F(ADaemonThatReadsASlowTree, FetchesNoFurtherObjectAfterAnInterrupt)
{
    box.startDaemon();
    ASSERT_TRUE(box.sim().awaitCall("Get", "", 2, kPatience));
    box.interrupt();
    ASSERT_LOG(box, WARN, "main", "Interrupt!");
    const std::size_t asked = box.sim().calls("Get").size();

    EXPECT_EQ(box.awaitExit(), Exit::with(0));
    EXPECT_LE(box.sim().calls("Get").size(), asked + 1);
}

// ---- two interrupts

TEST_F(ADaemon, EndsWithStatus1OnTheSecondInterruptInTheMainLoop)
{
    ASSERT_TRUE(box.startToIdle());
    ASSERT_TRUE(box.stopClock()); // not in the middle of a write
    box.interruptTwice();

    EXPECT_EQ(box.awaitExit(), Exit::with(1));
    EXPECT_EQ(box.content("bluetooth_status"), "no device\n");
    EXPECT_NO_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_status");
}

TEST_F(ADaemon, LeavesAllItsFilesOnTheSecondInterrupt)
{
    ASSERT_TRUE(box.startToIdle());
    ASSERT_TRUE(box.stopClock());
    for (const std::string& name : kPublished) {
        box.writeText(name, "of " + name + "\n");
    }
    box.interruptTwice();

    EXPECT_EQ(box.awaitExit(), Exit::with(1));
    for (const std::string& name : kPublished) {
        EXPECT_EQ(box.content(name), "of " + name + "\n");
    }
    EXPECT_EQ(box.log().count(beginsLog(WARN, "main", "REMOVE")), 0U);
}

TEST_F(ADaemon, EndsWithStatus1OnTheSecondInterruptInTheScanWait)
{
    startScanning();
    box.interruptTwice();

    EXPECT_EQ(box.awaitExit(), Exit::with(1));
    EXPECT_EQ(box.content("bluetooth_status"), "scanning\n");
}

TEST_F(ADaemon, EndsWithStatus1OnTheSecondInterruptInThePairingWait)
{
    claimPaired();
    ASSERT_TRUE(box.startToIdle());
    box.setFlag("reset");
    ASSERT_TRUE(box.awaitWaitAt("pairing"));
    box.interruptTwice();

    EXPECT_EQ(box.awaitExit(), Exit::with(1));
    EXPECT_EQ(box.content("bluetooth_status"), "pairing\n");
}

TEST_F(ADaemon, EndsWithStatus1OnTheSecondInterruptWhileItPollsForThePairing)
{
    box.sim().bend(Bend::silence("Pair"));
    ASSERT_TRUE(box.startToIdle());
    box.setFlag("reset");
    ASSERT_TRUE(box.sim().awaitCall("Pair", kRemote, 1, kPatience));
    box.interrupt();
    ASSERT_LOG(box, WARN, "main", "Interrupt!"); // the polls go on, since nobody stops the client
    box.interrupt();

    EXPECT_EQ(box.awaitExit(), Exit::with(1));
}

TEST_F(ADaemon, EndsWithStatus1OnTheSecondInterruptInACallThatIsNeverAnswered)
{
    box.sim().bend(Bend::silence("Get").property("Paired"));
    ASSERT_TRUE(box.startToIdle());
    box.setFlag("reset");
    ASSERT_TRUE(box.sim().awaitCall(
        [](const vexasim::Call& call) { return call.text().find("'Paired'") != std::string::npos; }, 1,
        kPatience));
    box.interrupt();
    ASSERT_LOG(box, WARN, "main", "Interrupt!");
    box.interrupt();

    EXPECT_EQ(box.awaitExit(), Exit::with(1));
}

TEST_F(ADaemon, EndsWithStatus1OnTheSecondInterruptWhileItWaitsForItsClientsEnd)
{
    ASSERT_TRUE(box.startToIdle());
    ASSERT_TRUE(box.stopClock());
    box.sim().bend(Bend::silence("GetAll"));
    box.sim().announce(box.remote().normal());
    ASSERT_TRUE(box.sim().awaitCall("GetAll", kRemote, 1, kPatience));
    box.interrupt();
    ASSERT_LOG(box, WARN, "main", "Interrupt!");
    EXPECT_EQ(box.awaitExit(500ms), std::nullopt)
        << "the properties are waited for, and with them the client";
    box.interrupt();

    EXPECT_EQ(box.awaitExit(), Exit::with(1));
}

TEST_F(ADaemon, EndsWithinASecondOnTheSecondInterrupt)
{
    startScanning();
    box.program().awaitMainThreadAsleep();
    const auto start = std::chrono::steady_clock::now();
    box.interruptTwice();

    EXPECT_EQ(box.awaitExit(), Exit::with(1));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s * kSlowness);
}

// ---- two interrupts while the lock is held

class ALockThatIsHeld : public InABox
{
protected:
    explicit ALockThatIsHeld(BoxOptions options = noRemote()) : InABox(std::move(options)) {}

    void expectKill()
    {
        box.interrupt();
        ASSERT_LOG(box, WARN, "main", "Interrupt!");
        box.interrupt();
        EXPECT_EQ(box.awaitExit(), Exit::by(SIGKILL));
        ASSERT_TRUE(box.output().awaitEnd());
        EXPECT_THAT(box.output().tail(10), HasSubstr(" ASSERT (res != 16) ret=16 on "));
        EXPECT_TRUE(box.exists("bluetooth_status"));
    }
};

class ADaemonThatHoldsItsLock : public ALockThatIsHeld
{
protected:
    ADaemonThatHoldsItsLock() : ALockThatIsHeld(pairedRemote()) {}
};

/// A device whose name is asked for under the lock, and never told.
class AHandlerThatHoldsTheLock : public ALockThatIsHeld
{
protected:
    void announceNameless()
    {
        const std::string path = "/org/bluez/hci0/dev_00_00_00_00_00_09";
        box.sim().bend(Bend::silence("Get").property("Name"));
        box.sim().addObject(path, {{"org.bluez.Device1", {}}});
        ASSERT_TRUE(box.sim().awaitCall("Get", path, 1, kPatience));
    }
};

TEST_F(AHandlerThatHoldsTheLock, MakesTheSecondInterruptKillADaemonThatSleeps)
{
    ASSERT_TRUE(box.startToIdle());
    ASSERT_TRUE(box.stopClock());
    announceNameless();
    expectKill();
}

TEST_F(AHandlerThatHoldsTheLock, MakesTheSecondInterruptKillADaemonThatWaitsForTheRemote)
{
    ASSERT_TRUE(box.startToIdle());
    box.setFlag("reset");
    ASSERT_TRUE(box.awaitWaitAt("scanning"));
    announceNameless();
    expectKill();
}

TEST_F(AHandlerThatHoldsTheLock, MakesTheSecondInterruptKillADaemonThatWantsTheLockItself)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer holds a signal back until the lock is had";
#endif
    ASSERT_TRUE(box.startToIdle());
    announceNameless();
    ASSERT_LOG(box, TRACE, "main", "IDLING..."); // this pass wants the lock
    ASSERT_TRUE(box.program().awaitMainThreadOnCondition());
    expectKill();
}

TEST_F(ADaemonThatHoldsItsLock, IsKilledByTheSecondInterruptWhileItSwitchesTheScanOn)
{
    ASSERT_TRUE(box.startConnected());
    box.sim().bend(Bend::silence("StartDiscovery"));
    box.setFlag("reset");
    ASSERT_TRUE(box.sim().awaitCall("StartDiscovery", "", 1, kPatience));
    expectKill();
}

TEST_F(ADaemonThatHoldsItsLock, IsKilledByTheSecondInterruptWhileItForgetsADevice)
{
    ASSERT_TRUE(box.startConnected());
    box.sim().bend(Bend::silence("RemoveDevice"));
    box.setFlag("reset");
    ASSERT_TRUE(box.sim().awaitCall("RemoveDevice", "", 1, kPatience));
    expectKill();
}

TEST_F(ADaemonThatHoldsItsLock, IsKilledByTheSecondInterruptWhileItConnects)
{
    box.sim().bend(Bend::silence("Connect"));
    box.startDaemon();
    ASSERT_TRUE(box.sim().awaitCall("Connect", "", 1, kPatience));
    expectKill();
}

TEST_F(ADaemonThatHoldsItsLock, IsKilledByTheSecondInterruptWhileItReadsTheBattery)
{
    ASSERT_TRUE(box.startConnected());
    box.sim().bend(Bend::silence("ReadValue"));
    box.clock().advance(16s);
    ASSERT_TRUE(box.sim().awaitCall("ReadValue", "", 1, kPatience));
    expectKill();
}

TEST_F(ADaemonThatHoldsItsLock, PrintsItsStackWithTheNamesOfItsFunctions)
{
    ASSERT_TRUE(box.startConnected());
    box.sim().bend(Bend::silence("RemoveDevice"));
    box.setFlag("reset");
    ASSERT_TRUE(box.sim().awaitCall("RemoveDevice", "", 1, kPatience));
    expectKill();

    std::string stack;
    for (const LogRecord& record : box.log().records()) {
        stack += record.foreign ? record.text + "\n" : "";
    }
    EXPECT_THAT(stack, HasSubstr("AppD")) << "App::~App";
    EXPECT_THAT(stack, HasSubstr("App7process"));
}

// ---- other signals

class ASignalLeftAtItsDefault : public ADaemon, public ::testing::WithParamInterface<int>
{
};

TEST_P(ASignalLeftAtItsDefault, EndsTheDaemonAtOnceAndLeavesItsFiles)
{
    ASSERT_TRUE(box.startToIdle());
    ASSERT_TRUE(box.stopClock()); // not in the middle of a write
    box.program().signal(GetParam());

    EXPECT_EQ(box.awaitExit(), Exit::by(GetParam()));
    EXPECT_EQ(box.content("bluetooth_status"), "no device\n");
    EXPECT_NO_LOG(box, WARN, "main", "Interrupt!");
}

INSTANTIATE_TEST_SUITE_P(Signals, ASignalLeftAtItsDefault,
                         ::testing::Values(SIGTERM, SIGHUP, SIGUSR1, SIGALRM),
                         [](const auto& test) { return std::string(sigabbrev_np(test.param)); });

} // namespace
