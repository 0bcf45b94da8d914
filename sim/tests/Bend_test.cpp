// SPDX-License-Identifier: MIT
// The simulated BlueZ with every kind of bend that a client's tests need.
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

#include "sim/bluez/Simulator.h"
#include "tests/kit/Bus.h"

using testing::ElementsAre;
using testing::HasSubstr;
using vexasim::Bend;
using vexasim::Call;
using vexasim::Simulator;
using vexasim::Variant;

namespace
{
constexpr const char* kAdapter = "/org/bluez/hci0";
constexpr const char* kDevice = "/org/bluez/hci0/dev_C0_FF_EE_00_00_01";
constexpr const char* kStart = "org.bluez.Adapter1.StartDiscovery";
constexpr const char* kStop = "org.bluez.Adapter1.StopDiscovery";
constexpr std::chrono::milliseconds kShort{150};

Variant text(const char* value)
{
    return {g_variant_new_string(value)};
}
} // namespace

class ABentBlueZ : public testing::Test
{
protected:
    Simulator sim;
    kit::BusClient client{sim.busAddress()};
};

// --- methods ---

TEST_F(ABentBlueZ, AnswersWithAnErrorAsOftenAsAsked)
{
    sim.bend(Bend::error("StartDiscovery", "org.bluez.Error.NotReady", "not today").times(2));
    EXPECT_EQ(client.call(kAdapter, kStart).error, "org.bluez.Error.NotReady");
    EXPECT_EQ(client.call(kAdapter, kStart).message, "not today");
    EXPECT_EQ(client.call(kAdapter, kStart).error, "");
}

TEST_F(ABentBlueZ, AnswersWithAWrongType)
{
    sim.bend(Bend::answer("StartDiscovery", g_variant_new("(si)", "surprise", 7)));
    EXPECT_EQ(kit::textOf(client.call(kAdapter, kStart).reply), "('surprise', 7)");
}

TEST_F(ABentBlueZ, NeverAnswers)
{
    sim.bend(Bend::silence("StartDiscovery"));
    EXPECT_EQ(client.call(kAdapter, kStart, {}, std::chrono::milliseconds{100}).error, "local");
    EXPECT_FALSE(sim.discovering());
}

TEST_F(ABentBlueZ, DoesAndAnswersLate)
{
    sim.bend(Bend::late("StartDiscovery", kShort));
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(client.call(kAdapter, kStart).error, "");
    EXPECT_GE(std::chrono::steady_clock::now() - before, kShort);
    EXPECT_TRUE(sim.discovering());
}

TEST_F(ABentBlueZ, DoesAtOnceButAnswersLate)
{
    sim.bend(Bend::lateReply("StartDiscovery", kShort));
    auto start = std::async(std::launch::async, [this] { return client.call(kAdapter, kStart).error; });
    ASSERT_TRUE(sim.awaitCall("StartDiscovery"));
    EXPECT_TRUE(sim.discovering());
    EXPECT_EQ(start.wait_for(std::chrono::seconds{0}), std::future_status::timeout);
    EXPECT_EQ(start.get(), "");
}

// The remote has its own delay here, which must not replace the bend's.
TEST_F(ABentBlueZ, AnswersLateThatNotificationsAreOnOrOff)
{
    ASSERT_EQ(client.call(kAdapter, kStart).error, "");
    ASSERT_TRUE(client.await("/", "InterfacesAdded", kDevice));
    ASSERT_EQ(client.call(kDevice, "org.bluez.Device1.Pair").error, "");
    const std::string battery = sim.pathOf(*sim.remote().normal(), vexasim::uuid::kBatteryLevel);
    for (const char* member : {"StartNotify", "StopNotify"}) {
        SCOPED_TRACE(member);
        sim.bend(Bend::lateReply(member, kShort));
        const auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(client.call(battery, std::string("org.bluez.GattCharacteristic1.") + member).error, "");
        EXPECT_GE(std::chrono::steady_clock::now() - before, kShort);
    }
}

TEST_F(ABentBlueZ, BendsOneObjectAndInterfaceOnly)
{
    sim.addAdapter({"hci1", "00:1A:7D:DA:71:14", true});
    sim.bend(Bend::error("StartDiscovery", "org.bluez.Error.Failed").on("/org/bluez/hci1"));
    sim.bend(Bend::error("", "org.bluez.Error.Failed").of("org.bluez.Device1"));
    EXPECT_EQ(client.call(kAdapter, kStart).error, "");
    EXPECT_EQ(client.call("/org/bluez/hci1", kStart).error, "org.bluez.Error.Failed");
}

TEST_F(ABentBlueZ, BendsOnePropertyOnly)
{
    sim.bend(Bend::error("Get", "org.freedesktop.DBus.Error.Failed").property("Address"));
    EXPECT_EQ(client.get(kAdapter, "org.bluez.Adapter1", "Address"), "[org.freedesktop.DBus.Error.Failed]");
    EXPECT_EQ(client.get(kAdapter, "org.bluez.Adapter1", "Powered"), "(<true>,)");
}

TEST_F(ABentBlueZ, LetsTheNewestBendRuleAndStraightens)
{
    const auto older = sim.bend(Bend::error("StartDiscovery", "org.bluez.Error.Failed"));
    const auto newer = sim.bend(Bend::error("StartDiscovery", "org.bluez.Error.NotReady"));
    EXPECT_EQ(client.call(kAdapter, kStart).error, "org.bluez.Error.NotReady");
    sim.unbend(newer);
    EXPECT_EQ(client.call(kAdapter, kStart).error, "org.bluez.Error.Failed");
    sim.unbend(older);
    EXPECT_EQ(client.call(kAdapter, kStart).error, "");
    sim.bend(Bend::error("StopDiscovery", "org.bluez.Error.Failed"));
    sim.clearBends();
    EXPECT_EQ(client.call(kAdapter, kStop).error, "");
}

// --- objects and signals ---

TEST_F(ABentBlueZ, ShowsAnyObjectAtAnyPath)
{
    sim.addObject("/odd/place", {{"org.bluez.Device1", {{"Name", text("VEXA odd")}}}});
    EXPECT_TRUE(client.await("/", "InterfacesAdded", "VEXA odd"));
    EXPECT_EQ(client.get("/odd/place", "org.bluez.Device1", "Name"), "(<'VEXA odd'>,)");
    EXPECT_EQ(client.call("/odd/place", "org.bluez.Device1.Pair").error, "org.bluez.Error.NotAvailable");
    sim.removeObject("/odd/place");
    EXPECT_TRUE(client.await("/", "InterfacesRemoved", "/odd/place"));
}

TEST_F(ABentBlueZ, AnnouncesAChildBeforeItsParent)
{
    sim.addObjects({{"/org/bluez/hci9/dev_A", {{"org.bluez.Device1", {}}}},
                    {"/org/bluez/hci9", {{"org.bluez.Adapter1", {}}}}});
    ASSERT_TRUE(client.await("/", "InterfacesAdded", "'/org/bluez/hci9'"));
    EXPECT_THAT(client.story(),
                ElementsAre("InterfacesAdded /org/bluez/hci9/dev_A", "InterfacesAdded /org/bluez/hci9"));
}

TEST_F(ABentBlueZ, AnnouncesGattChildrenFirst)
{
    sim.setChildrenFirst(true);
    ASSERT_EQ(client.call(kAdapter, kStart).error, "");
    ASSERT_TRUE(client.await("/", "InterfacesAdded", kDevice));
    client.clearSignals();
    ASSERT_EQ(client.call(kDevice, "org.bluez.Device1.Pair").error, "");
    std::vector<std::string> added;
    for (const std::string& line : client.story()) {
        if (line.rfind("InterfacesAdded", 0) == 0 && line.find("/service") != std::string::npos) {
            added.push_back(line.substr(line.rfind('/') + 1));
        }
    }
    EXPECT_THAT(added,
                ElementsAre("char0023", "char0021", "service0020", "desc0013", "char0011", "service0010"));
}

TEST_F(ABentBlueZ, HidesARemoval)
{
    sim.addObject("/org/bluez/hci9", {{"org.bluez.Adapter1", {}}});
    sim.removeObject("/org/bluez/hci9", false);
    sim.emitSignal("/end", "a.b", "C", g_variant_new("()"));
    ASSERT_TRUE(client.await("/end", "C", ""));
    EXPECT_THAT(client.story(), testing::Not(testing::Contains(HasSubstr("InterfacesRemoved"))));
    EXPECT_EQ(client.get("/org/bluez/hci9", "org.bluez.Adapter1", "Powered"),
              "[org.freedesktop.DBus.Error.UnknownObject]");
}

TEST_F(ABentBlueZ, TakesOneInterfaceOff)
{
    sim.addObject("/org/bluez/hci9", {{"org.bluez.Adapter1", {}}, {"org.bluez.Other1", {}}});
    sim.removeInterface("/org/bluez/hci9", "org.bluez.Adapter1");
    EXPECT_TRUE(client.await("/", "InterfacesRemoved", "('/org/bluez/hci9', ['org.bluez.Adapter1'])"));
    EXPECT_THAT(sim.objects(), testing::Contains("/org/bluez/hci9"));
    sim.removeInterface("/org/bluez/hci9", "org.bluez.Other1");
    EXPECT_THAT(sim.objects(), testing::Not(testing::Contains("/org/bluez/hci9")));
}

TEST_F(ABentBlueZ, GivesAPropertyAnotherTypeWithOrWithoutSaying)
{
    sim.setProperty(kAdapter, "org.bluez.Adapter1", "Powered", text("maybe"), Simulator::Emit::No);
    EXPECT_EQ(client.get(kAdapter, "org.bluez.Adapter1", "Powered"), "(<'maybe'>,)");
    EXPECT_TRUE(client.signals().empty());
    sim.setProperty(kAdapter, "org.bluez.Adapter1", "Powered", text("surely"));
    EXPECT_TRUE(client.await(kAdapter, "PropertiesChanged", "'Powered': <'surely'>"));
    EXPECT_EQ(client.call(kAdapter, kStart).error, "");
    EXPECT_THROW(sim.setProperty("/no/such", "org.bluez.Adapter1", "Powered", text("")),
                 std::invalid_argument);
}

TEST_F(ABentBlueZ, EmitsEmptyAndSenselessChanges)
{
    sim.emitPropertiesChanged(kAdapter, "org.bluez.Adapter1", {});
    EXPECT_TRUE(client.await(kAdapter, "PropertiesChanged", "('org.bluez.Adapter1', {}, [])"));
    sim.emitSignal(kAdapter, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                   g_variant_new("(u)", 3U));
    EXPECT_TRUE(client.await(kAdapter, "PropertiesChanged", "(3,)"));
}

TEST_F(ABentBlueZ, LetsItsNameGoAndTakesItAgain)
{
    sim.releaseName();
    EXPECT_EQ(client.call(kAdapter, kStart).error, "org.freedesktop.DBus.Error.ServiceUnknown");
    sim.takeName();
    EXPECT_EQ(client.call(kAdapter, kStart).error, "");
}

TEST_F(ABentBlueZ, AnnouncesADeviceThatNobodyLooksFor)
{
    EXPECT_EQ(sim.announce(sim.remote().update()), sim.updateDevicePath());
    EXPECT_TRUE(client.await("/", "InterfacesAdded", "BeeTgt"));
}

TEST_F(ABentBlueZ, HasRoomForOtherDevices)
{
    vexasim::PeripheralOptions options;
    options.address = "AA:BB:CC:DD:EE:FF";
    options.name = "headset";
    const auto headset = std::make_shared<vexasim::Peripheral>(options);
    sim.addPeripheral(headset);
    ASSERT_EQ(client.call(kAdapter, kStart).error, "");
    EXPECT_TRUE(client.await("/", "InterfacesAdded", "headset"));
    sim.removePeripheral(headset);
    EXPECT_TRUE(client.await("/", "InterfacesRemoved", "AA_BB_CC_DD_EE_FF"));
}

// --- recorded calls ---

TEST_F(ABentBlueZ, RecordsEveryCall)
{
    sim.clearCalls();
    client.call(kAdapter, "org.bluez.Adapter1.RemoveDevice", g_variant_new("(o)", "/x"));
    const std::vector<Call> calls = sim.calls("RemoveDevice", kAdapter);
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].text(), "/org/bluez/hci0 org.bluez.Adapter1.RemoveDevice (objectpath '/x',)");
    EXPECT_EQ(calls[0].sender, client.uniqueName());
    EXPECT_GT(calls[0].timeUs, 0);
    sim.clearCalls();
    EXPECT_TRUE(sim.calls().empty());
}

TEST_F(ABentBlueZ, AwaitsCallsToAGivenNumberAndLimit)
{
    EXPECT_FALSE(sim.awaitCall("StartDiscovery", "", 1, std::chrono::milliseconds{20}));
    client.call(kAdapter, kStart);
    EXPECT_TRUE(sim.awaitCall("StartDiscovery", kAdapter));
    EXPECT_FALSE(sim.awaitCall("StartDiscovery", "", 2, std::chrono::milliseconds{20}));
    EXPECT_TRUE(sim.awaitCall([](const Call& call) { return call.interface == "org.bluez.Adapter1"; }));
}

TEST(ASimulator, LeavesTheDefaultContextAlone)
{
    // Drains what the clients of earlier tests left there.
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
    Simulator sim;
    sim.announce(sim.remote().normal());
    sim.stopService(Simulator::Stop::Terminate);
    sim.startService();
    sim.stopService(Simulator::Stop::Kill);
    EXPECT_EQ(g_main_context_pending(nullptr), FALSE);
}
