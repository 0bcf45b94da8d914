// SPDX-License-Identifier: MIT
// How the daemon ends: on one interrupt, on two, and on other signals, whatever its main thread is doing.

#include <csignal>
#include <functional>
#include <gmock/gmock.h>

#include "tests/daemon/AtRest.h"
#include "tests/kit/NamedCase.h"

namespace kit
{

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using vexasim::Bend;

namespace
{

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
};

// --- one interrupt ---

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
    box.sim().removeAdapter(); // so that it never gets to serve them
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

// The pause is the three seconds for which the outcome of an update stays.
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

/// A tree that takes twenty seconds to read: each of its twenty names takes one.
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

// --- two interrupts ---

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

void leave(Box& box)
{
    box.remote().leave();
}

void keepPolling(Box& box)
{
    box.sim().bend(Bend::silence("Pair"));
}

void leavePollUnanswered(Box& box)
{
    box.sim().bend(Bend::silence("Get").property("Paired"));
}

/// A wait into which a pairing request leads the main thread, without a lock held.
struct PairingWait : NamedCase {
    void (*arrange)(Box&);
    const char* status;
    const char* call; ///< text of the call that shows the wait; null: a wait on a condition, which the first
                      ///< interrupt would end
};

class AWaitOfThePairing : public ADaemon, public ::testing::WithParamInterface<PairingWait>
{
protected:
    bool isReached()
    {
        if (GetParam().call == nullptr) {
            return box.awaitWaitAt(GetParam().status);
        }
        const auto isIt = [](const vexasim::Call& seen) {
            return seen.text().find(GetParam().call) != std::string::npos;
        };
        return box.sim().awaitCall(isIt, 1, kPatience);
    }
};

TEST_P(AWaitOfThePairing, EndsTheDaemonWithStatus1OnTheSecondInterrupt)
{
    GetParam().arrange(box);
    ASSERT_TRUE(box.startToIdle());
    box.setFlag("reset");
    ASSERT_TRUE(isReached());
    const auto start = std::chrono::steady_clock::now();
    if (GetParam().call == nullptr) {
        box.interruptTwice();
    } else {
        box.interrupt();
        ASSERT_LOG(box, WARN, "main", "Interrupt!");
        box.interrupt();
    }

    EXPECT_EQ(box.awaitExit(), Exit::with(1));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s * kSlowness);
    EXPECT_EQ(box.content("bluetooth_status"), std::string(GetParam().status) + "\n");
}

// The polls continue after the first interrupt, since nobody stops the client.
INSTANTIATE_TEST_SUITE_P(
    That, AWaitOfThePairing,
    ::testing::Values(PairingWait{{"IsForTheRemote"}, leave, "scanning", nullptr},
                      PairingWait{{"IsForThePairing"}, claimPaired, "pairing", nullptr},
                      PairingWait{{"IsBetweenPolls"}, keepPolling, "scanning", ".Pair"},
                      PairingWait{{"IsForAnAnswer"}, leavePollUnanswered, "scanning", "'Paired'"}),
    named);

// Unlike the calls below, this one is made without the lock.
TEST_F(ADaemon, EndsWithStatus1OnTheSecondInterruptWhileItPowersItsAdapter)
{
    box.sim().bend(Bend::silence("Set"));
    box.startDaemon();
    ASSERT_TRUE(box.sim().awaitCall("Set", "", 1, kPatience));
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

// --- two interrupts while the lock is held ---

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

/// A device whose name is asked for under the lock and never answered.
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

/// A call under the lock that is never answered.
struct LockedCall : NamedCase {
    const char* member;
    std::function<bool(Box&)> provoke;
};

class ACallThatHoldsTheLock : public ALockThatIsHeld, public ::testing::WithParamInterface<LockedCall>
{
protected:
    ACallThatHoldsTheLock() : ALockThatIsHeld(pairedRemote()) {}
};

TEST_P(ACallThatHoldsTheLock, MakesTheSecondInterruptKillTheDaemonAndPrintItsStack)
{
    box.sim().bend(Bend::silence(GetParam().member));
    ASSERT_TRUE(GetParam().provoke(box));
    ASSERT_TRUE(box.sim().awaitCall(GetParam().member, "", 1, kPatience));
    expectKill();

    std::string stack;
    for (const LogRecord& record : box.log().records()) {
        stack += record.foreign ? record.text + "\n" : "";
    }
    EXPECT_THAT(stack, HasSubstr("AppD")) << "App::~App";
    EXPECT_THAT(stack, HasSubstr("signalHandler")) << "on whichever thread the signal came to";
}

bool requestPairing(Box& box)
{
    const bool started = box.startConnected();
    box.setFlag("reset");
    return started;
}

INSTANTIATE_TEST_SUITE_P(That, ACallThatHoldsTheLock,
                         ::testing::Values(LockedCall{{"Scans"}, "StartDiscovery", requestPairing},
                                           LockedCall{{"ForgetsADevice"}, "RemoveDevice", requestPairing},
                                           LockedCall{{"Connects"},
                                                      "Connect",
                                                      [](Box& box) {
                                                          box.startDaemon();
                                                          return true;
                                                      }},
                                           LockedCall{{"ReadsTheBattery"},
                                                      "ReadValue",
                                                      [](Box& box) {
                                                          const bool started = box.startConnected();
                                                          box.clock().advance(16s);
                                                          return started;
                                                      }}),
                         named);

// --- other signals ---

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

} // namespace kit
