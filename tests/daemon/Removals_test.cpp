// SPDX-License-Identifier: MIT
// Objects that disappear while the daemon is in a call under its lock. What comes back under the same path
// must be usable: a lookup between the end of an object and the daemon's notice of it would spoil that path,
// and the remote would be removed together with its bond.

#include <algorithm>
#include <functional>
#include <gmock/gmock.h>

#include "tests/kit/Box.h"
#include "tests/kit/NamedCase.h"
#include "tests/kit/Objects.h"

namespace kit
{

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""h;
using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::Not;
using vexasim::Bend;
using vexasim::Simulator;

namespace
{

constexpr auto kCallTakes = 300ms;
constexpr auto kLongCall = 2s * kSlowness;
constexpr int kRounds = 2;

const std::string kRemote = "/org/bluez/hci0/dev_C0_FF_EE_00_00_01";
const std::string kOther = "/org/bluez/hci0/dev_C0_FF_EE_00_00_02";

class ARemovalDuringACall : public InABox
{
protected:
    ARemovalDuringACall() : InABox(pairedRemote()) { box.slowHandlers(); }

    /// From now on the method is answered late, with an error if its object has gone.
    void slowDown(const std::string& member, std::chrono::milliseconds delay = kCallTakes)
    {
        box.sim().clearBends();
        box.sim().clearCalls();
        box.sim().bend(Bend::late(member, delay));
    }
    /// Waits until the daemon is in the call; its next pass is due as soon as that has ended.
    void awaitCallOf(const std::string& member)
    {
        ASSERT_TRUE(box.sim().awaitCall(member, "", 1, kPatience)) << member;
        box.clock().advance(600ms);
    }
};

void startDisconnected(Box& box)
{
    box.remote().leave();
    ASSERT_TRUE(box.startAndSkipWait());
    ASSERT_TRUE(box.awaitStatus("disconnected"));
}

// --- the remote ---

struct Way : NamedCase {
    std::function<void(Simulator&)> go;
    std::function<void(Simulator&)> comeBack;
};

void start(Simulator& sim)
{
    sim.startService();
}

// Adds the remote as bluetoothd shows a bonded device that is away.
void addBonded(Simulator& sim)
{
    sim.addObject(kRemote, deviceObject("VEXA RC", "C0:FF:EE:00:00:01", true, false));
}

const Way kWays[] = {
    {{"Restart"}, [](Simulator& sim) { sim.stopService(Simulator::Stop::Terminate); }, start},
    {{"Kill"}, [](Simulator& sim) { sim.stopService(Simulator::Stop::Kill); }, start},
    {{"Removal"}, [](Simulator& sim) { sim.removeObject(kRemote); }, addBonded},
    {{"Pull"},
     [](Simulator& sim) { sim.removeAdapter(); },
     [](Simulator& sim) { sim.addAdapter(vexasim::AdapterOptions{}); }},
};

class ARemoteThatGoesDuringACall : public ARemovalDuringACall, public ::testing::WithParamInterface<Way>
{
protected:
    void goAndComeBack()
    {
        GetParam().go(box.sim());
        ASSERT_LOG(box, DEBUG, "main", "Device: - " + kRemote);
        box.sim().clearBends();
        GetParam().comeBack(box.sim());
        ASSERT_LOG(box, DEBUG, "main", "Device: + " + kRemote);
    }

    void keepConnecting(int rounds)
    {
        startDisconnected(box);
        for (int round = 0; round < rounds && !HasFailure(); ++round) {
            SCOPED_TRACE(round);
            slowDown("Connect");
            box.setFlag("pair");
            awaitCallOf("Connect");
            goAndComeBack();
            expectUsable();
        }
    }

private:
    void expectUsable()
    {
        ASSERT_TRUE(box.awaitPasses(2));
        EXPECT_THAT(box.busCalls({"RemoveDevice"}), IsEmpty());
        EXPECT_TRUE(box.awaitStatus("disconnected"));
    }
};

TEST_P(ARemoteThatGoesDuringACall, IsKeptByTheStart)
{
    slowDown("Connect");
    box.startDaemon();
    awaitCallOf("Connect");
    goAndComeBack();

    ASSERT_TRUE(box.awaitPasses(2));
    EXPECT_THAT(box.busCalls({"RemoveDevice"}), IsEmpty());
}

TEST_P(ARemoteThatGoesDuringACall, IsKeptByTheIdlePassThatConnectsIt)
{
    keepConnecting(kRounds);
}

INSTANTIATE_TEST_SUITE_P(Ways, ARemoteThatGoesDuringACall, ::testing::ValuesIn(kWays), named);

using ARemoteThatGoesForLong = ARemoteThatGoesDuringACall;

TEST_P(ARemoteThatGoesForLong, IsKeptEachTime)
{
    keepConnecting(75);
}

INSTANTIATE_TEST_SUITE_P(Ways, ARemoteThatGoesForLong, ::testing::ValuesIn(kWays), named);

// --- an object already erased, whose removal the daemon handles only after one of its steps ---

struct Step : NamedCase {
    void (*reach)(Box& box); ///< runs up to the step
    void (*lose)(Box& box) = nullptr;
    void (*seeThrough)(Box& box) = nullptr;
};

class ALateRemoval : public ARemovalDuringACall, public ::testing::WithParamInterface<Step>
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(GetParam().reach(box));
        box.clock().holdRemovals();
        GetParam().lose(box);
        ASSERT_TRUE(box.clock().awaitRemovalHeld());
        ASSERT_NO_FATAL_FAILURE(GetParam().seeThrough(box));
        box.clock().letRemovalsGo();
        ASSERT_TRUE(box.awaitEvents());
        box.sim().clearCalls();
    }
};

void unpair(Box& box)
{
    box.sim().setProperty(kRemote, "org.bluez.Device1", "Paired", g_variant_new_boolean(FALSE));
}

void loseRemote(Box& box)
{
    box.sim().removeObject(kRemote);
}

void loseAdapter(Box& box)
{
    box.loseAdapterAlone();
}

void seePassThrough(Box& box)
{
    ASSERT_TRUE(box.awaitPasses(1));
}

// Runs up to the check of the back-off, after which the remote is connected.
void reachReconnection(Box& box)
{
    constexpr unsigned kBackOff = 3; // clock readings: the pass is due, its beginning is noted, then this
    startDisconnected(box);
    ASSERT_TRUE(box.stopClock());
    box.clock().advanceAndHold(1h, kBackOff);
    ASSERT_TRUE(box.clock().awaitHeld());
}

void loseRemoteBeforeItIsConnected(Box& box)
{
    loseRemote(box);
    ASSERT_TRUE(box.clock().awaitHandlerWaiting());
    box.clock().letGo();
}

void seeReconnectionThrough(Box& box)
{
    ASSERT_LOG(box, INFO, "main", "Trying to connect to C0:FF:EE:00:00:01");
    ASSERT_TRUE(box.program().awaitMainThreadInUsleep());
    box.clock().run();
}

using ARemoteWithALateRemoval = ALateRemoval;

TEST_P(ARemoteWithALateRemoval, IsKeptWhenItComesBack)
{
    addBonded(box.sim());

    ASSERT_TRUE(box.awaitPasses(2));
    EXPECT_THAT(box.busCalls({"RemoveDevice"}), IsEmpty());
    EXPECT_TRUE(box.awaitStatus("disconnected"));
}

const Step kStepsWithTheRemote[] = {
    {{"TheStartsConnection"},
     [](Box& box) {
         box.remote().leave();
         box.startDaemon();
         ASSERT_TRUE(box.sim().awaitCall("Connect", "", 1, kPatience));
     },
     loseRemote,
     [](Box& box) { ASSERT_LOG(box, DEBUG, "main", "process loop start"); }},
    {{"AnIdlePass"}, startDisconnected, loseRemote, seePassThrough},
    {{"AReconnection"}, reachReconnection, loseRemoteBeforeItIsConnected, seeReconnectionThrough},
};

INSTANTIATE_TEST_SUITE_P(Behind, ARemoteWithALateRemoval, ::testing::ValuesIn(kStepsWithTheRemote), named);

using AnAdapterWithALateRemoval = ALateRemoval;

TEST_P(AnAdapterWithALateRemoval, ScansWhenItComesBack)
{
    const std::string path = box.sim().adapterPath();
    box.sim().addObject(path, {{"org.bluez.Adapter1", {{"Powered", g_variant_new_boolean(TRUE)}}}});
    ASSERT_LOG(box, DEBUG, "main", "Adapter: + " + path);

    box.setFlag("reset");

    EXPECT_TRUE(box.sim().awaitCall("StartDiscovery", path, 1, kPatience));
}

const Step kStepsWithTheAdapter[] = {
    {{"ItsPowering"},
     [](Box& box) {
         box.sim().bend(Bend::error("Set", "org.bluez.Error.Failed")); // so it is looked for again at once
         box.startDaemon();
         ASSERT_TRUE(box.sim().awaitCall("Set", "", 1, kPatience));
     },
     loseAdapter,
     [](Box& box) {
         const auto asked = static_cast<unsigned>(box.sim().calls("Set").size());
         ASSERT_TRUE(box.sim().awaitCall("Set", "", asked + 2, kPatience));
         box.sim().clearBends();
     }},
    {{"TheRemovalOfAnUnpairedRemote"},
     [](Box& box) {
         startDisconnected(box);
         box.sim().bend(Bend::error("RemoveDevice", "org.bluez.Error.Failed"));
         unpair(box);
         ASSERT_TRUE(box.sim().awaitCall("RemoveDevice", "", 1, kPatience));
     },
     loseAdapter,
     seePassThrough},
    {{"ThePairingsBeginning"},
     startDisconnected,
     loseAdapter,
     [](Box& box) {
         box.setFlag("reset");
         ASSERT_LOG(box, ERROR, "main", "Switching scan on failed");
     }},
    {{"TheScansEnd"},
     [](Box& box) {
         startDisconnected(box);
         box.setFlag("reset");
         ASSERT_TRUE(box.awaitWaitAt("scanning"));
     },
     loseAdapter,
     [](Box& box) {
         box.clock().advance(60s);
         ASSERT_LOG(box, ERROR, "main", "Switching scan off failed");
     }},
};

INSTANTIATE_TEST_SUITE_P(Behind, AnAdapterWithALateRemoval, ::testing::ValuesIn(kStepsWithTheAdapter), named);

// --- an object that goes while the daemon looks up paths or is in a call ---

class AStepWithPaths : public ARemovalDuringACall, public ::testing::WithParamInterface<Step>
{
};

TEST_P(AStepWithPaths, KeepsObjectsFromBeingErased)
{
    const std::string any = "/org/bluez/hci9";
    box.sim().addObject(any, {{"org.bluez.Adapter1", {}}});
    ASSERT_NO_FATAL_FAILURE(GetParam().reach(box));
    box.clock().holdRemovals();

    box.sim().removeObject(any);

    EXPECT_TRUE(box.clock().awaitHandlerWaiting()) << "it has been erased";
}

// Leaves the daemon in a call that isn't answered, and that `ask` has it make.
void askInVain(Box& box, const std::string& member, const std::function<void()>& ask)
{
    box.sim().bend(Bend::silence(member));
    box.sim().clearCalls();
    ask();
    ASSERT_TRUE(box.sim().awaitCall(member, "", 1, kPatience));
}

void pairInVain(Box& box, const std::string& member)
{
    askInVain(box, member, [&box] { box.setFlag("reset"); });
}

const Step kStepsWithPaths[] = {
    {{"TheStartsConnection"},
     [](Box& box) {
         box.remote().leave();
         askInVain(box, "Connect", [&box] { box.startDaemon(); });
     }},
    {{"TheBackOff"}, reachReconnection},
    {{"AReconnection"},
     [](Box& box) {
         startDisconnected(box);
         askInVain(box, "Connect", [&box] { box.setFlag("pair"); });
     }},
    {{"TheRemovalOfAnUnpairedRemote"},
     [](Box& box) {
         startDisconnected(box);
         askInVain(box, "RemoveDevice", [&box] { unpair(box); });
     }},
    {{"TheRemovalOfAllDevices"},
     [](Box& box) {
         startDisconnected(box);
         pairInVain(box, "RemoveDevice");
     }},
    {{"TheScansBeginning"},
     [](Box& box) {
         startDisconnected(box);
         pairInVain(box, "StartDiscovery");
     }},
    {{"TheScansEnd"},
     [](Box& box) {
         ASSERT_TRUE(box.startConnected());
         pairInVain(box, "StopDiscovery");
     }},
    {{"TheReadings"},
     [](Box& box) {
         ASSERT_TRUE(box.startConnected());
         askInVain(box, "ReadValue", [&box] { box.clock().advance(16s); });
     }},
};

INSTANTIATE_TEST_SUITE_P(Steps, AStepWithPaths, ::testing::ValuesIn(kStepsWithPaths), named);

// --- what goes within a step is neither called nor queried any more ---

TEST_F(ARemovalDuringACall, KeepsTheVersionFromBeingReadOnceItsCharacteristicGoes)
{
    ASSERT_TRUE(box.startConnected());
    const std::string version = box.pathOf(vexasim::uuid::kVersion);
    slowDown("ReadValue", kLongCall);
    box.clock().advance(16s);
    awaitCallOf("ReadValue");
    box.sim().removeObject(version);
    ASSERT_TRUE(box.clock().awaitHandlerWaiting());
    ASSERT_TRUE(box.awaitPasses(2));

    EXPECT_TRUE(box.files().await("bluetooth_rc_battery", "80"));
    EXPECT_THAT(box.sim().calls("ReadValue", version), IsEmpty());
    EXPECT_NO_LOG(box, ERROR, "Bluez", "No proxy found for characteristic " + version);
}

TEST_F(ARemovalDuringACall, KeepsTheBatteryFromBeingReadOnceItsCharacteristicGoes)
{
    constexpr unsigned kLastReading = 3; // clock readings: the pass is due, its beginning is noted, then this
    ASSERT_TRUE(box.startConnected());
    ASSERT_TRUE(box.stopClock());
    const std::string level = box.pathOf(vexasim::uuid::kBatteryLevel);
    box.sim().removeObject(box.pathOf(vexasim::uuid::kClientConfiguration)); // it would go first
    ASSERT_TRUE(box.awaitEvents());
    box.clock().advanceAndHold(16s, kLastReading);
    ASSERT_TRUE(box.clock().awaitHeld());
    box.sim().removeObject(level);
    ASSERT_TRUE(box.clock().awaitHandlerWaiting());
    box.clock().letGo();

    EXPECT_TRUE(box.sim().awaitCall("ReadValue", box.pathOf(vexasim::uuid::kVersion), 1, kPatience));
    EXPECT_THAT(box.sim().calls("ReadValue", level), IsEmpty());
}

TEST_F(ARemovalDuringACall, KeepsAnAdapterThatGoesFromBeingAskedForTheNextDevice)
{
    startDisconnected(box);
    box.sim().addObject(kOther, deviceObject("TV", "C0:FF:EE:00:00:02", false, false));
    ASSERT_TRUE(box.awaitEvents());
    slowDown("RemoveDevice", kLongCall);
    box.setFlag("reset");
    ASSERT_TRUE(box.sim().awaitCall("RemoveDevice", "", 1, kPatience));
    box.loseAdapterAlone();
    ASSERT_TRUE(box.clock().awaitHandlerWaiting());

    EXPECT_LOG(box, INFO, "main", "Removing device " + kOther);
    EXPECT_LOG(box, ERROR, "main", "Switching scan on failed");
    EXPECT_EQ(box.sim().calls("RemoveDevice").size(), 1U);
}

TEST_F(ARemovalDuringACall, KeepsARemoteThatGoesAtTheScansEndFromBeingPaired)
{
    ASSERT_TRUE(box.startConnected());
    slowDown("StopDiscovery", kLongCall);
    box.setFlag("reset");
    ASSERT_TRUE(box.sim().awaitCall("StopDiscovery", "", 1, kPatience));
    box.sim().removeObject(kRemote);
    ASSERT_TRUE(box.clock().awaitHandlerWaiting());

    EXPECT_LOG(box, WARN, "main", "VEXA RC not found");
    EXPECT_THAT(box.sim().calls("Pair"), IsEmpty());
}

// --- a handler that waits for the lock ---

TEST_F(ARemovalDuringACall, LetsAHandlerThatWaitsGoBeforeTheNextPass)
{
    startDisconnected(box);
    slowDown("Connect", kLongCall);
    box.setFlag("pair");
    awaitCallOf("Connect");
    box.sim().addObject(kOther, deviceObject("VEXA Two", "C0:FF:EE:00:00:02", false, false));
    ASSERT_LOG(box, DEBUG, "main", "Device: + " + kOther);
    ASSERT_LOG(box, WARN, "main", "Removing failed to pair device");

    // The pass after the call already saw the remote that was announced during it.
    const std::vector<std::string> log = box.logOf("main", TRACE);
    const auto found = std::find(log.begin(), log.end(), "D RC found VEXA Two : " + kOther);
    ASSERT_NE(found, log.end());
    EXPECT_THAT(std::vector<std::string>(found, log.end()), Not(Contains("T Do Action_eDoNothing")));
    const auto announced = std::find(log.begin(), log.end(), "D Device: + " + kOther);
    EXPECT_THAT(std::vector<std::string>(announced, found), Not(Contains("T Do Action_eDoNothing")));
}

} // namespace

} // namespace kit
