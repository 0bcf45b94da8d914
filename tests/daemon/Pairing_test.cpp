// SPDX-License-Identifier: MIT
// The pairing procedure, from the request to the report.

#include <algorithm>
#include <functional>
#include <gmock/gmock.h>

#include "tests/daemon/AtRest.h"
#include "tests/daemon/Pacing.h"
#include "tests/kit/TrueTime.h"

namespace kit
{

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""us;
using std::chrono_literals::operator""min;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;
using vexasim::Bend;
using vexasim::Peripheral;

namespace
{

const std::string kDevice = "hci0/dev_C0_FF_EE_00_00_01";
const std::string kScanOn = "hci0 Adapter1.StartDiscovery ()";
const std::string kScanOff = "hci0 Adapter1.StopDiscovery ()";
const std::string kPair = kDevice + " Device1.Pair ()";
const std::string kGetName = kDevice + " DBus.Properties.Get ('org.bluez.Device1', 'Name')";
const std::string kGetPaired = kDevice + " DBus.Properties.Get ('org.bluez.Device1', 'Paired')";
const std::string kFound = "VEXA RC C0:FF:EE:00:00:01 found. Trying to pair...";
const std::string kNotFound = "VEXA RC not found";
const std::string kSuccess = "VEXA RC C0:FF:EE:00:00:01 has been successfully paired";
const std::string kNotPaired = "VEXA RC C0:FF:EE:00:00:01 hasn't been paired";
const std::string kCallFailed = "Device pairing call has failed";
const std::string kBroken = "Broken VEXA RC handle";
const std::string kToIdle = "Transiting to Idle...";
constexpr std::int64_t kLongSliceUs = 5000000; // a slice of 100 ms, on a very busy machine

std::string removal(const std::string& device)
{
    return "hci0 Adapter1.RemoveDevice (objectpath '/org/bluez/" + device + "',)";
}

bool isPoll(const vexasim::Call& call)
{
    return shortText(call) == kGetPaired;
}

/// A remote in range that nobody has paired.
class APairing : public AtRest
{
protected:
    explicit APairing(BoxOptions options = {}) : AtRest(std::move(options)) {}

    void SetUp() override { startAtRest(); }

    void request()
    {
        box.setFlag("reset");
        ASSERT_TRUE(box.pass());
        box.sim().clearCalls();
        box.clock().advance(500ms);
        ASSERT_LOG(box, DEBUG, "main", "Pairing...");
    }

    /// Ends the pairing's polls at once, by putting each wait's deadline in the past.
    void hurryPolls() { box.clock().stepWallClock(-1min); }

    std::shared_ptr<Peripheral> neighbour(const std::string& name, const std::string& address)
    {
        vexasim::PeripheralOptions options;
        options.name = name;
        options.address = address;
        auto peripheral = std::make_shared<Peripheral>(options);
        box.sim().addPeripheral(peripheral);
        return peripheral;
    }

    /// Requests a pairing that finds no remote; returns while the daemon waits for one.
    void scanInVain()
    {
        box.remote().leave();
        request();
        ASSERT_TRUE(box.awaitWaitAt("scanning"));
    }

    /// Requests a pairing that gets as far as the wait for the paired state.
    void pairInVain()
    {
        claimPaired(box);
        request();
        ASSERT_TRUE(box.awaitWaitAt("pairing"));
    }

    void expectStopAtTheScan()
    {
        EXPECT_TRUE(box.stops());
        EXPECT_LOG(box, WARN, "main", "Interrupt!");
        EXPECT_LOG(box, DEBUG, "main", "Scanning off");
        EXPECT_LOG(box, WARN, "main", kNotFound);
        EXPECT_LOG(box, INFO, "main", kToIdle);
        EXPECT_THAT(box.busCalls(), ElementsAre(kScanOn, kScanOff));
        EXPECT_THAT(box.statusCourse(), ElementsAre("init", "no device", "scanning", kGone));
    }
};

// --- all goes well ---

TEST_F(APairing, ScansPairsAndReportsInThisOrder)
{
    request();
    EXPECT_LOG(box, DEBUG, "main", "Removing all devices...");
    EXPECT_LOG(box, DEBUG, "main", "Scanning on");
    EXPECT_LOG(box, DEBUG, "main", "Device: + " + kRemote);
    EXPECT_LOG(box, DEBUG, "main", "RC found VEXA RC : " + kRemote);
    EXPECT_LOG(box, DEBUG, "main", "Scanning off");
    EXPECT_LOG(box, ERROR, "main", "Switching scan off failed"); // which means that it worked
    EXPECT_LOG(box, INFO, "main", kFound);
    EXPECT_LOG(box, DEBUG, "main", "Device " + kRemote + " paired");
    EXPECT_LOG(box, INFO, "main", kSuccess);
    EXPECT_LOG(box, INFO, "main", kToIdle);

    EXPECT_THAT(box.statusCourse(), ElementsAre("init", "no device", "scanning", "pairing"));
    ASSERT_TRUE(box.pass());
    EXPECT_TRUE(box.awaitStatus("connected"));
    EXPECT_TRUE(box.files().await("bluetooth_rc", "C0:FF:EE:00:00:01"));
    std::vector<std::string> calls = box.busCalls();
    calls.erase(std::unique(calls.begin(), calls.end()), calls.end()); // polled as often as need be
    EXPECT_THAT(calls, ElementsAre(kScanOn, kGetName, kScanOff, kPair, kGetPaired));
}

TEST_F(APairing, StopsDiscoveringUnderTheLock)
{
    box.sim().bend(Bend::late("StopDiscovery", kLateAnswer));
    request();

    expectHandlersToWaitFor("StopDiscovery");
}

TEST_F(APairing, WaitsAtMostASliceForARemoteThatIsThere)
{
    box.sim().bend(Bend::lateReply("StartDiscovery", 2s * kSlowness)); // by then the remote is there
    request();
    EXPECT_LOG(box, DEBUG, "main", "Scanning on");
    box.clock().hold(); // its next reading starts the scan's sixty seconds
    ASSERT_TRUE(box.clock().awaitHeld());
    EXPECT_LOG(box, DEBUG, "main", "RC found VEXA RC : " + kRemote);
    ASSERT_TRUE(box.awaitEvents()); // the signal has passed, and nobody was waiting for it
    const auto start = std::chrono::steady_clock::now();
    box.clock().letGo();

    ASSERT_TRUE(box.sim().awaitCall("StopDiscovery", "", 1, kPatience));
    EXPECT_LE(box.sim().calls("StopDiscovery")[0].timeUs - microseconds(start), kLongSliceUs);
    EXPECT_LOG(box, INFO, "main", kSuccess);
}

TEST_F(APairing, TakesARemoteThatSaysAtOnceThatItIsPaired)
{
    box.sim().bend(Bend::answer("Get", g_variant_new("(v)", g_variant_new_boolean(TRUE))).property("Paired"));
    request();

    EXPECT_LOG(box, INFO, "main", kSuccess); // as soon as the stack reports it
    EXPECT_EQ(box.busCalls({"Pair"}).size(), 1U);
}

// --- what was known before ---

TEST_F(APairing, ForgetsEveryDeviceInTheOrderOfItsArrival)
{
    box.remote().leave();
    for (const char* last : {"C", "A", "B"}) {
        box.sim().announce(neighbour("TV", std::string("C0:FF:EE:00:00:0") + last));
    }
    ASSERT_TRUE(box.awaitEvents());
    box.sim().bend(Bend::error("RemoveDevice", "org.bluez.Error.Failed", "stays")
                       .times(1)); // its result isn't looked at
    request();
    EXPECT_LOG(box, INFO, "main", "Removing device /org/bluez/hci0/dev_C0_FF_EE_00_00_0C");
    EXPECT_LOG(box, ERROR, "Bluez", busError("org.bluez.Error.Failed", "stays"));
    EXPECT_LOG(box, INFO, "main", "Removing device /org/bluez/hci0/dev_C0_FF_EE_00_00_0A");
    EXPECT_LOG(box, INFO, "main", "Removing device /org/bluez/hci0/dev_C0_FF_EE_00_00_0B");
    ASSERT_TRUE(box.awaitStatus("scanning"));

    EXPECT_THAT(box.busCalls({"RemoveDevice", "StartDiscovery"}),
                ElementsAre(removal("hci0/dev_C0_FF_EE_00_00_0C"), removal("hci0/dev_C0_FF_EE_00_00_0A"),
                            removal("hci0/dev_C0_FF_EE_00_00_0B"), kScanOn));
}

class APairingOfAPairedRemote : public APairing
{
protected:
    APairingOfAPairedRemote() : APairing(pairedRemote()) {}
    void SetUp() override { startConnectedAtRest(); }

    void expectNoneInTheEnd()
    {
        ASSERT_TRUE(box.awaitWaitAt("scanning"));
        box.clock().advance(60s);
        EXPECT_LOG(box, WARN, "main", kNotFound);
        EXPECT_LOG(box, INFO, "main", kToIdle);
        EXPECT_TRUE(box.awaitStatus("no device"));
        EXPECT_FALSE(box.exists("bluetooth_rc"));
    }
};

TEST_F(APairingOfAPairedRemote, ForgetsItAndPairsItAnew)
{
    ASSERT_TRUE(box.files().await("bluetooth_rc", "C0:FF:EE:00:00:01"));
    request();
    EXPECT_LOG(box, INFO, "main", "Removing device " + kRemote);
    EXPECT_LOG(box, INFO, "main", kSuccess);
    EXPECT_LOG(box, INFO, "main", kToIdle);
    ASSERT_TRUE(box.pass());

    EXPECT_THAT(box.files().course("bluetooth_rc"),
                ElementsAre("C0:FF:EE:00:00:01", kGone, "C0:FF:EE:00:00:01"));
    // The first pass may come before the daemon notices its own connection.
    EXPECT_THAT(box.statusCourse(),
                ::testing::AnyOf(
                    ElementsAre("init", "connected", "scanning", "pairing", "connected"),
                    ElementsAre("init", "disconnected", "connected", "scanning", "pairing", "connected")));
}

TEST_F(APairingOfAPairedRemote, RemovesTheAddressWithoutALineInTheLog)
{
    ASSERT_TRUE(box.files().await("bluetooth_rc", "C0:FF:EE:00:00:01"));
    box.sim().bend(Bend::error("RemoveDevice", "org.bluez.Error.Failed")); // so that only pair() removes it
    box.sim().bend(Bend::silence("StartDiscovery"));
    request();
    ASSERT_TRUE(box.sim().awaitCall("StartDiscovery", "", 1, kPatience));

    EXPECT_FALSE(box.exists("bluetooth_rc"));
    EXPECT_NO_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc");
    EXPECT_EQ(box.statusCourse().back(), "connected") << "the old status stands until the scan is on";
}

TEST_F(APairingOfAPairedRemote, KnowsNoRemoteAlthoughBlueZRefusesToForgetIt)
{
    box.sim().bend(Bend::error("RemoveDevice", "org.bluez.Error.Failed", "stays"));
    request();
    EXPECT_LOG(box, ERROR, "Bluez", busError("org.bluez.Error.Failed", "stays"));
    expectNoneInTheEnd();
}

TEST_F(APairingOfAPairedRemote, LeavesTheBoxWithoutARemoteIfItFails)
{
    request();
    box.remote().leave();
    expectNoneInTheEnd();
}

// --- the scan ---

TEST_F(APairing, LooksForTheRemoteEveryTenthOfASecondAndGivesUpAfterSixty)
{
    scanInVain();
    EXPECT_THAT(timeOfWaits(box, 20), isAbout(2s));
    box.clock().advance(59999999us);
    EXPECT_TRUE(box.program().awaitMainThreadOnNextCondition());
    EXPECT_NO_LOG(box, DEBUG, "main", "Scanning off");
    EXPECT_TRUE(box.sim().discovering());
    box.clock().advance(1us);

    EXPECT_LOG(box, DEBUG, "main", "Scanning off");
    EXPECT_LOG(box, WARN, "main", kNotFound);
    EXPECT_LOG(box, INFO, "main", kToIdle);
    EXPECT_THAT(box.busCalls(), ElementsAre(kScanOn, kScanOff))
        << "nothing is removed where nothing is known";
    EXPECT_TRUE(box.awaitStatus("no device"));
    EXPECT_THAT(box.statusCourse(), ElementsAre("init", "no device", "scanning", "no device"));
}

TEST_F(APairing, GoesOnScanningWhenOtherDevicesComeAlong)
{
    scanInVain();
    neighbour("VEXA", "C0:FF:EE:00:00:0A");
    neighbour("My VEXA RC", "C0:FF:EE:00:00:0B");
    EXPECT_LOG(box, DEBUG, "main", "Device: + /org/bluez/hci0/dev_C0_FF_EE_00_00_0B");
    box.clock().advance(30s);
    EXPECT_TRUE(box.sim().discovering());
    EXPECT_NO_LOG(box, DEBUG, "main", "Scanning off");
    box.remote().comeBack();

    EXPECT_LOG(box, INFO, "main", kFound);
    EXPECT_LOG(box, INFO, "main", kSuccess);
}

TEST_F(APairing, AcceptsARemoteThatComesJustAsTheLimitIsReached)
{
    scanInVain();
    // The handler holds the lock while it asks for the name. Meanwhile the limit passes, and the wait ends
    // with its slice, not with the signal.
    box.sim().bend(Bend::late("Get", 500ms).property("Name"));
    box.remote().comeBack();
    EXPECT_LOG(box, DEBUG, "main", "Device: + " + kRemote);
    box.clock().advance(60s);

    EXPECT_LOG(box, INFO, "main", kFound);
    EXPECT_LOG(box, INFO, "main", kSuccess);
    EXPECT_NO_LOG(box, WARN, "main", kNotFound);
}

TEST_F(APairing, WaitsForARemoteAlthoughTheAdapterRefusesToScan)
{
    box.sim().bend(Bend::error("StartDiscovery", "org.bluez.Error.InProgress", "scanning already"));
    request();
    EXPECT_LOG(box, ERROR, "Bluez", busError("org.bluez.Error.InProgress", "scanning already"));
    ASSERT_TRUE(box.awaitWaitAt("scanning"));
    box.sim().announce(box.remote().normal()); // somebody else's scan finds it

    EXPECT_LOG(box, INFO, "main", kFound);
    EXPECT_LOG(box, INFO, "main", kSuccess);
}

TEST_F(APairing, GoesOnAlthoughTheScanCantBeSwitchedOff)
{
    box.sim().bend(Bend::error("StopDiscovery", "org.bluez.Error.Failed", "no"));
    request();

    EXPECT_LOG(box, ERROR, "Bluez", busError("org.bluez.Error.Failed", "no"));
    EXPECT_LOG(box, ERROR, "main", "Switching scan off failed");
    EXPECT_LOG(box, INFO, "main", kSuccess);
}

TEST_F(APairing, EndsAtTheScanWithoutAnAdapter)
{
    box.sim().removeAdapter();
    ASSERT_LOG(box, DEBUG, "main", "Adapter: - /org/bluez/hci0");
    request();
    EXPECT_LOG(box, DEBUG, "main", "Scanning on");
    EXPECT_LOG(box, ERROR, "main", "Switching scan on failed");
    EXPECT_LOG(box, INFO, "main", kToIdle);

    EXPECT_NO_LOG(box, DEBUG, "main", "Scanning off");
    EXPECT_THAT(box.statusCourse(), ElementsAre("init", "no device")) << "never \"scanning\"";
}

TEST_F(APairing, EndsAtTheScansEndIfTheAdapterIsPulledOut)
{
    scanInVain();
    box.sim().removeAdapter();
    ASSERT_LOG(box, DEBUG, "main", "Adapter: - /org/bluez/hci0");
    box.clock().advance(60s);

    EXPECT_LOG(box, ERROR, "main", "Switching scan off failed");
    EXPECT_LOG(box, INFO, "main", kToIdle);
    EXPECT_TRUE(box.awaitStatus("no device"));
}

// --- the pairing call ---

TEST_F(APairing, PollsThirtyTimesForARemoteThatRefuses)
{
    box.remote().setPairing(Peripheral::Pairing::Refuses);
    hurryPolls();
    request();
    EXPECT_LOG(box, INFO, "main", kFound);
    EXPECT_LOG(box, ERROR, "main", kCallFailed);
    EXPECT_LOG(box, INFO, "main", kToIdle);

    EXPECT_EQ(box.busCalls({"Get"}).size(), 1U + 30U) << "the name and the polls";
    EXPECT_EQ(box.busCalls({"Pair"}).size(), 1U);
    EXPECT_THAT(box.statusCourse(), ElementsAre("init", "no device", "scanning"));
    ASSERT_TRUE(box.pass()); // the remote is known and not paired
    EXPECT_LOG(box, WARN, "main", "Removing failed to pair device");
    EXPECT_LOG(box, DEBUG, "main", "Device: - " + kRemote);
    ASSERT_TRUE(box.pass());
    EXPECT_TRUE(box.awaitStatus("no device"));
}

TEST_F(APairing, PausesHalfASecondBetweenItsPolls)
{
    box.remote().setPairing(Peripheral::Pairing::Silent);
    request();
    ASSERT_TRUE(box.sim().awaitCall(isPoll, 6, kPatience));

    std::vector<vexasim::Call> calls = box.sim().calls("Get", kRemote);
    calls.erase(std::remove_if(calls.begin(), calls.end(), std::not_fn(isPoll)), calls.end());
    EXPECT_THAT(Pacing(times(calls)).medianUs(), isAbout(500ms));
}

// The earlier polls pass at once. While the last one is unanswered, the wall clock is set right again.
TEST_F(APairing, PausesOnceMoreBehindItsLastPoll)
{
    constexpr auto kWhileHeld = 3s * kSlowness;
    const auto unpaired = [] { return g_variant_new("(v)", g_variant_new_boolean(FALSE)); };
    box.sim().bend(Bend::silence("Pair"));
    box.sim().bend(Bend::lateReply("Get", kWhileHeld).property("Paired"));
    box.sim().bend(Bend::answer("Get", unpaired()).property("Paired").times(29));
    hurryPolls();
    request();
    ASSERT_TRUE(box.sim().awaitCall(isPoll, 30, kPatience));
    box.clock().stepWallClock(1min);
    ASSERT_LOG(box, ERROR, "main", kCallFailed);

    const std::int64_t ended = arrivals(box, isLog(ERROR, "main", kCallFailed)).back();
    const std::vector<vexasim::Call> calls = box.sim().calls("Get", kRemote);
    EXPECT_THAT(ended - calls.back().timeUs - microseconds(kWhileHeld), isAbout(500ms));
}

TEST_F(APairing, FailsWhenTheRemoteIsRemovedInThePolls)
{
    box.remote().setPairing(Peripheral::Pairing::Silent);
    request();
    ASSERT_TRUE(box.sim().awaitCall("Pair", kRemote, 1, kPatience));
    box.sim().removePeripheral(box.remote().normal());

    EXPECT_LOG(box, ERROR, "main", kCallFailed);
    EXPECT_LOG(box, INFO, "main", kToIdle);
    ASSERT_TRUE(box.pass());
    EXPECT_TRUE(box.awaitStatus("no device"));
    EXPECT_THAT(box.statusCourse(), Not(Contains("pairing")));
    EXPECT_EQ(
        box.log().count(beginsLog(ERROR, "Bluez", "GDBus.Error:org.freedesktop.DBus.Error.UnknownObject")),
        1U);
}

TEST_F(APairing, FailsOnAPollThatIsAnsweredWithAnError)
{
    box.sim().bend(Bend::error("Get", "org.freedesktop.DBus.Error.Failed", "no").property("Paired"));
    request();

    EXPECT_LOG(box, ERROR, "Bluez", busError("org.freedesktop.DBus.Error.Failed", "no"));
    EXPECT_LOG(box, ERROR, "main", kCallFailed);
}

TEST_F(APairing, ReturnsWithABrokenHandleIfTheRemoteGoesBeforeTheCall)
{
    box.sim().bend(Bend::late("StopDiscovery", 2s * kSlowness));
    request();
    EXPECT_LOG(box, DEBUG, "main", "Scanning off");
    box.clock().hold(); // its next reading starts the pairing's ten seconds
    EXPECT_LOG(box, INFO, "main", kFound);
    ASSERT_TRUE(box.clock().awaitHeld());
    box.sim().removePeripheral(box.remote().normal());
    EXPECT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc");
    box.sim().clearCalls();
    box.clock().letGo();

    EXPECT_LOG(box, ERROR, "main", "Broken VEXA RC handle. Returning from pairing.");
    EXPECT_LOG(box, INFO, "main", kToIdle);
    EXPECT_EQ(box.statusCourse().back(), "scanning");
    EXPECT_THAT(box.busCalls(), Not(Contains(kPair)));
    ASSERT_TRUE(box.pass());
    EXPECT_TRUE(box.awaitStatus("no device"));
}

// --- the wait for the paired state ---

TEST_F(APairing, LooksForThePairingEveryTenthOfASecondAndGivesUpAfterTen)
{
    pairInVain();
    EXPECT_THAT(timeOfWaits(box, 20), isAbout(2s));
    box.clock().advance(9999999us);
    EXPECT_TRUE(box.program().awaitMainThreadOnNextCondition());
    EXPECT_NO_LOG(box, WARN, "main", kNotPaired);
    box.clock().advance(1us);

    EXPECT_LOG(box, WARN, "main", kNotPaired);
    EXPECT_LOG(box, INFO, "main", kToIdle);
    EXPECT_THAT(box.statusCourse(), ElementsAre("init", "no device", "scanning", "pairing"));
    EXPECT_LOG(box, WARN, "main", "Removing failed to pair device"); // that pass is due at once
}

TEST_F(APairing, CountsItsTenSecondsFromBeforeTheCall)
{
    box.sim().bend(
        Bend::answer("Get", g_variant_new("(v)", g_variant_new_boolean(FALSE))).property("Paired").times(2));
    box.sim().bend(Bend::silence("Pair"));
    request();
    ASSERT_TRUE(box.sim().awaitCall("Pair", kRemote, 1, kPatience));
    box.clock().advance(10s);
    claimPaired(box); // from now on the polls succeed, but no signal comes

    EXPECT_LOG(box, WARN, "main", kNotPaired); // at once: the clock stands still
}

TEST_F(APairing, IsntEndedByASignalThatSaysNotPaired)
{
    pairInVain();
    box.sim().setProperty(kRemote, kDeviceInterface, "Paired", g_variant_new_boolean(FALSE));
    EXPECT_LOG(box, DEBUG, "main", "Device " + kRemote + " unpaired");
    box.clock().advance(9s);
    EXPECT_TRUE(box.program().awaitMainThreadOnNextCondition());
    EXPECT_NO_LOG(box, INFO, "main", kToIdle);
    box.sim().setProperty(kRemote, kDeviceInterface, "Paired", g_variant_new_boolean(TRUE));

    EXPECT_LOG(box, INFO, "main", kSuccess);
}

TEST_F(APairing, ReportsABrokenHandleWhenTheRemoteIsRemovedMeanwhile)
{
    pairInVain();
    box.sim().removePeripheral(box.remote().normal());
    EXPECT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_rc");
    EXPECT_TRUE(box.program().awaitMainThreadOnNextCondition());
    EXPECT_NO_LOG(box, ERROR, "main", kBroken) << "nothing wakes the wait, only its limit";
    box.clock().advance(10s);

    EXPECT_LOG(box, ERROR, "main", kBroken);
    EXPECT_TRUE(box.awaitStatus("no device"));
}

// --- an interrupt on the way ---

TEST_F(APairing, SkipsTheScanWaitWhenItIsToldToStopBefore)
{
    box.remote().leave();
    box.sim().bend(Bend::late("StartDiscovery", 300ms));
    request();
    ASSERT_TRUE(box.sim().awaitCall("StartDiscovery", "", 1, kPatience));
    expectStopAtTheScan();
}

TEST_F(APairing, SwitchesTheScanOffWhenItIsToldToStopInIt)
{
    scanInVain();
    expectStopAtTheScan();
}

TEST_F(APairing, StillPairsARemoteThatItHasFoundWhenItIsToldToStop)
{
    claimPaired(box);
    box.sim().bend(Bend::late("StopDiscovery", 300ms));
    request();
    ASSERT_TRUE(box.sim().awaitCall("StopDiscovery", "", 1, kPatience));
    EXPECT_TRUE(box.stops());

    EXPECT_LOG(box, INFO, "main", kFound);
    EXPECT_LOG(box, WARN, "main", kNotPaired); // no wait at all: the clock stands still
    EXPECT_EQ(box.busCalls({"Pair"}).size(), 1U);
    EXPECT_THAT(box.statusCourse(), ElementsAre("init", "no device", "scanning", "pairing", kGone));
}

TEST_F(APairing, EndsItsLastWaitWhenItIsToldToStop)
{
    pairInVain();
    EXPECT_TRUE(box.stops());

    EXPECT_LOG(box, WARN, "main", kNotPaired);
}

} // namespace

} // namespace kit
