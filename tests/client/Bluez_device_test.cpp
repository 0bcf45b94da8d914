// SPDX-License-Identifier: MIT
#include "Bluez.h"

#include "tests/client/BluezTest.h"
#include "tests/client/GioSpy.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <ostream>

namespace
{

using namespace std::chrono_literals;

const std::string kUnknown = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_77";
constexpr std::size_t kPolls = 30;

class ADevice : public ABusWithBlueZ
{
protected:
    /// Starts the client with one device, and begins the record of calls anew.
    void startWith(const PropertyMap& properties = {})
    {
        addDevice(kDevice, properties);
        start();
        sim->clearCalls();
        log.clear();
    }
};

// --- What the proxy last saw ---

using GetText = bool (Bluez::*)(const std::string&, std::string&);

struct Word {
    const char* property;
    GetText get;
};
std::ostream& operator<<(std::ostream& out, const Word& word)
{
    return out << word.property;
}

class ATextOfADevice : public ADevice, public testing::WithParamInterface<Word>
{
protected:
    bool get(const std::string& path, std::string& value)
    {
        return (client.get()->*GetParam().get)(path, value);
    }
};

TEST_P(ATextOfADevice, IsReadFromTheCacheWithoutTraffic)
{
    startWith({{GetParam().property, text("VEXA")}});
    const OutgoingMessages outgoing(connection());
    std::string word = "a longer text than it is";

    EXPECT_TRUE(get(kDevice, word));

    EXPECT_EQ(word, "VEXA");
    settle();
    EXPECT_EQ(outgoing.count(), 0);
    EXPECT_TRUE(sim->calls().empty());
}

TEST_P(ATextOfADevice, FollowsItsChanges)
{
    startWith({{GetParam().property, text("old")}});

    sim->setProperty(kDevice, kDeviceInterface, GetParam().property, text("new"));
    settle();

    std::string word;
    EXPECT_TRUE(get(kDevice, word));
    EXPECT_EQ(word, "new");
}

TEST_P(ATextOfADevice, IsLeftAsItWasIfItCantBeHad)
{
    startWith({{GetParam().property, int16(7)}});
    std::string word = "before";

    EXPECT_FALSE(get(kDevice, word)) << "of a wrong type";
    sim->setProperty(kDevice, kDeviceInterface, "Icon", text("other"));
    EXPECT_FALSE(get(kUnknown, word));
    EXPECT_FALSE(get("", word));

    EXPECT_EQ(word, "before");
    EXPECT_EQ(client->getDevices(), (Lines{kDevice, kUnknown}));
    EXPECT_EQ(log.lines("EW"), Lines{});
}

TEST_P(ATextOfADevice, MayBeEmpty)
{
    startWith({{GetParam().property, text("")}});
    std::string word = "before";

    EXPECT_TRUE(get(kDevice, word));

    EXPECT_EQ(word, "");
}

INSTANTIATE_TEST_SUITE_P(Such, ATextOfADevice,
                         testing::Values(Word{"Address", &Bluez::deviceGetAddress},
                                         Word{"Alias", &Bluez::deviceGetAliasName}),
                         [](const auto& test) { return std::string("As") + test.param.property; });

TEST_F(ADevice, GivesItsStrengthFromTheCache)
{
    startWith({{"RSSI", int16(-71)}});
    const OutgoingMessages outgoing(connection());
    std::int16_t dBm = 0;

    EXPECT_TRUE(client->deviceGetRSSI(kDevice, dBm));

    EXPECT_EQ(dBm, -71);
    settle();
    EXPECT_EQ(outgoing.count(), 0);
}

TEST_F(ADevice, LeavesTheStrengthAsItWasWithoutOne)
{
    startWith({{"Alias", text("VEXA RC")}});
    std::int16_t dBm = 7;

    EXPECT_FALSE(client->deviceGetRSSI(kDevice, dBm));
    EXPECT_FALSE(client->deviceGetRSSI(kUnknown, dBm));
    EXPECT_FALSE(client->deviceGetRSSI("", dBm));

    EXPECT_EQ(dBm, 7);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(ADevice, LeavesTheStrengthAsItWasIfItsTypeIsWrong)
{
    startWith({{"RSSI", g_variant_new_int32(-71)}});
    std::int16_t dBm = 7;

    EXPECT_FALSE(client->deviceGetRSSI(kDevice, dBm));

    EXPECT_EQ(dBm, 7);
    expectFromGlib({});
}

TEST_F(ADevice, TellsWhetherItsServicesAreResolved)
{
    startWith({{"ServicesResolved", boolean(false)}});
    const OutgoingMessages outgoing(connection());
    EXPECT_FALSE(client->deviceIsServicesResolved(kDevice));

    sim->setProperty(kDevice, kDeviceInterface, "ServicesResolved", boolean(true));
    settle();

    EXPECT_TRUE(client->deviceIsServicesResolved(kDevice));
    EXPECT_EQ(outgoing.count(), 0);
}

TEST_F(ADevice, HasNoServicesResolvedIfThatCantBeHad)
{
    startWith({{"ServicesResolved", text("true")}});

    EXPECT_FALSE(client->deviceIsServicesResolved(kDevice)) << "of a wrong type";
    EXPECT_FALSE(client->deviceIsServicesResolved(kUnknown));
    EXPECT_FALSE(client->deviceIsServicesResolved(""));

    EXPECT_EQ(client->getDevices(), (Lines{kDevice, kUnknown}));
    EXPECT_EQ(log.lines("EW"), Lines{});
}

// --- Methods ---

struct Method {
    const char* name;
    bool (Bluez::*call)(const std::string&);
};
std::ostream& operator<<(std::ostream& out, const Method& method)
{
    return out << method.name;
}

class AMethodOfADevice : public ADevice, public testing::WithParamInterface<Method>
{
protected:
    bool call(const std::string& path) { return (client.get()->*GetParam().call)(path); }
};

TEST_P(AMethodOfADevice, IsCalledOnceOnItsInterface)
{
    startWith();
    sim->bend(Bend::answer(GetParam().name, nothing()));

    EXPECT_TRUE(call(kDevice));

    const auto calls = sim->calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].path, kDevice);
    EXPECT_EQ(calls[0].interface, kDeviceInterface);
    EXPECT_EQ(calls[0].member, GetParam().name);
    EXPECT_EQ(calls[0].parameters.text(), "()");
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_P(AMethodOfADevice, GoesThroughTheProxyWithTheLibrarysTimeout)
{
    startWith();
    sim->bend(Bend::answer(GetParam().name, nothing()));
    const GioSpy spy;

    call(kDevice);

    const auto calls = spy.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].function, "g_dbus_proxy_call_sync");
    EXPECT_EQ(calls[0].parameters, "null");
    EXPECT_EQ(calls[0].flags, 0);
    EXPECT_EQ(calls[0].timeoutMs, -1);
    EXPECT_FALSE(calls[0].cancellable);
    EXPECT_TRUE(calls[0].error);
}

TEST_P(AMethodOfADevice, LogsWhyItWasRefused)
{
    startWith();
    sim->bend(Bend::error(GetParam().name, "org.bluez.Error.Failed", "Operation %d failed"));

    EXPECT_FALSE(call(kDevice));

    EXPECT_EQ(log.lines(), Lines{"E GDBus.Error:org.bluez.Error.Failed: Operation %d failed"});
}

TEST_P(AMethodOfADevice, LogsThatItTimedOut)
{
    startWith();
    sim->bend(Bend::silence(GetParam().name));
    GioSpy spy;
    spy.setDefaultTimeout(50ms);

    EXPECT_FALSE(call(kDevice));

    EXPECT_EQ(log.lines(), Lines{"E Timeout was reached"});
}

TEST_P(AMethodOfADevice, IgnoresTheBodyOfItsReply)
{
    startWith();
    sim->bend(Bend::answer(GetParam().name, g_variant_new("(b)", FALSE)));

    EXPECT_TRUE(call(kDevice));

    EXPECT_EQ(log.lines(), Lines{});
}

TEST_P(AMethodOfADevice, IsRefusedForAnEmptyPathWithoutAnEntry)
{
    startWith();

    EXPECT_FALSE(call(""));

    EXPECT_EQ(client->getDevices(), Lines{kDevice});
    EXPECT_TRUE(sim->calls().empty());
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_P(AMethodOfADevice, IsRefusedForAnUnknownPathAndLeavesAnEntry)
{
    startWith();

    EXPECT_FALSE(call(kUnknown));

    EXPECT_EQ(client->getDevices(), (Lines{kDevice, kUnknown}));
    EXPECT_TRUE(sim->calls().empty());
    EXPECT_EQ(log.lines(), Lines{});
}

INSTANTIATE_TEST_SUITE_P(Such, AMethodOfADevice,
                         testing::Values(Method{"Connect", &Bluez::deviceConnect},
                                         Method{"Disconnect", &Bluez::deviceDisconnect}),
                         [](const auto& test) { return std::string("As") + test.param.name; });

// --- The live name ---

TEST_F(ADevice, GivesItsLiveNameAndItsCachedAlias)
{
    startWith({{"Name", text("old name")}, {"Alias", text("old alias")}});
    // Without a signal, so that the proxy doesn't notice.
    sim->setProperty(kDevice, kDeviceInterface, "Name", text("VEXA RC"), vexasim::Simulator::Emit::No);
    sim->setProperty(kDevice, kDeviceInterface, "Alias", text("new alias"), vexasim::Simulator::Emit::No);
    std::string name;
    std::string alias;

    EXPECT_TRUE(client->deviceGetName(kDevice, name));
    EXPECT_TRUE(client->deviceGetAliasName(kDevice, alias));

    EXPECT_EQ(name, "VEXA RC");
    EXPECT_EQ(alias, "old alias");
    const auto calls = sim->calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].path, kDevice);
    EXPECT_EQ(calls[0].interface, "org.freedesktop.DBus.Properties");
    EXPECT_EQ(calls[0].member, "Get");
    EXPECT_EQ(calls[0].parameters.text(), "('org.bluez.Device1', 'Name')");
}

TEST_F(ADevice, AsksForItsNameThroughTheConnectionWithTheLibrarysTimeout)
{
    startWith({{"Name", text("VEXA RC")}});
    const GioSpy spy;
    std::string name;

    client->deviceGetName(kDevice, name);

    const auto calls = spy.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].function, "g_dbus_connection_call_sync");
    EXPECT_EQ(calls[0].flags, 0);
    EXPECT_EQ(calls[0].timeoutMs, -1);
    EXPECT_FALSE(calls[0].cancellable);
    EXPECT_FALSE(calls[0].error) << "a failure is silent";
}

TEST_F(ADevice, IsSilentWithoutAName)
{
    startWith({{"Alias", text("VEXA RC")}});
    std::string name = "before";

    EXPECT_FALSE(client->deviceGetName(kDevice, name)) << "there is none";
    EXPECT_FALSE(client->deviceGetName(kUnknown, name)) << "there is no device";
    EXPECT_FALSE(client->deviceGetName("", name));

    EXPECT_EQ(name, "before");
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(client->getDevices(), Lines{kDevice}) << "no proxy is looked up";
    EXPECT_EQ(sim->calls("Get").size(), 2U);
}

TEST_F(ADevice, HasNoNameIfTheAnswerIsOfAWrongType)
{
    startWith();
    std::string name = "before";
    for (const char* answer : {"(<7>,)", "('VEXA RC',)", "()", "(<'a'>, <'b'>)", "(<<'VEXA RC'>>,)"}) {
        const vexasim::BendId bend = sim->bend(Bend::answer("Get", Variant::parse(answer)));
        EXPECT_FALSE(client->deviceGetName(kDevice, name)) << answer;
        sim->unbend(bend);
    }
    EXPECT_EQ(name, "before");
    EXPECT_EQ(log.lines(), Lines{});
    expectFromGlib({});
}

// --- Trust ---

TEST_F(ADevice, KeepsTheTrustThatIsSetToItself)
{
    startWith({{"Trusted", boolean(false)}});
    const OutgoingMessages outgoing(connection());
    bool trusted = false;

    EXPECT_TRUE(client->deviceSetTrusted(kDevice, true));
    EXPECT_TRUE(client->deviceGetTrusted(kDevice, trusted));

    EXPECT_TRUE(trusted);
    settle();
    EXPECT_EQ(outgoing.count(), 0);
    EXPECT_EQ(sim->property(kDevice, kDeviceInterface, "Trusted").text(), "false")
        << "BlueZ hasn't heard of it";
    EXPECT_TRUE(client->deviceSetTrusted(kDevice, false));
    EXPECT_TRUE(client->deviceGetTrusted(kDevice, trusted));
    EXPECT_FALSE(trusted);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(ADevice, CanBeTrustedWithoutATrustOfItsOwn)
{
    startWith({{"Alias", text("VEXA RC")}});
    bool trusted = false;

    EXPECT_TRUE(client->deviceSetTrusted(kDevice, true));

    EXPECT_TRUE(client->deviceGetTrusted(kDevice, trusted));
    EXPECT_TRUE(trusted);
}

TEST_F(ADevice, CantBeTrustedIfNobodyKnowsIt)
{
    startWith();

    EXPECT_FALSE(client->deviceSetTrusted(kUnknown, true));
    EXPECT_FALSE(client->deviceSetTrusted("", true));

    EXPECT_EQ(client->getDevices(), (Lines{kDevice, kUnknown}));
    EXPECT_EQ(log.lines(), Lines{});
}

// --- Pairing ---

TEST_F(ADevice, ThatIsPairedAlreadyIsDoneAtTheFirstPollWhileThePairCallStillRuns)
{
    startWith({{"Paired", boolean(true)}});
    sim->bend(Bend::silence("Pair"));

    EXPECT_TRUE(client->devicePair(kDevice));

    ASSERT_TRUE(sim->awaitCall("Pair"));
    const auto calls = sim->calls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].member, "Pair");
    EXPECT_EQ(calls[0].path, kDevice);
    EXPECT_EQ(calls[0].interface, kDeviceInterface);
    EXPECT_EQ(calls[0].parameters.text(), "()");
    EXPECT_EQ(calls[1].member, "Get");
    EXPECT_EQ(calls[1].path, kDevice);
    EXPECT_EQ(calls[1].interface, "org.freedesktop.DBus.Properties");
    EXPECT_EQ(calls[1].parameters.text(), "('org.bluez.Device1', 'Paired')");
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(ADevice, IsPairedWithAnAsynchronousCallAndPolledWithTheLibrarysTimeout)
{
    startWith({{"Paired", boolean(true)}});
    const GioSpy spy;

    EXPECT_TRUE(client->devicePair(kDevice));

    const auto calls = spy.calls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].function, "g_dbus_proxy_call");
    EXPECT_EQ(calls[0].method, "Pair");
    EXPECT_EQ(calls[0].parameters, "null");
    EXPECT_EQ(calls[0].flags, 0);
    EXPECT_EQ(calls[0].timeoutMs, 5000);
    EXPECT_FALSE(calls[0].cancellable);
    EXPECT_EQ(calls[1].function, "g_dbus_connection_call_sync");
    EXPECT_EQ(calls[1].method, "Get");
    EXPECT_EQ(calls[1].flags, 0);
    EXPECT_EQ(calls[1].timeoutMs, -1);
    EXPECT_FALSE(calls[1].cancellable);
    EXPECT_TRUE(calls[1].error);
}

TEST_F(ADevice, IsPolledForItsLivePairedAndNotForTheProxys)
{
    startWith({{"Paired", boolean(false)}});
    sim->bend(Bend::answer("Pair", nothing()));
    std::future<bool> pairing = std::async(std::launch::async, [&] { return client->devicePair(kDevice); });
    ASSERT_TRUE(sim->awaitCall("Get", kDevice, 2));

    sim->setProperty(kDevice, kDeviceInterface, "Paired", boolean(true), vexasim::Simulator::Emit::No);

    EXPECT_TRUE(pairing.get());
    EXPECT_EQ(sim->calls("Pair").size(), 1U);
    EXPECT_LT(sim->calls("Get").size(), kPolls);
    EXPECT_EQ(log.lines(), Lines{});
}

// This takes the 15 seconds that it says.
TEST_F(ADevice, ThatRefusesToPairIsPolledToTheEnd)
{
    startWith({{"Paired", boolean(false)}});
    sim->bend(Bend::error("Pair", "org.bluez.Error.AuthenticationFailed"));
    const auto begin = std::chrono::steady_clock::now();

    EXPECT_FALSE(client->devicePair(kDevice));

    EXPECT_GE(std::chrono::steady_clock::now() - begin, 14s);
    EXPECT_EQ(sim->calls("Pair").size(), 1U);
    EXPECT_EQ(sim->calls("Get").size(), kPolls);
    EXPECT_EQ(log.lines(), Lines{}) << "the answer to Pair is dropped unread";
}

TEST_F(ADevice, IsGivenUpAtOnceWhenItGoesAwayDuringThePairing)
{
    startWith({{"Paired", boolean(false)}});
    sim->bend(Bend::silence("Pair"));
    std::future<bool> pairing = std::async(std::launch::async, [&] { return client->devicePair(kDevice); });
    ASSERT_TRUE(sim->awaitCall("Get", kDevice, 2));

    sim->removeObject(kDevice);

    EXPECT_FALSE(pairing.get());
    EXPECT_LT(sim->calls("Get").size(), kPolls);
    const Lines errors = log.lines("E");
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0].rfind("E GDBus.Error:org.freedesktop.DBus.Error.Unknown", 0), 0U) << errors[0];
}

TEST_F(ADevice, IsGivenUpAtOnceWhenThePollIsRefused)
{
    startWith({{"Paired", boolean(false)}});
    sim->bend(Bend::error("Get", "org.bluez.Error.NotReady", "not now"));

    EXPECT_FALSE(client->devicePair(kDevice));

    EXPECT_EQ(sim->calls("Get").size(), 1U);
    EXPECT_EQ(log.lines(), Lines{"E GDBus.Error:org.bluez.Error.NotReady: not now"});
}

TEST_F(ADevice, IsGivenUpAtOnceWhenThePollTimesOut)
{
    startWith({{"Paired", boolean(false)}});
    sim->bend(Bend::silence("Get"));
    GioSpy spy;
    spy.setDefaultTimeout(50ms);

    EXPECT_FALSE(client->devicePair(kDevice));

    EXPECT_EQ(log.lines(), Lines{"E Timeout was reached"});
}

TEST_F(ADevice, IsGivenUpAtOnceWhenThePollGivesNoProperty)
{
    startWith();
    for (const char* answer : {"(true,)", "()", "(<true>, <true>)"}) {
        const vexasim::BendId bend = sim->bend(Bend::answer("Get", Variant::parse(answer)));
        EXPECT_FALSE(client->devicePair(kDevice)) << answer;
        sim->unbend(bend);
    }
    EXPECT_EQ(sim->calls("Get").size(), 3U);
    EXPECT_EQ(log.lines(), Lines{});
    expectFromGlib({});
}

TEST_F(ADevice, IsGivenUpAtOnceWhenPairedIsOfAWrongType)
{
    startWith({{"Paired", text("yes")}});

    EXPECT_FALSE(client->devicePair(kDevice));

    EXPECT_EQ(sim->calls("Get").size(), 1U);
    EXPECT_EQ(log.lines(), Lines{std::string("E Paired of ") + kDevice + ": unexpected type s"});
    expectFromGlib({});
}

TEST_F(ADevice, CantBePairedIfNobodyKnowsIt)
{
    startWith();

    EXPECT_FALSE(client->devicePair(kUnknown));
    EXPECT_FALSE(client->devicePair(""));

    EXPECT_EQ(client->getDevices(), (Lines{kDevice, kUnknown}));
    EXPECT_TRUE(sim->calls().empty());
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(ADevice, IsPolledWithoutPauseOnceTheThreadIsStopped)
{
    startWith({{"Paired", boolean(false)}});
    sim->bend(Bend::answer("Pair", nothing()));
    std::future<bool> pairing = std::async(std::launch::async, [&] { return client->devicePair(kDevice); });
    ASSERT_TRUE(sim->awaitCall("Get", kDevice, 2));
    const auto begin = std::chrono::steady_clock::now();

    // The thread ends as the destructor ends it, but the client stays for the call that is under way.
    g_object_ref(inside::of<inside::Cancellable>(*client)); // what the thread gives back is read once more
    onEventThread([&] { quit_task(inside::of<inside::Loop>(*client)); });
    client->stopThread();

    EXPECT_FALSE(pairing.get());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
    EXPECT_EQ(sim->calls("Get").size(), kPolls);
}

// --- With a remote that behaves as a real one ---

class ARealRemote : public ABusWithBlueZ
{
protected:
    ARealRemote() : ABusWithBlueZ(vexasim::SimulatorOptions{})
    {
        sim->announce(sim->remote().normal());
        start();
    }

    const std::string path = sim->remotePath();
};

TEST_F(ARealRemote, IsPairedAndConnectedAndResolved)
{
    EXPECT_TRUE(client->devicePair(path));

    ASSERT_TRUE(listener.await("onDevicePairedStatusChanged " + path + " true"));
    if (!sim->property(path, kDeviceInterface, "ServicesResolved") ||
        sim->property(path, kDeviceInterface, "ServicesResolved").text() != "true") {
        EXPECT_TRUE(client->deviceConnect(path));
    }
    ASSERT_TRUE(listener.await("onDeviceServicesResolvedStatusChanged " + path + " true"));
    // With a new bond BlueZ tells the services behind that.
    ASSERT_TRUE(listener.await("onCharacteristicAdded " + path + "/service0020/char0023"));
    bool connected = false;
    EXPECT_TRUE(client->deviceGetConnected(path, connected));
    EXPECT_TRUE(connected);
    EXPECT_TRUE(client->deviceIsServicesResolved(path));
    EXPECT_EQ(client->getServices(path, Bluez::Service::Type::Battery).size(), 1U);
    EXPECT_EQ(client->getServices(path, Bluez::Service::Type::OtaNormal).size(), 1U);

    EXPECT_TRUE(client->deviceDisconnect(path));
    EXPECT_TRUE(listener.await("onDeviceConnectionStatusChanged " + path + " false"));
}

TEST_F(ARealRemote, IsToldTopDownWhenItsServicesAppear)
{
    listener.clear();
    ASSERT_TRUE(client->deviceConnect(path));
    ASSERT_TRUE(listener.await("onDeviceServicesResolvedStatusChanged " + path + " true"));

    const Lines events = listener.events();
    const auto place = [&](const std::string& event) {
        return std::find(events.begin(), events.end(), event) - events.begin();
    };
    const std::string service = sim->pathOf(*sim->remote().normal(), vexasim::uuid::kBatteryService);
    const std::string level = sim->pathOf(*sim->remote().normal(), vexasim::uuid::kBatteryLevel);
    ASSERT_LT(place("onServiceAdded " + service), static_cast<std::ptrdiff_t>(events.size()));
    EXPECT_LT(place("onServiceAdded " + service), place("onCharacteristicAdded " + level));
    const auto services = client->getServices(path, Bluez::Service::Type::Battery);
    ASSERT_EQ(services.size(), 1U);
    EXPECT_EQ(services[0].characteristics.count(level), 1U);
}

TEST_F(ARealRemote, ThatIsOutOfRangeCantBeConnected)
{
    sim->remote().leave();

    EXPECT_FALSE(client->deviceConnect(path));

    EXPECT_EQ(log.lines("E").size(), 1U);
}

} // namespace
